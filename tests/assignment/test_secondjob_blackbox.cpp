// The daemon's second job end to end, driven over D-Bus as the platform
// drives it, with the shipped pictures and translations: two Xvfb stations,
// unassigned keyboards and mice (emulated evdev nodes), the platform
// simulator's record of what the daemon reports.
#include "DaemonRunner.h"
#include "EmulatedInput.h"
#include "OverlayTestBed.h"
#include "PlatformSimulatorProcess.h"
#include "UmockdevTestbed.h"
#include "XDisplayProbe.h"
#include "XvfbServer.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QGuiApplication>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <memory>

namespace {

const QByteArray windowName = QByteArrayLiteral("Press F Key");

QString assignedAuto(const QString& node, int display, const QString& kind)
{
    return QStringLiteral("com.orvanta.Assignment.DeviceAssignedAuto \"%1\" %2 \"%3\"")
        .arg(node)
        .arg(display)
        .arg(kind);
}

} // namespace

class SecondJobBlackboxTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        runner = std::make_unique<DaemonRunner>();
        QVERIFY(runner->isBusRunning());
        runner->setShareDir(SELVANE_BUILT_DATA_DIR);
        simulator = std::make_unique<PlatformSimulatorProcess>(
            runner->busAddress(), runner->path("calls"),
            QStringList{"--tag", "name=Library desk", "--tag", "location=Ground floor",
                        "--unassigned-keyboards", "2", "--assigned-keyboards", "1"});
        QVERIFY(simulator->isReady());
        platform = QDBusConnection::connectToBus(runner->busAddress(), "platform");
        QVERIFY(platform.isConnected());
        for (auto& station : stations) {
            station = std::make_unique<XvfbServer>();
            QVERIFY(station->start());
        }
        input = std::make_unique<EmulatedInput>(SELVANE_EMULATED_INPUT, 2, 2);
        QCOMPARE(input->nodes.size(), 4);

        config = runner->path("keys.conf");
        QFile file(config);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("KEY_LEFTCTRL:KEY_F1:true\n");
        file.close();
        // The daemon sees the emulated nodes.
        runner->setExtraEnvironment(input->environment);
        const DaemonRunner::Result start = runner->run({"-c", config});
        QCOMPARE(start.status, 0);
        daemon = runner->waitForDaemon();
        QVERIFY(daemon > 0);
        QVERIFY(simulator->waitForCall("com.orvanta.Assignment.SelvaneStarted"));
    }

    void cleanupTestCase()
    {
        QDBusConnection::disconnectFromBus("platform");
        if (daemon > 0) {
            kill(daemon, SIGTERM);
            QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        }
        input.reset();
        simulator.reset();
        runner.reset();
    }

    void unassignedDevicesAreHeld()
    {
        for (const QString& node : input->nodes) {
            call("unassignedDeviceAdded", {node});
        }
        call("logStatus");
        waitForLogLine("There are 4 unassigned device(s) being managed:");
        for (const QString& node : input->nodes) {
            waitForLogLine("Unassigned device: " + node);
        }
        waitForLogLine("There are 0 display configuration(s) active:");
    }

    void configureKeyboardShowsTheOverlay()
    {
        call("configureKeyboard", {display(0), 2});
        waitForLogLine(QStringLiteral("Creating display configuration on display :%1 on station 2.")
                           .arg(display(0)));
        const XDisplayProbe probe(stations[0]->getDisplayName());
        QVERIFY(probe.isConnected());
        QVERIFY(
            DaemonRunner::waitUntil([&] { return probe.windowsNamed(windowName).size() == 1; }));
        // The picture arrives: the screen is no longer the server's black.
        QVERIFY(DaemonRunner::waitUntil([&] {
            const QImage screen = probe.screenshot(QRect(0, 0, 1024, 768));
            return !screen.isNull() && screen.pixel(512, 20) != qRgb(0, 0, 0);
        }));
        call("logStatus");
        waitForLogLine(QStringLiteral("Display configuration running on display: %1  station: 2")
                           .arg(display(0)));
    }

    void theStationsKeyAssignsTheKeyboardThatPressedIt()
    {
        const int before = simulator->calls().size();
        const QString second = input->nodes.at(1);
        QVERIFY(input->type(0, {"KEY_F4"})); // not this station's key
        QVERIFY(input->type(1, {"KEY_F3"}));
        QVERIFY(simulator->waitForCall(assignedAuto(second, display(0), "KeyboardDevice")));
        waitForLogLine("Removing unassigned device " + second);
        // The key is taken: pressing it again, on another keyboard, sends nothing.
        QVERIFY(input->type(0, {"KEY_F3"}));
        call("logStatus");
        waitForLogLine("There are 3 unassigned device(s) being managed:");
        QCOMPARE(assignmentsSince(before),
                 QStringList{assignedAuto(second, display(0), "KeyboardDevice")});
    }

    void lettersServeTheStationsAfterTheFunctionKeys()
    {
        const int before = simulator->calls().size();
        const QString first = input->nodes.at(0);
        call("configureKeyboard", {display(1), 14}); // KEY_C
        waitForLogLine(
            QStringLiteral("Creating display configuration on display :%1 on station 14.")
                .arg(display(1)));
        QVERIFY(input->type(0, {"KEY_C"}));
        QVERIFY(simulator->waitForCall(assignedAuto(first, display(1), "KeyboardDevice")));
        waitForLogLine("Removing unassigned device " + first);
        QCOMPARE(assignmentsSince(before),
                 QStringList{assignedAuto(first, display(1), "KeyboardDevice")});
    }

    void theMouseButtonGoesToOneDisplayAtATime()
    {
        const int before = simulator->calls().size();
        const QString firstMouse = input->nodes.at(2);
        const QString secondMouse = input->nodes.at(3);
        call("configureMouse", {display(0), 2});
        call("configureMouse", {display(1), 14});
        call("logStatus");
        waitForLogLine("There are 2 unassigned device(s) being managed:");

        QVERIFY(input->type(2, {"BTN_LEFT"}));
        QVERIFY(simulator->waitForCall(assignedAuto(firstMouse, display(0), "MouseDevice")));
        waitForLogLine("Removing unassigned device " + firstMouse);
        // The second display took the button over.
        QVERIFY(input->type(3, {"BTN_LEFT"}));
        QVERIFY(simulator->waitForCall(assignedAuto(secondMouse, display(1), "MouseDevice")));
        QCOMPARE(assignmentsSince(before),
                 (QStringList{assignedAuto(firstMouse, display(0), "MouseDevice"),
                              assignedAuto(secondMouse, display(1), "MouseDevice")}));
    }

    void configurationCompleteClosesTheOverlay()
    {
        for (int station = 0; station < 2; ++station) {
            call("configurationComplete", {display(station)});
            const XDisplayProbe probe(stations[station]->getDisplayName());
            QVERIFY(
                DaemonRunner::waitUntil([&] { return probe.windowsNamed(windowName).isEmpty(); }));
        }
        call("logStatus");
        waitForLogLine("There are 0 unassigned device(s) being managed:");
        QVERIFY(DaemonRunner::waitForLine(
            runner->defaultLogFile(),
            DaemonRunner::logMessage("There are 0 display configuration(s) active:")));
    }

private:
    int display(int station) const { return stations[station]->getDisplayNumber(); }

    void call(const QString& method, const QVariantList& arguments = {})
    {
        const QDBusMessage reply = platform.call(DaemonRunner::daemonCall(method, arguments));
        QVERIFY2(reply.type() == QDBusMessage::ReplyMessage, qPrintable(reply.errorMessage()));
    }

    void waitForLogLine(const QString& message)
    {
        QVERIFY2(
            DaemonRunner::waitForLine(runner->defaultLogFile(), DaemonRunner::logMessage(message)),
            qPrintable("no log line \"" + message + "\" in:\n" +
                       DaemonRunner::readLines(runner->defaultLogFile()).join('\n')));
    }

    // The assignments recorded after the first `from` calls. A status request
    // first takes one more tick, in which a late assignment would show up.
    QStringList assignmentsSince(int from)
    {
        const int statusLines = DaemonRunner::readLines(runner->defaultLogFile()).size();
        call("logStatus");
        DaemonRunner::waitUntil(
            [&] { return DaemonRunner::readLines(runner->defaultLogFile()).size() > statusLines; });
        QStringList assignments;
        for (const QString& line : simulator->calls().mid(from)) {
            if (line.startsWith("com.orvanta.Assignment.DeviceAssignedAuto ")) {
                assignments.append(line);
            }
        }
        return assignments;
    }

    std::unique_ptr<DaemonRunner> runner;
    std::unique_ptr<PlatformSimulatorProcess> simulator;
    std::unique_ptr<XvfbServer> stations[2];
    std::unique_ptr<EmulatedInput> input;
    QDBusConnection platform{QString()};
    QString config;
    pid_t daemon = 0;
};

// Skipped (77) without a private mount namespace, dbus-daemon, umockdev or Xvfb.
SELVANE_STATION_BLACKBOX_TEST_MAIN(SecondJobBlackboxTest)

#include "test_secondjob_blackbox.moc"
