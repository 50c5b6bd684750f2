#include "common/CrashHandler.h"

#include "common/AlternateSignalStack.h"
#include "common/Daemon.h"
#include "common/Logger.h"

#include <QDateTime>
#include <QFile>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <execinfo.h>
#include <initializer_list>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace Orvanta::CrashHandler {

namespace {
constexpr int maxBacktraceFrames = 100;
// The fatal signals reported, with the names the report gives them.
constexpr struct
{
    int number;
    const char* name;
} fatalSignals[] = {{SIGSEGV, "SIGSEGV"},
                    {SIGBUS, "SIGBUS"},
                    {SIGFPE, "SIGFPE"},
                    {SIGILL, "SIGILL"},
                    {SIGABRT, "SIGABRT"}};

// Prepared when the handler is installed, so that the handler needs no
// allocation and no time zone look-up.
char pidFilePath[PATH_MAX] = {};
long utcOffsetSeconds = 0;
// The thread that reports, 0 before any did.
std::atomic<pid_t> reportingThread{0};
static_assert(std::atomic<pid_t>::is_always_lock_free, "used inside the signal handler");

// A line of the report built on the stack, as the logger formats its lines.
class ReportLine
{
public:
    void append(const char* text)
    {
        while (*text && length < sizeof(buffer)) {
            buffer[length++] = *text++;
        }
    }
    // Decimal, padded with zeros to `width` digits.
    void append(long long number, int width = 1)
    {
        char digits[24];
        int count = 0;
        const bool negative = number < 0;
        unsigned long long value = negative ? 0ULL - static_cast<unsigned long long>(number)
                                            : static_cast<unsigned long long>(number);
        do {
            digits[count++] = static_cast<char>('0' + value % 10);
            value /= 10;
        } while (value != 0 && count < static_cast<int>(sizeof(digits)));
        while (count < width && count < static_cast<int>(sizeof(digits))) {
            digits[count++] = '0';
        }
        if (negative) {
            append("-");
        }
        while (count > 0 && length < sizeof(buffer)) {
            buffer[length++] = digits[--count];
        }
    }
    void writeTo(int fd) const
    {
        size_t written = 0;
        while (written < length) {
            const ssize_t result = write(fd, buffer + written, length - written);
            if (result < 0 && errno == EINTR) {
                continue;
            }
            if (result <= 0) {
                return;
            }
            written += static_cast<size_t>(result);
        }
    }

private:
    char buffer[512];
    size_t length = 0;
};

// Days since 1970-01-01 to a civil date (the proleptic Gregorian calendar).
void civilFromDays(long long days, long long* year, int* month, int* day)
{
    days += 719468;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const long long dayOfEra = days - era * 146097;
    const long long yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long long monthIndex = (5 * dayOfYear + 2) / 153;
    *day = static_cast<int>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
    *month = static_cast<int>(monthIndex < 10 ? monthIndex + 3 : monthIndex - 9);
    *year = yearOfEra + era * 400 + (*month <= 2 ? 1 : 0);
}

// "[yyyy-MM-dd hh:mm:ss.zzz] [Error] [Main:segfault_handler:LINE] ", the
// start of every line the logger would write for the report.
ReportLine linePrefix(int sourceLine)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const long long local = static_cast<long long>(now.tv_sec) + utcOffsetSeconds;
    const long long days = (local >= 0 ? local : local - 86399) / 86400;
    const long long secondOfDay = local - days * 86400;
    long long year = 0;
    int month = 0;
    int day = 0;
    civilFromDays(days, &year, &month, &day);

    ReportLine line;
    line.append("[");
    line.append(year, 4);
    line.append("-");
    line.append(month, 2);
    line.append("-");
    line.append(day, 2);
    line.append(" ");
    line.append(secondOfDay / 3600, 2);
    line.append(":");
    line.append(secondOfDay / 60 % 60, 2);
    line.append(":");
    line.append(secondOfDay % 60, 2);
    line.append(".");
    line.append(now.tv_nsec / 1000000, 3);
    // The report has always been the program entry's: its lines name
    // Main:segfault_handler, whatever the signal, and log readers look there.
    line.append("] [Error] [Main:segfault_handler:");
    line.append(sourceLine);
    line.append("] ");
    return line;
}

// The descriptors that take the report: those of the logger's channels that
// take Error lines. Read once, so that the whole report goes to one file.
struct Channels
{
    int fds[2] = {-1, -1};

    Channels()
    {
        fds[0] = Logger::errorFileDescriptor();
        fds[1] = Logger::isStandardOutputTakingErrors() ? STDERR_FILENO : -1;
    }
};

// One line of the report, its message given in pieces.
void writeLine(const Channels& channels, int sourceLine, std::initializer_list<const char*> message)
{
    ReportLine line = linePrefix(sourceLine);
    for (const char* piece : message) {
        line.append(piece);
    }
    line.append("\n");
    for (int fd : channels.fds) {
        if (fd >= 0) {
            line.writeTo(fd);
        }
    }
}

const char* signalName(int signalNumber)
{
    for (const auto& fatal : fatalSignals) {
        if (fatal.number == signalNumber) {
            return fatal.name;
        }
    }
    return "signal";
}

void segfault_handler(int signalNumber)
{
    const auto thread = static_cast<pid_t>(syscall(SYS_gettid));
    pid_t reporting = 0;
    if (!reportingThread.compare_exchange_strong(reporting, thread)) {
        if (reporting == thread) {
            // SA_NODEFER brings a fault inside this handler back here instead
            // of having the kernel end the process with the signal.
            _exit(1);
        }
        // Another thread reports and ends the process; this one waits for it.
        for (;;) {
            pause();
        }
    }
    void* frames[maxBacktraceFrames];
    const int frameCount = backtrace(frames, maxBacktraceFrames);
    const Channels channels;

    writeLine(channels, __LINE__, {"Received ", signalName(signalNumber), ".  Backtrace:"});
    if (frameCount <= 0) {
        writeLine(channels, __LINE__, {"Backtrace is not available"});
    }
    for (int i = 0; i < frameCount; ++i) {
        for (int fd : channels.fds) {
            if (fd >= 0) {
                // backtrace_symbols_fd writes the frame and its line break,
                // without allocating.
                linePrefix(__LINE__).writeTo(fd);
                backtrace_symbols_fd(&frames[i], 1, fd);
            }
        }
    }
    Daemon::removeOwnPidFile(pidFilePath);
    writeLine(channels, __LINE__, {"Exiting."});
    // _exit, not exit: the static destructors of the libraries must not run on
    // state that the fault may have left half-changed.
    _exit(1);
}

// Held here rather than released, so that it stays reachable to the end.
AlternateSignalStack* mainThreadStack = nullptr;

} // namespace

bool install(const QString& pidFile)
{
    const QByteArray path = QFile::encodeName(pidFile);
    strncpy(pidFilePath, path.constData(), sizeof(pidFilePath) - 1);
    utcOffsetSeconds = QDateTime::currentDateTime().offsetFromUtc();
    // backtrace() loads its unwinder on first use, which allocates; that is
    // done now rather than inside the handler.
    void* warmUp[1];
    backtrace(warmUp, 1);
    // The main thread's stack, for the life of the process: it is never
    // taken back, not even by the static destructors at exit.
    mainThreadStack = new AlternateSignalStack;

    struct sigaction action = {};
    action.sa_handler = segfault_handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_ONSTACK | SA_NODEFER;
    for (const auto& fatal : fatalSignals) {
        sigaction(fatal.number, &action, nullptr);
    }
    return mainThreadStack->isValid();
}

} // namespace Orvanta::CrashHandler
