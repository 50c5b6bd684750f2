// The assignment handler with emulated keyboards and mice (umockdev) and
// display numbers without an X server (one test uses an Xvfb station): the unassigned devices and
// their blinkers, the 39 assignment keys, the hand-over of the mouse button between displays and
// what reaches the platform (the simulator's record).
#include "OverlayTestBed.h"
#include "UmockdevTestbed.h"
#include "XvfbServer.h"

#include "assignment/AssignmentHandler.h"
#include "input/EventDevice.h"
#include "input/InputKeyCode.h"

#include <QElapsedTimer>
#include <QMap>
#include <QtTest>

#include <linux/input-event-codes.h>
#include <memory>

using Orvanta::Logger;

namespace {

QString assignedAuto(const QString& deviceFile, int displayId, const QString& kind)
{
    return QStringLiteral("com.orvanta.Assignment.DeviceAssignedAuto \"%1\" %2 \"%3\"")
        .arg(deviceFile)
        .arg(displayId)
        .arg(kind);
}

// The display that waits for the key, or null.
const DisplayConfiguration* boundDisplay(const AssignmentHandler& handler, const QString& key)
{
    return handler.displayWaitingFor(key);
}

} // namespace

class AssignmentHandlerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        bed = std::make_unique<OverlayTestBed>();
        QVERIFY(bed->isReady());
        noServer = XvfbServer::unusedDisplayNumber();
        QVERIFY(noServer >= 0);
    }
    void cleanupTestCase() { bed.reset(); }

    void init()
    {
        OverlayTestBed::removeDataFile("version");
        testbed = std::make_unique<UmockdevTestbed>();
        handler = std::make_unique<AssignmentHandler>(bed->getPlatform());
        bed->getLog().clear();
    }
    void cleanup()
    {
        handler.reset();
        testbed.reset();
    }

private:
    // The display configurations ask for their locales and open their
    // displays without waiting: waits until each has its language and has
    // connected, or has logged its failed connection.
    void settle()
    {
        QVERIFY(DaemonRunner::waitUntil([&] {
            for (const DisplayConfiguration* display : handler->getDisplayConfigurations()) {
                const QString failed = QStringLiteral("Could not get connection to display :%1")
                                           .arg(display->getDisplayId());
                if (!display->isLanguageDetermined() ||
                    (!display->isDisplayConnected() && !bed->getLog().contains(failed))) {
                    return false;
                }
            }
            return true;
        }));
    }

private Q_SLOTS:

    void theAssignmentKeysAreF1ToF12AToZAndTheLeftButton()
    {
        const QStringList names = AssignmentHandler::getAssignmentKeyNames();
        QVERIFY(!handler->isAnyKeyArmed());
        QStringList expected;
        for (int n = 1; n <= 12; ++n) {
            expected.append(QStringLiteral("KEY_F%1").arg(n));
        }
        for (char letter = 'A'; letter <= 'Z'; ++letter) {
            expected.append(QStringLiteral("KEY_%1").arg(QLatin1Char(letter)));
        }
        expected.append("BTN_LEFT");
        QCOMPARE(names, expected);
        QVERIFY(!handler->isMouseBusy());
    }

    void versionFileChoosesTheBadge_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("overlay");
        QTest::newRow("alpha release") << QByteArray("Qel 2.0 ALPHA 3\n") << 0;
        QTest::newRow("beta release") << QByteArray("2.0-BETA\n") << 1;
        QTest::newRow("alpha wins over beta") << QByteArray("BETA then ALPHA") << 0;
        QTest::newRow("neither word") << QByteArray("2.0 final\n") << 2;
        QTest::newRow("lower case does not count") << QByteArray("2.0 alpha beta") << 2;
        QTest::newRow("the text ends at the first NUL byte") << QByteArray("2.0\0ALPHA", 9) << 2;
        QTest::newRow("an empty file") << QByteArray() << 2;
    }

    void versionFileChoosesTheBadge()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, overlay);
        QVERIFY(OverlayTestBed::writeDataFile("version", content));
        bed->getLog().clear();
        const AssignmentHandler versioned(bed->getPlatform());
        QCOMPARE(static_cast<int>(versioned.getOverlayImage()), overlay);
        QVERIFY(bed->getLog().entries().isEmpty());
    }

    void missingVersionFileIsAWarning()
    {
        QCOMPARE(handler->getOverlayImage(), DisplayConfiguration::OVERLAY_IMAGE_NONE);
        const AssignmentHandler unversioned(bed->getPlatform());
        const LogCapture::Entry* entry = bed->getLog().find("Could not determine Qel version");
        QVERIFY(entry);
        QCOMPARE(entry->level, Logger::LEVEL_WARNING);
        QCOMPARE(entry->file, QString("AssignmentHandler"));
        QCOMPARE(entry->function, QString("AssignmentHandler"));
    }

    void sameDeviceTwiceIsHeldOnce()
    {
        const QString node = testbed->addDevice(DeviceDescription::keyboard());
        QVERIFY(handler->addUnassignedDevice(node));
        QVERIFY(handler->addUnassignedDevice(node));
        QCOMPARE(handler->getUnassignedDevices().size(), 1);
        QCOMPARE(handler->getNumLedBlinkers(), 1);
        QCOMPARE(bed->getLog().count("Adding unassigned device " + node), 1);
        QVERIFY(handler->getEventDevice(node));
        QCOMPARE(handler->getEventDevice(node)->getDeviceFileName(), node);
    }

    void deviceThatCannotBeOpenedIsNotKept()
    {
        const QString node = QStringLiteral("/dev/input/event99");
        QVERIFY(!handler->addUnassignedDevice(node));
        QVERIFY(!handler->addUnassignedDevice(node));
        QVERIFY(handler->getUnassignedDevices().isEmpty());
        QCOMPARE(handler->getNumLedBlinkers(), 0);
        // Each try is a new attempt.
        QCOMPARE(bed->getLog().count("Adding unassigned device " + node), 2);
    }

    void removingADeviceDropsItAndItsBlinker()
    {
        const QString first = testbed->addDevice(DeviceDescription::keyboard());
        const QString second = testbed->addDevice(DeviceDescription::mouse());
        QVERIFY(handler->addUnassignedDevice(first));
        QVERIFY(handler->addUnassignedDevice(second));
        bed->getLog().clear();
        handler->removeUnassignedDevice(first);
        QCOMPARE(handler->getUnassignedDevices().size(), 1);
        QCOMPARE(handler->getUnassignedDevices().first()->getDeviceFileName(), second);
        QCOMPARE(handler->getNumLedBlinkers(), 1);
        const LogCapture::Entry* entry = bed->getLog().find("Removing unassigned device " + first);
        QVERIFY(entry);
        QCOMPARE(entry->level, Logger::LEVEL_INFO);
        QCOMPARE(entry->function, QString("removeUnassignedDevice"));
    }

    void removingAnUnknownNameLogsNothing()
    {
        const QString node = testbed->addDevice(DeviceDescription::keyboard());
        QVERIFY(handler->addUnassignedDevice(node));
        bed->getLog().clear();
        handler->removeUnassignedDevice("/dev/input/event42");
        handler->removeUnassignedDevice(node + " ");
        QVERIFY(bed->getLog().entries().isEmpty());
        QCOMPARE(handler->getUnassignedDevices().size(), 1);
    }

    void removingAnUnknownNameStillRedrawsEveryOverlay()
    {
        XvfbServer station;
        QVERIFY(station.start());
        handler->configureKeyboard(station.getDisplayNumber(), 2);
        handler->update();
        // Every composition of the keyboard picture asks for the counts first.
        // They are asked for without waiting, and the picture is composed on
        // the station's thread: the checks below give them time to happen.
        QVERIFY(DaemonRunner::waitUntil([&] { return compositions() >= 1; }));
        QTest::qWait(300);
        const int composed = compositions();
        handler->update();
        QTest::qWait(300);
        QCOMPARE(compositions(), composed);

        handler->removeUnassignedDevice("/dev/input/event42");
        QTest::qWait(300);
        QCOMPARE(compositions(), composed); // only marked, drawn at the next update
        handler->update();
        QVERIFY(DaemonRunner::waitUntil([&] { return compositions() == composed + 1; }));
        QTest::qWait(300);
        QCOMPARE(compositions(), composed + 1);
    }

    void configureKeyboardBindsTheStationsKey()
    {
        handler->configureKeyboard(noServer, 2);
        QCOMPARE(handler->getDisplayConfigurations().size(), 1);
        const DisplayConfiguration* display = handler->getDisplayConfigurations().first();
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_CONFIGURING_KEYBOARD);
        QCOMPARE(display->getAssignmentKey(), QString("KEY_F3"));
        QCOMPARE(boundDisplay(*handler, "KEY_F3"), display);
        // The display is opened at once, not only at the first update.
        QVERIFY(DaemonRunner::waitUntil([&] { return bed->getLog().contains(noConnection()); }));
    }

    void configureKeyboardReusesTheDisplaysConfiguration()
    {
        handler->configureKeyboard(noServer, 2);
        const DisplayConfiguration* display = handler->getDisplayConfigurations().first();
        bed->getLog().clear();
        handler->configureKeyboard(noServer, 9);
        QCOMPARE(handler->getDisplayConfigurations().size(), 1);
        QCOMPARE(handler->getDisplayConfigurations().first(), display);
        QCOMPARE(display->getStationId(), 2);
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_CONFIGURING_KEYBOARD);
        QCOMPARE(display->getAssignmentKey(), QString("KEY_F3"));
        QVERIFY(!bed->getLog().contains(
            QStringLiteral("Creating display configuration on display :%1 on station 9.")
                .arg(noServer)));
    }

    void aKeyTakenByAnotherDisplayMovesToIt()
    {
        handler->configureKeyboard(noServer, 2);
        handler->configureKeyboard(6, 2);
        QCOMPARE(handler->getDisplayConfigurations().size(), 2);
        QCOMPARE(boundDisplay(*handler, "KEY_F3"), handler->getDisplayConfigurations().at(1));
    }

    void digitKeysHaveNoSequence()
    {
        handler->configureKeyboard(noServer, 38);
        const DisplayConfiguration* display = handler->getDisplayConfigurations().first();
        QCOMPARE(display->getAssignmentKey(), QString("KEY_0"));
        const LogCapture::Entry* entry =
            bed->getLog().find("Could not find key sequence for KEY_0");
        QVERIFY(entry);
        QCOMPARE(entry->level, Logger::LEVEL_BUG);
        QCOMPARE(entry->function, QString("findKeySequenceWithPressKey"));
        QVERIFY(!handler->isAnyKeyArmed());
    }

    void stationWithoutKeyBindsNothingSilently()
    {
        handler->configureKeyboard(noServer, 48);
        QCOMPARE(handler->getDisplayConfigurations().first()->getAssignmentKey(), QString());
        QVERIFY(!bed->getLog().contains("Could not find key sequence for "));
        QVERIFY(!handler->isAnyKeyArmed());
    }

    void theAssignmentKeyAssignsTheKeyboard()
    {
        const QString keyboard = testbed->addDevice(DeviceDescription::keyboard());
        QVERIFY(handler->addUnassignedDevice(keyboard));
        handler->configureKeyboard(noServer, 2);
        settle();
        const int before = bed->callCount();

        type(keyboard, KEY_F3);
        QVERIFY(
            bed->getSimulator().waitForCall(assignedAuto(keyboard, noServer, "KeyboardDevice")));
        QCOMPARE(bed->callsSince(before),
                 QStringList{assignedAuto(keyboard, noServer, "KeyboardDevice")});
        QCOMPARE(handler->getDisplayConfigurations().first()->getState(),
                 DisplayConfiguration::STATE_KEYBOARD_CONFIGURED);
        QVERIFY(!boundDisplay(*handler, "KEY_F3"));
        // Still held until the next update, which drops it.
        QCOMPARE(handler->getUnassignedDevices().size(), 1);
        QVERIFY(!bed->getLog().contains("Removing unassigned device " + keyboard));
        handler->update();
        QVERIFY(handler->getUnassignedDevices().isEmpty());
        QCOMPARE(handler->getNumLedBlinkers(), 0);
        QCOMPARE(bed->getLog().count("Removing unassigned device " + keyboard), 1);
    }

    void periodicUpdatesAreNeededWhileADisplayABlinkerOrADeviceToDropIsHeld()
    {
        QVERIFY(!handler->needsPeriodicUpdates());
        const QString keyboard = testbed->addDevice(DeviceDescription::keyboard());
        QVERIFY(handler->addUnassignedDevice(keyboard));
        QVERIFY(handler->needsPeriodicUpdates());
        handler->removeUnassignedDevice(keyboard);
        QVERIFY(!handler->needsPeriodicUpdates());

        // A display that cannot be reached needs them as much as one that can.
        handler->configureKeyboard(noServer, 2);
        QVERIFY(handler->needsPeriodicUpdates());
        handler->configurationComplete(noServer);
        QVERIFY(!handler->needsPeriodicUpdates());

        QVERIFY(handler->addUnassignedDevice(keyboard));
        handler->configureKeyboard(noServer, 2);
        settle();
        type(keyboard, KEY_F3);
        QVERIFY(
            bed->getSimulator().waitForCall(assignedAuto(keyboard, noServer, "KeyboardDevice")));
        handler->configurationComplete(noServer);
        // The claimed keyboard is dropped by the next update.
        QVERIFY(handler->needsPeriodicUpdates());
        handler->update();
        QVERIFY(handler->getUnassignedDevices().isEmpty());
        QVERIFY(!handler->needsPeriodicUpdates());
    }

    void aKeyChangeOnAJustAssignedDeviceFiresNothing()
    {
        const QString keyboard = testbed->addDevice(DeviceDescription::keyboard());
        QVERIFY(handler->addUnassignedDevice(keyboard));
        handler->configureKeyboard(noServer, 2); // F3
        handler->configureKeyboard(6, 3);        // F4
        settle();
        const int before = bed->callCount();

        // Both presses are read in one update: the second comes after the
        // assignment, from a device that is only waiting to be dropped.
        QVERIFY(testbed->pressKey(keyboard, KEY_F3));
        QVERIFY(testbed->releaseKey(keyboard, KEY_F3));
        QVERIFY(testbed->pressKey(keyboard, KEY_F4));
        QVERIFY(testbed->waitUntilRead(keyboard, *handler->getEventDevice(keyboard)));
        handler->update();
        QVERIFY(
            bed->getSimulator().waitForCall(assignedAuto(keyboard, noServer, "KeyboardDevice")));
        QCOMPARE(handler->getDisplayConfigurations().at(1)->getState(),
                 DisplayConfiguration::STATE_CONFIGURING_KEYBOARD);
        QCOMPARE(boundDisplay(*handler, "KEY_F4"), handler->getDisplayConfigurations().at(1));

        handler->update();
        QCOMPARE(bed->getLog().count("Removing unassigned device " + keyboard), 1);
        // A call for display 6 would have been sent before this marker.
        QVERIFY(bed->getSimulator().waitForCall(marker()));
        QCOMPARE(bed->callsSince(before),
                 (QStringList{assignedAuto(keyboard, noServer, "KeyboardDevice"), markerCall()}));
    }

    void aKeyNoDisplayWaitsForDoesNothing()
    {
        const QString keyboard = testbed->addDevice(DeviceDescription::keyboard());
        QVERIFY(handler->addUnassignedDevice(keyboard));
        handler->configureKeyboard(noServer, 2); // F3
        settle();
        const int before = bed->callCount();
        bed->getLog().clear();
        type(keyboard, KEY_Q);
        type(keyboard, KEY_F4);
        // That display has no server: its failed connect each update is all.
        for (const QString& message : bed->getLog().messages()) {
            QCOMPARE(message, noConnection());
        }
        QVERIFY(bed->getSimulator().waitForCall(marker()));
        QCOMPARE(bed->callsSince(before), QStringList{markerCall()});
        QCOMPARE(handler->getUnassignedDevices().size(), 1);
    }

    void theMouseButtonIsHandedFromDisplayToDisplay()
    {
        const QString mouse = testbed->addDevice(DeviceDescription::mouse());
        const QString secondMouse = testbed->addDevice(DeviceDescription::mouse());
        QVERIFY(handler->addUnassignedDevice(mouse));
        QVERIFY(handler->addUnassignedDevice(secondMouse));
        handler->configureMouse(noServer, 1);
        handler->configureMouse(6, 2);
        const DisplayConfiguration* first = handler->getDisplayConfigurations().at(0);
        const DisplayConfiguration* second = handler->getDisplayConfigurations().at(1);
        QCOMPARE(first->getState(), DisplayConfiguration::STATE_CONFIGURING_MOUSE);
        QCOMPARE(second->getState(), DisplayConfiguration::STATE_MOUSE_BUSY);
        QVERIFY(handler->isMouseBusy());
        QCOMPARE(boundDisplay(*handler, "BTN_LEFT"), first);

        settle();
        const int before = bed->callCount();
        type(mouse, BTN_LEFT);
        QVERIFY(bed->getSimulator().waitForCall(assignedAuto(mouse, noServer, "MouseDevice")));
        QCOMPARE(first->getState(), DisplayConfiguration::STATE_MOUSE_CONFIGURED);
        QCOMPARE(second->getState(), DisplayConfiguration::STATE_CONFIGURING_MOUSE);
        QCOMPARE(second->getAssignmentKey(), QString("BTN_LEFT"));
        QCOMPARE(boundDisplay(*handler, "BTN_LEFT"), second);
        QVERIFY(handler->isMouseBusy());

        handler->update(); // drops the first mouse
        QCOMPARE(handler->getUnassignedDevices().size(), 1);
        type(secondMouse, BTN_LEFT);
        QVERIFY(bed->getSimulator().waitForCall(assignedAuto(secondMouse, 6, "MouseDevice")));
        QCOMPARE(bed->callsSince(before),
                 (QStringList{assignedAuto(mouse, noServer, "MouseDevice"),
                              assignedAuto(secondMouse, 6, "MouseDevice")}));
        QVERIFY(!handler->isMouseBusy());
        QVERIFY(!boundDisplay(*handler, "BTN_LEFT"));
    }

    void completingTheDisplayThatOwnsTheMouseKeepsTheButtonBusy()
    {
        handler->configureMouse(noServer, 1);
        QVERIFY(handler->isMouseBusy());
        handler->configurationComplete(noServer);
        QVERIFY(handler->getDisplayConfigurations().isEmpty());
        QVERIFY(handler->isMouseBusy());
        // No key is left waiting for the deleted configuration.
        QVERIFY(!handler->isAnyKeyArmed());
        handler->configureMouse(6, 2);
        QCOMPARE(handler->getDisplayConfigurations().first()->getState(),
                 DisplayConfiguration::STATE_MOUSE_BUSY);
        QVERIFY(!boundDisplay(*handler, "BTN_LEFT"));
    }

    void completingADisplayUnbindsOnlyItsOwnKeys()
    {
        const QString keyboard = testbed->addDevice(DeviceDescription::keyboard());
        QVERIFY(handler->addUnassignedDevice(keyboard));
        handler->configureKeyboard(noServer, 2); // F3
        handler->configureKeyboard(6, 3);        // F4
        settle();
        bed->getLog().clear();
        handler->configurationComplete(noServer);
        handler->configurationComplete(99); // unknown: ignored silently
        QCOMPARE(bed->getLog().messages(),
                 QStringList{
                     QStringLiteral("Removing display configuration on display :%1 on station 2.")
                         .arg(noServer)});
        QVERIFY(!boundDisplay(*handler, "KEY_F3"));
        QCOMPARE(boundDisplay(*handler, "KEY_F4"), handler->getDisplayConfigurations().first());

        // F3 now claims nothing, and nothing refers to the deleted display.
        const int before = bed->callCount();
        type(keyboard, KEY_F3);
        QVERIFY(bed->getSimulator().waitForCall(marker()));
        QCOMPARE(bed->callsSince(before), QStringList{markerCall()});
    }

    void slotsReportNullArguments()
    {
        handler->keyboardAssigned(nullptr, nullptr);
        handler->mouseAssigned(nullptr, nullptr);
        // Without a device the mouse step is handed on all the same and nothing is queued.
        QCOMPARE(bed->getLog().messages().mid(0, 1), QStringList{"display is NULL"});
        QVERIFY(!handler->isMouseBusy());
        for (const LogCapture::Entry& entry : bed->getLog().entries()) {
            QCOMPARE(entry.level, Logger::LEVEL_BUG);
        }
        QCOMPARE(bed->getLog().entries().at(0).function, QString("keyboardAssigned"));
    }

    void keyboardAssignedWithoutKeyIsABug()
    {
        handler->configureKeyboard(noServer, 48);
        bed->getLog().clear();
        const QString keyboard = testbed->addDevice(DeviceDescription::keyboard());
        QVERIFY(handler->addUnassignedDevice(keyboard));
        handler->keyboardAssigned(handler->getDisplayConfigurations().first(),
                                  handler->getEventDevice(keyboard));
        QVERIFY(bed->getLog().contains("The assignment key is empty"));
        handler->update();
        QVERIFY(!bed->getLog().contains("Removing unassigned device " + keyboard));
    }

    void logStatusWithNothingHeld()
    {
        handler->logStatus();
        QCOMPARE(bed->getLog().messages(),
                 (QStringList{"There are 0 unassigned device(s) being managed:",
                              "There are 0 display configuration(s) active:"}));
    }

    void logStatusListsDevicesAndDisplays()
    {
        const QString keyboard = testbed->addDevice(DeviceDescription::keyboard());
        const QString mouse = testbed->addDevice(DeviceDescription::mouse());
        QVERIFY(handler->addUnassignedDevice(keyboard));
        QVERIFY(handler->addUnassignedDevice(mouse));
        handler->configureKeyboard(noServer, 2);
        handler->configureMouse(8, 14);
        bed->getLog().clear();
        handler->logStatus();
        QCOMPARE(
            bed->getLog().messages(),
            (QStringList{
                "There are 2 unassigned device(s) being managed:", "Unassigned device: " + keyboard,
                "Unassigned device: " + mouse, "There are 2 display configuration(s) active:",
                QStringLiteral("Display configuration running on display: %1  station: 2")
                    .arg(noServer),
                "Display configuration running on display: 8  station: 14"}));
        for (const LogCapture::Entry& entry : bed->getLog().entries()) {
            QCOMPARE(entry.level, Logger::LEVEL_INFO);
            QCOMPARE(entry.file, QString("AssignmentHandler"));
            QCOMPARE(entry.function, QString("logStatus"));
        }
    }

    void deletingTheHandlerGivesTheKeyboardsTheirLedsBack()
    {
        UmockdevDeviceState state;
        state.ledsOn = {LED_NUML};
        const QString keyboard = testbed->addDevice(DeviceDescription::keyboard(), state);
        QVERIFY(handler->addUnassignedDevice(keyboard));
        handler->configureKeyboard(noServer, 2);
        handler.reset();
        // The restore writes every LED, Num Lock on and the rest off, while
        // the device is still open.
        const QVector<input_event> written = testbed->readEvents(keyboard, 2 * (LED_MAX));
        bool numLockOn = false;
        int ledEvents = 0;
        for (const input_event& event : written) {
            if (event.type == EV_LED) {
                ++ledEvents;
                if (event.code == LED_NUML) {
                    numLockOn = event.value == 1;
                }
            }
        }
        QVERIFY(ledEvents >= LED_MAX);
        QVERIFY(numLockOn);
        QVERIFY(bed->getLog().contains(
            QStringLiteral("Removing display configuration on display :%1 on station 2.")
                .arg(noServer)));
    }

    void unassignedKeyboardsBlinkOneStepASecond()
    {
        const QString keyboard = testbed->addDevice(DeviceDescription::keyboard());
        QVERIFY(handler->addUnassignedDevice(keyboard));
        // The 100 ms ticks of the daemon, for a little over two seconds.
        QList<QPair<qint64, input_event>> steps;
        QElapsedTimer clock;
        clock.start();
        while (clock.elapsed() < 2300) {
            handler->update();
            for (const input_event& event : testbed->readEvents(keyboard, 1, 100)) {
                steps.append({clock.elapsed(), event});
            }
        }
        // Each step turns one LED off and the next one on, Num, Caps, Scroll
        // Lock in turn; the records carry no time.
        QVERIFY2(steps.size() >= 4 && steps.size() <= 6, qPrintable(QString::number(steps.size())));
        int lit = -1;
        for (int i = 0; i < steps.size(); ++i) {
            const input_event& event = steps[i].second;
            QCOMPARE(int(event.type), int(EV_LED));
            QCOMPARE(event.time.tv_sec, 0);
            QCOMPARE(event.time.tv_usec, 0);
            if (i % 2 == 0) {
                QCOMPARE(event.value, 0);
                QCOMPARE(int(event.code), lit < 0 ? int(event.code) : lit);
            } else {
                QCOMPARE(event.value, 1);
                QCOMPARE(int(event.code), (int(steps[i - 1].second.code) + 1) % (LED_SCROLLL + 1));
                lit = event.code;
            }
        }
        // Steps a second apart: the second step comes between 0.5 and 1.5 s
        // after the first (the clock counts whole seconds).
        QVERIFY(steps.size() >= 4);
        const qint64 gap = steps[2].first - steps[0].first;
        QVERIFY2(gap >= 500 && gap <= 1500, qPrintable(QString::number(gap)));
    }

    void theLedsComeBackAfterAnAssignment()
    {
        UmockdevDeviceState state;
        state.ledsOn = {LED_CAPSL};
        const QString keyboard = testbed->addDevice(DeviceDescription::keyboard(), state);
        QVERIFY(handler->addUnassignedDevice(keyboard));
        handler->configureKeyboard(noServer, 0); // F1
        handler->update();                       // a blink step
        type(keyboard, KEY_F1);
        handler->update(); // drops the keyboard, which gets its LEDs back
        QCOMPARE(handler->getNumLedBlinkers(), 0);
        QCOMPARE(finalLeds(keyboard),
                 (QMap<int, int>{{LED_NUML, 0}, {LED_CAPSL, 1}, {LED_SCROLLL, 0}}));
    }

    void theLedsComeBackWhenTheDeviceIsRemoved()
    {
        UmockdevDeviceState state;
        state.ledsOn = {LED_NUML, LED_SCROLLL};
        const QString keyboard = testbed->addDevice(DeviceDescription::keyboard(), state);
        QVERIFY(handler->addUnassignedDevice(keyboard));
        handler->update(); // a blink step
        handler->removeUnassignedDevice(keyboard);
        QCOMPARE(handler->getNumLedBlinkers(), 0);
        QCOMPARE(finalLeds(keyboard),
                 (QMap<int, int>{{LED_NUML, 1}, {LED_CAPSL, 0}, {LED_SCROLLL, 1}}));
    }

private:
    // The last value written for each lock LED, from every LED record the
    // code under test wrote to the node so far.
    QMap<int, int> finalLeds(const QString& node)
    {
        QMap<int, int> leds;
        for (const input_event& event : testbed->readEvents(node, 10000, 300)) {
            if (event.type == EV_LED && event.code <= LED_SCROLLL) {
                leds[event.code] = event.value;
            }
        }
        return leds;
    }

    // The keyboard pictures composed so far, counted by their first database
    // call, once every call made before this one has been recorded.
    int compositions()
    {
        marker();
        return static_cast<int>(
            bed->getSimulator()
                .calls()
                .filter(
                    QRegularExpression("^com\\.orvanta\\.DB\\.DeviceGetNumberOfAssignedKeyboards$"))
                .size());
    }

    // Presses and releases a key on an emulated device and lets the handler
    // read both.
    void type(const QString& node, int key)
    {
        QVERIFY(testbed->pressKey(node, key));
        QVERIFY(testbed->releaseKey(node, key));
        QVERIFY(testbed->waitUntilRead(node, *handler->getEventDevice(node)));
        handler->update();
    }

    // A call this test makes itself after the handler's calls, so that a
    // call the handler must not make would have been recorded before it.
    QString marker()
    {
        QDBusMessage call = QDBusMessage::createMethodCall("com.orvanta.DB", "/com/orvanta/DB",
                                                           "com.orvanta.DB", "StationGetTag");
        call.setArguments({QStringLiteral("marker")});
        QDBusConnection::sessionBus().call(call);
        return markerCall();
    }
    static QString markerCall()
    {
        return QStringLiteral("com.orvanta.DB.StationGetTag \"marker\"");
    }

    // What the handler logs each time it cannot reach that display.
    QString noConnection() const
    {
        return QStringLiteral("Could not get connection to display :%1").arg(noServer);
    }

    // A display on which no server runs.
    int noServer = -1;
    std::unique_ptr<OverlayTestBed> bed;
    std::unique_ptr<UmockdevTestbed> testbed;
    std::unique_ptr<AssignmentHandler> handler;
};

SELVANE_OVERLAY_TEST_MAIN(AssignmentHandlerTest, true)
#include "test_assignmenthandler.moc"
