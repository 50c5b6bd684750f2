#pragma once

#include <QString>

// Control of the single daemon instance through its pid file.
namespace Orvanta::Daemon {

// The pid stored in the pid file, or 0 when the file is missing, unreadable,
// not a regular file (a symlink, a FIFO, a directory) or does not hold a
// number. Never blocks.
int getPid(QString pidFile);

// False when something other than a regular file sits at the pid file's path,
// which the daemon then refuses to use. A missing file (or directory) is fine.
bool isUsablePidFilePath(QString pidFile);

// True if the pid file names a live process whose executable is programPath.
// A stale pid file whose pid now belongs to another program does not count.
// Where the process hides its executable (an undumpable daemon seen by its own
// account), the kernel's short name of the process stands in for it.
bool isProgramRunning(QString pidFile, QString programPath);

// Forks into the background. The parent exits with status 0 inside this call;
// the child writes its pid to the pid file and gets true. False means the fork
// failed (the caller carries on in the foreground) or the pid file could not be
// written. The pid is written to a new file of a random name in the pid file's
// directory, which then replaces the pid file's name: the name is never
// followed, and no reader sees a half-written file.
bool start(QString pidFile);

// Removes the pid file, but only when it is a regular file that holds the
// calling process's pid: a file that names another process stays. Uses only
// async-signal-safe calls, so that the crash report can use it too.
void removeOwnPidFile(const char* pidFile);

// Sends SIGTERM to the process named by the pid file, but only when that
// process runs programPath, or ran it and the file has since been deleted (an
// upgrade replaced the program while the daemon ran), or hides its executable
// and has the program's short name (see isProgramRunning). A stale pid file whose
// pid now belongs to another program is ignored, silently. Does not wait for
// the process and leaves the pid file to it.
void stop(QString pidFile, QString programPath);

} // namespace Orvanta::Daemon
