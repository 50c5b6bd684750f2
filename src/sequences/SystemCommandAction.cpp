#include "sequences/SystemCommandAction.h"

#include "common/Logger.h"
#include "input/EventDevice.h"
#include "sequences/AssignedDeviceHandler.h"

#include <QByteArray>
#include <QHash>
#include <QVector>

#include <cerrno>
#include <cstdlib>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

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

    // Everything the child needs is converted here, before the fork: between
    // fork and exec the child of a multi-threaded process may only make
    // async-signal-safe calls, so it must not run Qt code that allocates.
    // The command and the variables are converted byte for byte (Latin-1),
    // the same way the configuration file was read.
    QVector<QByteArray> environment;
    const QHash<QString, QString> variables = device->getDeviceVariables();
    for (auto it = variables.constBegin(); it != variables.constEnd(); ++it) {
        environment.append(it.key().toUpper().toLatin1());
        environment.append(it.value().toLatin1());
    }
    const QByteArray commandBytes = command.toLatin1();

    const pid_t pid = fork();
    if (pid == 0) {
        // Same hash order as above: of two names that differ only by case the
        // later one wins.
        for (int i = 0; i + 1 < environment.size(); i += 2) {
            setenv(environment.at(i).constData(), environment.at(i + 1).constData(), 1);
        }
        execl("/bin/bash", "bash", "-c", commandBytes.constData(), static_cast<char*>(nullptr));
        // The exec failed: end here, never return into a second copy of the daemon.
        _exit(127);
    }
    if (pid < 0) {
        SELVANE_LOG(LEVEL_ERROR, "Error executing command: " + command);
        return;
    }
    // The daemon stands still until the command has finished.
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}
