#include "sequences/SystemCommandAction.h"

#include "common/Logger.h"
#include "input/EventDevice.h"
#include "sequences/AssignedDeviceHandler.h"
#include "sequences/CommandRunner.h"

namespace {
constexpr char logSource[] = "SystemCommandAction";
} // namespace

SystemCommandAction::SystemCommandAction(QString commandText, AssignedDeviceHandler* owner)
    : command(commandText), handler(owner)
{
    if (!owner) {
        SELVANE_LOG(LEVEL_BUG, "handler is NULL");
    }
}

void SystemCommandAction::performAction(const EventDevice* device) const
{
    if (!device) {
        SELVANE_LOG(LEVEL_BUG, "eventDevice is NULL");
        return;
    }
    if (!handler) {
        // Nobody to record the trigger with (already reported at construction).
        return;
    }
    handler->actionTriggered(this, device);
}

void SystemCommandAction::executeCommand(const EventDevice* device) const
{
    if (!device) {
        SELVANE_LOG(LEVEL_BUG, "eventDevice is NULL");
        return;
    }
    SELVANE_LOG(LEVEL_INFO, "Executing command: " + command);
    // The command and the variables go to the shell byte for byte (Latin-1), the way the
    // configuration file was read.
    const QVector<QByteArray> environment =
        CommandRunner::buildEnvironment(device->getDeviceVariables());
    if (!CommandRunner::run(command.toLatin1(), environment)) {
        SELVANE_LOG(LEVEL_ERROR, "Error executing command: " + command);
    }
}
