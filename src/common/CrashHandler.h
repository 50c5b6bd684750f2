#pragma once

#include <QString>

// The daemon's report of a crash. On SIGSEGV the handler logs a backtrace,
// removes the pid file, logs "Exiting." and ends the process with status 1.
// It runs on an alternate signal stack, so a stack overflow is reported as
// well as any other fault; a second fault inside the handler ends the process
// with status 1 at once.
namespace Orvanta::CrashHandler {

// Installs the handler for SIGSEGV, with the alternate stack for the calling
// thread (the thread whose overflow it can report). The report removes
// pidFile. False when the alternate stack could not be set up: the handler is
// then installed all the same, and runs on the faulting stack.
bool install(const QString& pidFile);

} // namespace Orvanta::CrashHandler
