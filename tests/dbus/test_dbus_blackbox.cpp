// The built daemon on a private session bus, run from the outside: what it
// does on the bus when it starts, and how it ends when it cannot have the bus
// or its service name.

#include "DaemonRunner.h"
#include "PlatformSimulatorProcess.h"
#include "TestFiles.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QProcess>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {

// A log line "[time] [Level] [File:function:line] message" with exactly this
// level, file, function and message.
QRegularExpression logLine(const QString& level, const QString& file, const QString& function,
                           const QString& message)
{
    return QRegularExpression(R"(^\[[^\]]+\] \[)" + level + R"(\] \[)" + file + ":" + function +
                              R"(:\d+\] )" + QRegularExpression::escape(message) + "$");
}

// Index of the first line matching the pattern, or -1.
int indexOf(const QStringList& lines, const QRegularExpression& pattern)
{
    for (int i = 0; i < lines.size(); ++i) {
        if (pattern.match(lines.at(i)).hasMatch()) {
            return i;
        }
    }
    return -1;
}

const QRegularExpression noBusLine =
    logLine("Error", "DBusInterface", "connect", "Could not connect to DBus");
const QRegularExpression exitLine =
    logLine("Error", "Selvane", "Selvane", "Could not connect to dbus");
const QRegularExpression establishedLine =
    logLine("Info", "DBusInterface", "connect", "Connection established");
const QRegularExpression serviceTakenLine(
    R"(^\[[^\]]+\] \[Error\] \[DBusInterface:connect:\d+\] Could not register service )"
    R"('com\.orvanta\.selvane'\.  Error: )");

} // namespace

class DBusBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        runner = std::make_unique<DaemonRunner>();
        QVERIFY(runner->isBusRunning());
        config = runner->path("keys.conf");
        QFile file(config);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("KEY_LEFTCTRL:KEY_F1:true\n");
    }
    void cleanup() { runner.reset(); }

    void withoutSessionBusTheDaemonEndsWithStatus1BeforeOpeningAnything()
    {
        // DaemonRunner always hands its own bus to the daemon, so this one
        // start goes through run-isolated.sh directly, with a bus address
        // where nothing listens and no display to autolaunch a bus on.
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/selvane-test/bus");
        environment.remove("DISPLAY");
        QProcess foreground;
        foreground.setProcessEnvironment(environment);
        // Files, not pipes: the daemon child keeps writing to them after the
        // foreground process is gone.
        foreground.setStandardOutputFile(runner->path("no-bus.out"));
        foreground.setStandardErrorFile(runner->path("no-bus.err"));
        foreground.start(SELVANE_RUN_ISOLATED,
                         {"--run-dir", runner->runDir(), "--log-dir", runner->logDir(), "--",
                          SELVANE_DAEMON_EXECUTABLE, "-c", config});
        QVERIFY(foreground.waitForFinished(DaemonRunner::defaultTimeoutMs));
        QCOMPARE(foreground.exitCode(), 0); // the parent of the fork

        const pid_t daemon = runner->waitForDaemon();
        QVERIFY(daemon > 0);
        QVERIFY2(DaemonRunner::waitForExit(daemon) == 1,
                 readFile(runner->path("no-bus.err")).constData());

        const QStringList lines = DaemonRunner::readLines(runner->defaultLogFile());
        const int noBus = indexOf(lines, noBusLine);
        QVERIFY2(noBus >= 0, qPrintable(lines.join('\n')));
        QCOMPARE(indexOf(lines, exitLine), noBus + 1);
        // The bus is the first thing the central object sets up: the key
        // configuration was never read and no device was ever opened.
        QCOMPARE(noBus + 2, lines.size());
        for (const QString& line : lines) {
            QVERIFY2(!line.contains("AssignedDeviceHandler") && !line.contains("EventDevice"),
                     qPrintable(line));
        }
    }

    void startIsAnnouncedToTheAssignmentService()
    {
        const PlatformSimulatorProcess platform(runner->busAddress(), runner->path("calls"));
        QVERIFY(platform.isReady());
        QCOMPARE(runner->run({"-c", config}).status, 0);
        const pid_t daemon = runner->waitForDaemon();
        QVERIFY(daemon > 0);

        QVERIFY(platform.waitForCall("com.orvanta.Assignment.SelvaneStarted"));
        QVERIFY(DaemonRunner::waitForLine(runner->defaultLogFile(), establishedLine));
        const QStringList lines = DaemonRunner::readLines(runner->defaultLogFile());
        const int connecting =
            indexOf(lines, logLine("Info", "DBusInterface", "connect", "Connecting to dbus..."));
        QVERIFY(connecting >= 0);
        QCOMPARE(indexOf(lines, establishedLine), connecting + 1);
        QCOMPARE(platform.calls(), QStringList{"com.orvanta.Assignment.SelvaneStarted"});

        kill(daemon, SIGTERM);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
    }

    void secondDaemonOnTheSameBusFails()
    {
        QCOMPARE(runner->run({"-c", config}).status, 0);
        const pid_t first = runner->waitForDaemon();
        QVERIFY(first > 0);
        QVERIFY(DaemonRunner::waitForLine(runner->defaultLogFile(), establishedLine));

        // Without a pid file the second start is not refused as "already
        // running": it gets as far as the bus.
        runner->setRunDirPresent(false);
        const QString secondLog = runner->path("second.log");
        QCOMPARE(runner->run({"-c", config, "-l", secondLog}).status, 0);
        pid_t second = 0;
        QVERIFY(DaemonRunner::waitUntil([&] {
            for (pid_t pid : runner->adoptedDaemons()) {
                if (pid != first) {
                    second = pid;
                }
            }
            return second != 0;
        }));
        QCOMPARE(DaemonRunner::waitForExit(second), 1);

        const QStringList lines = DaemonRunner::readLines(secondLog);
        const int taken = indexOf(lines, serviceTakenLine);
        QVERIFY2(taken >= 0, qPrintable(lines.join('\n')));
        QCOMPARE(indexOf(lines, exitLine), taken + 1);

        // The first daemon keeps its name and runs on.
        QCOMPARE(kill(first, 0), 0);
        QDBusConnection bus = QDBusConnection::connectToBus(runner->busAddress(), "check");
        QVERIFY(bus.interface()->isServiceRegistered("com.orvanta.selvane"));
        QDBusConnection::disconnectFromBus("check");
        kill(first, SIGTERM);
        QCOMPARE(DaemonRunner::waitForExit(first), 0);
    }

    void foreignCharacterDevicesAreRefusedWithoutBeingOpened()
    {
        // A pseudo-terminal that nobody else holds, and /dev/null: character devices that are
        // not input devices, named by the platform as if they were.
        const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        QVERIFY(terminal != -1);
        QVERIFY(grantpt(terminal) == 0 && unlockpt(terminal) == 0);
        const QString terminalPath = QString::fromLatin1(ptsname(terminal));
        QCOMPARE(runner->run({"-c", config}).status, 0);
        const pid_t daemon = runner->waitForDaemon();
        QVERIFY(daemon > 0);
        QVERIFY(DaemonRunner::waitForLine(runner->defaultLogFile(), establishedLine));
        QDBusConnection platform = QDBusConnection::connectToBus(runner->busAddress(), "platform");
        int station = 0;
        for (const QString& path : {terminalPath, QStringLiteral("/dev/null")}) {
            const QDBusMessage reply =
                platform.call(DaemonRunner::daemonCall("deviceAddedToStation", {path, ++station}));
            QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
            QVERIFY2(DaemonRunner::waitForLine(runner->defaultLogFile(),
                                               logLine("Warning", "EventDevice", "EventDevice",
                                                       "Could not open " + path + " for reading.")),
                     qPrintable(DaemonRunner::readLines(runner->defaultLogFile()).join('\n')));
            QCOMPARE(indexOf(DaemonRunner::readLines(runner->defaultLogFile()),
                             DaemonRunner::logMessage("Opened " + path + " for reading ")),
                     -1);
        }
        QDBusConnection::disconnectFromBus("platform");
        close(terminal);
        kill(daemon, SIGTERM);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
    }

    void pathWithALineBreakStaysOnOneLogLine()
    {
        QCOMPARE(runner->run({"-c", config}).status, 0);
        const pid_t daemon = runner->waitForDaemon();
        QVERIFY(daemon > 0);
        QVERIFY(DaemonRunner::waitForLine(runner->defaultLogFile(), establishedLine));
        const QString forged = "[2026-01-31 08:15:02.417] [Info] [Main:main:1] forged\tline\\";
        const QString path = "/dev/input/event99\n" + forged;
        const QString shown =
            "/dev/input/event99\\n" + QString(forged).replace("\\", "\\\\").replace("\t", "\\t");
        QDBusConnection platform = QDBusConnection::connectToBus(runner->busAddress(), "platform");
        for (const char* method : {"deviceAddedToStation", "unassignedDeviceAdded"}) {
            const QVariantList arguments = QString(method) == "deviceAddedToStation"
                                               ? QVariantList{path, 1}
                                               : QVariantList{path};
            QCOMPARE(platform.call(DaemonRunner::daemonCall(method, arguments)).type(),
                     QDBusMessage::ReplyMessage);
        }
        QVERIFY2(
            DaemonRunner::waitForLine(runner->defaultLogFile(),
                                      logLine("Info", "AssignmentHandler", "addUnassignedDevice",
                                              "Adding unassigned device " + shown)),
            qPrintable(DaemonRunner::readLines(runner->defaultLogFile()).join('\n')));
        const QStringList lines = DaemonRunner::readLines(runner->defaultLogFile());
        QVERIFY(indexOf(lines, logLine("Info", "AssignedDeviceHandler", "addAssignedDevice",
                                       "Adding assigned device " + shown)) >= 0);
        QVERIFY(indexOf(lines, logLine("Warning", "EventDevice", "EventDevice",
                                       "Could not open " + shown + " for reading.")) >= 0);
        for (const QString& line : lines) {
            QVERIFY2(!line.contains("forged") || line.contains("event99\\n"), qPrintable(line));
        }
        QDBusConnection::disconnectFromBus("platform");
        kill(daemon, SIGTERM);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
    }

private:
    std::unique_ptr<DaemonRunner> runner;
    QString config;
};

SELVANE_DAEMON_TEST_MAIN(DBusBlackboxTest)
#include "test_dbus_blackbox.moc"
