// The whole bridge, SeatsBridge, in its surroundings faked: logind and
// localed on a private bus, the daemon as a second connection that owns
// com.orvanta.selvane, udev's devices emulated by umockdev. A room of two
// seats with x11 greeters on :0 and :1, two USB keyboards and two USB mice.
// What the bridge tells the daemon at the start, and what comes of claims: a
// stranger's is one Warning and attaches nothing, the daemon's attaches the
// port and tells the daemon the station once udev shows the seat, and one
// that logind refuses is one Error, after which the prompt comes back; the
// daemon's questions are answered while an attach is pending.
#include "DaemonRunner.h"
#include "FakeLocaleServices.h"
#include "FakeLogind.h"
#include "FakeSelvane.h"
#include "LogCapture.h"
#include "UdevRoomScripts.h"
#include "UmockdevTestbed.h"

#include "seats/app/SeatsBridge.h"
#include "seats/system/LogindTypes.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtTest>

// GLib's headers use "signals" as a member name; Qt's keyword macro must not rewrite it.
#pragma push_macro("signals")
#undef signals
#include <umockdev.h>
#pragma pop_macro("signals")

#include <memory>

namespace {
constexpr int waitMs = 5000;

const QString keyboardB = QStringLiteral("/dev/input/event4");
const QString keyboardBNode =
    QStringLiteral("/sys/devices/pci0000:00/0000:00:05.0/usb1/1-2/1-2:1.0/input/input5/event4");
const QString keyboardBPort = QStringLiteral("/sys/devices/pci0000:00/0000:00:05.0/usb1/1-2");

const QStringList bootCalls{
    "unassignedDeviceAdded(/dev/input/event3)",
    "unassignedDeviceAdded(/dev/input/event4)",
    "unassignedDeviceAdded(/dev/input/event5)",
    "unassignedDeviceAdded(/dev/input/event6)",
    "configureKeyboard(0, 0)",
    "configureKeyboard(1, 1)",
};

const QString claimB = QStringLiteral("DeviceAssignedAuto(/dev/input/event4, 1, KeyboardDevice)");
} // namespace

class SeatsBridgeTest : public QObject
{
    Q_OBJECT

private:
    int round = 0;
    QStringList connectionNames;
    std::unique_ptr<UMockdevTestbed, decltype(&g_object_unref)> testbed{nullptr, g_object_unref};
    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<FakeLogind> logind;
    std::unique_ptr<FakeLocaleServices> localeServices;
    std::unique_ptr<FakeSelvane> daemon;
    std::unique_ptr<LogCapture> log;
    std::unique_ptr<SeatsBridge> bridge;

    QDBusConnection connection(const QString& role)
    {
        const QString name = QStringLiteral("%1%2").arg(role).arg(round);
        if (!connectionNames.contains(name)) {
            connectionNames.append(name);
            return QDBusConnection::connectToBus(
                QString::fromLocal8Bit(qgetenv("DBUS_SESSION_BUS_ADDRESS")), name);
        }
        return QDBusConnection(name);
    }

    // DeviceAssignedAuto sent from `role`'s connection; true once answered.
    bool claim(const QString& role, const QString& devicePath, int displayId, const QString& kind)
    {
        const QString assignment = QStringLiteral("com.orvanta.Assignment");
        QDBusMessage call =
            QDBusMessage::createMethodCall(assignment, QStringLiteral("/com/orvanta/Assignment"),
                                           assignment, QStringLiteral("DeviceAssignedAuto"));
        call.setArguments({devicePath, displayId, kind});
        QDBusPendingCall pending = connection(role).asyncCall(call, waitMs);
        return DaemonRunner::waitUntil([&pending] { return pending.isFinished(); }, waitMs) &&
               !pending.isError();
    }

    // A platform method called from the daemon's connection; its reply, an
    // invalid message when none came.
    QDBusMessage askPlatform(const QString& service, const QString& method,
                             const QVariantList& arguments = {})
    {
        QDBusMessage call = QDBusMessage::createMethodCall(
            service,
            QLatin1Char('/') + QString(service).replace(QLatin1Char('.'), QLatin1Char('/')),
            service, method);
        call.setArguments(arguments);
        QDBusPendingCall pending = connection(QStringLiteral("daemon")).asyncCall(call, waitMs);
        if (!DaemonRunner::waitUntil([&pending] { return pending.isFinished(); }, waitMs)) {
            return QDBusMessage();
        }
        return pending.reply();
    }

    bool waitForCalls(const QStringList& expected) const
    {
        return DaemonRunner::waitUntil([&] { return daemon->calls == expected; }, waitMs);
    }

    QStringList linesAt(Orvanta::Logger::Level level) const
    {
        QStringList lines;
        for (const LogCapture::Entry& entry : log->entries()) {
            if (entry.level == level) {
                lines.append(entry.message);
            }
        }
        return lines;
    }

    // The bridge started in the room; the daemon has heard of every device
    // and both prompts.
    void boot()
    {
        bridge = std::make_unique<SeatsBridge>(
            SeatsBridge::Files{dir->filePath(QStringLiteral("seats")),
                               dir->filePath(QStringLiteral("seats.conf"))},
            connection(QStringLiteral("bridgeSystem")), connection(QStringLiteral("bridgeShared")));
        QVERIFY(bridge->start());
        QVERIFY2(waitForCalls(bootCalls), qPrintable(daemon->calls.join(QLatin1Char('\n'))));
    }

private Q_SLOTS:
    void initTestCase() { registerLogindTypes(); }

    void init()
    {
        ++round;
        testbed.reset(umockdev_testbed_new());
        QVERIFY(testbed);
        QVERIFY(addToTestbed(testbed.get(), usbController()));
        QVERIFY(addToTestbed(testbed.get(),
                             usbInputDevice(1, 4, 3, true, {}, QStringLiteral("Keyboard A"))));
        QVERIFY(addToTestbed(testbed.get(),
                             usbInputDevice(2, 5, 4, true, {}, QStringLiteral("Keyboard B"))));
        QVERIFY(addToTestbed(testbed.get(),
                             usbInputDevice(3, 6, 5, false, {}, QStringLiteral("Mouse A"))));
        QVERIFY(addToTestbed(testbed.get(),
                             usbInputDevice(4, 7, 6, false, {}, QStringLiteral("Mouse B"))));
        dir = std::make_unique<QTemporaryDir>();
        QVERIFY(dir->isValid());

        const QDBusConnection system = connection(QStringLiteral("system"));
        QVERIFY(system.isConnected());
        logind = std::make_unique<FakeLogind>(system);
        QVERIFY(logind->claimName());
        FakeSeat* seat0 = logind->addSeat(QStringLiteral("seat0"), true);
        FakeSeat* seat1 = logind->addSeat(QStringLiteral("seat1"), true);
        logind->addSession(QStringLiteral("1"), QStringLiteral(":0"), QStringLiteral("x11"),
                           QStringLiteral("greeter"), 110);
        logind->addSession(QStringLiteral("2"), QStringLiteral(":1"), QStringLiteral("x11"),
                           QStringLiteral("greeter"), 111);
        logind->activate(seat0, QStringLiteral("1"));
        logind->activate(seat1, QStringLiteral("2"));
        localeServices = std::make_unique<FakeLocaleServices>(system);
        QVERIFY(localeServices->startLocaled({QStringLiteral("LANG=de_DE.UTF-8")}));

        QDBusConnection selvane = connection(QStringLiteral("daemon"));
        QVERIFY(selvane.isConnected());
        daemon = std::make_unique<FakeSelvane>();
        QVERIFY(selvane.registerVirtualObject(QStringLiteral("/"), daemon.get()));
        QVERIFY(selvane.registerService(QStringLiteral("com.orvanta.selvane")));
        QVERIFY(connection(QStringLiteral("stranger")).isConnected());
        log = std::make_unique<LogCapture>();
    }

    void cleanup()
    {
        bridge.reset();
        log.reset();
        daemon.reset();
        localeServices.reset();
        logind.reset();
        for (const QString& name : connectionNames) {
            QDBusConnection::disconnectFromBus(name);
        }
        connectionNames.clear();
        dir.reset();
        testbed.reset();
    }

    void aClaimFromAStrangerIsOneWarningAndAttachesNothing()
    {
        boot();
        QVERIFY(claim(QStringLiteral("stranger"), keyboardB, 1, QStringLiteral("KeyboardDevice")));
        QCOMPARE(
            linesAt(Orvanta::Logger::LEVEL_WARNING),
            QStringList{"Ignoring " + claimB + ": the sender does not own com.orvanta.selvane"});
        // The daemon's own claim, sent after it, is the only one logind is asked for.
        QVERIFY(claim(QStringLiteral("daemon"), keyboardB, 1, QStringLiteral("KeyboardDevice")));
        QVERIFY(DaemonRunner::waitUntil([this] { return !logind->manager.attachCalls.isEmpty(); },
                                        waitMs));
        QCOMPARE(logind->manager.attachCalls,
                 (QList<QVariantList>{{QStringLiteral("seat1"), keyboardBPort, false}}));
        QCOMPARE(linesAt(Orvanta::Logger::LEVEL_WARNING).size(), 1);
        QCOMPARE(daemon->calls, bootCalls);
    }

    void theDaemonsClaimAttachesThePortAndTellsTheStation()
    {
        boot();
        QVERIFY(claim(QStringLiteral("daemon"), keyboardB, 1, QStringLiteral("KeyboardDevice")));
        QVERIFY(DaemonRunner::waitUntil([this] { return !logind->manager.attachCalls.isEmpty(); },
                                        waitMs));
        QCOMPARE(logind->manager.attachCalls,
                 (QList<QVariantList>{{QStringLiteral("seat1"), keyboardBPort, false}}));
        // udev applies logind's rule to the event node.
        umockdev_testbed_set_property(testbed.get(), qPrintable(keyboardBNode), "ID_SEAT", "seat1");
        umockdev_testbed_uevent(testbed.get(), qPrintable(keyboardBNode), "change");
        QVERIFY2(waitForCalls(bootCalls + QStringList{"deviceAddedToStation(/dev/input/event4, 1)",
                                                      "configureMouse(1, 1)"}),
                 qPrintable(daemon->calls.join(QLatin1Char('\n'))));
        QCOMPARE(linesAt(Orvanta::Logger::LEVEL_WARNING), QStringList());
        QCOMPARE(linesAt(Orvanta::Logger::LEVEL_ERROR), QStringList());
        QCOMPARE(logind->manager.attachCalls.size(), 1);
    }

    void aRefusedAttachIsOneErrorAndThePromptComesBack()
    {
        logind->manager.attachMode = FakeManager::Mode::Refuse;
        boot();
        QVERIFY(claim(QStringLiteral("daemon"), keyboardB, 1, QStringLiteral("KeyboardDevice")));
        // The daemon dropped the device and left its keyboard step when it
        // sent the claim: the device is announced again and the prompt put back.
        QVERIFY2(waitForCalls(bootCalls + QStringList{"unassignedDeviceAdded(/dev/input/event4)",
                                                      "configureKeyboard(1, 1)"}),
                 qPrintable(daemon->calls.join(QLatin1Char('\n'))));
        QCOMPARE(linesAt(Orvanta::Logger::LEVEL_ERROR),
                 QStringList{"Could not attach /dev/input/event4 to seat1 (station 1): "
                             "AttachDevice: org.freedesktop.DBus.Error.AccessDenied: Access "
                             "denied; it is announced again in 300 ms"});
        QCOMPARE(linesAt(Orvanta::Logger::LEVEL_WARNING), QStringList());
        QCOMPARE(logind->manager.attachCalls.size(), 1);
    }

    void theDaemonsQuestionsAreAnsweredWhileAnAttachIsPending()
    {
        logind->manager.attachMode = FakeManager::Mode::Hold;
        boot();
        QVERIFY(claim(QStringLiteral("daemon"), keyboardB, 1, QStringLiteral("KeyboardDevice")));
        QVERIFY(
            DaemonRunner::waitUntil([this] { return !logind->manager.held.isEmpty(); }, waitMs));
        // The daemon waits at most 100 ms for each answer.
        QElapsedTimer answered;
        answered.start();
        const QDBusMessage count = askPlatform(QStringLiteral("com.orvanta.DB"),
                                               QStringLiteral("DeviceGetNumberOfUnassignedMice"));
        const qint64 countMs = answered.restart();
        QCOMPARE(count.type(), QDBusMessage::ReplyMessage);
        QCOMPARE(count.arguments(), QVariantList{2});
        // Without AccountsService, the greeter's user gets the system's locale.
        const QDBusMessage locale = askPlatform(QStringLiteral("com.orvanta.Controllers.Session"),
                                                QStringLiteral("GetLocaleForUserOnDisplay"), {1});
        const qint64 localeMs = answered.elapsed();
        QCOMPARE(locale.type(), QDBusMessage::ReplyMessage);
        QCOMPARE(locale.arguments(), QVariantList{QStringLiteral("de_DE.UTF-8")});
        qInfo("answered in %lld ms and %lld ms while AttachDevice was pending", countMs, localeMs);
        QVERIFY(countMs <= 100);
        QVERIFY(localeMs <= 100);
        QCOMPARE(logind->manager.held.size(), 1);
    }
};

int main(int argc, char** argv)
{
    UmockdevTestbed::requirePreload(argc, argv);
    return runOnPrivateBus<QCoreApplication, SeatsBridgeTest>(argc, argv);
}

#include "test_seatsbridge.moc"
