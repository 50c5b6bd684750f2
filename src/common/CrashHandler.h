#pragma once

#include <QString>

// The daemon's report of a crash. On SIGSEGV, SIGBUS, SIGFPE, SIGILL and
// SIGABRT the handler writes "Received SIGSEGV.  Backtrace:" (with the
// signal's own name), the backtrace and "Exiting." as Error lines of the
// logger's file and standard-output channels, removes the pid file if it
// still names this process, and ends the process with status 1.
//
// The handler uses async-signal-safe calls only: it takes no lock and
// allocates nothing, so a fault inside malloc or while another thread holds
// the logger's lock is reported all the same. It runs on an alternate signal
// stack, so a stack overflow is reported as well as any other fault; a second
// fault inside the handler ends the process with status 1 at once.
namespace Orvanta::CrashHandler {

// Installs the handler, with the alternate stack for the calling thread; the
// other threads bring their own (AlternateSignalStack). The report removes
// pidFile. The local time's offset from UTC is taken now, for the timestamps
// of the report. False when the alternate stack could not be set up: the
// handler is then installed all the same, and runs on the faulting stack.
bool install(const QString& pidFile);

} // namespace Orvanta::CrashHandler
