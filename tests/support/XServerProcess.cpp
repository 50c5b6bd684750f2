#include "XServerProcess.h"

#include "TestFiles.h"

#include <QByteArray>
#include <QDeadlineTimer>

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

constexpr int timeoutMs = 10000;
// The descriptor on which the server writes its display number once it accepts clients.
constexpr int readyDescriptor = 3;

// Reads the server's "<number>\n" from the pipe; -1 when it closes the pipe
// (it failed to start) or stays silent for too long.
int readDisplayNumber(int fd)
{
    QByteArray text;
    const QDeadlineTimer deadline(timeoutMs);
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

pid_t spawn(const QStringList& arguments, const QByteArray& outputFile, int readyFd)
{
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
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outputFile.constData(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    posix_spawn_file_actions_adddup2(&actions, readyFd, readyDescriptor);
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
    const int spawned =
        posix_spawnp(&child, argv.front(), &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return spawned == 0 ? child : -1;
}

} // namespace

XServerProcess::~XServerProcess()
{
    stop(SIGTERM);
}

int XServerProcess::start(const QString& program, const QStringList& arguments,
                          const QString& outputFile)
{
    stop(SIGTERM);
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) {
        return -1;
    }
    const QStringList commandLine = QStringList{program} << arguments
                                                         << QStringLiteral("-displayfd")
                                                         << QString::number(readyDescriptor);
    const QByteArray output =
        outputFile.isEmpty() ? QByteArrayLiteral("/dev/null") : outputFile.toLocal8Bit();
    pid = spawn(commandLine, output, pipeFds[1]);
    close(pipeFds[1]);
    const int number = pid > 0 ? readDisplayNumber(pipeFds[0]) : -1;
    close(pipeFds[0]);
    if (number < 0) {
        stop(SIGKILL);
    }
    return number;
}

void XServerProcess::stop(int signal)
{
    if (pid <= 0) {
        return;
    }
    ::kill(pid, signal);
    const QDeadlineTimer deadline(timeoutMs);
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

QString XServerProcess::fatalError(const QString& outputFile)
{
    // "(EE) \nFatal server error:\n(EE) <what went wrong>(EE) \n"
    const QStringList lines = QString::fromLocal8Bit(readFile(outputFile)).split(QLatin1Char('\n'));
    const int fatal = lines.lastIndexOf(QStringLiteral("Fatal server error:"));
    if (fatal < 0 || fatal + 1 >= lines.size()) {
        return QStringLiteral("no display number in time and no fatal error");
    }
    return QString(lines.at(fatal + 1)).remove(QLatin1String("(EE)")).trimmed();
}
