// The seats bridge's status report: the table a person reads, the same as
// JSON, and the commands that make a seat of each graphics card on none.
#include "seats/system/StatusReport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

namespace {
const QString pci = QStringLiteral("/sys/devices/pci0000:00/");

SeatInfo seat(const QString& name, const QString& display = {}, const QString& type = {},
              const QString& sessionClass = {})
{
    SeatInfo info;
    info.name = name;
    info.canGraphical = true;
    info.sessionDisplay = display;
    info.sessionType = type;
    info.sessionClass = sessionClass;
    return info;
}

InputDeviceInfo device(int event, bool keyboard, const QString& port, const QString& name,
                       const QString& seatName)
{
    InputDeviceInfo info;
    info.devnode = QStringLiteral("/dev/input/event%1").arg(event);
    info.syspath = port + QStringLiteral("/1-1:1.0/input/input%1/event%1").arg(event);
    info.name = name;
    info.keyboard = keyboard;
    info.mouse = !keyboard;
    info.forSeat = QStringLiteral("input-%1").arg(event);
    info.seat = seatName;
    info.port = port;
    return info;
}

GraphicsCardInfo card(const QString& name, const QString& seatName, bool master = true)
{
    GraphicsCardInfo info;
    info.syspath = pci + QStringLiteral("0000:00:0%1.0/drm/").arg(name.back()) + name;
    info.seat = seatName;
    info.masterOfSeat = master;
    return info;
}

// Two seats, four USB devices (B's keyboard already on seat1), three cards:
// card0 is seat0's, card1 seat1's, card2 on no seat.
SystemSnapshot room()
{
    SystemSnapshot snapshot;
    snapshot.seats = {seat(QStringLiteral("seat1")),
                      seat(QStringLiteral("seat0"), QStringLiteral(":0"), QStringLiteral("x11"),
                           QStringLiteral("greeter"))};
    const QString usb = pci + QStringLiteral("0000:00:05.0/usb1/1-");
    snapshot.inputDevices = {
        device(4, false, usb + QLatin1Char('3'), QStringLiteral("QEMU USB Mouse"), {}),
        device(3, true, usb + QLatin1Char('2'), QStringLiteral("QEMU USB Keyboard"),
               QStringLiteral("seat1")),
        device(2, true, usb + QLatin1Char('1'), QStringLiteral("QEMU USB Keyboard"), {})};
    snapshot.graphicsCards = {card(QStringLiteral("card2"), {}),
                              card(QStringLiteral("card1"), QStringLiteral("seat1")),
                              card(QStringLiteral("card0"), {})};
    return snapshot;
}

QMap<QString, StatusReport::Station> roomStations()
{
    return {{QStringLiteral("seat0"), {0, QStringLiteral(":0")}},
            {QStringLiteral("seat1"), {1, QString()}}};
}
} // namespace

Q_DECLARE_METATYPE(QVector<GraphicsCardInfo>)
Q_DECLARE_METATYPE(QVector<SeatInfo>)

class StatusReportTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theTableListsSeatsDevicesAndTheCommandForAFreeCard()
    {
        const StatusReport report(room(), roomStations());
        const QString usb = pci + QStringLiteral("0000:00:05.0/usb1/1-");
        const QString card2 = pci + QStringLiteral("0000:00:02.0/drm/card2");
        const QString expected =
            QStringLiteral("Seats:\n"
                           "SEAT   STATION  DISPLAY  SESSION\n"
                           "seat0  0        :0       x11 greeter\n"
                           "seat1  1        -        -\n"
                           "\n"
                           "Keyboards and mice:\n"
                           "SEAT   KIND      PORT%1NAME\n"
                           "-      keyboard  %2  QEMU USB Keyboard\n"
                           "seat1  keyboard  %3  QEMU USB Keyboard\n"
                           "-      mouse     %4  QEMU USB Mouse\n"
                           "\n"
                           "Graphics cards on no seat yet; as root, make a seat of each with:\n"
                           "  loginctl attach seat2 %5\n")
                .arg(QString(usb.size() + 1 - 4 + 2, QLatin1Char(' ')), usb + QLatin1Char('1'),
                     usb + QLatin1Char('2'), usb + QLatin1Char('3'), card2);
        QCOMPARE(report.table(), expected);
    }

    void aDevicesOwnNameCannotForgeLinesOrReachTheTerminal()
    {
        SystemSnapshot snapshot = room();
        snapshot.inputDevices.first().name =
            QStringLiteral("Mouse\nseat0  keyboard  forged  row\x1b]0;title\x07");
        const QString table = StatusReport(snapshot, roomStations()).table();
        QVERIFY2(table.contains(
                     QStringLiteral("Mouse\\nseat0  keyboard  forged  row\\x1b]0;title\\x07\n")),
                 qPrintable(table));
        QVERIFY(!table.contains(QLatin1Char('\x1b')));
        QCOMPARE(table.count(QLatin1Char('\n')),
                 StatusReport(room(), roomStations()).table().count(QLatin1Char('\n')));
        // The JSON keeps the name as it is, escaped by JSON's own rules.
        const QJsonArray devices =
            QJsonDocument::fromJson(StatusReport(snapshot, roomStations()).json())
                .object()
                .value(QStringLiteral("devices"))
                .toArray();
        QStringList names;
        for (const QJsonValue& device : devices) {
            names.append(device.toObject().value(QStringLiteral("name")).toString());
        }
        QVERIFY(names.contains(snapshot.inputDevices.first().name));
    }

    void aRoomWithoutFreeCardsSaysSo()
    {
        SystemSnapshot snapshot = room();
        snapshot.graphicsCards.removeFirst(); // card2
        const QString table = StatusReport(snapshot, roomStations()).table();
        QVERIFY2(table.endsWith(QStringLiteral("\nEvery graphics card is on a seat.\n")),
                 qPrintable(table));
        QVERIFY(!table.contains(QStringLiteral("loginctl")));
    }

    void theJsonHoldsTheSameInAStableOrder()
    {
        const StatusReport report(room(), roomStations());
        const QByteArray text = report.json();
        QJsonParseError error{};
        const QJsonDocument document = QJsonDocument::fromJson(text, &error);
        QCOMPARE(error.error, QJsonParseError::NoError);
        const QJsonObject top = document.object();
        QCOMPARE(top.keys(), (QStringList{"devices", "newSeats", "seats"}));

        const QJsonArray seats = top.value("seats").toArray();
        QCOMPARE(seats.size(), 2);
        QCOMPARE(seats.at(0).toObject(), (QJsonObject{{"name", "seat0"},
                                                      {"canGraphical", true},
                                                      {"sessionType", "x11"},
                                                      {"station", 0},
                                                      {"display", ":0"}}));
        QCOMPARE(seats.at(1).toObject(), (QJsonObject{{"name", "seat1"},
                                                      {"canGraphical", true},
                                                      {"sessionType", ""},
                                                      {"station", 1},
                                                      {"display", ""}}));

        const QJsonArray devices = top.value("devices").toArray();
        QCOMPARE(devices.size(), 3);
        const QJsonObject keyboardB = devices.at(1).toObject();
        QCOMPARE(keyboardB.value("node").toString(), QStringLiteral("/dev/input/event3"));
        QCOMPARE(keyboardB.value("seat").toString(), QStringLiteral("seat1"));
        QCOMPARE(keyboardB.value("keyboard").toBool(), true);
        QCOMPARE(keyboardB.value("mouse").toBool(), false);
        QCOMPARE(keyboardB.value("name").toString(), QStringLiteral("QEMU USB Keyboard"));
        QVERIFY(keyboardB.value("port").toString().endsWith(QStringLiteral("usb1/1-2")));
        QVERIFY(keyboardB.value("syspath").toString().endsWith(QStringLiteral("/event3")));
        QCOMPARE(devices.at(0).toObject().value("seat").toString(), QString());

        const QJsonArray newSeats = top.value("newSeats").toArray();
        QCOMPARE(newSeats.size(), 1);
        const QString card2 = pci + QStringLiteral("0000:00:02.0/drm/card2");
        QCOMPARE(newSeats.at(0).toObject(),
                 (QJsonObject{{"seat", "seat2"},
                              {"card", card2},
                              {"command", QStringLiteral("loginctl attach seat2 ") + card2}}));

        // The same snapshot in another order gives the same bytes.
        SystemSnapshot shuffled = room();
        std::reverse(shuffled.seats.begin(), shuffled.seats.end());
        std::reverse(shuffled.inputDevices.begin(), shuffled.inputDevices.end());
        std::reverse(shuffled.graphicsCards.begin(), shuffled.graphicsCards.end());
        QCOMPARE(StatusReport(shuffled, roomStations()).json(), text);
    }

    void aSeatWithoutStationHasNullInTheJson()
    {
        SystemSnapshot snapshot;
        snapshot.seats = {seat(QStringLiteral("seat0"))};
        const QJsonObject seat0 = QJsonDocument::fromJson(StatusReport(snapshot, {}).json())
                                      .object()
                                      .value("seats")
                                      .toArray()
                                      .at(0)
                                      .toObject();
        QVERIFY(seat0.value("station").isNull());
        QCOMPARE(seat0.value("display").toString(), QString());
    }

    void eachCardOnNoSeatGetsTheNextFreeSeat_data()
    {
        QTest::addColumn<QVector<SeatInfo>>("seats");
        QTest::addColumn<QVector<GraphicsCardInfo>>("cards");
        QTest::addColumn<QStringList>("commands");
        const QString card1 = card(QStringLiteral("card1"), {}).syspath;
        const QString card2 = card(QStringLiteral("card2"), {}).syspath;
        const QVector<SeatInfo> seat0 = {seat(QStringLiteral("seat0"))};

        QTest::newRow("seat0's only card: nothing to do")
            << seat0 << QVector<GraphicsCardInfo>{card(QStringLiteral("card0"), {})}
            << QStringList();
        QTest::newRow("a second card on no seat makes seat1")
            << seat0
            << QVector<GraphicsCardInfo>{card(QStringLiteral("card0"), {}),
                                         card(QStringLiteral("card1"), {})}
            << QStringList{"loginctl attach seat1 " + card1};
        QTest::newRow("two free cards make seat1 and seat2")
            << seat0
            << QVector<GraphicsCardInfo>{card(QStringLiteral("card0"), {}),
                                         card(QStringLiteral("card1"), {}),
                                         card(QStringLiteral("card2"), {})}
            << QStringList{"loginctl attach seat1 " + card1, "loginctl attach seat2 " + card2};
        QTest::newRow("a card that names seat0 leaves no card to seat0 by default")
            << seat0
            << QVector<GraphicsCardInfo>{card(QStringLiteral("card0"), QStringLiteral("seat0")),
                                         card(QStringLiteral("card1"), {})}
            << QStringList{"loginctl attach seat1 " + card1};
        QTest::newRow("a card that cannot make a seat is never offered")
            << seat0
            << QVector<GraphicsCardInfo>{card(QStringLiteral("card0"), {}),
                                         card(QStringLiteral("card1"), {}, false)}
            << QStringList();
        QTest::newRow("a seat logind has without a card keeps its name")
            << QVector<SeatInfo>{seat(QStringLiteral("seat0")), seat(QStringLiteral("seat1"))}
            << QVector<GraphicsCardInfo>{card(QStringLiteral("card0"), {}),
                                         card(QStringLiteral("card2"), {})}
            << QStringList{"loginctl attach seat2 " + card2};
        QTest::newRow("cards by number: card2 before card10")
            << seat0
            << QVector<GraphicsCardInfo>{card(QStringLiteral("card10"), {}),
                                         card(QStringLiteral("card2"), {})}
            << QStringList{"loginctl attach seat1 " + card(QStringLiteral("card10"), {}).syspath};
    }

    void eachCardOnNoSeatGetsTheNextFreeSeat()
    {
        QFETCH(QVector<SeatInfo>, seats);
        QFETCH(QVector<GraphicsCardInfo>, cards);
        QFETCH(QStringList, commands);
        SystemSnapshot snapshot;
        snapshot.seats = seats;
        snapshot.graphicsCards = cards;
        QCOMPARE(StatusReport(snapshot, {}).attachCommands(), commands);
    }
};

QTEST_GUILESS_MAIN(StatusReportTest)
#include "test_statusreport.moc"
