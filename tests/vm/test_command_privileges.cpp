// The built daemon run as the service unit runs it, on a real kernel with real permissions: an
// ordinary account that holds the input group (the evdev nodes are root:input 0660) and,
// ambient, CAP_SETGID. The commands of its key file hold neither: they cannot open a keyboard's
// node nor take the daemon's descriptors, while the daemon goes on reading that keyboard.
#include "DaemonRunner.h"
#include "TestFiles.h"
#include "UinputDevice.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <linux/input-event-codes.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <memory>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {
constexpr uid_t serviceUid = 65534;
constexpr int commandTimeoutMs = 60000;
const char probeOption[] = "--probe";
const char runIsolated[] = SELVANE_RUN_ISOLATED;

// A bus that every account may join: the test (root) and the daemon (the service account).
const char busConfig[] = "<busconfig>\n"
                         "  <type>session</type>\n"
                         "  <listen>unix:tmpdir=/tmp</listen>\n"
                         "  <auth>EXTERNAL</auth>\n"
                         "  <policy context=\"default\">\n"
                         "    <allow user=\"*\"/>\n"
                         "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                         "    <allow eavesdrop=\"true\"/>\n"
                         "    <allow own=\"*\"/>\n"
                         "  </policy>\n"
                         "</busconfig>\n";

// What a command holds and reaches, printed by this program when a command runs it with
// --probe DAEMON_PID NODE: its groups and capability sets, the outcome of opening the node and
// of taking the daemon's descriptors 0 to 63 (each distinct outcome once).
int probe(pid_t daemon, const char* node)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) {
        return 1;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("Groups:") || line.startsWith("CapInh:") ||
            line.startsWith("CapPrm:") || line.startsWith("CapEff:") ||
            line.startsWith("CapAmb:")) {
            std::printf("%s\n", line.simplified().constData());
        }
    }
    const int device = open(node, O_RDONLY | O_CLOEXEC);
    std::printf("open: %s\n", device >= 0 ? "ok" : std::strerror(errno));
    const int process = static_cast<int>(syscall(SYS_pidfd_open, daemon, 0));
    if (process < 0) {
        std::printf("pidfd_open: %s\n", std::strerror(errno));
        return 0;
    }
    std::set<std::string> outcomes;
    for (int fd = 0; fd < 64; ++fd) {
        const long taken = syscall(SYS_pidfd_getfd, process, fd, 0);
        outcomes.insert(taken >= 0 ? "ok" : std::strerror(errno));
    }
    std::string joined;
    for (const std::string& outcome : outcomes) {
        joined += (joined.empty() ? "" : ", ") + outcome;
    }
    std::printf("getfd: %s\n", joined.c_str());
    return 0;
}

void pause(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

QByteArray capabilityLines(const QByteArray& status)
{
    QByteArray result;
    for (const QByteArray& line : status.split('\n')) {
        if (line.startsWith("CapInh:") || line.startsWith("CapPrm:") ||
            line.startsWith("CapEff:") || line.startsWith("CapAmb:")) {
            result += line.simplified() + '\n';
        }
    }
    return result;
}

const QByteArray noCapabilities = "CapInh: 0000000000000000\nCapPrm: 0000000000000000\n"
                                  "CapEff: 0000000000000000\nCapAmb: 0000000000000000\n";
} // namespace

class CommandPrivilegesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void cleanup();

    void commandsHoldNeitherTheInputGroupNorAnyCapability();
    void withoutSetgidCommandsKeepTheGroupsAfterAWarning();

private:
    // Starts the daemon as the service account with the input group and, with setgid,
    // CAP_SETGID ambient; its commands write to a directory named `name`. The daemon's pid, 0
    // when it did not start.
    pid_t startDaemon(const QString& name, bool setgid);
    struct ServiceRun
    {
        int status = -1;
        QByteArray output;
    };
    // Runs the daemon's program with the arguments as the service account, with the input
    // group and, with setgid, CAP_SETGID ambient, in the private mount namespace whose run
    // and log directories are those under `base`.
    ServiceRun runAsServiceAccount(const QString& base, bool setgid,
                                   const QStringList& daemonArguments) const;
    bool typeCombination();
    QString daemonLog() const;
    int logCount(const QRegularExpression& pattern) const;

    QTemporaryDir dir;
    QProcess bus;
    QString busAddress;
    gid_t inputGroup = 0;
    std::unique_ptr<UinputDevice> keyboard;
    pid_t daemon = 0;
    QString outDir;
};

void CommandPrivilegesTest::initTestCase()
{
    QVERIFY(DaemonRunner::becomeSubreaper());
    const group* input = getgrnam("input");
    QVERIFY2(input, "this system has no group input");
    inputGroup = input->gr_gid;
    QVERIFY(dir.isValid());
    QCOMPARE(chmod(QFile::encodeName(dir.path()).constData(), 0755), 0);

    QVERIFY(writeFile(dir.filePath("bus.conf"), busConfig));
    bus.setProgram(QStringLiteral("dbus-daemon"));
    bus.setArguments(
        {"--config-file=" + dir.filePath("bus.conf"), "--nofork", "--print-address=1"});
    bus.start();
    QVERIFY(bus.waitForStarted());
    QVERIFY(DaemonRunner::waitUntil([this] { return bus.canReadLine(); }));
    busAddress = QString::fromLocal8Bit(bus.readLine().trimmed());

    // As udev would leave it: the node belongs to root and the group input.
    keyboard = std::make_unique<UinputDevice>(DeviceDescription::keyboard());
    QVERIFY2(keyboard->isValid(), qPrintable(keyboard->errorString()));
    const QByteArray node = QFile::encodeName(keyboard->devicePath());
    QCOMPARE(chown(node.constData(), 0, inputGroup), 0);
    QCOMPARE(chmod(node.constData(), 0660), 0);
}

void CommandPrivilegesTest::cleanupTestCase()
{
    keyboard.reset();
    bus.terminate();
    bus.waitForFinished();
}

void CommandPrivilegesTest::cleanup()
{
    if (daemon > 0) {
        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        daemon = 0;
    }
}

CommandPrivilegesTest::ServiceRun
CommandPrivilegesTest::runAsServiceAccount(const QString& base, bool setgid,
                                           const QStringList& daemonArguments) const
{
    QStringList arguments{"--run-dir",
                          base + "/run",
                          "--log-dir",
                          base + "/log",
                          "--",
                          "setpriv",
                          QStringLiteral("--reuid=%1").arg(serviceUid),
                          QStringLiteral("--regid=%1").arg(serviceUid),
                          QStringLiteral("--groups=%1").arg(inputGroup)};
    if (setgid) {
        arguments << "--inh-caps=+setgid"
                  << "--ambient-caps=+setgid";
    }
    arguments << "--" << DaemonRunner::builtExecutable() << daemonArguments;
    QProcess program;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DBUS_SESSION_BUS_ADDRESS", busAddress);
    environment.insert("HOME", base);
    environment.remove("XDG_RUNTIME_DIR");
    program.setProcessEnvironment(environment);
    program.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    program.start(QString::fromLatin1(runIsolated), arguments);
    ServiceRun result;
    if (program.waitForFinished(DaemonRunner::defaultTimeoutMs) &&
        program.exitStatus() == QProcess::NormalExit) {
        result.status = program.exitCode();
    }
    result.output = program.readAllStandardOutput();
    return result;
}

pid_t CommandPrivilegesTest::startDaemon(const QString& name, bool setgid)
{
    const QString base = dir.filePath(name);
    outDir = base + "/out";
    for (const QString& sub :
         {QStringLiteral("run"), QStringLiteral("log"), QStringLiteral("out")}) {
        QDir().mkpath(base + '/' + sub);
        if (chown(QFile::encodeName(base + '/' + sub).constData(), serviceUid, serviceUid) != 0) {
            return 0;
        }
    }
    const QString config = base + "/keys.conf";
    // The command lives in a script: a key line is read in pieces of 255 characters.
    const QString script = base + "/command.sh";
    // The probe is a copy of this program beside the script: the build directory may lie
    // where the service account cannot reach (a clone under /root).
    const QString probe = base + "/probe";
    if (!QFile::copy(QCoreApplication::applicationFilePath(), probe) ||
        !QFile::setPermissions(probe, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                          QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther |
                                          QFile::ExeOther)) {
        return 0;
    }
    const QString command = probe + ' ' + probeOption +
                            " $(cat /run/orvanta/orvanta-selvane.pid) " + keyboard->devicePath() +
                            " > " + outDir + "/probe; echo ran >> " + outDir + "/runs\n";
    if (!writeFile(script, command.toUtf8()) ||
        !writeFile(config, "KEY_LEFTCTRL:KEY_F1:bash " + script.toUtf8() + "\n")) {
        return 0;
    }

    const ServiceRun start = runAsServiceAccount(base, setgid, {"-c", config});
    if (start.status != 0) {
        qWarning("the daemon did not start (status %d)", start.status);
        return 0;
    }
    pid_t pid = 0;
    DaemonRunner::waitUntil([&] {
        pid = readFile(base + "/run/orvanta-selvane.pid").toInt();
        return pid > 0;
    });
    if (pid <= 0) {
        return 0;
    }
    daemon = pid;

    QDBusConnection platform = QDBusConnection::connectToBus(busAddress, name);
    if (!DaemonRunner::waitUntil([&] {
            return platform.interface()
                ->isServiceRegistered(QStringLiteral("com.orvanta.selvane"))
                .value();
        })) {
        qWarning("the daemon did not join the bus:\n%s", qPrintable(daemonLog()));
        return 0;
    }
    const QDBusMessage reply = platform.call(
        DaemonRunner::daemonCall("deviceAddedToStation", {keyboard->devicePath(), 3}));
    QDBusConnection::disconnectFromBus(name);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        qWarning("deviceAddedToStation: %s", qPrintable(reply.errorMessage()));
        return 0;
    }
    const QRegularExpression opened(QStringLiteral("Opened ") +
                                    QRegularExpression::escape(keyboard->devicePath()) +
                                    QStringLiteral(" for reading "));
    if (!DaemonRunner::waitUntil([&] { return daemonLog().contains(opened); })) {
        qWarning("the daemon did not open the keyboard:\n%s", qPrintable(daemonLog()));
        return 0;
    }
    return pid;
}

bool CommandPrivilegesTest::typeCombination()
{
    for (const auto& [key, down] : {std::pair{KEY_LEFTCTRL, 1}, std::pair{KEY_F1, 1},
                                    std::pair{KEY_F1, 0}, std::pair{KEY_LEFTCTRL, 0}}) {
        if (!(down ? keyboard->press(key) : keyboard->release(key))) {
            return false;
        }
        pause(30);
    }
    return true;
}

QString CommandPrivilegesTest::daemonLog() const
{
    return DaemonRunner::readLines(QFileInfo(outDir).path() + "/log/orvanta-selvane.log")
        .join('\n');
}

int CommandPrivilegesTest::logCount(const QRegularExpression& pattern) const
{
    int count = 0;
    for (const QString& line :
         DaemonRunner::readLines(QFileInfo(outDir).path() + "/log/orvanta-selvane.log")) {
        count += pattern.match(line).hasMatch() ? 1 : 0;
    }
    return count;
}

void CommandPrivilegesTest::commandsHoldNeitherTheInputGroupNorAnyCapability()
{
    QVERIFY(startDaemon("with-setgid", true) > 0);

    // The daemon itself: still in the group input, without any capability in any of its
    // threads, and undumpable (its private /proc entries belong to root, not to its account).
    const QByteArray status = readFile(QStringLiteral("/proc/%1/status").arg(daemon));
    QVERIFY2(status.contains("Uid:\t65534"), status.constData());
    QVERIFY2(QRegularExpression(QStringLiteral("Groups:.*\\b%1\\b").arg(inputGroup))
                 .match(QString::fromLatin1(status))
                 .hasMatch(),
             status.constData());
    const QStringList tasks = QDir(QStringLiteral("/proc/%1/task").arg(daemon))
                                  .entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    QVERIFY(!tasks.isEmpty());
    for (const QString& task : tasks) {
        QCOMPARE(capabilityLines(
                     readFile(QStringLiteral("/proc/%1/task/%2/status").arg(daemon).arg(task))),
                 noCapabilities);
    }
    QCOMPARE(QFileInfo(QStringLiteral("/proc/%1/fd").arg(daemon)).ownerId(), 0U);
    QCOMPARE(logCount(DaemonRunner::logMessage("Commands run with the daemon's groups: "
                                               "CAP_SETGID is missing")),
             0);
    QCOMPARE(logCount(DaemonRunner::logMessage("Commands run as root")), 0);

    QVERIFY(typeCombination());
    const QString runs = outDir + "/runs";
    QVERIFY2(DaemonRunner::waitUntil([&] { return DaemonRunner::readLines(runs).size() == 1; },
                                     commandTimeoutMs),
             qPrintable(daemonLog()));
    const QStringList probed = DaemonRunner::readLines(outDir + "/probe");
    QCOMPARE(probed, QStringList({"Groups:", "CapInh: 0000000000000000", "CapPrm: 0000000000000000",
                                  "CapEff: 0000000000000000", "CapAmb: 0000000000000000",
                                  "open: Permission denied", "getfd: Operation not permitted"}));

    // The daemon goes on reading the keyboard.
    QVERIFY(typeCombination());
    QVERIFY2(DaemonRunner::waitUntil([&] { return DaemonRunner::readLines(runs).size() == 2; },
                                     commandTimeoutMs),
             qPrintable(daemonLog()));

    // Its own account still finds the undumpable daemon: --pid, the running check, --stop.
    const QString base = QFileInfo(outDir).path();
    const ServiceRun pid = runAsServiceAccount(base, false, {"--pid"});
    QCOMPARE(pid.status, 0);
    QCOMPARE(pid.output, QByteArray::number(daemon) + '\n');
    const ServiceRun second = runAsServiceAccount(base, false, {"-c", base + "/keys.conf"});
    QCOMPARE(second.status, 1);
    QVERIFY2(second.output.startsWith("Program is already running."), second.output.constData());
    QCOMPARE(runAsServiceAccount(base, false, {"--stop"}).status, 0);
    QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
    daemon = 0;
}

void CommandPrivilegesTest::withoutSetgidCommandsKeepTheGroupsAfterAWarning()
{
    QVERIFY(startDaemon("without-setgid", false) > 0);
    QCOMPARE(logCount(DaemonRunner::logLine("Warning", "CommandLauncher:start",
                                            "Commands run with the daemon's groups: "
                                            "CAP_SETGID is missing")),
             1);
    QVERIFY(typeCombination());
    QVERIFY2(DaemonRunner::waitUntil(
                 [&] { return DaemonRunner::readLines(outDir + "/runs").size() == 1; },
                 commandTimeoutMs),
             qPrintable(daemonLog()));
    const QStringList probed = DaemonRunner::readLines(outDir + "/probe");
    QCOMPARE(probed, QStringList({QStringLiteral("Groups: %1").arg(inputGroup),
                                  "CapInh: 0000000000000000", "CapPrm: 0000000000000000",
                                  "CapEff: 0000000000000000", "CapAmb: 0000000000000000",
                                  "open: ok", "getfd: Operation not permitted"}));
}

int main(int argc, char** argv)
{
    if (argc == 4 && std::strcmp(argv[1], probeOption) == 0) {
        return probe(std::atoi(argv[2]), argv[3]);
    }
    if (!UinputDevice::isAvailable()) {
        std::fprintf(stderr, "SKIP: /dev/uinput cannot be opened for writing\n");
        return 77;
    }
    if (geteuid() != 0) {
        std::fprintf(stderr, "SKIP: starting the daemon as another account needs root\n");
        return 77;
    }
    QCoreApplication application(argc, argv);
    const QString reason = DaemonRunner::unavailableReason();
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "SKIP: %s\n", qPrintable(reason));
        return 77;
    }
    CommandPrivilegesTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "test_command_privileges.moc"
