#include "common/CrashHandler.h"

#include "common/Logger.h"

#include <QFile>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <sys/mman.h>
#include <unistd.h>

namespace Orvanta::CrashHandler {

namespace {
// The crash report is the program entry's: its lines have always named
// Main:segfault_handler, and log readers look for them there.
constexpr char logSource[] = "Main";
constexpr int maxBacktraceFrames = 100;
// The handler formats and writes log lines (QString, QDateTime, the file
// channel) and asks the unwinder for the backtrace; sanitizer builds use
// larger frames. Pages that are never touched cost nothing.
constexpr size_t alternateStackSize = size_t{512} * 1024;

// Prepared when the handler is installed, so the handler needs no allocation
// to remove the pid file.
char pidFilePath[PATH_MAX] = {};
volatile sig_atomic_t reporting = 0;

void segfault_handler(int)
{
    // SA_NODEFER lets a fault inside this handler come back here instead of
    // having the kernel end the process with the signal.
    if (reporting) {
        _exit(1);
    }
    reporting = 1;
    void* frames[maxBacktraceFrames];
    const int frameCount = backtrace(frames, maxBacktraceFrames);
    char** symbols = backtrace_symbols(frames, frameCount);
    SELVANE_LOG(LEVEL_ERROR, "Received SIGSEGV.  Backtrace:");
    if (!symbols) {
        SELVANE_LOG(LEVEL_ERROR, "Backtrace is not available");
    } else {
        for (int i = 0; i < frameCount; ++i) {
            SELVANE_LOG(LEVEL_ERROR, "%s", symbols[i]);
        }
        free(symbols);
    }
    unlink(pidFilePath);
    SELVANE_LOG(LEVEL_ERROR, "Exiting.");
    // _exit, not exit: the static destructors of the libraries must not run on
    // state that the fault may have left half-changed. Every log line is
    // already flushed.
    _exit(1);
}

// A stack for the handler, with an inaccessible page below it: should the
// handler itself run out of room, it faults there (and ends with status 1)
// instead of writing over other memory.
bool setUpAlternateStack()
{
    const size_t guardSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* memory = mmap(nullptr, guardSize + alternateStackSize, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED) {
        return false;
    }
    char* base = static_cast<char*>(memory);
    stack_t stack = {};
    stack.ss_sp = base + guardSize;
    stack.ss_size = alternateStackSize;
    if (mprotect(base, guardSize, PROT_NONE) != 0 || sigaltstack(&stack, nullptr) != 0) {
        munmap(memory, guardSize + alternateStackSize);
        return false;
    }
    // The stack stays for the life of the process.
    return true;
}

} // namespace

bool install(const QString& pidFile)
{
    const QByteArray path = QFile::encodeName(pidFile);
    strncpy(pidFilePath, path.constData(), sizeof(pidFilePath) - 1);
    // backtrace() loads its unwinder on first use; do that now rather than
    // inside the handler.
    void* warmUp[1];
    backtrace(warmUp, 1);
    const bool stackReady = setUpAlternateStack();

    struct sigaction action = {};
    action.sa_handler = segfault_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_ONSTACK | SA_NODEFER;
    sigaction(SIGSEGV, &action, nullptr);
    return stackReady;
}

} // namespace Orvanta::CrashHandler
