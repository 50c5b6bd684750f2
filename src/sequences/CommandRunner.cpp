#include "sequences/CommandRunner.h"

#include "input/EventDevice.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

extern char** environ;

namespace {
QByteArray variableName(const QByteArray& entry)
{
    const int separator = entry.indexOf('=');
    return separator == -1 ? entry : entry.left(separator);
}

// Owns a posix_spawnattr_t that resets every signal disposition and unblocks every signal in
// the child.
class CleanSignalsAttributes
{
public:
    CleanSignalsAttributes()
    {
        // Every signal, the C library's internal ones too: sigfillset() leaves those out, and
        // posix_spawn() would then leave them ignored in the command.
        sigset_t all;
        std::memset(&all, 0xff, sizeof all);
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }
    ~CleanSignalsAttributes() { posix_spawnattr_destroy(&attributes); }
    CleanSignalsAttributes(const CleanSignalsAttributes&) = delete;
    CleanSignalsAttributes& operator=(const CleanSignalsAttributes&) = delete;

    const posix_spawnattr_t* get() const { return &attributes; }

private:
    posix_spawnattr_t attributes;
};

// A descriptor that becomes readable when the process ends; -1 where the kernel has none.
class ProcessDescriptor
{
public:
    explicit ProcessDescriptor(pid_t pid) : fd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
    ~ProcessDescriptor()
    {
        if (fd != -1) {
            close(fd);
        }
    }
    ProcessDescriptor(const ProcessDescriptor&) = delete;
    ProcessDescriptor& operator=(const ProcessDescriptor&) = delete;

    int get() const { return fd; }

private:
    int fd;
};
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
    std::vector<char*> environmentPointers;
    environmentPointers.reserve(static_cast<std::size_t>(environment.size()) + 1);
    for (const QByteArray& entry : environment) {
        environmentPointers.push_back(const_cast<char*>(entry.constData()));
    }
    environmentPointers.push_back(nullptr);
    char shell[] = "bash";
    char option[] = "-c";
    char* arguments[] = {shell, option, const_cast<char*>(command.constData()), nullptr};

    const CleanSignalsAttributes attributes;
    pid_t pid = 0;
    if (posix_spawn(&pid, "/bin/bash", nullptr, attributes.get(), arguments,
                    environmentPointers.data()) != 0) {
        return false;
    }
    waitTakingInput(pid);
    return true;
}

// The daemon stands still until the command has finished; only the devices' records move.
void CommandRunner::waitTakingInput(pid_t pid)
{
    const ProcessDescriptor process(pid);
    while (process.get() != -1) {
        std::vector<pollfd> descriptors{{process.get(), POLLIN, 0}};
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
            break;
        }
        if (descriptors.front().revents != 0) {
            break;
        }
        for (std::size_t i = 0; i < devices.size(); ++i) {
            if (descriptors[i + 1].revents != 0) {
                devices[i]->takePendingRecords();
            }
        }
    }
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}
