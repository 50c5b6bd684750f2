// The daemon's first job end to end, driven over D-Bus as the platform drives
// it: a keyboard (an emulated evdev node) is assigned to a station, a
// configured combination is typed on it and its command runs with the
// station in its environment; once the keyboard is removed from the station,
// typing on it runs nothing.

#include "DaemonRunner.h"
#include "EmulatedInput.h"
#include "PlatformSimulatorProcess.h"
#include "UmockdevTestbed.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <memory>

class DBusFirstJobTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void assignedKeyboardRunsItsCommandUntilRemoved();

private:
    void call(const QString& method, const QVariantList& arguments = {});
    void waitForLogLine(const QString& message);

    std::unique_ptr<DaemonRunner> runner;
    QDBusConnection platform{QString()};
};

void DBusFirstJobTest::call(const QString& method, const QVariantList& arguments)
{
    const QDBusMessage reply = platform.call(DaemonRunner::daemonCall(method, arguments));
    QVERIFY2(reply.type() == QDBusMessage::ReplyMessage, qPrintable(reply.errorMessage()));
}

void DBusFirstJobTest::waitForLogLine(const QString& message)
{
    QVERIFY2(DaemonRunner::waitForLine(runner->defaultLogFile(), DaemonRunner::logMessage(message)),
             qPrintable("no log line \"" + message + "\" in:\n" +
                        DaemonRunner::readLines(runner->defaultLogFile()).join('\n')));
}

void DBusFirstJobTest::assignedKeyboardRunsItsCommandUntilRemoved()
{
    runner = std::make_unique<DaemonRunner>();
    QVERIFY(runner->isBusRunning());
    const PlatformSimulatorProcess simulator(runner->busAddress(), runner->path("calls"));
    QVERIFY(simulator.isReady());
    platform = QDBusConnection::connectToBus(runner->busAddress(), "platform");
    QVERIFY(platform.isConnected());

    EmulatedInput input(SELVANE_EMULATED_INPUT, 2);
    QCOMPARE(input.nodes.size(), 2);
    QVERIFY(input.environment.contains("UMOCKDEV_DIR"));

    const QString output = runner->path("commands-run");
    const QString config = runner->path("keys.conf");
    QFile file(config);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("KEY_LEFTCTRL:KEY_F1:echo \"station $STATION_ID\" >> " + output.toUtf8() + "\n");
    file.close();

    // The daemon sees the emulated nodes.
    runner->setExtraEnvironment(input.environment);
    const DaemonRunner::Result start = runner->run({"-c", config});
    QCOMPARE(start.status, 0);
    const pid_t daemon = runner->waitForDaemon();
    QVERIFY(daemon > 0);
    QVERIFY(simulator.waitForCall("com.orvanta.Assignment.SelvaneStarted"));

    const QString keyboard = input.nodes.at(0);
    call("deviceAddedToStation", {keyboard, 3});
    waitForLogLine("Adding assigned device " + keyboard);
    QVERIFY(input.type(0, {"KEY_LEFTCTRL", "KEY_F1"}));
    QVERIFY2(DaemonRunner::waitUntil(
                 [&] { return DaemonRunner::readLines(output) == QStringList{"station 3"}; }),
             qPrintable(DaemonRunner::readLines(runner->defaultLogFile()).join('\n')));

    call("deviceRemovedFromStation", {keyboard});
    waitForLogLine("Removing assigned device " + keyboard);

    // The combination typed on the removed keyboard, then on a keyboard of
    // station 5: the second command is the only one that runs. A status
    // request afterwards takes one more tick, in which a late command of the
    // first keyboard would have shown up.
    const QString other = input.nodes.at(1);
    call("deviceAddedToStation", {other, 5});
    waitForLogLine("Adding assigned device " + other);
    QVERIFY(input.type(0, {"KEY_LEFTCTRL", "KEY_F1"}));
    QVERIFY(input.type(1, {"KEY_LEFTCTRL", "KEY_F1"}));
    QVERIFY(DaemonRunner::waitUntil([&] { return DaemonRunner::readLines(output).size() >= 2; }));

    call("logStatus");
    waitForLogLine("There are 1 assigned device(s) being managed:");
    waitForLogLine("Assigned device: " + other);
    QCOMPARE(DaemonRunner::readLines(output), (QStringList{"station 3", "station 5"}));

    QDBusConnection::disconnectFromBus("platform");
    kill(daemon, SIGTERM);
    QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
}

// Skipped (77) without a private mount namespace, dbus-daemon or umockdev.
int main(int argc, char* argv[])
{
    return runUnlessUnavailable<QCoreApplication, DBusFirstJobTest>(
        argc, argv, &DaemonRunner::unavailableReasonWithEmulatedInput);
}

#include "test_dbus_firstjob.moc"
