#include "DaemonRunner.h"

#include "UmockdevTestbed.h"

#include "TestFiles.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

const char daemonExecutable[] = SELVANE_DAEMON_EXECUTABLE;
const char runIsolated[] = SELVANE_RUN_ISOLATED;
// The kernel's name of the daemon's processes (at most 15 characters).
const QByteArray daemonComm = QByteArrayLiteral("orvanta-selvane");

// The environment the daemon gets: the test's, minus anything that would let
// it reach a display or the host's session bus, plus the private bus.
std::vector<QByteArray> daemonEnvironment(const QString& busAddress,
                                          const QHash<QString, QString>& extra)
{
    std::vector<QByteArray> result;
    for (char** entry = environ; *entry; ++entry) {
        const QByteArray variable(*entry);
        if (variable.startsWith("QT_QPA_PLATFORM=") || variable.startsWith("DISPLAY=") ||
            variable.startsWith("WAYLAND_DISPLAY=") ||
            variable.startsWith("DBUS_SESSION_BUS_ADDRESS=")) {
            continue;
        }
        result.push_back(variable);
    }
    if (!busAddress.isEmpty()) {
        result.push_back("DBUS_SESSION_BUS_ADDRESS=" + busAddress.toLocal8Bit());
    }
    for (auto variable = extra.cbegin(); variable != extra.cend(); ++variable) {
        result.push_back(variable.key().toLocal8Bit() + '=' + variable.value().toLocal8Bit());
    }
    return result;
}

// Spawns argv with its standard output and error going to the two files, with
// the default action for every signal (the test's own handlers must not run in
// a child) and the given signal mask.
pid_t spawn(const QStringList& arguments, const std::vector<QByteArray>& environment,
            const QString& outFile, const QString& errFile, bool blockSignals = false)
{
    std::vector<QByteArray> argumentBytes;
    for (const QString& argument : arguments) {
        argumentBytes.push_back(argument.toLocal8Bit());
    }
    std::vector<char*> argv;
    for (QByteArray& argument : argumentBytes) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    std::vector<QByteArray> environmentCopy = environment;
    std::vector<char*> envp;
    for (QByteArray& variable : environmentCopy) {
        envp.push_back(variable.data());
    }
    envp.push_back(nullptr);

    const QByteArray out = QFile::encodeName(outFile);
    const QByteArray err = QFile::encodeName(errFile);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.constData(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.constData(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t all;
    sigfillset(&all);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, blockSignals ? &all : &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), envp.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? pid : -1;
}

int decodeStatus(int status)
{
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return -1;
}

} // namespace

QString DaemonRunner::builtExecutable()
{
    return QString::fromLatin1(daemonExecutable);
}

QString DaemonRunner::unavailableReason()
{
    if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty()) {
        return QStringLiteral("dbus-daemon is not installed");
    }
    // run-isolated.sh exits with 77 when it cannot build its namespace.
    const int status =
        QProcess::execute(QString::fromLatin1(runIsolated), {QStringLiteral("true")});
    if (status != 0) {
        return QStringLiteral("run-isolated.sh cannot create a private mount namespace "
                              "(status %1)")
            .arg(status);
    }
    return QString();
}

QString DaemonRunner::unavailableReasonWithEmulatedInput()
{
    const QString reason = unavailableReason();
    if (reason.isEmpty() && UmockdevTestbed::preloadLibrary().isEmpty()) {
        return QStringLiteral("umockdev's preload library is not installed");
    }
    return reason;
}

DaemonRunner::DaemonRunner()
{
    becomeSubreaper();
    QDir(dir.path()).mkpath(QStringLiteral("run"));
    QDir(dir.path()).mkpath(QStringLiteral("log"));

    bus.setProgram(QStringLiteral("dbus-daemon"));
    bus.setArguments({QStringLiteral("--session"), QStringLiteral("--nofork"),
                      QStringLiteral("--print-address=1")});
    bus.setStandardErrorFile(QProcess::nullDevice());
    bus.start();
    const bool started = bus.waitForStarted(defaultTimeoutMs) &&
                         waitUntil([this] { return bus.canReadLine(); }, defaultTimeoutMs);
    if (started) {
        address = QString::fromLocal8Bit(bus.readLine().trimmed());
    }
}

DaemonRunner::~DaemonRunner()
{
    for (pid_t pid : adoptedDaemons()) {
        kill(pid, SIGKILL);
        waitForExit(pid);
    }
    if (bus.state() != QProcess::NotRunning) {
        bus.terminate();
        if (!bus.waitForFinished(defaultTimeoutMs)) {
            bus.kill();
            bus.waitForFinished(defaultTimeoutMs);
        }
    }
}

DaemonRunner::Result DaemonRunner::run(const QStringList& arguments, int timeoutMs)
{
    QStringList command{QString::fromLatin1(runIsolated)};
    if (runDirPresent) {
        command << QStringLiteral("--run-dir") << runDir();
    } else {
        command << QStringLiteral("--no-run-dir");
    }
    command << QStringLiteral("--log-dir") << logDir();
    if (!shareDir.isEmpty()) {
        command << QStringLiteral("--share-dir") << shareDir;
    }
    command << QStringLiteral("--") << executable << arguments;

    ++runCount;
    const QString outFile = path(QStringLiteral("stdout-%1").arg(runCount));
    const QString errFile = path(QStringLiteral("stderr-%1").arg(runCount));
    Result result;
    const pid_t pid =
        spawn(command, daemonEnvironment(address, extraEnvironment), outFile, errFile);
    if (pid < 0) {
        return result;
    }
    result.status = waitForExit(pid, timeoutMs);
    if (result.status == -1) {
        kill(pid, SIGKILL);
        waitForExit(pid);
    }
    result.standardOutput = readFile(outFile);
    result.standardError = readFile(errFile);
    return result;
}

QList<pid_t> DaemonRunner::adoptedDaemons() const
{
    QList<pid_t> result;
    const QStringList tasks =
        QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& task : tasks) {
        const QList<QByteArray> children =
            readFile(QStringLiteral("/proc/self/task/%1/children").arg(task))
                .simplified()
                .split(' ');
        for (const QByteArray& child : children) {
            const pid_t pid = child.toInt();
            // comm outlives the process until it is reaped, unlike exe.
            if (pid > 0 && !result.contains(pid) &&
                readFile(QStringLiteral("/proc/%1/comm").arg(pid)).trimmed() == daemonComm) {
                result.append(pid);
            }
        }
    }
    return result;
}

pid_t DaemonRunner::waitForDaemon(int timeoutMs) const
{
    pid_t pid = 0;
    waitUntil(
        [&] {
            const QList<pid_t> daemons = adoptedDaemons();
            pid = daemons.isEmpty() ? 0 : daemons.first();
            return pid != 0;
        },
        timeoutMs);
    return pid;
}

pid_t DaemonRunner::startIdleProcess(bool blockSignals)
{
    std::vector<QByteArray> environment;
    for (char** entry = environ; *entry; ++entry) {
        environment.push_back(*entry);
    }
    return spawn({QStringLiteral("sleep"), QStringLiteral("infinity")}, environment,
                 QStringLiteral("/dev/null"), QStringLiteral("/dev/null"), blockSignals);
}

bool DaemonRunner::hasPendingSigterm(pid_t pid)
{
    const QByteArray status = readFile(QStringLiteral("/proc/%1/status").arg(pid));
    for (const QByteArray& line : status.split('\n')) {
        // Signals sent to the process are shared, those sent to a thread are not.
        if (line.startsWith("SigPnd:") || line.startsWith("ShdPnd:")) {
            bool ok = false;
            const quint64 mask = line.mid(7).trimmed().toULongLong(&ok, 16);
            if (ok && (mask & (quint64(1) << (SIGTERM - 1)))) {
                return true;
            }
        }
    }
    return false;
}

bool DaemonRunner::becomeSubreaper()
{
    return prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
}

namespace {

// A figure in kB of the process's status file ("VmRSS", "VmHWM"), -1 when unknown.
qint64 statusKiB(pid_t pid, const QString& field)
{
    const QString status =
        QString::fromLatin1(readFile(QStringLiteral("/proc/%1/status").arg(pid)));
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral(R"(%1:\s+(\d+) kB)").arg(field)).match(status);
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

} // namespace

qint64 DaemonRunner::residentKiB(pid_t pid)
{
    return statusKiB(pid, QStringLiteral("VmRSS"));
}

qint64 DaemonRunner::peakResidentKiB(pid_t pid)
{
    return statusKiB(pid, QStringLiteral("VmHWM"));
}

double DaemonRunner::cpuMs(pid_t pid)
{
    const QDir tasks(QStringLiteral("/proc/%1/task").arg(pid));
    if (!tasks.exists()) {
        return -1;
    }
    double ms = 0;
    for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        ms += qMax(0.0, threadCpuMs(pid, task.toInt()));
    }
    return ms;
}

double DaemonRunner::threadCpuMs(pid_t pid, pid_t thread)
{
    // "<on-cpu ns> <run-queue wait ns> <time slices>"
    const QByteArray schedstat =
        readFile(QStringLiteral("/proc/%1/task/%2/schedstat").arg(pid).arg(thread));
    bool ok = false;
    const double ns = schedstat.split(' ').value(0).toDouble(&ok);
    return ok ? ns / 1e6 : -1;
}

qint64 DaemonRunner::mainThreadSleeps(pid_t pid)
{
    const QString status =
        QString::fromLatin1(readFile(QStringLiteral("/proc/%1/task/%1/status").arg(pid)));
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral(R"(\nvoluntary_ctxt_switches:\s+(\d+))")).match(status);
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

int DaemonRunner::waitForExit(pid_t pid, int timeoutMs)
{
    int status = 0;
    const int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidFd >= 0) {
        // The descriptor becomes readable when the process ends.
        pollfd waitFor = {pidFd, POLLIN, 0};
        int ready;
        do {
            ready = poll(&waitFor, 1, timeoutMs);
        } while (ready < 0 && errno == EINTR);
        close(pidFd);
        if (ready <= 0) {
            return -1;
        }
        return waitpid(pid, &status, 0) == pid ? decodeStatus(status) : -1;
    }
    // No pidfd (an old kernel): ask again until the time is up.
    bool ended = false;
    waitUntil([&] { return (ended = waitpid(pid, &status, WNOHANG) == pid); }, timeoutMs);
    return ended ? decodeStatus(status) : -1;
}

bool DaemonRunner::waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired()) {
            return false;
        }
        QTest::qWait(10);
    }
    return true;
}

QStringList DaemonRunner::readLines(const QString& fileName)
{
    // What follows the last line end is empty, or a line still being written.
    QStringList lines = QString::fromLatin1(readFile(fileName)).split(QLatin1Char('\n'));
    lines.removeLast();
    return lines;
}

bool DaemonRunner::waitForLine(const QString& fileName, const QRegularExpression& pattern,
                               int timeoutMs)
{
    return waitUntil(
        [&] {
            const QStringList lines = readLines(fileName);
            for (const QString& line : lines) {
                if (pattern.match(line).hasMatch()) {
                    return true;
                }
            }
            return false;
        },
        timeoutMs);
}

QRegularExpression DaemonRunner::logMessage(const QString& message)
{
    return QRegularExpression(R"(^\[[^\]]+\] \[\w+\] \[\w+:\w+:\d+\] )" +
                              QRegularExpression::escape(message) + "$");
}

QRegularExpression DaemonRunner::logLine(const QString& level, const QString& place,
                                         const QString& message)
{
    const QString line = place.count(':') == 2 ? QString() : QStringLiteral(R"(:\d+)");
    return QRegularExpression(R"(^\[[^\]]+\] \[)" + level + R"(\] \[)" +
                              QRegularExpression::escape(place) + line + R"(\] )" +
                              QRegularExpression::escape(message) + "$");
}

pid_t DaemonRunner::startDaemon(const QStringList& arguments, const QRegularExpression& readyLine)
{
    if (run(arguments).status != 0) {
        return 0;
    }
    const pid_t daemon = waitForDaemon();
    if (daemon <= 0 || !waitForLine(defaultLogFile(), readyLine)) {
        return 0;
    }
    return daemon;
}

int DaemonRunner::stopDaemon(pid_t daemon)
{
    if (daemon <= 0 || kill(daemon, SIGTERM) != 0) {
        return -1;
    }
    return waitForExit(daemon);
}

QDBusMessage DaemonRunner::daemonCall(const QString& method, const QVariantList& arguments)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(QStringLiteral("com.orvanta.selvane"), QStringLiteral("/"),
                                       QStringLiteral("com.orvanta.selvane.DBusInterface"), method);
    call.setArguments(arguments);
    return call;
}
