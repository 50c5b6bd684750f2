#include "daemon/DBusInterface.h"

#include "common/Logger.h"
#include "common/Util.h"
#include "daemon/DBusCommand.h"

#include <QDBusConnection>
#include <QDBusError>

#include <utility>

namespace {
constexpr char logSource[] = "DBusInterface";
constexpr char serviceName[] = "com.orvanta.selvane";
constexpr char objectPath[] = "/";
constexpr char databaseService[] = "com.orvanta.DB";
constexpr char sessionControllerService[] = "com.orvanta.Controllers.Session";
constexpr char assignmentService[] = "com.orvanta.Assignment";
} // namespace

DBusInterface::DBusInterface(Selvane* owner)
    : selvane(owner),
      // Each platform service's interface has the service's name.
      databaseInterface(databaseService, QStringLiteral("/com/orvanta/DB"), databaseService,
                        QDBusConnection::sessionBus()),
      sessionControllerInterface(sessionControllerService,
                                 QStringLiteral("/com/orvanta/Controllers/Session"),
                                 sessionControllerService, QDBusConnection::sessionBus()),
      assignmentInterface(assignmentService, QStringLiteral("/com/orvanta/Assignment"),
                          assignmentService, QDBusConnection::sessionBus())
{
    if (!selvane) {
        SELVANE_LOG(LEVEL_BUG, "selvane is NULL");
    }
}

DBusInterface::~DBusInterface()
{
    qDeleteAll(commandQueue);
}

bool DBusInterface::connect()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        SELVANE_LOG(LEVEL_ERROR, "Could not connect to DBus");
        return false;
    }
    SELVANE_LOG(LEVEL_INFO, "Connecting to dbus...");
    if (!bus.registerService(QLatin1String(serviceName))) {
        SELVANE_LOG(LEVEL_ERROR,
                    QStringLiteral("Could not register service '") + QLatin1String(serviceName) +
                        "'.  Error: " + Orvanta::escapeForLog(bus.lastError().message()));
        return false;
    }
    if (!bus.registerObject(QLatin1String(objectPath), this, QDBusConnection::ExportAllSlots)) {
        SELVANE_LOG(LEVEL_ERROR,
                    QStringLiteral("Could not register object path '") + QLatin1String(objectPath) +
                        "'.  Error: " + Orvanta::escapeForLog(bus.lastError().message()));
        return false;
    }
    SELVANE_LOG(LEVEL_INFO, "Connection established");
    // Fire and forget: the assignment service may not be running yet.
    assignmentInterface.call(QDBus::NoBlock, QStringLiteral("SelvaneStarted"));
    return true;
}

void DBusInterface::update()
{
    // The queue is taken over whole, so that its buffer is released after a
    // burst of calls. A command appended while these run (none is expected)
    // is picked up by the next round of the loop, still in arrival order.
    while (!commandQueue.isEmpty()) {
        const QList<DBusCommand*> commands = std::exchange(commandQueue, {});
        for (DBusCommand* command : commands) {
            command->execute(selvane);
            delete command;
        }
    }
}

void DBusInterface::queueCommand(DBusCommand* command)
{
    commandQueue.append(command);
    Q_EMIT commandQueued();
}

void DBusInterface::deviceAddedToStation(QString devicePath, int stationId)
{
    queueCommand(new DBusCommandDeviceAddedToStation(devicePath, stationId));
}

void DBusInterface::deviceRemovedFromStation(QString devicePath)
{
    queueCommand(new DBusCommandDeviceRemovedFromStation(devicePath));
}

void DBusInterface::unassignedDeviceAdded(QString devicePath)
{
    queueCommand(new DBusCommandUnassignedDeviceAdded(devicePath));
}

void DBusInterface::unassignedDeviceRemoved(QString devicePath)
{
    queueCommand(new DBusCommandUnassignedDeviceRemoved(devicePath));
}

void DBusInterface::configureKeyboard(int displayId, int stationId)
{
    queueCommand(new DBusCommandConfigureKeyboard(displayId, stationId));
}

void DBusInterface::configureMouse(int displayId, int stationId)
{
    queueCommand(new DBusCommandConfigureMouse(displayId, stationId));
}

void DBusInterface::configurationComplete(int displayId)
{
    queueCommand(new DBusCommandConfigurationComplete(displayId));
}

void DBusInterface::logStatus()
{
    queueCommand(new DBusCommandLogStatus());
}
