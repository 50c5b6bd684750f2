// The calls the seats bridge makes to the daemon, in order, for what happens
// in a room of two stations (see RoomScript for the room and its commands).
// Each row is a script: "> command" lines, each followed by exactly what it
// produced: the calls, the attach of an accepted claim, the Warning and Error
// lines.
#include "RoomScript.h"

#include <QtTest>

namespace {

const QStringList bootLines{
    "> boot",
    "unassignedDeviceAdded(kbdA)",
    "unassignedDeviceAdded(kbdB)",
    "unassignedDeviceAdded(mouseA)",
    "unassignedDeviceAdded(mouseB)",
    "configureKeyboard(0, 0)",
    "configureKeyboard(1, 1)",
};

// The lines of the device's claim for the station (also its display and seat
// number) accepted and attached.
QStringList claimAttached(const QString& device, const QString& type, int station,
                          const QString& port)
{
    return {QStringLiteral("> claim %1 %2 %3").arg(device).arg(station).arg(type),
            QStringLiteral("attach usb1/%1 to seat%2").arg(port).arg(station),
            QStringLiteral("> attached %1").arg(device),
            QStringLiteral("deviceAddedToStation(%1, %2)").arg(device).arg(station)};
}

// A keyboard's claim attached: the station asks for the mouse.
QStringList keyboardTaken(const QString& device, int station, const QString& port)
{
    return claimAttached(device, QStringLiteral("KeyboardDevice"), station, port)
           << QStringLiteral("configureMouse(%1, %1)").arg(station);
}

// A mouse's claim attached: the station is complete.
QStringList mouseTaken(const QString& device, int station, const QString& port)
{
    return claimAttached(device, QStringLiteral("MouseDevice"), station, port)
           << QStringLiteral("configurationComplete(%1)").arg(station);
}

// Station 1 has keyboard B by its key, and asks for the mouse.
const QStringList stationOneAtTheMouseStep = bootLines + keyboardTaken("kbdB", 1, "1-2");

// Station 1 gets mouse B by its click too.
const QStringList stationOneComplete = stationOneAtTheMouseStep + mouseTaken("mouseB", 1, "1-4");

// Both stations complete.
const QStringList bothComplete =
    stationOneComplete + keyboardTaken("kbdA", 0, "1-1") + mouseTaken("mouseA", 0, "1-3");

// Both stations complete, after a reboot: every assignment holds and no
// station asks.
const QStringList bothRebooted = bothComplete + QStringList{
                                                    "> reboot",
                                                    "deviceAddedToStation(kbdA, 0)",
                                                    "deviceAddedToStation(kbdB, 1)",
                                                    "deviceAddedToStation(mouseA, 0)",
                                                    "deviceAddedToStation(mouseB, 1)",
                                                };

// Both stations at the mouse step: :0 holds the mouse button, :1 waits for it.
const QStringList bothAtTheMouseStep =
    bootLines + keyboardTaken("kbdA", 0, "1-1") + keyboardTaken("kbdB", 1, "1-2");

const QString refusedTail = QStringLiteral("Warning: Ignoring DeviceAssignedAuto(");

} // namespace

class DaemonDriverTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void callsInOrder_data()
    {
        QTest::addColumn<QStringList>("script");

        QTest::newRow("after boot the four devices are unassigned and each station asks")
            << bootLines;
        QTest::newRow("F2 on keyboard B, then a click on mouse B, completes station 1")
            << stationOneComplete;
        QTest::newRow("a keyboard replugged into its port belongs to its seat again")
            << stationOneComplete + QStringList{
                                        "> unplug kbdB",
                                        "deviceRemovedFromStation(kbdB)",
                                        "configureKeyboard(1, 1)",
                                        "> plug kbdC",
                                        "deviceAddedToStation(kbdC, 1)",
                                        "configurationComplete(1)",
                                    };
        QTest::newRow("a keyboard swapped within one change brings no prompt")
            << stationOneComplete + QStringList{
                                        "> replace kbdB kbdC",
                                        "deviceRemovedFromStation(kbdB)",
                                        "deviceAddedToStation(kbdC, 1)",
                                    };
        QTest::newRow("after a reboot every assignment holds and no station asks") << bothRebooted;
        QTest::newRow("released, seat1's devices are unassigned and its prompt comes back")
            << bothRebooted + QStringList{
                                  "> release seat1",
                                  "deviceRemovedFromStation(kbdB)",
                                  "deviceRemovedFromStation(mouseB)",
                                  "unassignedDeviceAdded(kbdB)",
                                  "unassignedDeviceAdded(mouseB)",
                                  "configureKeyboard(1, 1)",
                              };
        QTest::newRow("a refused attach is one Error; 300 ms later the device and prompt are back")
            << bootLines +
                   QStringList{
                       "> claim kbdB 1 KeyboardDevice",
                       "attach usb1/1-2 to seat1",
                       "> attach-fails kbdB AttachDevice: Access denied",
                       "Error: Could not attach kbdB to seat1 (station 1): AttachDevice: Access "
                       "denied; it is announced again in 300 ms",
                       "> wait 299",
                       "> wait 1",
                       "unassignedDeviceAdded(kbdB)",
                       "configureKeyboard(1, 1)",
                       "> claim kbdB 1 KeyboardDevice",
                       "attach usb1/1-2 to seat1",
                   };
        QTest::newRow("a refused mouse attach puts the click prompt back")
            << stationOneAtTheMouseStep +
                   QStringList{
                       "> claim mouseB 1 MouseDevice",
                       "attach usb1/1-4 to seat1",
                       "> attach-fails mouseB no ID_SEAT=seat1 within 10 s",
                       "Error: Could not attach mouseB to seat1 (station 1): no "
                       "ID_SEAT=seat1 within "
                       "10 s; it is announced again in 300 ms",
                       "> wait 300",
                       "unassignedDeviceAdded(mouseB)",
                       "configureMouse(1, 1)",
                   };
        QTest::newRow("the daemon restarted at the mouse step is told everything again")
            << stationOneAtTheMouseStep + QStringList{
                                              "> restart-daemon",
                                              "deviceAddedToStation(kbdB, 1)",
                                              "unassignedDeviceAdded(kbdA)",
                                              "unassignedDeviceAdded(mouseA)",
                                              "unassignedDeviceAdded(mouseB)",
                                              "configureKeyboard(0, 0)",
                                              "configureMouse(1, 1)",
                                          };
        QTest::newRow("the daemon restarted while a claim is attached leaves that station alone")
            << bootLines + QStringList{
                               "> claim kbdB 1 KeyboardDevice",
                               "attach usb1/1-2 to seat1",
                               "> restart-daemon",
                               "unassignedDeviceAdded(kbdA)",
                               "unassignedDeviceAdded(mouseA)",
                               "unassignedDeviceAdded(mouseB)",
                               "configureKeyboard(0, 0)",
                               "> attached kbdB",
                               "deviceAddedToStation(kbdB, 1)",
                               "configureMouse(1, 1)",
                           };
        QTest::newRow("a device attached by the administrator leaves the unassigned set first")
            << bootLines + QStringList{
                               "> attach-by-admin kbdB seat1",  "unassignedDeviceRemoved(kbdB)",
                               "deviceAddedToStation(kbdB, 1)", "configurationComplete(1)",
                               "configureMouse(1, 1)",
                           };
        QTest::newRow("an unassigned device unplugged is removed")
            << bootLines + QStringList{
                               "> unplug mouseA",
                               "unassignedDeviceRemoved(mouseA)",
                           };
        QTest::newRow("a device unplugged while attached lets its station ask again")
            << bootLines +
                   QStringList{
                       "> claim kbdB 1 KeyboardDevice", "attach usb1/1-2 to seat1", "> unplug kbdB",
                       "configureKeyboard(1, 1)",       "> attached kbdB",
                   };
        QTest::newRow("the mouse button is handed on when its display completes otherwise")
            << bothAtTheMouseStep +
                   QStringList{
                       "> claim mouseB 1 MouseDevice",
                       refusedTail + "mouseB, 1, MouseDevice): display :1 is at mouse_busy, not at "
                                     "configuring_mouse",
                       "unassignedDeviceAdded(mouseB)",
                       "> attach-by-admin mouseA seat0",
                       "unassignedDeviceRemoved(mouseA)",
                       "deviceAddedToStation(mouseA, 0)",
                       "configureKeyboard(0, 0)",
                       "configurationComplete(0)",
                       "> claim mouseB 1 MouseDevice",
                       "attach usb1/1-4 to seat1",
                   };
        QTest::newRow("a click on the first mouse display hands the button to the next")
            << bothAtTheMouseStep + QStringList{
                                        "> claim mouseA 0 MouseDevice",
                                        "attach usb1/1-3 to seat0",
                                        "> claim mouseB 1 MouseDevice",
                                        "attach usb1/1-4 to seat1",
                                        "> attached mouseA",
                                        "deviceAddedToStation(mouseA, 0)",
                                        "configurationComplete(0)",
                                        "> attached mouseB",
                                        "deviceAddedToStation(mouseB, 1)",
                                        "configurationComplete(1)",
                                    };
        QTest::newRow("a station that loses its keyboard at the mouse step asks for a key again")
            << bothAtTheMouseStep + QStringList{
                                        "> unplug kbdA",
                                        "deviceRemovedFromStation(kbdA)",
                                        "configureKeyboard(0, 0)",
                                        "> claim mouseB 1 MouseDevice",
                                        "attach usb1/1-4 to seat1",
                                    };
        QTest::newRow("a station whose session turns to Wayland loses its prompt")
            << bootLines + QStringList{
                               "> session seat1 wayland",
                               "configurationComplete(1)",
                               "> session seat1 x11 :1",
                               "configureKeyboard(1, 1)",
                           };
        QTest::newRow("a station whose display moves asks on the new one")
            << bootLines + QStringList{
                               "> session seat1 x11 :4",
                               "configurationComplete(1)",
                               "configureKeyboard(4, 1)",
                           };
    }
    void callsInOrder()
    {
        QFETCH(QStringList, script);
        RoomScript room;
        QVERIFY(room.isReady());
        QString command;
        QStringList expected;
        const auto check = [&]() {
            if (command.isEmpty()) {
                return true;
            }
            const QStringList produced = room.run(command);
            if (produced != expected) {
                qWarning().noquote() << "after" << command << "\n  produced:" << produced
                                     << "\n  expected:" << expected;
                return false;
            }
            return true;
        };
        for (const QString& line : script) {
            if (!line.startsWith(QLatin1String("> "))) {
                expected << line;
                continue;
            }
            QVERIFY2(check(), qPrintable(command));
            command = line.mid(2);
            expected.clear();
        }
        QVERIFY2(check(), qPrintable(command));
    }

    void claimsThatAreRefused_data()
    {
        QTest::addColumn<QString>("claim");
        QTest::addColumn<QStringList>("produced");

        QTest::newRow("from a sender that does not own the daemon's name")
            << "claim-by-stranger kbdB 1 KeyboardDevice"
            << QStringList{refusedTail + "kbdB, 1, KeyboardDevice): the sender does not own "
                                         "com.orvanta.selvane"};
        QTest::newRow("of a device never announced: the prompt is put back")
            << "claim /dev/input/event9 1 KeyboardDevice"
            << QStringList{refusedTail + "/dev/input/event9, 1, KeyboardDevice): the device was "
                                         "not announced as unassigned",
                           "configureKeyboard(1, 1)"};
        QTest::newRow("for a display that is no station's: the device is announced again")
            << "claim kbdB 5 KeyboardDevice"
            << QStringList{refusedTail + "kbdB, 5, KeyboardDevice): display :5 is no station's",
                           "unassignedDeviceAdded(kbdB)"};
        QTest::newRow("of a mouse at the keyboard step")
            << "claim mouseB 1 MouseDevice"
            << QStringList{refusedTail + "mouseB, 1, MouseDevice): display :1 is at "
                                         "configuring_keyboard, not at configuring_mouse",
                           "unassignedDeviceAdded(mouseB)"};
        QTest::newRow("of a mouse as a keyboard: the device and the prompt are back")
            << "claim mouseB 1 KeyboardDevice"
            << QStringList{refusedTail + "mouseB, 1, KeyboardDevice): the device is no keyboard",
                           "unassignedDeviceAdded(mouseB)", "configureKeyboard(1, 1)"};
        QTest::newRow("of a type that is none")
            << "claim kbdB 1 TabletDevice"
            << QStringList{refusedTail + "kbdB, 1, TabletDevice): the type is neither "
                                         "KeyboardDevice nor MouseDevice"};
    }
    void claimsThatAreRefused()
    {
        QFETCH(QString, claim);
        QFETCH(QStringList, produced);
        RoomScript room;
        QVERIFY(room.isReady());
        QCOMPARE(room.run(QStringLiteral("boot")).size(), bootLines.size() - 1);
        QCOMPARE(room.run(claim), produced);
        QVERIFY(!room.getDriver().isAttaching(RoomScript::pathOf(QStringLiteral("kbdB"))));
        // Nothing is left to do: a refused claim changes nothing of the room.
        QCOMPARE(room.run(QStringLiteral("wait 1000")), QStringList());
    }

    void aFailedAttachIsRetriedWhenDue()
    {
        RoomScript room;
        QVERIFY(room.isReady());
        room.run(QStringLiteral("boot"));
        QVERIFY(!room.getDriver().nextRetryDue());
        room.run(QStringLiteral("claim kbdA 0 KeyboardDevice"));
        QVERIFY(room.getDriver().isAttaching(RoomScript::pathOf(QStringLiteral("kbdA"))));
        QVERIFY(!room.getDriver().nextRetryDue());
        room.run(QStringLiteral("attach-fails kbdA AttachDevice: timeout"));
        QVERIFY(!room.getDriver().isAttaching(RoomScript::pathOf(QStringLiteral("kbdA"))));
        // The script's clock starts at 1000 ms.
        QCOMPARE(room.getDriver().nextRetryDue().value_or(-1), qint64(1300));
        room.run(QStringLiteral("wait 300"));
        QVERIFY(!room.getDriver().nextRetryDue());
    }

    void theDaemonsViewFollowsItsOwnRules()
    {
        RoomScript room;
        QVERIFY(room.isReady());
        for (const QString& line : bothAtTheMouseStep) {
            if (line.startsWith(QLatin1String("> "))) {
                room.run(line.mid(2));
            }
        }
        const DaemonMirror& mirror = room.getDriver().getMirror();
        QVERIFY(mirror.isMouseBusy());
        QCOMPARE(mirror.getDisplays().size(), 2);
        QCOMPARE(mirror.findDisplay(0)->state, DaemonMirror::DisplayState::ConfiguringMouse);
        QCOMPARE(mirror.findDisplay(1)->state, DaemonMirror::DisplayState::MouseBusy);
        QCOMPARE(mirror.stationOf(RoomScript::pathOf(QStringLiteral("kbdB"))), 1);
        QVERIFY(mirror.isUnassigned(RoomScript::pathOf(QStringLiteral("mouseA"))));
    }
};

QTEST_GUILESS_MAIN(DaemonDriverTest)
#include "test_daemon_driver.moc"
