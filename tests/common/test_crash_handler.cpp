#include "TestFiles.h"

#include "common/CrashHandler.h"
#include "common/Logger.h"

#include <QCoreApplication>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

using Orvanta::Logger;

namespace {

// The test program runs itself again as the crashing process: this variable
// names the crash, the two others its log and pid files.
const char scenarioVariable[] = "SELVANE_CRASH_SCENARIO";
const char logVariable[] = "SELVANE_CRASH_LOG";
const char pidVariable[] = "SELVANE_CRASH_PID_FILE";

const QRegularExpression
    headerLine(QStringLiteral(R"(^\[[^\]]+\] \[Error\] \[Main:segfault_handler:\d+\] )"
                              R"(Received SIGSEGV\.  Backtrace:$)"));
const QRegularExpression
    frameLine(QStringLiteral(R"(^\[[^\]]+\] \[Error\] \[Main:segfault_handler:\d+\] \S.*$)"));
const QRegularExpression exitingLine(
    QStringLiteral(R"(^\[[^\]]+\] \[Error\] \[Main:segfault_handler:\d+\] Exiting\.$)"));

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
    } else if (scenario == "fault-in-handler") {
        // The report's first line faults again, inside the handler.
        QObject::connect(Logger::getInstance(), &Logger::message, [page] { (void)page[0]; });
        (void)page[0];
    }
    _exit(4);
}

} // namespace

class CrashHandlerTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir dir;
    QString logFile;
    QString pidFile;

    // Runs the crashing process; its exit status, or -1 when it did not exit.
    int runCrash(const QString& scenario)
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
                               QStringLiteral("handle_segv=0:use_sigaltstack=0"));
        QProcess process;
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::ForwardedChannels);
        process.start(QCoreApplication::applicationFilePath(), QStringList());
        if (!process.waitForFinished(30000)) {
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
        QVERIFY2(headerLine.match(lines.first()).hasMatch(), qPrintable(log));
        for (int i = 1; i < lines.size() - 1; ++i) {
            QVERIFY2(frameLine.match(lines[i]).hasMatch(), qPrintable(lines[i]));
        }
        QVERIFY2(exitingLine.match(lines.last()).hasMatch(), qPrintable(log));
        QVERIFY(!QFile::exists(pidFile));
    }

    void faultInsideTheHandlerEndsWithStatus1AtOnce()
    {
        QCOMPARE(runCrash(QStringLiteral("fault-in-handler")), 1);
        // The second fault came before the first line reached the file, and
        // the report went no further.
        QCOMPARE(logLines(), QStringList());
        QVERIFY(QFile::exists(pidFile));
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
