// AssignmentHandler with kernel keyboards: the LED rotation of an unassigned
// keyboard as the kernel sees it, the LEDs it gets back when it is removed or
// assigned, and an unplug while it blinks.
//
// The handler blinks on the real clock, one step on the first update() of
// each new second, so these tests call update() every 100 ms as the daemon's
// timer does and follow the clock around each call. The display
// configurations and the central object need a session bus: the test starts
// a private dbus-daemon, on which no platform service runs (the display's
// calls to it fail at once and change nothing here). No X server runs in the
// VM, so a display configuration lives without a window.
#include "DaemonRunner.h"
#include "LogCapture.h"
#include "TestFiles.h"
#include "UinputTestMain.h"

#include "assignment/AssignmentHandler.h"
#include "common/Util.h"
#include "daemon/BusPlatformServices.h"
#include "daemon/DBusInterface.h"
#include "daemon/Selvane.h"
#include "input/EventDevice.h"
#include "input/InputKeyCode.h"

#include <QDeadlineTimer>
#include <QThread>

#include <linux/input-event-codes.h>

#include <algorithm>
#include <memory>
#include <utility>

using LedEvents = QVector<UinputLedEvent>;

namespace {

constexpr int numLock = 1 << LED_NUML;
constexpr int capsLock = 1 << LED_CAPSL;
constexpr int scrollLock = 1 << LED_SCROLLL;
// The LEDs the blinker turns, in the order they light up.
constexpr int rotatedLeds = 3;
constexpr int updateIntervalMs = 100;
// Long enough for a few seconds of the clock on a slow emulated machine.
constexpr int blinkTimeoutMs = 6000;
// Any display number will do: no X server runs in the VM.
constexpr int displayWithoutServer = 7;
// Station 0 is claimed with F1.
constexpr int stationId = 0;

QString describe(const LedEvents& events)
{
    QStringList parts;
    for (const UinputLedEvent& event : events) {
        parts.append(QStringLiteral("(LED %1, %2)").arg(event.code).arg(event.value));
    }
    return "{" + parts.join(", ") + "}";
}

// The LEDs a device holds after the kernel forwarded these events to it.
int withEvents(int leds, const LedEvents& events)
{
    for (const UinputLedEvent& event : events) {
        leds = event.value ? leds | 1 << event.code : leds & ~(1 << event.code);
    }
    return leds;
}

// One possible course of a keyboard's blinker: the rotation steps made, the
// second of the last step (or of the blinker's start) and the LEDs the kernel
// holds for the keyboard.
struct Rotation
{
    int steps;
    qint64 lastChange;
    int leds;

    bool operator==(const Rotation& other) const
    {
        return steps == other.steps && lastChange == other.lastChange && leds == other.leds;
    }
};

// Where one update() may take a rotation, with the LED events the kernel
// forwards on the way. The blinker reads the clock once, at some second from
// `before` to `after`, and makes a step when that second is later than its
// last step: the lit LED goes off and the next one on. The input core
// forwards only the writes that change an LED.
QVector<std::pair<Rotation, LedEvents>> afterUpdate(const Rotation& rotation, qint64 before,
                                                    qint64 after)
{
    QVector<std::pair<Rotation, LedEvents>> outcomes;
    for (qint64 second = before; second <= after; ++second) {
        if (second <= rotation.lastChange) {
            outcomes.append({rotation, LedEvents{}});
            continue;
        }
        const int lit = rotation.steps % rotatedLeds;
        const int next = (lit + 1) % rotatedLeds;
        LedEvents events;
        if (rotation.leds & 1 << lit) {
            events.append({lit, 0});
        }
        if (!(rotation.leds & 1 << next)) {
            events.append({next, 1});
        }
        outcomes.append(
            {Rotation{rotation.steps + 1, second, withEvents(rotation.leds, events)}, events});
    }
    return outcomes;
}

} // namespace

class AssignmentHandlerVmTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        bus = std::make_unique<DaemonRunner>();
        QVERIFY2(bus->isBusRunning(), "no private dbus-daemon could be started");
        // Before the first use of the session bus in this process.
        qputenv("DBUS_SESSION_BUS_ADDRESS", bus->busAddress().toLocal8Bit());
        const QString keyConfiguration = bus->path(QStringLiteral("keys.conf"));
        QVERIFY(writeFile(keyConfiguration, QByteArray()));
        InputKeyCode::buildTable();
        central = std::make_unique<Selvane>(keyConfiguration);
        dbus = std::make_unique<DBusInterface>(central.get());
        platform = std::make_unique<BusPlatformServices>(*dbus, *central);
    }
    void cleanupTestCase()
    {
        platform.reset();
        dbus.reset();
        central.reset();
        InputKeyCode::cleanupTable();
        bus.reset();
    }

    void init()
    {
        log = std::make_unique<LogCapture>();
        handler = std::make_unique<AssignmentHandler>(*platform);
    }
    void cleanup()
    {
        handler.reset();
        log.reset();
    }

    void unassignedKeyboardRotatesOneStepASecondAndRemovalRestoresCapsLock()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        const QString path = keyboard.devicePath();
        QVERIFY(keyboard.writeToNode(EV_LED, LED_CAPSL, 1));
        QCOMPARE(keyboard.takeLedEvents(), (LedEvents{{LED_CAPSL, 1}}));

        const qint64 addedFrom = Orvanta::utilSecondsSinceEpoch();
        QVERIFY(handler->addUnassignedDevice(path));
        const qint64 addedUntil = Orvanta::utilSecondsSinceEpoch();
        QCOMPARE(handler->getNumLedBlinkers(), 1);
        QCOMPARE(keyboard.takeLedEvents(), LedEvents{});

        // The blinker started at a second it read while being added.
        QVector<Rotation> possible;
        for (qint64 second = addedFrom; second <= addedUntil; ++second) {
            possible.append({0, second, capsLock});
        }
        // Every update() must be one of the courses the clock allows; three
        // steps take three changes of the second.
        QVector<LedEvents> forwarded;
        const QDeadlineTimer deadline(blinkTimeoutMs);
        const auto belowThreeSteps = [](const Rotation& rotation) { return rotation.steps < 3; };
        while (std::any_of(possible.cbegin(), possible.cend(), belowThreeSteps)) {
            QVERIFY2(!deadline.hasExpired(), "the blinker made fewer than three steps in time");
            QThread::msleep(updateIntervalMs);
            const qint64 before = Orvanta::utilSecondsSinceEpoch();
            handler->update();
            const qint64 after = Orvanta::utilSecondsSinceEpoch();
            const LedEvents events = keyboard.takeLedEvents();
            const int leds = keyboard.ledBits();

            QVector<Rotation> next;
            for (const Rotation& rotation : std::as_const(possible)) {
                for (const auto& [outcome, expected] : afterUpdate(rotation, before, after)) {
                    if (expected == events && outcome.leds == leds && !next.contains(outcome)) {
                        next.append(outcome);
                    }
                }
            }
            QVERIFY2(!next.isEmpty(),
                     qPrintable(QStringLiteral("an update() %1 to %2 s after the second the "
                                               "keyboard was added in forwarded %3 and left the "
                                               "LEDs at %4: not the rotation at one step a second")
                                    .arg(before - addedFrom)
                                    .arg(after - addedFrom)
                                    .arg(describe(events))
                                    .arg(leds)));
            possible = next;
            if (!events.isEmpty()) {
                forwarded.append(events);
            }
        }
        // With Caps Lock on before, the first step (Num off, Caps on) changes
        // nothing the kernel passes on; the next two do.
        QCOMPARE(forwarded, (QVector<LedEvents>{{{LED_CAPSL, 0}, {LED_SCROLLL, 1}},
                                                {{LED_SCROLLL, 0}, {LED_NUML, 1}}}));
        QCOMPARE(keyboard.ledBits(), numLock);

        log->clear();
        handler->removeUnassignedDevice(path);
        QCOMPARE(log->count("Removing unassigned device " + path), 1);
        QCOMPARE(handler->getNumLedBlinkers(), 0);
        QVERIFY(handler->getUnassignedDevices().isEmpty());
        QCOMPARE(keyboard.takeLedEvents(), (LedEvents{{LED_NUML, 0}, {LED_CAPSL, 1}}));
        QCOMPARE(keyboard.ledBits(), capsLock);
    }

    void assignmentKeyDropsTheKeyboardWithItsLedsAsBeforeBlinking()
    {
        handler->configureKeyboard(displayWithoutServer, stationId);
        QCOMPARE(handler->getDisplayConfigurations().size(), 1);
        const DisplayConfiguration* display = handler->getDisplayConfigurations().first();
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_CONFIGURING_KEYBOARD);
        QCOMPARE(display->getAssignmentKey(), QString("KEY_F1"));
        QCOMPARE(handler->displayWaitingFor("KEY_F1"), display);

        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        const QString path = keyboard.devicePath();
        const int before = numLock | scrollLock;
        QVERIFY(keyboard.writeToNode(EV_LED, LED_NUML, 1));
        QVERIFY(keyboard.writeToNode(EV_LED, LED_SCROLLL, 1));
        QCOMPARE(keyboard.takeLedEvents(), (LedEvents{{LED_NUML, 1}, {LED_SCROLLL, 1}}));
        QCOMPARE(keyboard.ledBits(), before);
        QVERIFY(handler->addUnassignedDevice(path));

        // The first step: Num Lock off, Caps Lock on.
        QCOMPARE(updateUntilLedsChange(keyboard), (LedEvents{{LED_NUML, 0}, {LED_CAPSL, 1}}));
        int leds = capsLock | scrollLock;
        QCOMPARE(keyboard.ledBits(), leds);

        // The press completes the assignment in the update that takes it from the input
        // thread (which may read it a moment after it is typed); the keyboard is dropped at
        // the next update().
        log->clear();
        QVERIFY(keyboard.press(KEY_F1));
        QVERIFY(QTest::qWaitFor([&] {
            handler->update();
            return display->getState() == DisplayConfiguration::STATE_KEYBOARD_CONFIGURED;
        }));
        leds = withEvents(leds, keyboard.takeLedEvents());
        QVERIFY(!handler->displayWaitingFor("KEY_F1"));
        QVERIFY(!handler->isAnyKeyArmed());
        QVERIFY(handler->getEventDevice(path));

        handler->update();
        QVERIFY(!handler->getEventDevice(path));
        QVERIFY(handler->getUnassignedDevices().isEmpty());
        QCOMPARE(handler->getNumLedBlinkers(), 0);
        QCOMPARE(log->count("Removing unassigned device " + path), 1);
        // Both what was forwarded to the keyboard and what the kernel holds
        // for it are the LEDs from before the blinking.
        QCOMPARE(withEvents(leds, keyboard.takeLedEvents()), before);
        QCOMPARE(keyboard.ledBits(), before);
        QVERIFY(keyboard.release(KEY_F1));
    }

    void unplugWhileBlinkingDropsTheKeyboardOnceAndQuietly()
    {
        UinputDevice keyboard(DeviceDescription::keyboard());
        QVERIFY2(keyboard.isValid(), qPrintable(keyboard.errorString()));
        const QString path = keyboard.devicePath();
        QVERIFY(handler->addUnassignedDevice(path));
        QCOMPARE(updateUntilLedsChange(keyboard), (LedEvents{{LED_CAPSL, 1}}));

        log->clear();
        QVERIFY2(keyboard.unplug(), qPrintable(keyboard.errorString()));
        // The unplug is seen by the first write of a step or by the read,
        // whichever comes first; the device is dropped in the same update().
        for (int update = 0; update < 3 && !handler->getUnassignedDevices().isEmpty(); ++update) {
            handler->update();
        }
        QCOMPARE(handler->getNumLedBlinkers(), 0);
        QVERIFY(handler->getUnassignedDevices().isEmpty());
        QVERIFY(!handler->getEventDevice(path));
        const QString removed = "Device " + path + " has been removed.  Closing device.";
        QVERIFY2(log->count(removed) == 1, qPrintable(log->messages().join('\n')));
        QCOMPARE(log->find(removed)->level, Orvanta::Logger::LEVEL_INFO);

        // Nothing is left that could retry the device.
        log->clear();
        for (int update = 0; update < 20; ++update) {
            handler->update();
        }
        QStringList aboutTheDevice;
        for (const QString& message : log->messages()) {
            if (message.contains(path)) {
                aboutTheDevice.append(message);
            }
        }
        QVERIFY2(aboutTheDevice.isEmpty(), qPrintable(aboutTheDevice.join('\n')));
        QCOMPARE(handler->getNumLedBlinkers(), 0);
    }

private:
    // Calls update() every 100 ms until the kernel forwards LED events to the
    // keyboard, and returns them; none when the blinker made no visible step
    // within a few seconds.
    LedEvents updateUntilLedsChange(UinputDevice& keyboard)
    {
        const QDeadlineTimer deadline(blinkTimeoutMs);
        while (!deadline.hasExpired()) {
            QThread::msleep(updateIntervalMs);
            handler->update();
            const LedEvents events = keyboard.takeLedEvents();
            if (!events.isEmpty()) {
                return events;
            }
        }
        return {};
    }

    std::unique_ptr<DaemonRunner> bus;
    std::unique_ptr<Selvane> central;
    std::unique_ptr<DBusInterface> dbus;
    std::unique_ptr<BusPlatformServices> platform;
    std::unique_ptr<LogCapture> log;
    std::unique_ptr<AssignmentHandler> handler;
};

SELVANE_UINPUT_TEST_MAIN(AssignmentHandlerVmTest)
#include "test_assignmenthandler.moc"
