// The room: which seats are stations, their numbers and displays (and the Info
// line that says where each station's prompts go or why it has none), which
// keyboards and mice count, which are assigned, and the ports logind is given.
#include "LogCapture.h"
#include "TestFiles.h"

#include "seats/Room.h"
#include "seats/SeatNumbers.h"
#include "seats/SeatsConfig.h"

#include <QTemporaryDir>
#include <QtTest>

namespace {

// "seat1 x11 greeter :1", "seat2 wayland user", "seat3 none", "seat4 text" (no
// graphics): a seat and its active session.
SeatInfo seatFrom(const QString& text)
{
    const QStringList words = text.split(' ');
    SeatInfo seat;
    seat.name = words.value(0);
    seat.canGraphical = words.value(1) != QLatin1String("text");
    if (seat.canGraphical && words.value(1) != QLatin1String("none")) {
        seat.sessionType = words.value(1);
        seat.sessionClass = words.value(2);
        seat.sessionDisplay = words.value(3);
    }
    return seat;
}

// "event3 keyboard seat1", "event4 mouse", "event5 keyboard+mouse", "event6
// keyboard - noforseat": a device in a USB port named after its node, with
// ID_SEAT when a third word other than "-" is given.
InputDeviceInfo deviceFrom(const QString& text)
{
    const QStringList words = text.split(' ');
    InputDeviceInfo device;
    device.devnode = "/dev/input/" + words.value(0);
    device.port = "/sys/devices/usb1/1-" + words.value(0).mid(5);
    device.syspath = device.port + "/input/input9/" + words.value(0);
    device.name = words.value(0);
    device.keyboard = words.value(1).contains(QLatin1String("keyboard"));
    device.mouse = words.value(1).contains(QLatin1String("mouse"));
    device.seat = words.value(2) == QLatin1String("-") ? QString() : words.value(2);
    device.forSeat = words.contains(QStringLiteral("noforseat")) ? QString() : QStringLiteral("1");
    return device;
}

SystemSnapshot snapshotFrom(const QStringList& seats, const QStringList& devices = {})
{
    SystemSnapshot snapshot;
    for (const QString& seat : seats) {
        snapshot.seats.append(seatFrom(seat));
    }
    for (const QString& device : devices) {
        snapshot.inputDevices.append(deviceFrom(device));
    }
    return snapshot;
}

} // namespace

class RoomTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { log.clear(); }

    void stationsAndTheirDisplays_data()
    {
        QTest::addColumn<QStringList>("seats");
        QTest::addColumn<QByteArray>("config");
        QTest::addColumn<QStringList>("lines");

        QTest::newRow("only seats that can show graphics are stations")
            << QStringList{"seat0 x11 greeter :0", "seat1 text"} << QByteArray()
            << QStringList{"seat0 is station 0",
                           "Station 0 (seat0) prompts on display :0: its active x11 greeter"};
        QTest::newRow("seat0 is 0, the others numbered by name when first seen together")
            << QStringList{"seat10 x11 user :10", "seat2 x11 user :2", "seat0 x11 user :0"}
            << QByteArray()
            << QStringList{"seat0 is station 0",
                           "seat2 is station 1",
                           "seat10 is station 2",
                           "Station 0 (seat0) prompts on display :0: its active x11 session",
                           "Station 1 (seat2) prompts on display :2: its active x11 session",
                           "Station 2 (seat10) prompts on display :10: its active x11 session"};
        QTest::newRow("a display with a screen number")
            << QStringList{"seat0 x11 user :3.0"} << QByteArray()
            << QStringList{"seat0 is station 0",
                           "Station 0 (seat0) prompts on display :3: its active x11 session"};
        QTest::newRow("seats.conf names the display, whatever the session")
            << QStringList{"seat0 wayland user", "seat1 none"}
            << QByteArray("display seat0 = :5\ndisplay seat1 = :6\n")
            << QStringList{"seat0 is station 0", "seat1 is station 1",
                           "Station 0 (seat0) prompts on display :5: seats.conf names it",
                           "Station 1 (seat1) prompts on display :6: seats.conf names it"};
        QTest::newRow("Wayland gets no prompt")
            << QStringList{"seat0 wayland user"} << QByteArray()
            << QStringList{"seat0 is station 0",
                           "Station 0 (seat0) gets no prompt: its active session is a Wayland "
                           "one, where no prompt can be drawn (seats.conf can name an X display "
                           "for the seat)"};
        QTest::newRow("no session gets no prompt")
            << QStringList{"seat0 none"} << QByteArray()
            << QStringList{"seat0 is station 0",
                           "Station 0 (seat0) gets no prompt: the seat has no active session"};
        QTest::newRow("a text console gets no prompt")
            << QStringList{"seat0 tty user"} << QByteArray()
            << QStringList{"seat0 is station 0", "Station 0 (seat0) gets no prompt: its active "
                                                 "session (type tty) has no X display"};
        QTest::newRow("an x11 greeter without a local display gets no prompt")
            << QStringList{"seat0 x11 greeter localhost:10"} << QByteArray()
            << QStringList{"seat0 is station 0",
                           "Station 0 (seat0) gets no prompt: its active x11 greeter has no "
                           "local display \":N\" (it has 'localhost:10')"};
        QTest::newRow("two stations on one display: the lower number keeps it")
            << QStringList{"seat0 x11 user :0", "seat1 x11 user :1"}
            << QByteArray("display seat1 = :0\n")
            << QStringList{"seat0 is station 0", "seat1 is station 1",
                           "Station 0 (seat0) prompts on display :0: its active x11 session",
                           "Station 1 (seat1) gets no prompt: its display :0 is station 0's"};
    }
    void stationsAndTheirDisplays()
    {
        QFETCH(QStringList, seats);
        QFETCH(QByteArray, config);
        QFETCH(QStringList, lines);
        const QString configFile = dir.filePath(QStringLiteral("seats.conf"));
        QVERIFY(writeFile(configFile, config));
        SeatsConfig seatsConfig(configFile);
        QVERIFY(seatsConfig.load());
        SeatNumbers numbers(dir.filePath(QStringLiteral("numbers-") + QTest::currentDataTag()));
        Room room(numbers, seatsConfig);
        log.clear();
        room.update(snapshotFrom(seats));
        QCOMPARE(log.messages(), lines);
        for (const LogCapture::Entry& entry : log.entries()) {
            QCOMPARE(entry.level, Orvanta::Logger::LEVEL_INFO);
        }
        for (const Station& station : room.getStations()) {
            QCOMPARE(room.findStationOfSeat(station.seat), &station);
            QCOMPARE(room.findStation(station.number), &station);
            if (station.displayId >= 0) {
                QCOMPARE(room.findStationOnDisplay(station.displayId), &station);
            }
        }
        // The same room again says nothing new.
        log.clear();
        room.update(snapshotFrom(seats));
        QCOMPARE(log.messages(), QStringList());
    }

    void theDisplayLineComesOncePerChange()
    {
        SeatsConfig config;
        SeatNumbers numbers(dir.filePath(QStringLiteral("numbers-changes")));
        Room room(numbers, config);
        const QStringList steps[] = {
            {"seat0 x11 greeter :0", "seat1 x11 greeter :1"},
            {"seat0 x11 greeter :0", "seat1 x11 greeter :1"},
            {"seat0 x11 greeter :0", "seat1 wayland user"},
            {"seat0 x11 greeter :0", "seat1 wayland user"},
            {"seat0 x11 greeter :0"},
            {"seat0 x11 greeter :0", "seat1 x11 user :1"},
        };
        QStringList expected[] = {
            {"seat0 is station 0", "seat1 is station 1",
             "Station 0 (seat0) prompts on display :0: its active x11 greeter",
             "Station 1 (seat1) prompts on display :1: its active x11 greeter"},
            {},
            {"Station 1 (seat1) gets no prompt: its active session is a Wayland one, where no "
             "prompt can be drawn (seats.conf can name an X display for the seat)"},
            {},
            {"seat1 is no station any more"},
            {"Station 1 (seat1) prompts on display :1: its active x11 session"},
        };
        for (std::size_t step = 0; step < std::size(steps); ++step) {
            log.clear();
            room.update(snapshotFrom(steps[step]));
            QCOMPARE(log.messages(), expected[step]);
        }
    }

    void numbersNeverMove()
    {
        const QString file = dir.filePath(QStringLiteral("numbers-kept"));
        SeatsConfig config;
        {
            SeatNumbers numbers(file);
            QVERIFY(numbers.load());
            Room room(numbers, config);
            room.update(snapshotFrom({"seat0 none", "seat1 none", "seat2 none"}));
            // seat1 is gone for a while; a new seat does not take its number.
            room.update(snapshotFrom({"seat0 none", "seat2 none", "seat-new none"}));
            QCOMPARE(room.findStationOfSeat(QStringLiteral("seat-new"))->number, 3);
            QVERIFY(!room.findStationOfSeat(QStringLiteral("seat1")));
            QVERIFY(numbers.save());
        }
        SeatNumbers numbers(file);
        QVERIFY(numbers.load());
        Room room(numbers, config);
        room.update(snapshotFrom({"seat-new none", "seat2 none", "seat1 none", "seat0 none"}));
        QCOMPARE(room.getStations().size(), 4);
        const QStringList order{"seat0", "seat1", "seat2", "seat-new"};
        for (int number = 0; number < order.size(); ++number) {
            QCOMPARE(room.getStations().at(number).seat, order.at(number));
            QCOMPARE(room.getStations().at(number).number, number);
        }
        QVERIFY(!numbers.isChanged());
    }

    void devices_data()
    {
        QTest::addColumn<QStringList>("devices");
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<QList<int>>("counts");

        const QList<int> none{0, 0, 0, 0};
        QTest::newRow("keyboards and mice without a seat are unassigned")
            << QStringList{"event1 keyboard -", "event2 mouse -"}
            << QStringList{"event1 unassigned", "event2 unassigned"} << QList<int>{0, 1, 0, 1};
        QTest::newRow("ID_SEAT of a station assigns the device to it")
            << QStringList{"event1 keyboard seat1", "event2 mouse seat0"}
            << QStringList{"event1 station 1", "event2 station 0"} << QList<int>{1, 0, 1, 0};
        QTest::newRow("ID_SEAT of a seat that is no station is no assignment")
            << QStringList{"event1 keyboard seat2", "event2 keyboard seat9"}
            << QStringList{"event1 unassigned", "event2 unassigned"} << QList<int>{0, 2, 0, 0};
        QTest::newRow("devices logind cannot attach do not count")
            << QStringList{"event1 keyboard - noforseat", "event2 mouse seat1 noforseat"}
            << QStringList{} << none;
        QTest::newRow("input devices that are neither keyboards nor mice do not count")
            << QStringList{"event1 joystick -"} << QStringList{} << none;
        QTest::newRow("a device that is both counts as both")
            << QStringList{"event1 keyboard+mouse seat1"} << QStringList{"event1 station 1"}
            << QList<int>{1, 0, 1, 0};
        QTest::newRow("a node listed twice counts once")
            << QStringList{"event1 keyboard -", "event1 keyboard -"}
            << QStringList{"event1 unassigned"} << QList<int>{0, 1, 0, 0};
    }
    void devices()
    {
        QFETCH(QStringList, devices);
        QFETCH(QStringList, expected);
        QFETCH(QList<int>, counts);
        SeatsConfig config;
        SeatNumbers numbers(dir.filePath(QStringLiteral("numbers-devices")));
        Room room(numbers, config);
        room.update(snapshotFrom({"seat0 none", "seat1 none", "seat2 text"}, devices));
        QStringList found;
        for (const RoomDevice& device : room.getDevices()) {
            found << device.path.mid(11) + (device.isAssigned()
                                                ? QStringLiteral(" station %1").arg(device.station)
                                                : QStringLiteral(" unassigned"));
            QCOMPARE(room.findDevice(device.path), &device);
        }
        QCOMPARE(found, expected);
        const DeviceCounts actual = room.getCounts();
        QCOMPARE((QList<int>{actual.assignedKeyboards, actual.unassignedKeyboards,
                             actual.assignedMice, actual.unassignedMice}),
                 counts);
    }

    void aStationKnowsItsSession()
    {
        SeatsConfig config;
        SeatNumbers numbers(dir.filePath(QStringLiteral("numbers-session")));
        Room room(numbers, config);
        SystemSnapshot snapshot = snapshotFrom({"seat0 x11 user :0", "seat1 none"});
        snapshot.seats[0].sessionUid = 1001;
        room.update(snapshot);
        QCOMPARE(room.findStationOnDisplay(0)->sessionType, QStringLiteral("x11"));
        QCOMPARE(room.findStationOnDisplay(0)->sessionUid, qint64(1001));
        QCOMPARE(room.findStationOfSeat(QStringLiteral("seat1"))->sessionType, QString());
        QCOMPARE(room.findStationOfSeat(QStringLiteral("seat1"))->sessionUid, qint64(-1));
    }

    void ports_data()
    {
        QTest::addColumn<QString>("port");
        QTest::addColumn<QString>("syspath");
        QTest::addColumn<QString>("expected");

        QTest::newRow("the USB device udev found")
            << "/sys/devices/pci0000:00/0000:00:05.0/usb1/1-2"
            << "/sys/devices/pci0000:00/0000:00:05.0/usb1/1-2/1-2:1.0/0003:0627:0001.0002/input/"
               "input5/event2"
            << "/sys/devices/pci0000:00/0000:00:05.0/usb1/1-2";
        QTest::newRow("without one, the inputN parent")
            << ""
            << "/sys/devices/platform/i8042/serio0/input/input3/event3"
            << "/sys/devices/platform/i8042/serio0/input/input3";
        QTest::newRow("neither") << ""
                                 << "/sys/devices/virtual/misc/event7"
                                 << "";
    }
    void ports()
    {
        QFETCH(QString, port);
        QFETCH(QString, syspath);
        QFETCH(QString, expected);
        InputDeviceInfo device;
        device.devnode = QStringLiteral("/dev/input/event2");
        device.port = port;
        device.syspath = syspath;
        device.keyboard = true;
        device.forSeat = QStringLiteral("pci-0000_00_05_0-usb-0_2_1_0");
        QCOMPARE(Room::portOf(device), expected);
        SeatsConfig config;
        SeatNumbers numbers(dir.filePath(QStringLiteral("numbers-ports")));
        Room room(numbers, config);
        SystemSnapshot snapshot;
        snapshot.inputDevices.append(device);
        room.update(snapshot);
        QCOMPARE(room.getDevices().size(), 1);
        QCOMPARE(room.getDevices().first().port, expected);
    }

private:
    QTemporaryDir dir;
    LogCapture log;
};

QTEST_GUILESS_MAIN(RoomTest)
#include "test_room.moc"
