#include "sequences/LauncherProcess.h"

#include "common/Privileges.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace LauncherProcess {

namespace {

// The launcher's socket, moved to the first descriptor after the standard ones.
constexpr int socketFd = 3;

// The daemon's signal handlers (crash report, quit relay) must never run in the launcher: it
// is killed like any plain process, and a crash of its own leaves the daemon's pid file alone.
void resetSignals()
{
    struct sigaction byDefault = {};
    byDefault.sa_handler = SIG_DFL;
    for (int signalNumber = 1; signalNumber < NSIG; ++signalNumber) {
        sigaction(signalNumber, &byDefault, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Keeps standard output and error (the commands' output goes where the daemon's goes) and the
// socket; every other descriptor of the daemon is closed.
bool keepOnlySocket(int socket)
{
    if (socket != socketFd && dup3(socket, socketFd, O_CLOEXEC) == -1) {
        return false;
    }
    if (socket == socketFd && fcntl(socketFd, F_SETFD, FD_CLOEXEC) == -1) {
        return false;
    }
    return syscall(SYS_close_range, socketFd + 1, ~0U, 0) == 0;
}

bool applyPrivileges(Privileges privileges)
{
    switch (privileges) {
    case Privileges::DROP_GROUPS:
        return Orvanta::Privileges::dropSupplementaryGroups() &&
               Orvanta::Privileges::dropCapabilities();
    case Privileges::KEEP_GROUPS:
        return Orvanta::Privileges::dropCapabilities();
    case Privileges::KEEP_ALL:
        return true;
    }
    return false;
}

// Reads exactly `size` bytes; false at the end of the stream or on an error.
bool readFully(void* buffer, std::size_t size)
{
    char* bytes = static_cast<char*>(buffer);
    while (size > 0) {
        const ssize_t got = read(socketFd, bytes, size);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        bytes += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

bool sendReply(Reply::Kind kind, int error, int attachedFd = -1)
{
    Reply reply{kind, error};
    iovec data{&reply, sizeof reply};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    if (attachedFd != -1) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &attachedFd, sizeof(int));
    }
    ssize_t sent;
    do {
        sent = sendmsg(socketFd, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(sizeof reply);
}

// Cuts the request's bytes into the pointers posix_spawn takes: pointers[0] the command,
// then the environment up to a null pointer. False when the strings are not what the header
// announced.
bool splitRequest(char* bytes, std::uint32_t length, std::uint32_t strings, char** pointers)
{
    if (length == 0 || bytes[length - 1] != '\0') {
        return false;
    }
    std::uint32_t found = 0;
    char* start = bytes;
    for (std::uint32_t i = 0; i < length; ++i) {
        if (bytes[i] != '\0') {
            continue;
        }
        if (found == strings) {
            return false;
        }
        pointers[found++] = start;
        start = bytes + i + 1;
    }
    pointers[strings] = nullptr;
    return found == strings;
}

// Blocks SIGCHLD and returns a descriptor that becomes readable when a command has ended, so
// that one poll waits for requests and ended commands alike; -1 on failure.
int watchEndedCommands()
{
    sigset_t childSignal;
    sigemptyset(&childSignal);
    sigaddset(&childSignal, SIGCHLD);
    if (sigprocmask(SIG_BLOCK, &childSignal, nullptr) != 0) {
        return -1;
    }
    return signalfd(-1, &childSignal, SFD_NONBLOCK | SFD_CLOEXEC);
}

// Empties the signal descriptor and collects every command that has ended: several ends may
// come as one signal. Returns how many were collected.
unsigned collectEnded(int childEvents)
{
    signalfd_siginfo info;
    for (;;) {
        const ssize_t got = read(childEvents, &info, sizeof info);
        if (got <= 0 && !(got < 0 && errno == EINTR)) {
            break;
        }
    }
    unsigned collected = 0;
    for (;;) {
        const pid_t pid = waitpid(-1, nullptr, WNOHANG);
        if (pid > 0) {
            ++collected;
        } else if (pid == 0 || errno != EINTR) {
            return collected;
        }
    }
}

} // namespace

void run(int socket, Privileges privileges, unsigned maxRunning)
{
    resetSignals();
    prctl(PR_SET_NAME, "selvane-launch", 0, 0, 0);
    // A command of the same account could otherwise trace the launcher and speak for it.
    if (!Orvanta::Privileges::makeUndumpable() || !keepOnlySocket(socket) ||
        !applyPrivileges(privileges)) {
        _exit(1);
    }

    // Room for the largest request and its pointers, taken once.
    const std::size_t pointerBytes = (maxStrings + 1) * sizeof(char*);
    void* memory = mmap(nullptr, maxRequestBytes + pointerBytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        _exit(1);
    }
    char** pointers = static_cast<char**>(memory);
    char* bytes = static_cast<char*>(memory) + pointerBytes;

    // Every signal with its default action and none blocked (the launcher blocks SIGCHLD), the
    // C library's internal ones too (sigfillset leaves those out); a session of its own, so the
    // command has no controlling terminal and a signal to the daemon's group does not reach it.
    sigset_t all;
    std::memset(&all, 0xff, sizeof all);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);

    // The launcher's children are its commands only, so every pid collected is one of them.
    const int childEvents = watchEndedCommands();
    if (childEvents == -1) {
        _exit(1);
    }
    unsigned running = 0;
    pollfd descriptors[] = {{socketFd, POLLIN, 0}, {childEvents, POLLIN, 0}};
    for (;;) {
        if (poll(descriptors, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            _exit(1);
        }
        if (descriptors[1].revents != 0) {
            running -= collectEnded(childEvents);
        }
        if (descriptors[0].revents == 0) {
            continue;
        }
        Request request = {};
        if (!readFully(&request, sizeof request) || request.length > maxRequestBytes ||
            request.strings == 0 || request.strings > maxStrings ||
            !readFully(bytes, request.length) ||
            !splitRequest(bytes, request.length, request.strings, pointers)) {
            // The daemon has gone, or this is not the daemon speaking.
            _exit(0);
        }
        if (running >= maxRunning) {
            // A command may have ended since the last poll.
            running -= collectEnded(childEvents);
        }
        if (running >= maxRunning) {
            if (!sendReply(Reply::FAILED, EAGAIN)) {
                _exit(0);
            }
            continue;
        }
        char shell[] = "bash";
        char option[] = "-c";
        char* arguments[] = {shell, option, pointers[0], nullptr};
        pid_t pid = 0;
        const int error =
            posix_spawn(&pid, "/bin/bash", &actions, &attributes, arguments, pointers + 1);
        if (error != 0) {
            if (!sendReply(Reply::FAILED, error)) {
                _exit(0);
            }
            continue;
        }
        // The command is not collected before its pidfd exists, so the pid cannot be reused.
        const int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        if (pidFd == -1) {
            const int openError = errno;
            kill(pid, SIGKILL);
            while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
            if (!sendReply(Reply::FAILED, openError)) {
                _exit(0);
            }
            continue;
        }
        ++running;
        const bool sent = sendReply(Reply::STARTED, 0, pidFd);
        close(pidFd);
        if (!sent) {
            _exit(0);
        }
    }
}

} // namespace LauncherProcess
