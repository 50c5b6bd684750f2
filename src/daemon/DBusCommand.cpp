#include "daemon/DBusCommand.h"

#include "assignment/AssignmentHandler.h"
#include "common/Logger.h"
#include "daemon/Selvane.h"
#include "sequences/AssignedDeviceHandler.h"

namespace {
constexpr char logSource[] = "DBusCommand";
} // namespace

DBusCommand::~DBusCommand() = default;

namespace {
// The handler that getter gives, with a Bug line when there is none.
template <typename Handler>
Handler* handlerOf(Selvane* selvane, Handler* (Selvane::*getter)(), const char* nullMessage)
{
    if (!selvane) {
        SELVANE_LOG(LEVEL_BUG, "selvane is NULL");
        return nullptr;
    }
    Handler* handler = (selvane->*getter)();
    if (!handler) {
        SELVANE_LOG(LEVEL_BUG, QString::fromLatin1(nullMessage));
    }
    return handler;
}
} // namespace

AssignedDeviceHandler* DBusCommand::assignedDeviceHandler(Selvane* selvane)
{
    return handlerOf(selvane, &Selvane::getAssignedDeviceHandler, "assignedDeviceHandler is NULL");
}

AssignmentHandler* DBusCommand::assignmentHandler(Selvane* selvane)
{
    return handlerOf(selvane, &Selvane::getAssignmentHandler, "assignmentHandler is NULL");
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

void DBusCommandUnassignedDeviceAdded::execute(Selvane* selvane) const
{
    if (AssignmentHandler* handler = assignmentHandler(selvane)) {
        handler->addUnassignedDevice(devicePath);
    }
}

DBusCommandUnassignedDeviceRemoved::DBusCommandUnassignedDeviceRemoved(QString path)
    : devicePath(path)
{
}

void DBusCommandUnassignedDeviceRemoved::execute(Selvane* selvane) const
{
    if (AssignmentHandler* handler = assignmentHandler(selvane)) {
        handler->removeUnassignedDevice(devicePath);
    }
}

DBusCommandConfigureKeyboard::DBusCommandConfigureKeyboard(int display, int station)
    : displayId(display), stationId(station)
{
}

void DBusCommandConfigureKeyboard::execute(Selvane* selvane) const
{
    if (AssignmentHandler* handler = assignmentHandler(selvane)) {
        handler->configureKeyboard(displayId, stationId);
    }
}

DBusCommandConfigureMouse::DBusCommandConfigureMouse(int display, int station)
    : displayId(display), stationId(station)
{
}

void DBusCommandConfigureMouse::execute(Selvane* selvane) const
{
    if (AssignmentHandler* handler = assignmentHandler(selvane)) {
        handler->configureMouse(displayId, stationId);
    }
}

DBusCommandConfigurationComplete::DBusCommandConfigurationComplete(int display) : displayId(display)
{
}

void DBusCommandConfigurationComplete::execute(Selvane* selvane) const
{
    if (AssignmentHandler* handler = assignmentHandler(selvane)) {
        handler->configurationComplete(displayId);
    }
}
