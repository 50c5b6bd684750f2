// logind's seats read through LogindSeats from a fake logind of this test on
// a private bus: the first reading, the signals that make it read again, a
// logind that does not answer, and AttachDevice's answers.
#include "DaemonRunner.h"
#include "LogCapture.h"

#include "seats/system/LogindSeats.h"
#include "seats/system/LogindTypes.h"

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

namespace {
const QString service = QStringLiteral("org.freedesktop.login1");
const QString managerPath = QStringLiteral("/org/freedesktop/login1");

QString seatPath(const QString& id)
{
    return managerPath + QStringLiteral("/seat/") + id;
}

// logind escapes a session id's leading digit: session "2" is ".../session/_32".
QString sessionPath(const QString& id)
{
    return managerPath + QStringLiteral("/session/_3") + id;
}
} // namespace

// A logind seat object: its Id, CanGraphical and ActiveSession.
class FakeSeat : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Seat")
    Q_PROPERTY(QString Id MEMBER id)
    Q_PROPERTY(bool CanGraphical MEMBER canGraphical)
    Q_PROPERTY(LogindObjectRef ActiveSession READ activeSessionRef)

public:
    LogindObjectRef activeSessionRef() const { return activeSession; }

    QString id;
    bool canGraphical = false;
    LogindObjectRef activeSession{QString(), QDBusObjectPath(QStringLiteral("/"))};
};

// A logind session object with the properties the seats are read with.
class FakeSession : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Session")
    Q_PROPERTY(QString Id MEMBER id)
    Q_PROPERTY(QString Display MEMBER display)
    Q_PROPERTY(QString Type MEMBER type)
    Q_PROPERTY(QString Class MEMBER sessionClass)
    Q_PROPERTY(LogindUserRef User READ userRef)

public:
    LogindUserRef userRef() const { return user; }

    QString id;
    QString display;
    QString type;
    QString sessionClass;
    LogindUserRef user;
};

// logind's manager: ListSeats and AttachDevice, which can be answered,
// refused or held without an answer.
class FakeManager : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    enum class Mode
    {
        Answer,
        Refuse,
        Hold
    };

    QList<LogindObjectRef> seats;
    int listCalls = 0;
    Mode listMode = Mode::Answer;
    Mode attachMode = Mode::Answer;
    QList<QVariantList> attachCalls;
    QList<QDBusMessage> held;

public Q_SLOTS:
    QList<LogindObjectRef> ListSeats()
    {
        ++listCalls;
        if (listMode == Mode::Hold) {
            hold();
        }
        return seats;
    }

    void AttachDevice(const QString& seat, const QString& sysfs, bool interactive)
    {
        attachCalls.append({seat, sysfs, interactive});
        if (attachMode == Mode::Hold) {
            hold();
        } else if (attachMode == Mode::Refuse) {
            sendErrorReply(QStringLiteral("org.freedesktop.DBus.Error.AccessDenied"),
                           QStringLiteral("Access denied"));
        }
    }

private:
    void hold()
    {
        setDelayedReply(true);
        held.append(message());
    }
};

// A logind of the test's: seats and sessions registered on its own connection,
// with the signals logind sends when they change.
class FakeLogind
{
public:
    explicit FakeLogind(const QDBusConnection& bus) : connection(bus)
    {
        connection.registerObject(managerPath, &manager, QDBusConnection::ExportAllSlots);
    }

    bool claimName() { return connection.registerService(service); }

    FakeSeat* addSeat(const QString& id, bool canGraphical)
    {
        auto seat = std::make_unique<FakeSeat>();
        seat->id = id;
        seat->canGraphical = canGraphical;
        connection.registerObject(seatPath(id), seat.get(), QDBusConnection::ExportAllProperties);
        manager.seats.append({id, QDBusObjectPath(seatPath(id))});
        seats.push_back(std::move(seat));
        sendSignal(managerPath, QStringLiteral("org.freedesktop.login1.Manager"),
                   QStringLiteral("SeatNew"),
                   {id, QVariant::fromValue(QDBusObjectPath(seatPath(id)))});
        return seats.back().get();
    }

    void removeSeat(const QString& id)
    {
        connection.unregisterObject(seatPath(id));
        manager.seats.erase(
            std::remove_if(manager.seats.begin(), manager.seats.end(),
                           [&id](const LogindObjectRef& ref) { return ref.id == id; }),
            manager.seats.end());
        sendSignal(managerPath, QStringLiteral("org.freedesktop.login1.Manager"),
                   QStringLiteral("SeatRemoved"),
                   {id, QVariant::fromValue(QDBusObjectPath(seatPath(id)))});
    }

    FakeSession* addSession(const QString& id, const QString& display, const QString& type,
                            const QString& sessionClass, uint uid)
    {
        auto session = std::make_unique<FakeSession>();
        session->id = id;
        session->display = display;
        session->type = type;
        session->sessionClass = sessionClass;
        session->user = {uid, QDBusObjectPath(managerPath + QStringLiteral("/user/_%1").arg(uid))};
        connection.registerObject(sessionPath(id), session.get(),
                                  QDBusConnection::ExportAllProperties);
        sessions.push_back(std::move(session));
        return sessions.back().get();
    }

    // Makes the session the seat's active one and says so as logind does:
    // ActiveSession invalidated.
    void activate(FakeSeat* seat, const QString& sessionId)
    {
        seat->activeSession = {sessionId, QDBusObjectPath(sessionPath(sessionId))};
        propertiesChanged(seatPath(seat->id), QStringLiteral("org.freedesktop.login1.Seat"), {},
                          {QStringLiteral("ActiveSession")});
    }

    void propertiesChanged(const QString& path, const QString& interface,
                           const QVariantMap& changed, const QStringList& invalidated)
    {
        sendSignal(path, QStringLiteral("org.freedesktop.DBus.Properties"),
                   QStringLiteral("PropertiesChanged"), {interface, changed, invalidated});
    }

    FakeManager manager;

private:
    void sendSignal(const QString& path, const QString& interface, const QString& name,
                    const QVariantList& arguments)
    {
        QDBusMessage signal = QDBusMessage::createSignal(path, interface, name);
        signal.setArguments(arguments);
        connection.send(signal);
    }

    QDBusConnection connection;
    std::vector<std::unique_ptr<FakeSeat>> seats;
    std::vector<std::unique_ptr<FakeSession>> sessions;
};

class LogindSeatsTest : public QObject
{
    Q_OBJECT

private:
    static constexpr int callTimeoutMs = 300;
    static constexpr int waitMs = 5000;

    int round = 0;
    QString logindName;
    QString adapterName;
    std::unique_ptr<FakeLogind> logind;

    QDBusConnection logindBus() const { return QDBusConnection(logindName); }
    QDBusConnection adapterBus() const { return QDBusConnection(adapterName); }

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
        ++round;
        const QString address = QString::fromLocal8Bit(qgetenv("DBUS_SESSION_BUS_ADDRESS"));
        logindName = QStringLiteral("logind%1").arg(round);
        adapterName = QStringLiteral("adapter%1").arg(round);
        QVERIFY(QDBusConnection::connectToBus(address, logindName).isConnected());
        QVERIFY(QDBusConnection::connectToBus(address, adapterName).isConnected());
        logind = std::make_unique<FakeLogind>(logindBus());
    }

    void cleanup()
    {
        logind.reset();
        QDBusConnection::disconnectFromBus(logindName);
        QDBusConnection::disconnectFromBus(adapterName);
    }

    void theFirstReadingFindsSeatsAndTheirActiveSessions()
    {
        QVERIFY(logind->claimName());
        FakeSeat* seat0 = logind->addSeat(QStringLiteral("seat0"), true);
        logind->addSeat(QStringLiteral("seat1"), true);
        logind->addSeat(QStringLiteral("seat2"), false);
        logind->addSession(QStringLiteral("1"), QStringLiteral(":0"), QStringLiteral("x11"),
                           QStringLiteral("greeter"), 110);
        seat0->activeSession = {QStringLiteral("1"), QDBusObjectPath(sessionPath("1"))};

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
        logind->propertiesChanged(seatPath("seat1"), QStringLiteral("org.freedesktop.login1.Seat"),
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
        logind->propertiesChanged(seatPath("seat0"), QStringLiteral("org.freedesktop.login1.Seat"),
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
        for (const QDBusMessage& held : logind->manager.held) {
            logindBus().send(held.createReply());
        }
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
