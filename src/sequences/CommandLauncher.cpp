#include "sequences/CommandLauncher.h"

#include "common/Logger.h"
#include "common/Privileges.h"
#include "sequences/LauncherProcess.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace {
constexpr char logSource[] = "CommandLauncher";

// The launcher answers at once; a launcher that keeps the daemon waiting longer is stopped
// (someone of its account can stop it) and given up.
constexpr int replyTimeoutMs = 10000;

enum class LauncherState
{
    NOT_STARTED,
    RUNNING,
    GONE
};

struct Launcher
{
    LauncherState state = LauncherState::NOT_STARTED;
    Orvanta::OwnedFd socket;
    pid_t pid = 0;
};

Launcher& launcher()
{
    static Launcher instance;
    return instance;
}

LauncherProcess::Privileges privilegesForCommands()
{
    if (geteuid() == 0) {
        return LauncherProcess::Privileges::KEEP_ALL;
    }
    return Orvanta::Privileges::hasEffectiveCapability(CAP_SETGID)
               ? LauncherProcess::Privileges::DROP_GROUPS
               : LauncherProcess::Privileges::KEEP_GROUPS;
}

// A descriptor number above the standard ones, so that neither end of the pair can stand in
// for a closed standard output.
bool moveAboveStandardDescriptors(int& fd)
{
    if (fd > STDERR_FILENO) {
        return true;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved == -1) {
        return false;
    }
    close(fd);
    fd = moved;
    return true;
}

bool forkLauncher(LauncherProcess::Privileges privileges)
{
    Launcher& state = launcher();
    state.state = LauncherState::GONE;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        SELVANE_LOG(LEVEL_ERROR, "Could not start the command launcher: %s", strerror(errno));
        return false;
    }
    Orvanta::OwnedFd daemonEnd(ends[0]);
    Orvanta::OwnedFd launcherEnd(ends[1]);
    int daemonFd = daemonEnd.release();
    int launcherFd = launcherEnd.release();
    const bool moved =
        moveAboveStandardDescriptors(daemonFd) && moveAboveStandardDescriptors(launcherFd);
    daemonEnd.reset(daemonFd);
    launcherEnd.reset(launcherFd);
    if (!moved) {
        SELVANE_LOG(LEVEL_ERROR, "Could not start the command launcher: %s", strerror(errno));
        return false;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        SELVANE_LOG(LEVEL_ERROR, "Could not start the command launcher: %s", strerror(errno));
        return false;
    }
    if (pid == 0) {
        LauncherProcess::run(launcherEnd.get(), privileges);
    }
    state.socket = std::move(daemonEnd);
    state.pid = pid;
    state.state = LauncherState::RUNNING;
    return true;
}

// Once, when the launcher is found gone: each command after it is refused on its own line.
void giveUp(const char* reason)
{
    Launcher& state = launcher();
    if (state.state != LauncherState::RUNNING) {
        return;
    }
    SELVANE_LOG(LEVEL_ERROR, "The command launcher %s; commands are not run any more", reason);
    state.socket.reset();
    state.state = LauncherState::GONE;
    // Still the daemon's child, so the pid is its own until collected here; a stopped
    // launcher is ended, too.
    kill(state.pid, SIGKILL);
    while (waitpid(state.pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

bool sendAll(const char* bytes, std::size_t size)
{
    const int socket = launcher().socket.get();
    while (size > 0) {
        const ssize_t sent = send(socket, bytes, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return false;
        }
        bytes += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

// The next answer, with the descriptor it carries, if any. False when the launcher has ended,
// takes too long or says something that is no answer.
bool receiveReply(LauncherProcess::Reply& reply, Orvanta::OwnedFd& attached)
{
    const int socket = launcher().socket.get();
    pollfd ready{socket, POLLIN, 0};
    int polled;
    do {
        polled = poll(&ready, 1, replyTimeoutMs);
    } while (polled < 0 && errno == EINTR);
    if (polled <= 0) {
        giveUp("does not answer");
        return false;
    }
    iovec data{&reply, sizeof reply};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)] = {};
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    ssize_t got;
    do {
        got = recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_WAITALL);
    } while (got < 0 && errno == EINTR);
    // Whatever descriptors came are owned here, so none is left open by mistake.
    std::vector<Orvanta::OwnedFd> received;
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (std::size_t i = 0; i < count; ++i) {
                int fd;
                std::memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof fd);
                received.emplace_back(fd);
            }
        }
    }
    if (got != static_cast<ssize_t>(sizeof reply)) {
        giveUp("has ended");
        return false;
    }
    const bool carriesOne = reply.kind == LauncherProcess::Reply::STARTED;
    if ((message.msg_flags & MSG_CTRUNC) != 0 || received.size() != (carriesOne ? 1U : 0U)) {
        giveUp("gave an answer that makes no sense");
        return false;
    }
    if (carriesOne) {
        attached = std::move(received.front());
    }
    return true;
}

} // namespace

bool CommandLauncher::start()
{
    const LauncherProcess::Privileges privileges = privilegesForCommands();
    switch (privileges) {
    case LauncherProcess::Privileges::KEEP_ALL:
        SELVANE_LOG(LEVEL_INFO, "Commands run as root");
        break;
    case LauncherProcess::Privileges::KEEP_GROUPS:
        SELVANE_LOG(LEVEL_WARNING, "Commands run with the daemon's groups: CAP_SETGID is missing");
        break;
    case LauncherProcess::Privileges::DROP_GROUPS:
        break;
    }
    return forkLauncher(privileges);
}

Orvanta::OwnedFd CommandLauncher::launch(const QByteArray& command,
                                         const QVector<QByteArray>& environment)
{
    if (launcher().state == LauncherState::NOT_STARTED) {
        forkLauncher(privilegesForCommands());
    }
    if (launcher().state != LauncherState::RUNNING) {
        return Orvanta::OwnedFd();
    }
    // Each string as the C library would see it, up to its first NUL byte.
    QByteArray strings(command.constData());
    strings.append('\0');
    for (const QByteArray& entry : environment) {
        strings.append(entry.constData());
        strings.append('\0');
    }
    const qsizetype count = environment.size() + 1;
    if (strings.size() > qsizetype(LauncherProcess::maxRequestBytes) ||
        count > qsizetype(LauncherProcess::maxStrings)) {
        // Too large for the kernel to start, too.
        return Orvanta::OwnedFd();
    }
    const LauncherProcess::Request request{static_cast<std::uint32_t>(strings.size()),
                                           static_cast<std::uint32_t>(count)};
    if (!sendAll(reinterpret_cast<const char*>(&request), sizeof request) ||
        !sendAll(strings.constData(), static_cast<std::size_t>(strings.size()))) {
        giveUp("has ended");
        return Orvanta::OwnedFd();
    }
    LauncherProcess::Reply reply = {};
    Orvanta::OwnedFd process;
    if (!receiveReply(reply, process)) {
        return Orvanta::OwnedFd();
    }
    if (reply.kind == LauncherProcess::Reply::FAILED) {
        return Orvanta::OwnedFd();
    }
    if (reply.kind != LauncherProcess::Reply::STARTED) {
        giveUp("gave an answer that makes no sense");
        return Orvanta::OwnedFd();
    }
    return process;
}
