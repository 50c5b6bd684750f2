#pragma once

#include "seats/system/LogindTypes.h"

#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QList>
#include <QObject>
#include <QString>
#include <QVariantList>

#include <memory>
#include <vector>

// A logind of the tests' own (org.freedesktop.login1) on a private bus: seats
// and sessions registered on its connection, the signals logind sends when
// they change, and a manager whose ListSeats and AttachDevice can be
// answered, refused or held without an answer.

// logind's object paths: the manager's, a seat's, and a session's, whose
// leading digit logind escapes (session "2" is ".../session/_32").
QString logindManagerPath();
QString logindSeatPath(const QString& id);
QString logindSessionPath(const QString& id);

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

// logind's manager: ListSeats and AttachDevice.
class FakeManager : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    enum class Mode
    {
        Answer,
        // An error reply: refusedError with refusedMessage.
        Refuse,
        // No answer until the test sends one for the call kept in `held`.
        Hold
    };

    QList<LogindObjectRef> seats;
    int listCalls = 0;
    Mode listMode = Mode::Answer;
    Mode attachMode = Mode::Answer;
    QString refusedError = QStringLiteral("org.freedesktop.DBus.Error.AccessDenied");
    QString refusedMessage = QStringLiteral("Access denied");
    QList<QVariantList> attachCalls;
    QList<QDBusMessage> held;

public Q_SLOTS:
    QList<LogindObjectRef> ListSeats();
    void AttachDevice(const QString& seat, const QString& sysfs, bool interactive);

private:
    void hold();
};

class FakeLogind
{
public:
    // Registers the manager object; the name is claimed with claimName().
    explicit FakeLogind(const QDBusConnection& bus);

    bool claimName();

    FakeSeat* addSeat(const QString& id, bool canGraphical);
    void removeSeat(const QString& id);
    FakeSession* addSession(const QString& id, const QString& display, const QString& type,
                            const QString& sessionClass, uint uid);
    // Makes the session the seat's active one and says so as logind does:
    // ActiveSession invalidated.
    void activate(FakeSeat* seat, const QString& sessionId);
    void propertiesChanged(const QString& path, const QString& interface,
                           const QVariantMap& changed, const QStringList& invalidated);
    // Answers the calls held so far, in their order, and forgets them: with
    // an error reply of that name (and the manager's refusedMessage) when one
    // is given.
    void answerHeld(const QString& errorName = QString());

    FakeManager manager;

private:
    void sendSignal(const QString& path, const QString& interface, const QString& name,
                    const QVariantList& arguments);

    QDBusConnection connection;
    std::vector<std::unique_ptr<FakeSeat>> seats;
    std::vector<std::unique_ptr<FakeSession>> sessions;
};
