#pragma once

#include <cstdint>

// The command launcher: a small process forked from the daemon before the daemon opens any
// device, which starts the daemon's commands on its behalf, so that a command holds neither the
// daemon's groups nor its capabilities nor any of its descriptors. It talks to nobody but the
// daemon, over one end of a socket pair, and ends when the daemon's end closes; commands that
// still run then are left alone (each has a session of its own). Several commands may run at
// once: the launcher answers each request as soon as the command has started and collects
// ended commands on its own, so neither it nor the daemon waits for a command.
//
// Everything the launcher does after the fork is a plain system call or posix_spawn, so it may
// be forked from a process that has threads.
namespace LauncherProcess {

// A request is this header followed by `length` bytes: `strings` NUL-terminated strings, the
// command first, then the environment entries ("NAME=value").
struct Request
{
    std::uint32_t length;
    std::uint32_t strings;
};
// Larger requests are refused before they are sent; the kernel takes no more for a command
// either.
constexpr std::uint32_t maxRequestBytes = 2 * 1024 * 1024;
constexpr std::uint32_t maxStrings = 16384;

// Beyond this many running commands a request is refused with EAGAIN: a command that never
// ends, run again and again, cannot fill the process table through the launcher.
constexpr unsigned maxRunningCommands = 1024;

// The launcher's answers, exactly one for each request, in the order of the requests: either
// STARTED, with a pidfd of the command attached, or FAILED with the error of posix_spawn (or
// EAGAIN when too many commands run). The pidfd is opened before the launcher can collect the
// command, so it always refers to the command. Nothing is said when a command ends: the pidfd
// becomes readable.
struct Reply
{
    enum Kind : std::int32_t
    {
        STARTED = 1,
        FAILED = 2
    };
    std::int32_t kind;
    std::int32_t error;
};

enum class Privileges
{
    // Commands run without supplementary groups and capabilities (needs CAP_SETGID).
    DROP_GROUPS,
    // Commands keep the daemon's groups but get no capabilities.
    KEEP_GROUPS,
    // Commands run as root with root's groups and capabilities.
    KEEP_ALL,
};

// The launcher's life in the forked child: never returns. `socket` is its end of the pair;
// at most `maxRunning` commands run at once.
[[noreturn]] void run(int socket, Privileges privileges, unsigned maxRunning = maxRunningCommands);

} // namespace LauncherProcess
