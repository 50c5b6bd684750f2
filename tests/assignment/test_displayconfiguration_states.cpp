// The display configuration's states without a display: the assignment key of
// every station number, the transitions and what each one reports to the
// platform (read back from the platform simulator's record) and to its owner.
// The display number has no X server, so no picture is ever composed. The
// device is an emulated keyboard (umockdev).
#include "OverlayTestBed.h"
#include "UmockdevTestbed.h"

#include "input/EventDevice.h"

#include <QSignalSpy>
#include <QtTest>

#include <limits>

namespace {

constexpr int displayId = 7;

QString assignedAuto(const QString& deviceFile, const QString& kind)
{
    return QStringLiteral("com.orvanta.Assignment.DeviceAssignedAuto \"%1\" %2 \"%3\"")
        .arg(deviceFile)
        .arg(displayId)
        .arg(kind);
}

} // namespace

class DisplayConfigurationStatesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        qRegisterMetaType<DisplayConfiguration*>();
        qRegisterMetaType<const EventDevice*>();
        bed = std::make_unique<OverlayTestBed>();
        QVERIFY(bed->isReady());
        testbed = std::make_unique<UmockdevTestbed>();
        deviceFile = testbed->addDevice(DeviceDescription::keyboard());
        device = std::make_unique<EventDevice>(deviceFile);
        QVERIFY(device->getFd() >= 0);
    }
    void cleanupTestCase()
    {
        device.reset();
        testbed.reset();
        bed.reset();
    }
    void init() { bed->getLog().clear(); }

    void constructionLogsAndAsksForTheLocaleOfItsDisplay()
    {
        const int before = bed->callCount();
        auto display = bed->create(displayId, 3);
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_START);
        QCOMPARE(display->getDisplayId(), displayId);
        QCOMPARE(display->getStationId(), 3);
        QCOMPARE(display->getAssignmentKey(), QString());
        QCOMPARE(bed->getLog().messages().value(0),
                 QString("Creating display configuration on display :7 on station 3."));
        const LogCapture::Entry* entry =
            bed->getLog().find("Creating display configuration on display :7 on station 3.");
        QCOMPARE(entry->level, Orvanta::Logger::LEVEL_INFO);
        QCOMPARE(entry->file, QString("DisplayConfiguration"));
        QCOMPARE(entry->function, QString("DisplayConfiguration"));
        QCOMPARE(bed->callsSince(before),
                 QStringList{"com.orvanta.Controllers.Session.GetLocaleForUserOnDisplay 7"});
        display.reset();
        QCOMPARE(bed->getLog().messages().last(),
                 QString("Removing display configuration on display :7 on station 3."));
    }

    void assignmentKeyOfEveryStation_data()
    {
        QTest::addColumn<int>("station");
        QTest::addColumn<QString>("key");
        QTest::newRow("station -1 falls through to the function keys") << -1 << "KEY_F0";
        for (int station = 0; station < 12; ++station) {
            QTest::addRow("station %d gets a function key", station)
                << station << QString("KEY_F%1").arg(station + 1);
        }
        for (int station = 12; station < 38; ++station) {
            QTest::addRow("station %d gets a letter", station)
                << station << QString("KEY_%1").arg(QChar('A' + station - 12));
        }
        for (int station = 38; station < 48; ++station) {
            QTest::addRow("station %d gets a digit", station)
                << station << QString("KEY_%1").arg(QChar('0' + station - 38));
        }
        QTest::newRow("station 48 gets none") << 48 << QString();
        QTest::newRow("station 200 gets none") << 200 << QString();
        QTest::newRow("the largest station gets none")
            << std::numeric_limits<int>::max() << QString();
        QTest::newRow("the smallest station falls through to the function keys")
            << std::numeric_limits<int>::min()
            << QString("KEY_F%1").arg(qint64(std::numeric_limits<int>::min()) + 1);
    }
    void assignmentKeyOfEveryStation()
    {
        QFETCH(int, station);
        QFETCH(QString, key);
        auto display = bed->create(displayId, station);
        bed->getLog().clear();
        display->configureKeyboard();
        QCOMPARE(display->getAssignmentKey(), key);
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_CONFIGURING_KEYBOARD);

        QStringList bugs;
        for (const LogCapture::Entry& entry : bed->getLog().entries()) {
            if (entry.level == Orvanta::Logger::LEVEL_BUG) {
                bugs.append(entry.message);
            }
        }
        if (station < 0) {
            QCOMPARE(bugs, QStringList{QString("stationId is invalid: %1").arg(station)});
        } else if (station >= 48) {
            QCOMPARE(bugs, QStringList{QString("There are no possible keys to use for "
                                               "assignment for station %1")
                                           .arg(station)});
        } else {
            QCOMPARE(bugs, QStringList());
        }
    }
    void spotChecksOfTheKeyTable()
    {
        // The same table with literal names, so that a shared mistake in the
        // rows above and the code cannot hide.
        const QList<QPair<int, QString>> expected{{0, "KEY_F1"}, {11, "KEY_F12"}, {12, "KEY_A"},
                                                  {37, "KEY_Z"}, {38, "KEY_0"},   {47, "KEY_9"}};
        for (const auto& [station, key] : expected) {
            auto display = bed->create(displayId, station);
            display->configureKeyboard();
            QCOMPARE(display->getAssignmentKey(), key);
        }
    }

    void keyboardKeyIsReportedThenStateThenSignal()
    {
        auto display = bed->create(displayId, 2);
        display->configureKeyboard();
        const int before = bed->callCount();
        DisplayConfiguration::State stateInSlot = DisplayConfiguration::STATE_START;
        QList<QPair<DisplayConfiguration*, const EventDevice*>> received;
        connect(display.get(), &DisplayConfiguration::keyboardAssigned, this,
                [&](DisplayConfiguration* sender, const EventDevice* from) {
                    stateInSlot = sender->getState();
                    received.append({sender, from});
                });
        QSignalSpy mice(display.get(), &DisplayConfiguration::mouseAssigned);
        display->assignmentKeyPressed(device.get());
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_KEYBOARD_CONFIGURED);
        QCOMPARE(stateInSlot, DisplayConfiguration::STATE_KEYBOARD_CONFIGURED);
        QCOMPARE(received.size(), 1);
        QCOMPARE(received.first().first, display.get());
        QCOMPARE(received.first().second, device.get());
        QCOMPARE(mice.count(), 0);
        QVERIFY(waitForCallSince(before, assignedAuto(deviceFile, "KeyboardDevice")));
        QCOMPARE(bed->callsSince(before), QStringList{assignedAuto(deviceFile, "KeyboardDevice")});
    }

    void secondPressAfterTheKeyboardIsRefused()
    {
        auto display = bed->create(displayId, 2);
        display->configureKeyboard();
        const int pressed = bed->callCount();
        display->assignmentKeyPressed(device.get());
        QVERIFY(waitForCallSince(pressed, assignedAuto(deviceFile, "KeyboardDevice")));
        const int before = bed->callCount();
        QSignalSpy keyboards(display.get(), &DisplayConfiguration::keyboardAssigned);
        bed->getLog().clear();
        QVERIFY(!display->assignmentKeyPressed(device.get()));
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_KEYBOARD_CONFIGURED);
        QCOMPARE(keyboards.count(), 0);
        QCOMPARE(bed->getLog().messages(),
                 QStringList{"State is invalid for handling assignment key.  State: "
                             "keyboard_configured"});
        QCOMPARE(bed->getLog().entries().first().level, Orvanta::Logger::LEVEL_BUG);
        assertNoCallArrives(before);
    }

    void mouseClickIsReportedThenStateThenSignal()
    {
        auto display = bed->create(displayId, 2);
        display->configureKeyboard();
        const int pressed = bed->callCount();
        display->assignmentKeyPressed(device.get());
        QVERIFY(waitForCallSince(pressed, assignedAuto(deviceFile, "KeyboardDevice")));
        bed->getLog().clear();
        display->configureMouse(false);
        QCOMPARE(bed->getLog().messages(), QStringList());
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_CONFIGURING_MOUSE);
        QCOMPARE(display->getAssignmentKey(), QString("BTN_LEFT"));

        const int before = bed->callCount();
        DisplayConfiguration::State stateInSlot = DisplayConfiguration::STATE_START;
        connect(display.get(), &DisplayConfiguration::mouseAssigned, this,
                [&](DisplayConfiguration* sender, const EventDevice*) {
                    stateInSlot = sender->getState();
                });
        QSignalSpy mice(display.get(), &DisplayConfiguration::mouseAssigned);
        display->assignmentKeyPressed(device.get());
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_MOUSE_CONFIGURED);
        QCOMPARE(stateInSlot, DisplayConfiguration::STATE_MOUSE_CONFIGURED);
        QCOMPARE(mice.count(), 1);
        QCOMPARE(mice.first().at(0).value<DisplayConfiguration*>(), display.get());
        QCOMPARE(mice.first().at(1).value<const EventDevice*>(), device.get());
        QVERIFY(waitForCallSince(before, assignedAuto(deviceFile, "MouseDevice")));
        QCOMPARE(bed->callsSince(before), QStringList{assignedAuto(deviceFile, "MouseDevice")});
    }

    void busyMouseKeepsTheKeyAndIgnoresPresses()
    {
        auto display = bed->create(displayId, 2);
        display->configureKeyboard();
        const int pressed = bed->callCount();
        display->assignmentKeyPressed(device.get());
        QVERIFY(waitForCallSince(pressed, assignedAuto(deviceFile, "KeyboardDevice")));
        display->configureMouse(true);
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_MOUSE_BUSY);
        QCOMPARE(display->getAssignmentKey(), QString("KEY_F3"));

        const int before = bed->callCount();
        QSignalSpy keyboards(display.get(), &DisplayConfiguration::keyboardAssigned);
        QSignalSpy mice(display.get(), &DisplayConfiguration::mouseAssigned);
        bed->getLog().clear();
        QVERIFY(!display->assignmentKeyPressed(device.get()));
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_MOUSE_BUSY);
        QCOMPARE(bed->getLog().messages(),
                 QStringList{"State is invalid for handling assignment key.  State: mouse_busy"});
        QCOMPARE(keyboards.count() + mice.count(), 0);
        assertNoCallArrives(before);

        // From busy, the mouse step proper is expected and logs nothing.
        bed->getLog().clear();
        display->configureMouse(false);
        QCOMPARE(bed->getLog().messages(), QStringList());
        QCOMPARE(display->getAssignmentKey(), QString("BTN_LEFT"));
    }

    void pressBeforeAnyConfigurationIsRefused()
    {
        auto display = bed->create(displayId, 2);
        const int before = bed->callCount();
        bed->getLog().clear();
        display->assignmentKeyPressed(device.get());
        QCOMPARE(bed->getLog().messages(),
                 QStringList{"State is invalid for handling assignment key.  State: start"});
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_START);
        assertNoCallArrives(before);
    }

    void nullDeviceIsABug()
    {
        auto display = bed->create(displayId, 2);
        display->configureKeyboard();
        const int before = bed->callCount();
        bed->getLog().clear();
        display->assignmentKeyPressed(nullptr);
        QCOMPARE(bed->getLog().messages(), QStringList{"eventDevice is NULL"});
        QCOMPARE(bed->getLog().entries().first().level, Orvanta::Logger::LEVEL_BUG);
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_CONFIGURING_KEYBOARD);
        assertNoCallArrives(before);
    }

    void mouseStepFromAnUnexpectedStateIsLoggedAndDoneAnyway()
    {
        auto display = bed->create(displayId, 2);
        bed->getLog().clear();
        display->configureMouse(false);
        QCOMPARE(bed->getLog().messages(),
                 QStringList{"State is start, but it's expected to be state keyboard_configured "
                             "or mouse_busy"});
        QCOMPARE(bed->getLog().entries().first().level, Orvanta::Logger::LEVEL_BUG);
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_CONFIGURING_MOUSE);
    }

    void abandoningTheMouseStepIsSignalledAsSuch()
    {
        auto display = bed->create(displayId, 2);
        display->configureKeyboard();
        QVERIFY(display->assignmentKeyPressed(device.get()));
        display->configureMouse(false);
        QSignalSpy abandoned(display.get(), &DisplayConfiguration::mouseStepAbandoned);
        QSignalSpy mice(display.get(), &DisplayConfiguration::mouseAssigned);
        display->configureKeyboard();
        QCOMPARE(abandoned.count(), 1);
        QCOMPARE(mice.count(), 0);
        QCOMPARE(display->getState(), DisplayConfiguration::STATE_CONFIGURING_KEYBOARD);
        QCOMPARE(display->getAssignmentKey(), QString("KEY_F3"));

        // From any other state there is no such notice.
        display->configureKeyboard();
        QCOMPARE(abandoned.count(), 1);
    }

    void stateTexts_data()
    {
        QTest::addColumn<int>("state");
        QTest::addColumn<QString>("text");
        QTest::newRow("0") << 0 << "start";
        QTest::newRow("1") << 1 << "configuring_keyboard";
        QTest::newRow("2") << 2 << "keyboard_configured";
        QTest::newRow("3") << 3 << "mouse_busy";
        QTest::newRow("4") << 4 << "configuring_mouse";
        QTest::newRow("5") << 5 << "mouse_configured";
    }
    void stateTexts()
    {
        QFETCH(int, state);
        QFETCH(QString, text);
        QCOMPARE(
            DisplayConfiguration::stateToString(static_cast<DisplayConfiguration::State>(state)),
            text);
        QCOMPARE(bed->getLog().messages(), QStringList());
    }
    void unknownStateIsStartWithAWarning()
    {
        QCOMPARE(DisplayConfiguration::stateToString(static_cast<DisplayConfiguration::State>(7)),
                 QString("start"));
        QCOMPARE(bed->getLog().messages(), QStringList{"state is invalid: 7"});
        QCOMPARE(bed->getLog().entries().first().level, Orvanta::Logger::LEVEL_WARNING);
    }

private:
    bool waitForCallSince(int before, const QString& call)
    {
        return DaemonRunner::waitUntil([&] { return bed->callsSince(before).contains(call); });
    }

    // No call after the first `before` ones, even after a round trip to the
    // simulator: a call sent earlier would have been recorded before the
    // round trip's own.
    void assertNoCallArrives(int before)
    {
        const QDBusMessage reply = bed->getDBus().getDatabaseInterface()->call(
            QStringLiteral("DeviceGetNumberOfAssignedMice"));
        QCOMPARE(reply.type(), QDBusMessage::ReplyMessage);
        QCOMPARE(bed->callsSince(before),
                 QStringList{"com.orvanta.DB.DeviceGetNumberOfAssignedMice"});
    }

    std::unique_ptr<OverlayTestBed> bed;
    std::unique_ptr<UmockdevTestbed> testbed;
    QString deviceFile;
    std::unique_ptr<EventDevice> device;
};

int main(int argc, char** argv)
{
    QGuiApplication app(argc, argv);
    QString reason = OverlayTestBed::unavailableReason(false);
    if (reason.isEmpty() && !UmockdevTestbed::isPreloaded()) {
        reason = QStringLiteral("umockdev's preload library is not loaded");
    }
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "SKIP: %s\n", qPrintable(reason));
        return 77;
    }
    DisplayConfigurationStatesTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "test_displayconfiguration_states.moc"
