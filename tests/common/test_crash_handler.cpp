#include "TestFiles.h"

#include "common/AlternateSignalStack.h"
#include "common/CrashHandler.h"
#include "common/Logger.h"

#include <QCoreApplication>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <QElapsedTimer>

#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <execinfo.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

using Orvanta::Logger;

namespace {

// The test program runs itself again as the crashing process: this variable
// names the crash, the two others its log and pid files.
const char scenarioVariable[] = "SELVANE_CRASH_SCENARIO";
const char logVariable[] = "SELVANE_CRASH_LOG";
const char pidVariable[] = "SELVANE_CRASH_PID_FILE";

// The timestamp as the logger writes it.
const QString linePrefix = QStringLiteral(
    R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] \[Error\] \[Main:segfault_handler:\d+\] )");

QRegularExpression headerLine(const QString& signalName = QStringLiteral("SIGSEGV"))
{
    return QRegularExpression(linePrefix + QStringLiteral("Received ") + signalName +
                              QStringLiteral(R"(\.  Backtrace:$)"));
}
const QRegularExpression frameLine(linePrefix + QStringLiteral(R"(\S.*$)"));
const QRegularExpression exitingLine(linePrefix + QStringLiteral(R"(Exiting\.$)"));

// Set by the crashing process when the handler's first frame line is to fault.
std::atomic<bool> faultInFrameLines{false};

// Reading it faults: a crash that no sanitizer takes for undefined behaviour.
volatile char* inaccessiblePage()
{
    void* page = mmap(nullptr, static_cast<size_t>(sysconf(_SC_PAGESIZE)), PROT_NONE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return page == MAP_FAILED ? nullptr : static_cast<volatile char*>(page);
}

// Recurses until the stack is gone. The frame's bytes are used after the call,
// so the recursion stays a recursion.
Q_NEVER_INLINE long overflowTheStack(long depth)
{
    volatile char frame[4096];
    frame[0] = static_cast<char>(depth);
    if (depth == LONG_MAX) {
        return 0;
    }
    return overflowTheStack(depth + 1) + frame[0];
}

// Holds the logger's lock on a thread of its own for ever: the thread logs,
// and the slot of the logger's signal, which runs under the lock, never
// returns on that thread. Returns once the lock is held.
void holdTheLoggersLock()
{
    static std::atomic<bool> held{false};
    const auto mainThread = std::this_thread::get_id();
    QObject::connect(
        Logger::getInstance(), &Logger::message, Logger::getInstance(),
        [mainThread] {
            if (std::this_thread::get_id() == mainThread) {
                return;
            }
            held = true;
            for (;;) {
                std::this_thread::sleep_for(std::chrono::hours(1));
            }
        },
        Qt::DirectConnection);
    std::thread([] {
        const Orvanta::AlternateSignalStack stack;
        Logger::write(Logger::LEVEL_INFO, QStringLiteral("Test"), QStringLiteral("hold"), 1,
                      QStringLiteral("holding the lock"));
    }).detach();
    while (!held) {
        std::this_thread::yield();
    }
}

// Ends the process with the named signal, as a fault or an abort would.
void raiseFatal(const QByteArray& name, volatile char* page)
{
    if (name == "SIGSEGV") {
        (void)page[0];
    } else if (name == "SIGBUS") {
        raise(SIGBUS);
    } else if (name == "SIGFPE") {
        raise(SIGFPE);
    } else if (name == "SIGILL") {
        raise(SIGILL);
    } else if (name == "SIGABRT") {
        abort();
    }
}

// The crashing process. Never returns.
[[noreturn]] void crash(const QByteArray& scenario)
{
    const QString pidFile = qEnvironmentVariable(pidVariable);
    Logger::initialize();
    Logger::enableFileChannel(Logger::LEVEL_DEBUG, qEnvironmentVariable(logVariable), false);
    if (!writeFile(pidFile, QByteArray::number(getpid())) ||
        !Orvanta::CrashHandler::install(pidFile)) {
        _exit(2);
    }
    volatile char* page = inaccessiblePage();
    if (!page) {
        _exit(3);
    }
    if (scenario == "stack-overflow") {
        overflowTheStack(0);
    } else if (scenario == "thread-stack-overflow") {
        // As a station's thread runs: with a signal stack of its own.
        std::thread([] {
            const Orvanta::AlternateSignalStack stack;
            if (stack.isValid()) {
                overflowTheStack(0);
            }
        }).join();
    } else if (scenario == "fault-in-handler") {
        // The report's first frame line faults again, inside the handler.
        faultInFrameLines = true;
        (void)page[0];
    } else if (scenario.startsWith("lock-held:")) {
        holdTheLoggersLock();
        // The parent times the report from here.
        const char ready[] = "raising\n";
        if (write(STDOUT_FILENO, ready, sizeof(ready) - 1) < 0) {
            _exit(5);
        }
        raiseFatal(scenario.mid(static_cast<qsizetype>(strlen("lock-held:"))), page);
    }
    _exit(4);
}

} // namespace

// Stands in for the C library's, which the crash handler calls for every frame
// line: the fault-in-handler scenario makes it fault.
extern "C" void backtrace_symbols_fd(void* const* frames, int count, int fd)
{
    if (faultInFrameLines) {
        (void)inaccessiblePage()[0];
    }
    using Function = void (*)(void* const*, int, int);
    static const auto next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "backtrace_symbols_fd"));
    next(frames, count, fd);
}

class CrashHandlerTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir;
    QString logFile;
    QString pidFile;

    // Runs the crashing process; its exit status, or -1 when it did not exit
    // (within boundMs of its "raising" line, when it writes one).
    int runCrash(const QString& scenario, int boundMs = 0)
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(scenarioVariable, scenario);
        environment.insert(logVariable, logFile);
        environment.insert(pidVariable, pidFile);
        // AddressSanitizer would otherwise take SIGSEGV with an alternate stack
        // of its own; the handler under test must manage without either.
        const QString asanOptions = environment.value(QStringLiteral("ASAN_OPTIONS"));
        environment.insert(QStringLiteral("ASAN_OPTIONS"),
                           (asanOptions.isEmpty() ? QString() : asanOptions + ':') +
                               QStringLiteral("handle_segv=0:handle_sigbus=0:handle_sigfpe=0:"
                                              "handle_sigill=0:handle_abort=0:use_sigaltstack=0"));
        QProcess process;
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(boundMs > 0 ? QProcess::ForwardedErrorChannel
                                                  : QProcess::ForwardedChannels);
        process.start(QCoreApplication::applicationFilePath(), QStringList());
        int finishMs = 30000;
        if (boundMs > 0) {
            QByteArray output;
            while (!output.contains("raising\n") && process.waitForReadyRead(30000)) {
                output += process.readAllStandardOutput();
            }
            // Without the line the process did not get as far as the signal.
            finishMs = output.contains("raising\n") ? boundMs : 0;
        }
        if (!process.waitForFinished(finishMs) && process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished();
            return -1;
        }
        // A process killed by a signal did not end with a status of its own.
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    QStringList logLines() const
    {
        QStringList lines = QString::fromLatin1(readFile(logFile)).split(QLatin1Char('\n'));
        if (!lines.isEmpty() && lines.last().isEmpty()) {
            lines.removeLast();
        }
        return lines;
    }

private Q_SLOTS:
    void init()
    {
        logFile = dir.filePath(QStringLiteral("crash.log"));
        pidFile = dir.filePath(QStringLiteral("crash.pid"));
        QFile::remove(logFile);
        QFile::remove(pidFile);
    }

    void stackOverflowIsReportedAndEndsWithStatus1()
    {
        QCOMPARE(runCrash(QStringLiteral("stack-overflow")), 1);
        const QStringList lines = logLines();
        const QString log = lines.join(QLatin1Char('\n'));
        // The header, the 100 innermost frames (the handler's and the
        // recursion's: the stack is far deeper), and "Exiting.".
        QCOMPARE(lines.size(), 102);
        QVERIFY2(headerLine().match(lines.first()).hasMatch(), qPrintable(log));
        for (int i = 1; i < lines.size() - 1; ++i) {
            QVERIFY2(frameLine.match(lines[i]).hasMatch(), qPrintable(lines[i]));
        }
        QVERIFY2(exitingLine.match(lines.last()).hasMatch(), qPrintable(log));
        QVERIFY(!QFile::exists(pidFile));
    }

    void faultInsideTheHandlerEndsWithStatus1AtOnce()
    {
        QCOMPARE(runCrash(QStringLiteral("fault-in-handler")), 1);
        // The second fault came after the header, in the first frame line
        // (whose prefix is written), and the report went no further.
        const QStringList lines = logLines();
        QVERIFY2(!lines.isEmpty() && headerLine().match(lines.first()).hasMatch(),
                 qPrintable(lines.join(QLatin1Char('\n'))));
        QCOMPARE(lines.size(), 2);
        QVERIFY2(QRegularExpression(linePrefix + QStringLiteral("$")).match(lines[1]).hasMatch(),
                 qPrintable(lines[1]));
        QVERIFY(QFile::exists(pidFile));
    }

    void stackOverflowOnAnotherThreadIsReported()
    {
        QCOMPARE(runCrash(QStringLiteral("thread-stack-overflow")), 1);
        const QStringList lines = logLines();
        const QString log = lines.join(QLatin1Char('\n'));
        QCOMPARE(lines.size(), 102);
        QVERIFY2(headerLine().match(lines.first()).hasMatch(), qPrintable(log));
        QVERIFY2(exitingLine.match(lines.last()).hasMatch(), qPrintable(log));
        QVERIFY(!QFile::exists(pidFile));
    }

    void fatalSignalWhileAnotherThreadHoldsTheLoggersLock_data()
    {
        QTest::addColumn<QString>("signalName");
        for (const char* name : {"SIGSEGV", "SIGBUS", "SIGFPE", "SIGILL", "SIGABRT"}) {
            QTest::newRow(name) << QString::fromLatin1(name);
        }
    }

    // The report takes no lock: it is written, and the process ends, while
    // the logger stays locked for ever.
    void fatalSignalWhileAnotherThreadHoldsTheLoggersLock()
    {
        QFETCH(QString, signalName);
        QCOMPARE(runCrash(QStringLiteral("lock-held:") + signalName, 1000), 1);
        const QStringList lines = logLines();
        const QString log = lines.join(QLatin1Char('\n'));
        QVERIFY2(lines.size() >= 3, qPrintable(log));
        QVERIFY2(headerLine(signalName).match(lines.first()).hasMatch(), qPrintable(log));
        for (int i = 1; i < lines.size() - 1; ++i) {
            QVERIFY2(frameLine.match(lines[i]).hasMatch(), qPrintable(lines[i]));
        }
        QVERIFY2(exitingLine.match(lines.last()).hasMatch(), qPrintable(log));
        QVERIFY(!QFile::exists(pidFile));
    }

    void reportTimestampIsTheLocalTime()
    {
        const QDateTime before = QDateTime::currentDateTime().addSecs(-1);
        QCOMPARE(runCrash(QStringLiteral("lock-held:SIGSEGV"), 1000), 1);
        const QDateTime after = QDateTime::currentDateTime().addSecs(1);
        const QString header = logLines().value(0);
        const QDateTime stamp =
            QDateTime::fromString(header.mid(1, 23), QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz"));
        QVERIFY2(stamp.isValid() && stamp >= before && stamp <= after, qPrintable(header));
    }
};

int main(int argc, char** argv)
{
    const QByteArray scenario = qgetenv(scenarioVariable);
    if (!scenario.isEmpty()) {
        crash(scenario);
    }
    QCoreApplication app(argc, argv);
    CrashHandlerTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "test_crash_handler.moc"
