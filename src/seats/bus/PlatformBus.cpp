#include "seats/bus/PlatformBus.h"

#include <QDBusAbstractAdaptor>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

namespace {

struct ServiceName
{
    const char* name;
    const char* path;
};

constexpr ServiceName database{"com.orvanta.DB", "/com/orvanta/DB"};
constexpr ServiceName assignment{"com.orvanta.Assignment", "/com/orvanta/Assignment"};
constexpr ServiceName sessionController{"com.orvanta.Controllers.Session",
                                        "/com/orvanta/Controllers/Session"};

// An adaptor of the platform's names that answers from the role.
class RoleAdaptor : public QDBusAbstractAdaptor
{
public:
    RoleAdaptor(QObject* object, PlatformRole& platformRole)
        : QDBusAbstractAdaptor(object), role(platformRole)
    {
    }

protected:
    PlatformRole& role;
};

} // namespace

// com.orvanta.DB: the counts of the whole room and its tag.
class PlatformBus::Database : public RoleAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.orvanta.DB")

public:
    using RoleAdaptor::RoleAdaptor;

public Q_SLOTS:
    int DeviceGetNumberOfAssignedKeyboards()
    {
        return role.countDevices(PlatformRole::DeviceCount::ASSIGNED_KEYBOARDS);
    }
    int DeviceGetNumberOfUnassignedKeyboards()
    {
        return role.countDevices(PlatformRole::DeviceCount::UNASSIGNED_KEYBOARDS);
    }
    int DeviceGetNumberOfAssignedMice()
    {
        return role.countDevices(PlatformRole::DeviceCount::ASSIGNED_MICE);
    }
    int DeviceGetNumberOfUnassignedMice()
    {
        return role.countDevices(PlatformRole::DeviceCount::UNASSIGNED_MICE);
    }
    QString StationGetTag(const QString& tag) { return role.stationTag(tag); }
};

// com.orvanta.Assignment: the daemon's start and its claims, with their sender.
class PlatformBus::Assignment : public RoleAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.orvanta.Assignment")

public:
    using RoleAdaptor::RoleAdaptor;

public Q_SLOTS:
    void SelvaneStarted(const QDBusMessage& message) { role.selvaneStarted(message.service()); }
    void DeviceAssignedAuto(const QString& deviceFileName, int displayId, const QString& deviceKind,
                            const QDBusMessage& message)
    {
        role.deviceAssigned(message.service(), deviceFileName, displayId, deviceKind);
    }
};

// com.orvanta.Controllers.Session: the locale, answered when the role has it.
class PlatformBus::SessionController : public RoleAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.orvanta.Controllers.Session")

public:
    SessionController(QObject* object, PlatformRole& platformRole, QDBusConnection connection)
        : RoleAdaptor(object, platformRole), bus(std::move(connection))
    {
    }

public Q_SLOTS:
    QString GetLocaleForUserOnDisplay(int displayId, const QDBusMessage& message)
    {
        message.setDelayedReply(true);
        QDBusConnection connection = bus;
        role.localeForDisplay(displayId, [connection, message](const QString& locale) mutable {
            connection.send(message.createReply(locale));
        });
        return QString();
    }

private:
    QDBusConnection bus;
};

PlatformBus::PlatformBus(QDBusConnection connection, PlatformRole& role)
    : bus(std::move(connection)), platformRole(role)
{
}

PlatformBus::~PlatformBus()
{
    for (const ServiceName& service : {database, assignment, sessionController}) {
        bus.unregisterObject(QString::fromLatin1(service.path));
        bus.unregisterService(QString::fromLatin1(service.name));
    }
}

bool PlatformBus::start()
{
    if (!bus.isConnected()) {
        error = QStringLiteral("no bus: ") + bus.lastError().message();
        return false;
    }
    databaseObject = std::make_unique<QObject>();
    new Database(databaseObject.get(), platformRole);
    assignmentObject = std::make_unique<QObject>();
    new Assignment(assignmentObject.get(), platformRole);
    sessionObject = std::make_unique<QObject>();
    new SessionController(sessionObject.get(), platformRole, bus);
    const std::pair<ServiceName, QObject*> objects[] = {{database, databaseObject.get()},
                                                        {assignment, assignmentObject.get()},
                                                        {sessionController, sessionObject.get()}};
    for (const auto& [service, object] : objects) {
        if (!bus.registerObject(QString::fromLatin1(service.path), object,
                                QDBusConnection::ExportAdaptors)) {
            error = QStringLiteral("cannot register object %1").arg(service.path);
            return false;
        }
        if (!bus.registerService(QString::fromLatin1(service.name))) {
            error = QStringLiteral("cannot own the name %1: %2")
                        .arg(service.name, bus.lastError().message());
            return false;
        }
    }
    return true;
}

#include "PlatformBus.moc"
