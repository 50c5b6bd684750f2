#include "sequences/CommandRunner.h"

#include "input/EventDevice.h"
#include "sequences/CommandLauncher.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>

#include <vector>

extern char** environ;

namespace {
QByteArray variableName(const QByteArray& entry)
{
    const int separator = entry.indexOf('=');
    return separator == -1 ? entry : entry.left(separator);
}
} // namespace

QVector<QByteArray> CommandRunner::buildEnvironment(const QHash<QString, QString>& variables)
{
    QVector<QByteArray> environment;
    for (char** entry = environ; entry && *entry; ++entry) {
        environment.append(QByteArray(*entry));
    }
    for (auto it = variables.constBegin(); it != variables.constEnd(); ++it) {
        const QByteArray name = it.key().toUpper().toLatin1();
        const QByteArray entry = name + '=' + it.value().toLatin1();
        const auto same =
            std::find_if(environment.begin(), environment.end(),
                         [&](const QByteArray& e) { return variableName(e) == name; });
        if (same == environment.end()) {
            environment.append(entry);
        } else {
            *same = entry;
        }
    }
    return environment;
}

bool CommandRunner::run(const QByteArray& command, const QVector<QByteArray>& environment)
{
    const Orvanta::OwnedFd process = CommandLauncher::launch(command, environment);
    if (!process.isValid()) {
        return false;
    }
    waitTakingInput(process.get());
    CommandLauncher::waitCollected();
    return true;
}

// The daemon stands still until the command has finished; only the devices' records move.
void CommandRunner::waitTakingInput(int process)
{
    for (;;) {
        std::vector<pollfd> descriptors{{process, POLLIN, 0}};
        std::vector<EventDevice*> devices;
        for (EventDevice* device : EventDevice::openDevices()) {
            if (device->isTakingRecords()) {
                descriptors.push_back({device->getFd(), POLLIN, 0});
                devices.push_back(device);
            }
        }
        if (poll(descriptors.data(), descriptors.size(), -1) == -1) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (descriptors.front().revents != 0) {
            return;
        }
        for (std::size_t i = 0; i < devices.size(); ++i) {
            if (descriptors[i + 1].revents != 0) {
                devices[i]->takePendingRecords();
            }
        }
    }
}
