// What one caller of the bus can make the daemon hold, run from the outside
// against the built daemon: hundreds of displays without servers, one device
// under forty names, and a flood of calls sent without waiting for replies.
// The daemon's threads, descriptors, log and memory stay bounded, and it keeps
// answering and running combinations.

#include "DaemonRunner.h"
#include "EmulatedInput.h"
#include "PlatformSimulatorProcess.h"
#include "UmockdevTestbed.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <memory>
#include <sys/stat.h>

namespace {

constexpr int displayCount = 400;
constexpr int configuredAtMost = 64;

// A number from the status file of the process ("Threads", "VmHWM"), -1 when unknown.
qint64 statusField(pid_t pid, const QString& field)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QRegularExpressionMatch match =
        QRegularExpression("^" + field + R"(:\s+(\d+))", QRegularExpression::MultilineOption)
            .match(QString::fromLatin1(file.readAll()));
    return match.hasMatch() ? match.captured(1).toLongLong() : -1;
}

// The daemon's descriptors that are open on the file `target`.
int descriptorsOn(pid_t pid, const QString& target)
{
    struct stat wanted
    {
    };
    if (stat(QFile::encodeName(target).constData(), &wanted) != 0) {
        return -1;
    }
    const QString fdDir = QStringLiteral("/proc/%1/fd").arg(pid);
    int found = 0;
    for (const QString& entry : QDir(fdDir).entryList(QDir::Files | QDir::System)) {
        struct stat status
        {
        };
        if (stat(QFile::encodeName(fdDir + "/" + entry).constData(), &status) == 0 &&
            status.st_dev == wanted.st_dev && status.st_ino == wanted.st_ino) {
            ++found;
        }
    }
    return found;
}

// The first of `count` display numbers in a row on which no X server listens,
// neither in /tmp/.X11-unix nor in the abstract namespace; -1 when none.
int unusedDisplays(int count)
{
    QFile sockets(QStringLiteral("/proc/net/unix"));
    if (!sockets.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QByteArray listening = sockets.readAll();
    for (int first = 7000; first < 30000; first += count) {
        bool free = true;
        for (int display = first; display < first + count && free; ++display) {
            const QByteArray path = "/tmp/.X11-unix/X" + QByteArray::number(display);
            free = !QFile::exists(QString::fromLatin1(path)) && !listening.contains(path + "\n");
        }
        if (free) {
            return first;
        }
    }
    return -1;
}

QString sameDevice(const QString& path, const QString& held)
{
    return "Device " + path + " is the same device as " + held +
           ", which is already open.  Ignoring it.";
}

} // namespace

class DBusBoundsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void displaysWithoutServersCostNoThreadsAndNoLogFlood();
    void oneDeviceUnderFortyNamesIsOpenedOncePerHandler();
    void aFloodOfCallsKeepsMemoryBoundedAndTheDaemonAnswering();

private:
    void call(const QString& method, const QVariantList& arguments = {});
    QStringList log() const { return DaemonRunner::readLines(runner->defaultLogFile()); }
    int logCount(const QString& message) const;
    bool waitForLogCount(const QString& message, int count, int timeoutMs);

    std::unique_ptr<DaemonRunner> runner;
    std::unique_ptr<PlatformSimulatorProcess> simulator;
    std::unique_ptr<EmulatedInput> input;
    QDBusConnection platform{QString()};
    QString output;
    pid_t daemon = -1;
};

void DBusBoundsTest::init()
{
    runner = std::make_unique<DaemonRunner>();
    QVERIFY(runner->isBusRunning());
    simulator =
        std::make_unique<PlatformSimulatorProcess>(runner->busAddress(), runner->path("calls"));
    QVERIFY(simulator->isReady());
    platform = QDBusConnection::connectToBus(runner->busAddress(), "platform");
    QVERIFY(platform.isConnected());
    input = std::make_unique<EmulatedInput>(SELVANE_EMULATED_INPUT, 1);
    QCOMPARE(input->nodes.size(), 1);

    output = runner->path("commands-run");
    const QString config = runner->path("keys.conf");
    QFile file(config);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("KEY_LEFTCTRL:KEY_F1:echo \"station $STATION_ID\" >> " + output.toUtf8() + "\n");
    file.close();

    runner->setExtraEnvironment(input->environment);
    QCOMPARE(runner->run({"-c", config}).status, 0);
    daemon = runner->waitForDaemon();
    QVERIFY(daemon > 0);
    QVERIFY(simulator->waitForCall("com.orvanta.Assignment.SelvaneStarted"));
}

void DBusBoundsTest::cleanup()
{
    QDBusConnection::disconnectFromBus("platform");
    if (daemon > 0) {
        kill(daemon, SIGTERM);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
    }
    daemon = -1;
    input.reset();
    simulator.reset();
    runner.reset();
}

void DBusBoundsTest::call(const QString& method, const QVariantList& arguments)
{
    const QDBusMessage reply = platform.call(DaemonRunner::daemonCall(method, arguments));
    QVERIFY2(reply.type() == QDBusMessage::ReplyMessage, qPrintable(reply.errorMessage()));
}

int DBusBoundsTest::logCount(const QString& message) const
{
    const QRegularExpression pattern = DaemonRunner::logMessage(message);
    int found = 0;
    for (const QString& line : log()) {
        found += pattern.match(line).hasMatch() ? 1 : 0;
    }
    return found;
}

bool DBusBoundsTest::waitForLogCount(const QString& message, int count, int timeoutMs)
{
    return DaemonRunner::waitUntil([&] { return logCount(message) >= count; }, timeoutMs);
}

void DBusBoundsTest::displaysWithoutServersCostNoThreadsAndNoLogFlood()
{
    const QString keyboard = input->nodes.at(0);
    call("deviceAddedToStation", {keyboard, 3});
    QVERIFY(DaemonRunner::waitForLine(
        runner->defaultLogFile(), DaemonRunner::logMessage("Adding assigned device " + keyboard)));
    // Answered once the device is open and its reader thread runs.
    QCOMPARE(platform
                 .call(QDBusMessage::createMethodCall("com.orvanta.selvane", "/",
                                                      "org.freedesktop.DBus.Introspectable",
                                                      "Introspect"))
                 .type(),
             QDBusMessage::ReplyMessage);
    const qint64 threadsBefore = statusField(daemon, "Threads");
    QVERIFY(threadsBefore > 0);

    const int first = unusedDisplays(displayCount);
    QVERIFY2(first > 0, "no free range of display numbers");
    for (int i = 0; i < displayCount; ++i) {
        call("configureKeyboard", {first + i, i % 48});
    }
    // Only the first 64 are configured; each of the others is refused once.
    const QString refusedFirst = QStringLiteral("Refusing display :%1: 64 displays are configured "
                                                "already")
                                     .arg(first + configuredAtMost);
    QVERIFY2(DaemonRunner::waitForLine(
                 runner->defaultLogFile(),
                 DaemonRunner::logLine("Warning", "AssignmentHandler:getDisplayConfiguration",
                                       refusedFirst)),
             qPrintable(log().mid(log().size() - 20).join('\n')));
    const QRegularExpression refused(R"(Refusing display :(\d+): 64 displays are configured )"
                                     R"(already$)");
    // The configured ones have their locale asked for and fail to connect, once each.
    qint64 mostThreads = 0;
    QVERIFY2(DaemonRunner::waitUntil(
                 [&] {
                     mostThreads = std::max(mostThreads, statusField(daemon, "Threads"));
                     return logCount(QStringLiteral("Could not get connection to display :%1")
                                         .arg(first + configuredAtMost - 1)) == 1;
                 },
                 20000),
             qPrintable(log().mid(log().size() - 20).join('\n')));
    QVERIFY2(mostThreads < 100, qPrintable(QString::number(mostThreads)));
    QSet<int> refusedDisplays;
    for (const QString& line : log()) {
        const QRegularExpressionMatch match = refused.match(line);
        if (match.hasMatch()) {
            refusedDisplays.insert(match.captured(1).toInt());
        }
    }
    QCOMPARE(refusedDisplays.size(), displayCount - configuredAtMost);
    QVERIFY(!refusedDisplays.contains(first + configuredAtMost - 1));
    QVERIFY(refusedDisplays.contains(first + displayCount - 1));
    for (int i = 0; i < configuredAtMost; ++i) {
        QCOMPARE(logCount(QStringLiteral("Could not get connection to display :%1").arg(first + i)),
                 1);
    }

    // Five seconds of idle: the displays are tried on every update, and the
    // log and the threads stay as they are.
    const int linesBefore = log().size();
    QElapsedTimer idle;
    idle.start();
    while (idle.elapsed() < 5000) {
        mostThreads = std::max(mostThreads, statusField(daemon, "Threads"));
        QTest::qWait(100);
    }
    const int linesAfter = log().size();
    QVERIFY2(linesAfter - linesBefore <= 2000,
             qPrintable(QString::number(linesAfter - linesBefore)));
    QVERIFY2(mostThreads < 100, qPrintable(QString::number(mostThreads)));
    qInfo("%d log lines in 5 s of idle; at most %lld threads (%lld before)",
          linesAfter - linesBefore, mostThreads, threadsBefore);

    // It answers at once and runs the combination of the assigned keyboard.
    QElapsedTimer answer;
    answer.start();
    const QDBusMessage introspection = platform.call(
        QDBusMessage::createMethodCall("com.orvanta.selvane", "/",
                                       "org.freedesktop.DBus.Introspectable", "Introspect"),
        QDBus::Block, 1000);
    QCOMPARE(introspection.type(), QDBusMessage::ReplyMessage);
    QVERIFY2(answer.elapsed() < 1000, qPrintable(QString::number(answer.elapsed())));
    QVERIFY(input->type(0, {"KEY_LEFTCTRL", "KEY_F1"}));
    QVERIFY2(DaemonRunner::waitUntil(
                 [&] { return DaemonRunner::readLines(output) == QStringList{"station 3"}; }),
             qPrintable(log().mid(log().size() - 20).join('\n')));

    for (int i = 0; i < displayCount; ++i) {
        call("configurationComplete", {first + i});
    }
    QVERIFY2(
        DaemonRunner::waitUntil([&] { return statusField(daemon, "Threads") == threadsBefore; }),
        qPrintable(QString::number(statusField(daemon, "Threads"))));
}

void DBusBoundsTest::oneDeviceUnderFortyNamesIsOpenedOncePerHandler()
{
    const QString node = input->nodes.at(0);
    QVERIFY(node.startsWith("/dev/input/"));
    const QString name = node.mid(QStringLiteral("/dev/input/").size());
    const QString emulatedNode = input->environment.value("UMOCKDEV_DIR") + node;
    QVERIFY(QFile::exists(emulatedNode));

    // Names that the emulation leads to its node, as the kernel would. (A
    // symbolic link to an emulated node leads to a pseudo terminal that the
    // emulation does not answer for; links are checked on real nodes in the
    // input tier.)
    QStringList names;
    for (int slashes = 2; names.size() < 10; ++slashes) {
        names << "/dev/input" + QString(slashes, '/') + name;
    }
    for (int dots = 1; names.size() < 20; ++dots) {
        names << "/dev/input/" + QString("./").repeated(dots) + name;
    }
    for (int ups = 1; names.size() < 25; ++ups) {
        names << "/dev/input/" + QString("../input/").repeated(ups) + name;
    }
    for (int dots = 1; names.size() < 30; ++dots) {
        names << "/dev/input/" + QString("./").repeated(dots) + "../input/" + name;
    }
    for (int slashes = 2; names.size() < 40; ++slashes) {
        names << "/dev" + QString(slashes, '/') + "./input/" + name;
    }
    QCOMPARE(names.size(), 40);
    QCOMPARE(QSet<QString>(names.begin(), names.end()).size(), 40);

    // Unassigned: the first name opens the device, the others nothing.
    call("unassignedDeviceAdded", {node});
    for (const QString& path : names) {
        call("unassignedDeviceAdded", {path});
    }
    QVERIFY2(waitForLogCount(sameDevice(names.last(), node), 1, DaemonRunner::defaultTimeoutMs),
             qPrintable(log().mid(log().size() - 20).join('\n')));
    for (const QString& path : names) {
        QVERIFY2(logCount(sameDevice(path, node)) == 1, qPrintable(path));
    }
    // The device's own descriptor and the input reader's duplicate of it.
    const int perDevice = 2;
    QCOMPARE(descriptorsOn(daemon, emulatedNode), perDevice);

    // Assigned: the station's handler holds it once too, under its own first
    // name; during the hand-over each handler has its own descriptor.
    const QString assignedName = names.at(5);
    call("deviceAddedToStation", {assignedName, 3});
    for (const QString& path : names) {
        call("deviceAddedToStation", {path, 3});
    }
    call("deviceAddedToStation", {node, 3});
    QVERIFY(waitForLogCount(sameDevice(node, assignedName), 1, DaemonRunner::defaultTimeoutMs));
    for (const QString& path : names) {
        QCOMPARE(logCount(sameDevice(path, assignedName)), path == assignedName ? 0 : 1);
    }
    QCOMPARE(descriptorsOn(daemon, emulatedNode), 2 * perDevice);
    QVERIFY(DaemonRunner::waitForLine(runner->defaultLogFile(),
                                      DaemonRunner::logLine("Warning", "EventDevice:findOtherName",
                                                            sameDevice(node, assignedName))));

    // The unassigned one goes; the station's stays and runs its combination.
    call("unassignedDeviceRemoved", {node});
    QVERIFY(
        DaemonRunner::waitUntil([&] { return descriptorsOn(daemon, emulatedNode) == perDevice; }));
    QVERIFY(input->type(0, {"KEY_LEFTCTRL", "KEY_F1"}));
    QVERIFY(DaemonRunner::waitUntil(
        [&] { return DaemonRunner::readLines(output) == QStringList{"station 3"}; }));
}

void DBusBoundsTest::aFloodOfCallsKeepsMemoryBoundedAndTheDaemonAnswering()
{
    constexpr int calls = 100000;
    const qint64 peakBefore = statusField(daemon, "VmHWM");
    QVERIFY(peakBefore > 0);
    // Calls that the daemon takes and drops at once, with a long argument,
    // each sent without waiting for its reply; one in a thousand asks for the
    // status, whose lines show that the calls got through.
    const QString longPath = "/dev/input/" + QString(400, 'x');
    constexpr int statusEvery = 1000;
    for (int i = 0; i < calls; ++i) {
        QDBusMessage message;
        if (i % statusEvery == statusEvery - 1) {
            message = DaemonRunner::daemonCall("logStatus");
        } else if (i % 2 == 0) {
            message = DaemonRunner::daemonCall("unassignedDeviceRemoved",
                                               {longPath + QString::number(i)});
        } else {
            message = DaemonRunner::daemonCall("configurationComplete", {100000 + i});
        }
        QVERIFY(platform.send(message));
    }
    // Calls from one connection arrive in order: once this one is answered,
    // every one before it has been taken.
    call("logStatus");
    const QString status = QStringLiteral("There are 0 unassigned device(s) being managed:");
    QVERIFY2(waitForLogCount(status, calls / statusEvery + 1, 120000),
             qPrintable(QString::number(logCount(status))));
    QCOMPARE(logCount(status), calls / statusEvery + 1);
    QCOMPARE(kill(daemon, 0), 0);
    const qint64 peakAfter = statusField(daemon, "VmHWM");
    qInfo("peak resident memory %lld kB before the flood, %lld kB after", peakBefore, peakAfter);
    QVERIFY2(peakAfter < 64 * 1024, qPrintable(QString::number(peakAfter)));

    QElapsedTimer answer;
    answer.start();
    const QDBusMessage introspection = platform.call(
        QDBusMessage::createMethodCall("com.orvanta.selvane", "/",
                                       "org.freedesktop.DBus.Introspectable", "Introspect"),
        QDBus::Block, 1000);
    QCOMPARE(introspection.type(), QDBusMessage::ReplyMessage);
    const QString keyboard = input->nodes.at(0);
    call("deviceAddedToStation", {keyboard, 4});
    QVERIFY(DaemonRunner::waitForLine(
        runner->defaultLogFile(), DaemonRunner::logMessage("Adding assigned device " + keyboard)));
    QVERIFY(input->type(0, {"KEY_LEFTCTRL", "KEY_F1"}));
    QVERIFY(DaemonRunner::waitUntil(
        [&] { return DaemonRunner::readLines(output) == QStringList{"station 4"}; }));
}

// Skipped (77) without a private mount namespace, dbus-daemon or umockdev.
int main(int argc, char* argv[])
{
    return runUnlessUnavailable<QCoreApplication, DBusBoundsTest>(
        argc, argv, &DaemonRunner::unavailableReasonWithEmulatedInput);
}

#include "test_dbus_bounds.moc"
