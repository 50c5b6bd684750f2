#include "daemon/DBusCommand.h"

#include "common/Logger.h"
#include "daemon/Selvane.h"
#include "sequences/AssignedDeviceHandler.h"

namespace {
constexpr char logSource[] = "DBusCommand";

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}
} // namespace

DBusCommand::~DBusCommand() = default;

AssignedDeviceHandler* DBusCommand::assignedDeviceHandler(Selvane* selvane)
{
    if (!selvane) {
        SELVANE_LOG(LEVEL_BUG, "selvane is NULL");
        return nullptr;
    }
    AssignedDeviceHandler* handler = selvane->getAssignedDeviceHandler();
    if (!handler) {
        SELVANE_LOG(LEVEL_BUG, "assignedDeviceHandler is NULL");
    }
    return handler;
}

void DBusCommand::reportAssignmentUnavailable(const QString& call)
{
    SELVANE_LOG(LEVEL_WARNING, "Station assignment is not available yet: " + call + " ignored");
}

void DBusCommandLogStatus::execute(Selvane* selvane) const
{
    if (!selvane) {
        SELVANE_LOG(LEVEL_BUG, "selvane is NULL");
        return;
    }
    selvane->logStatus();
}

DBusCommandDeviceAddedToStation::DBusCommandDeviceAddedToStation(QString path, int station)
    : devicePath(path), stationId(station)
{
}

void DBusCommandDeviceAddedToStation::execute(Selvane* selvane) const
{
    if (AssignedDeviceHandler* handler = assignedDeviceHandler(selvane)) {
        handler->addAssignedDevice(devicePath, stationId);
    }
}

DBusCommandDeviceRemovedFromStation::DBusCommandDeviceRemovedFromStation(QString path)
    : devicePath(path)
{
}

void DBusCommandDeviceRemovedFromStation::execute(Selvane* selvane) const
{
    if (AssignedDeviceHandler* handler = assignedDeviceHandler(selvane)) {
        handler->removeAssignedDevice(devicePath);
    }
}

DBusCommandUnassignedDeviceAdded::DBusCommandUnassignedDeviceAdded(QString path) : devicePath(path)
{
}

void DBusCommandUnassignedDeviceAdded::execute(Selvane*) const
{
    reportAssignmentUnavailable("unassignedDeviceAdded(" + quoted(devicePath) + ")");
}

DBusCommandUnassignedDeviceRemoved::DBusCommandUnassignedDeviceRemoved(QString path)
    : devicePath(path)
{
}

void DBusCommandUnassignedDeviceRemoved::execute(Selvane*) const
{
    reportAssignmentUnavailable("unassignedDeviceRemoved(" + quoted(devicePath) + ")");
}

DBusCommandConfigureKeyboard::DBusCommandConfigureKeyboard(int display, int station)
    : displayId(display), stationId(station)
{
}

void DBusCommandConfigureKeyboard::execute(Selvane*) const
{
    reportAssignmentUnavailable(
        QStringLiteral("configureKeyboard(%1, %2)").arg(displayId).arg(stationId));
}

DBusCommandConfigureMouse::DBusCommandConfigureMouse(int display, int station)
    : displayId(display), stationId(station)
{
}

void DBusCommandConfigureMouse::execute(Selvane*) const
{
    reportAssignmentUnavailable(
        QStringLiteral("configureMouse(%1, %2)").arg(displayId).arg(stationId));
}

DBusCommandConfigurationComplete::DBusCommandConfigurationComplete(int display) : displayId(display)
{
}

void DBusCommandConfigurationComplete::execute(Selvane*) const
{
    reportAssignmentUnavailable(QStringLiteral("configurationComplete(%1)").arg(displayId));
}
