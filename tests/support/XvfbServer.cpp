#include "XvfbServer.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QStandardPaths>
#include <QStringList>

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

constexpr int startTimeoutMs = 10000;
// The descriptor on which the server writes its display number once it accepts clients.
constexpr int readyDescriptor = 3;

// Reads the server's "<number>\n" from the pipe; -1 when it closes the pipe
// (it failed to start) or stays silent for too long.
int readDisplayNumber(int fd)
{
    QByteArray text;
    const QDeadlineTimer deadline(startTimeoutMs);
    while (!text.endsWith('\n')) {
        pollfd readable = {fd, POLLIN, 0};
        const int ready = poll(&readable, 1, static_cast<int>(deadline.remainingTime()));
        if (ready <= 0) {
            return -1;
        }
        char buffer[16];
        const ssize_t count = read(fd, buffer, sizeof(buffer));
        if (count <= 0) {
            return -1;
        }
        text.append(buffer, static_cast<int>(count));
    }
    bool ok = false;
    const int number = text.trimmed().toInt(&ok);
    return ok ? number : -1;
}

} // namespace

XvfbServer::XvfbServer(QString screenSpec) : screen(std::move(screenSpec)) {}

XvfbServer::~XvfbServer()
{
    // SIGTERM lets the server remove its lock file and socket.
    stop(SIGTERM);
}

bool XvfbServer::isInstalled()
{
    return !QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty();
}

bool XvfbServer::start()
{
    if (pid > 0) {
        return true;
    }
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        return false;
    }
    QStringList arguments{QStringLiteral("Xvfb")};
    if (displayNumber >= 0) {
        arguments << getDisplayName();
    }
    arguments << QStringLiteral("-displayfd") << QString::number(readyDescriptor)
              << QStringLiteral("-screen") << QStringLiteral("0") << screen
              << QStringLiteral("-nolisten") << QStringLiteral("tcp");
    std::vector<QByteArray> argumentBytes;
    for (const QString& argument : arguments) {
        argumentBytes.push_back(argument.toLocal8Bit());
    }
    std::vector<char*> argv;
    for (QByteArray& argument : argumentBytes) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], readyDescriptor);
    // The test's own handlers and mask must not reach the server.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t all;
    sigset_t none;
    sigfillset(&all);
    sigemptyset(&none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    pid_t child = -1;
    const int spawned = posix_spawnp(&child, "Xvfb", &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    if (spawned != 0) {
        close(pipeFds[0]);
        return false;
    }
    pid = child;
    const int number = readDisplayNumber(pipeFds[0]);
    close(pipeFds[0]);
    if (number < 0) {
        kill();
        return false;
    }
    displayNumber = number;
    return true;
}

void XvfbServer::kill()
{
    stop(SIGKILL);
}

void XvfbServer::stop(int signal)
{
    if (pid <= 0) {
        return;
    }
    ::kill(pid, signal);
    const QDeadlineTimer deadline(startTimeoutMs);
    while (waitpid(pid, nullptr, WNOHANG) == 0) {
        if (deadline.hasExpired()) {
            ::kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            break;
        }
        // Polled: a child's end cannot be waited for with a time-out otherwise.
        usleep(10000);
    }
    pid = -1;
}
