// logind's seats read through LogindSeats from the tests' fake logind on
// a private bus: the first reading, the signals that make it read again, a
// logind that does not answer, and AttachDevice's answers.
#include "ConnectionPair.h"
#include "DaemonRunner.h"
#include "FakeLogind.h"
#include "LogCapture.h"

#include "seats/system/LogindSeats.h"
#include "seats/system/LogindTypes.h"

#include <QDBusConnection>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

class LogindSeatsTest : public QObject
{
    Q_OBJECT

private:
    static constexpr int callTimeoutMs = 300;
    static constexpr int waitMs = 5000;

    std::unique_ptr<ConnectionPair> connections;
    std::unique_ptr<FakeLogind> logind;

    QDBusConnection logindBus() const { return connections->services(); }
    QDBusConnection adapterBus() const { return connections->tested(); }

    static QStringList describe(const QVector<SeatInfo>& seats)
    {
        QStringList lines;
        for (const SeatInfo& seat : seats) {
            lines.append(QStringLiteral("%1 graphical=%2 display=%3 type=%4 class=%5 uid=%6")
                             .arg(seat.name)
                             .arg(seat.canGraphical)
                             .arg(seat.sessionDisplay, seat.sessionType, seat.sessionClass)
                             .arg(seat.sessionUid));
        }
        return lines;
    }

    // Waits until the adapter's seats are described by `expected`.
    static bool waitForSeats(const LogindSeats& seats, const QStringList& expected)
    {
        return DaemonRunner::waitUntil(
            [&] { return seats.hasRead() && describe(seats.snapshotSeats()) == expected; }, waitMs);
    }

private Q_SLOTS:
    void initTestCase() { registerLogindTypes(); }

    void init()
    {
        connections = std::make_unique<ConnectionPair>();
        QVERIFY(connections->isConnected());
        logind = std::make_unique<FakeLogind>(logindBus());
    }

    void cleanup()
    {
        logind.reset();
        connections.reset();
    }

    void theFirstReadingFindsSeatsAndTheirActiveSessions()
    {
        QVERIFY(logind->claimName());
        FakeSeat* seat0 = logind->addSeat(QStringLiteral("seat0"), true);
        logind->addSeat(QStringLiteral("seat1"), true);
        logind->addSeat(QStringLiteral("seat2"), false);
        logind->addSession(QStringLiteral("1"), QStringLiteral(":0"), QStringLiteral("x11"),
                           QStringLiteral("greeter"), 110);
        seat0->activeSession = {QStringLiteral("1"), QDBusObjectPath(logindSessionPath("1"))};

        LogindSeats seats(adapterBus(), nullptr, callTimeoutMs);
        QSignalSpy changed(&seats, &LogindSeats::changed);
        seats.start();
        QVERIFY(changed.wait(waitMs));
        QCOMPARE(describe(seats.snapshotSeats()),
                 (QStringList{"seat0 graphical=1 display=:0 type=x11 class=greeter uid=110",
                              "seat1 graphical=1 display= type= class= uid=-1",
                              "seat2 graphical=0 display= type= class= uid=-1"}));
    }

    void seatsAndSessionsFollowLogindsSignals()
    {
        QVERIFY(logind->claimName());
        FakeSeat* seat0 = logind->addSeat(QStringLiteral("seat0"), true);
        LogindSeats seats(adapterBus(), nullptr, callTimeoutMs);
        QSignalSpy changed(&seats, &LogindSeats::changed);
        seats.start();
        QVERIFY(waitForSeats(seats, {"seat0 graphical=1 display= type= class= uid=-1"}));

        FakeSeat* seat1 = logind->addSeat(QStringLiteral("seat1"), false);
        QVERIFY(waitForSeats(seats, {"seat0 graphical=1 display= type= class= uid=-1",
                                     "seat1 graphical=0 display= type= class= uid=-1"}));

        // A card attached: CanGraphical changes, with its new value in the signal.
        seat1->canGraphical = true;
        logind->propertiesChanged(logindSeatPath("seat1"),
                                  QStringLiteral("org.freedesktop.login1.Seat"),
                                  {{QStringLiteral("CanGraphical"), true}}, {});
        QVERIFY(waitForSeats(seats, {"seat0 graphical=1 display= type= class= uid=-1",
                                     "seat1 graphical=1 display= type= class= uid=-1"}));

        // A user logs in on seat0.
        logind->addSession(QStringLiteral("2"), QStringLiteral(":1"), QStringLiteral("x11"),
                           QStringLiteral("user"), 1000);
        logind->activate(seat0, QStringLiteral("2"));
        QVERIFY(waitForSeats(seats, {"seat0 graphical=1 display=:1 type=x11 class=user uid=1000",
                                     "seat1 graphical=1 display= type= class= uid=-1"}));

        logind->removeSeat(QStringLiteral("seat1"));
        QVERIFY(waitForSeats(seats, {"seat0 graphical=1 display=:1 type=x11 class=user uid=1000"}));

        // A change of something the seats do not show reads nothing again:
        // only the removal that follows it does.
        const int changes = changed.count();
        const int readings = logind->manager.listCalls;
        logind->propertiesChanged(logindSeatPath("seat0"),
                                  QStringLiteral("org.freedesktop.login1.Seat"),
                                  {{QStringLiteral("IdleHint"), true}}, {});
        logind->removeSeat(QStringLiteral("seat0"));
        QVERIFY(waitForSeats(seats, {}));
        // A second reading would be asked for right after the first.
        QVERIFY(!DaemonRunner::waitUntil([&] { return logind->manager.listCalls > readings + 1; },
                                         2 * callTimeoutMs));
        QCOMPARE(logind->manager.listCalls, readings + 1);
        QCOMPARE(changed.count(), changes + 1);
    }

    void aLogindThatDoesNotAnswerLeavesTheCallerFree()
    {
        QVERIFY(logind->claimName());
        logind->addSeat(QStringLiteral("seat0"), true);
        logind->manager.listMode = FakeManager::Mode::Hold;
        LogCapture log;
        LogindSeats seats(adapterBus(), nullptr, callTimeoutMs);
        QSignalSpy changed(&seats, &LogindSeats::changed);
        seats.start();
        // start() returned before logind was even asked.
        QVERIFY(!seats.hasRead());
        QVERIFY(changed.wait(waitMs));
        QVERIFY(seats.hasRead());
        QVERIFY(seats.snapshotSeats().isEmpty());
        QCOMPARE(logind->manager.held.size(), 1);
        const QStringList warnings =
            log.messages().filter(QStringLiteral("Cannot list logind's seats: "));
        QCOMPARE(warnings.size(), 1);
        QVERIFY2(warnings.at(0).contains(QStringLiteral("org.freedesktop.DBus.Error.NoReply")),
                 qPrintable(warnings.at(0)));
    }

    void logindAppearingLaterIsReadThen()
    {
        logind->addSeat(QStringLiteral("seat0"), true);
        LogindSeats seats(adapterBus(), nullptr, callTimeoutMs);
        QSignalSpy changed(&seats, &LogindSeats::changed);
        seats.start();
        QVERIFY(changed.wait(waitMs));
        QVERIFY(seats.snapshotSeats().isEmpty());
        QVERIFY(logind->claimName());
        QVERIFY(waitForSeats(seats, {"seat0 graphical=1 display= type= class= uid=-1"}));
    }

    void attachDeviceAsksLogindOnceAndReportsItsAnswer_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QString>("errorStart");
        QTest::newRow("attached") << int(FakeManager::Mode::Answer) << true << QString();
        QTest::newRow("refused") << int(FakeManager::Mode::Refuse) << false
                                 << QStringLiteral(
                                        "org.freedesktop.DBus.Error.AccessDenied: Access denied");
        QTest::newRow("no answer in time")
            << int(FakeManager::Mode::Hold) << false
            << QStringLiteral("org.freedesktop.DBus.Error.NoReply: ");
    }

    void attachDeviceAsksLogindOnceAndReportsItsAnswer()
    {
        QFETCH(int, mode);
        QFETCH(bool, ok);
        QFETCH(QString, errorStart);
        QVERIFY(logind->claimName());
        logind->manager.attachMode = static_cast<FakeManager::Mode>(mode);
        LogindSeats seats(adapterBus(), nullptr, callTimeoutMs, callTimeoutMs);
        const QString port = QStringLiteral("/sys/devices/pci0000:00/0000:00:05.0/usb1/1-2");
        QList<std::pair<bool, QString>> answers;
        seats.attachDevice(QStringLiteral("seat1"), port,
                           [&answers](bool attached, const QString& error) {
                               answers.append({attached, error});
                           });
        QVERIFY(answers.isEmpty()); // not answered from inside the call
        QVERIFY(DaemonRunner::waitUntil([&] { return !answers.isEmpty(); }, waitMs));
        QCOMPARE(logind->manager.attachCalls,
                 (QList<QVariantList>{{QStringLiteral("seat1"), port, false}}));
        QCOMPARE(answers.size(), 1);
        QCOMPARE(answers.at(0).first, ok);
        QVERIFY2(answers.at(0).second.startsWith(errorStart) &&
                     answers.at(0).second.isEmpty() == ok,
                 qPrintable(answers.at(0).second));
        // A late answer of a held call changes nothing.
        logind->answerHeld();
        QVERIFY(!DaemonRunner::waitUntil([&] { return answers.size() > 1; }, 2 * callTimeoutMs));
    }

    void noAnswerComesAfterTheAdapterIsGone()
    {
        QVERIFY(logind->claimName());
        logind->manager.attachMode = FakeManager::Mode::Hold;
        int answers = 0;
        {
            LogindSeats seats(adapterBus(), nullptr, callTimeoutMs, callTimeoutMs);
            seats.attachDevice(QStringLiteral("seat1"), QStringLiteral("/sys/devices/x"),
                               [&answers](bool, const QString&) { ++answers; });
            QVERIFY(DaemonRunner::waitUntil(
                [this] { return !logind->manager.attachCalls.isEmpty(); }, waitMs));
        }
        QVERIFY(!DaemonRunner::waitUntil([&] { return answers > 0; }, 2 * callTimeoutMs));
    }
};

int main(int argc, char** argv)
{
    return runOnPrivateBus<QCoreApplication, LogindSeatsTest>(argc, argv);
}

#include "test_logindseats.moc"
