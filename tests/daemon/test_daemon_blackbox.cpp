#include "DaemonRunner.h"
#include "TestFiles.h"

#include "Paths.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <cstdio>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

const QByteArray usageText =
    "orvanta-selvane: Scans keyboard inputs for specific key combinations and then acts upon them\n"
    "  -l --logfile   name of the log file.  This is optional.  If not specified, the default log "
    "file is used\n"
    "  -c --config    name of the configuration file.\n"
    "  --start        start the selvane daemon.\n"
    "  --restart      start the selvane daemon.\n"
    "  --stop         stop the selvane daemon.\n"
    "  --pid          return the pid of the selvane daemon.\n"
    "  -h --help      prints this help message\n"
    "  --grab-unassigned  take unassigned keyboards and mice for this "
    "program alone.\n";

const QByteArray alreadyRunning =
    "Program is already running.  Stop the existing program before starting another one\n";

// Any line the logger writes.
const QRegularExpression anyLogLine(QStringLiteral(
    R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] \[(Error|Warning|Info|Bug|Debug)\] )"
    R"(\[[^:\] ]+:[^:\] ]+:\d+\] .*$)"));

QRegularExpression logLine(const QString& levelFileFunction, const QString& message)
{
    return QRegularExpression(R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] )" + levelFileFunction +
                              R"(:\d+\] )" + QRegularExpression::escape(message) + "$");
}

const QRegularExpression quitLine =
    logLine(R"(\[Info\] \[Main:quit_handler)", QStringLiteral("Received signal to quit"));
const QRegularExpression exitLine =
    logLine(R"(\[Info\] \[Main:main)", QStringLiteral("selvane is exiting with exit code 0"));
const QRegularExpression exitingLine =
    logLine(R"(\[Error\] \[Main:segfault_handler)", QStringLiteral("Exiting."));

// Index of the first line matching the pattern, or -1.
int indexOf(const QStringList& lines, const QRegularExpression& pattern, int from = 0)
{
    for (int i = from; i < lines.size(); ++i) {
        if (pattern.match(lines[i]).hasMatch()) {
            return i;
        }
    }
    return -1;
}

// The state letter of the process ('R', 'S', 'T' stopped, 'Z' zombie...),
// or '?' when there is no such process.
char processState(pid_t pid)
{
    const QByteArray stat = readFile(QStringLiteral("/proc/%1/stat").arg(pid));
    const qsizetype close = stat.lastIndexOf(')');
    return close > 0 && stat.size() > close + 2 ? stat[close + 2] : '?';
}

bool isAlive(pid_t pid)
{
    // A zombie still takes signals; its state letter tells it apart.
    const char state = processState(pid);
    return state != '?' && state != 'Z';
}

// Holds a running daemon stopped (SIGSTOP) while it lives, so that a SIGTERM
// sent to it stays pending where a test can see it, then lets it go on.
class FrozenDaemon
{
public:
    explicit FrozenDaemon(pid_t daemon) : pid(daemon)
    {
        // Until the stop has taken effect, a SIGTERM (the lower number) would
        // still be delivered before it.
        frozen = kill(pid, SIGSTOP) == 0 &&
                 DaemonRunner::waitUntil([&] { return processState(pid) == 'T'; });
    }
    ~FrozenDaemon() { kill(pid, SIGCONT); }

    bool isFrozen() const { return frozen; }
    bool hasPendingSigterm() const { return DaemonRunner::hasPendingSigterm(pid); }

private:
    const pid_t pid;
    bool frozen = false;
};

// An unrelated live process that keeps every SIGTERM sent to it pending, so a
// test can see whether one was sent.
class SigtermRecorder
{
public:
    SigtermRecorder() : pid(DaemonRunner::startIdleProcess(true)) {}
    ~SigtermRecorder()
    {
        kill(pid, SIGKILL);
        DaemonRunner::waitForExit(pid);
    }

    bool hasPendingSigterm() const { return DaemonRunner::hasPendingSigterm(pid); }

    const pid_t pid;
};

} // namespace

class DaemonBlackBoxTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<DaemonRunner> runner;
    QString configFile;

    void writePidFile(const QByteArray& content)
    {
        QFile file(runner->pidFile());
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(content);
    }

    // Starts the daemon with the configuration file and waits for its pid file.
    pid_t startDaemon(const QStringList& extraArguments = {})
    {
        const DaemonRunner::Result result =
            runner->run(QStringList{"-c", configFile} + extraArguments);
        if (result.status != 0) {
            qWarning("foreground status %d, stdout '%s', stderr '%s'", result.status,
                     result.standardOutput.constData(), result.standardError.constData());
            return 0;
        }
        const pid_t pid = runner->waitForDaemon();
        if (pid <= 0 || !DaemonRunner::waitUntil([&] {
                return readFile(runner->pidFile()) == QByteArray::number(pid);
            })) {
            return 0;
        }
        return pid;
    }

private Q_SLOTS:
    void init()
    {
        runner = std::make_unique<DaemonRunner>();
        QVERIFY2(runner->isBusRunning(), "the private session bus did not start");
        configFile = runner->path(QStringLiteral("keys.conf"));
        QFile config(configFile);
        QVERIFY(config.open(QIODevice::WriteOnly));
    }

    void cleanup() { runner.reset(); }

    void helpPrintsTheUsageAndNeverStarts_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("--help") << QStringList{"--help"};
        QTest::newRow("-h") << QStringList{"-h"};
        QTest::newRow("-c file -h") << QStringList{"-c", "keys.conf", "-h"};
        QTest::newRow("-h before an unknown option") << QStringList{"--pid", "-h", "--bogus"};
    }

    void helpPrintsTheUsageAndNeverStarts()
    {
        QFETCH(QStringList, arguments);
        const DaemonRunner::Result result = runner->run(arguments);
        QCOMPARE(result.status, 0);
        QCOMPARE(result.standardOutput, usageText);
        QCOMPARE(result.standardError, QByteArray());
        // An orphan would have been adopted before the foreground's exit was reported.
        QVERIFY(runner->adoptedDaemons().isEmpty());
        QVERIFY(!QFile::exists(runner->pidFile()));
        QVERIFY(!QFile::exists(runner->defaultLogFile()));
    }

    void invalidOptionPrintsTheUsageAndFails_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QByteArray>("complaint");
        QTest::newRow("unknown short option") << QStringList{"-x"} << QByteArray("invalid option");
        QTest::newRow("unknown long option")
            << QStringList{"--bogus", "-c", "keys.conf"} << QByteArray("unrecognized option");
        QTest::newRow("missing argument")
            << QStringList{"-c"} << QByteArray("requires an argument");
    }

    void invalidOptionPrintsTheUsageAndFails()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QByteArray, complaint);
        const DaemonRunner::Result result = runner->run(arguments);
        QCOMPARE(result.status, 1);
        QCOMPARE(result.standardOutput, usageText);
        QVERIFY2(result.standardError.contains(complaint), result.standardError.constData());
        QVERIFY(runner->adoptedDaemons().isEmpty());
    }

    void pidWithoutUsablePidFilePrintsZero_data()
    {
        QTest::addColumn<bool>("fileExists");
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("no pid file") << false << QByteArray();
        QTest::newRow("empty pid file") << true << QByteArray();
        QTest::newRow("letters in the pid file") << true << QByteArray("selvane");
    }

    void pidWithoutUsablePidFilePrintsZero()
    {
        QFETCH(bool, fileExists);
        QFETCH(QByteArray, content);
        if (fileExists) {
            writePidFile(content);
        }
        const DaemonRunner::Result result = runner->run({"--pid"});
        QCOMPARE(result.status, 0);
        QCOMPARE(result.standardOutput, QByteArray("0\n"));
        QCOMPARE(result.standardError, QByteArray());
    }

    void pidWithStopPrintsThePidAndStopsNothing()
    {
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        {
            const FrozenDaemon frozen(daemon);
            QVERIFY(frozen.isFrozen());
            const DaemonRunner::Result result = runner->run({"--pid", "--stop"});
            QCOMPARE(result.status, 0);
            QCOMPARE(result.standardOutput, QByteArray::number(daemon) + "\n");
            // kill() is synchronous: a SIGTERM sent would already be pending.
            QVERIFY(!frozen.hasPendingSigterm());

            // The same daemon does see a plain --stop.
            QCOMPARE(runner->run({"--stop"}).status, 0);
            QVERIFY(frozen.hasPendingSigterm());
        }
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
    }

    void pidComesBeforeRestart()
    {
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        const FrozenDaemon frozen(daemon);
        QVERIFY(frozen.isFrozen());
        const DaemonRunner::Result result = runner->run({"--restart", "--pid", "-c", configFile});
        QCOMPARE(result.status, 0);
        QCOMPARE(result.standardOutput, QByteArray::number(daemon) + "\n");
        QVERIFY(!frozen.hasPendingSigterm());
        QCOMPARE(runner->adoptedDaemons(), QList<pid_t>{daemon});
    }

    void stopComesBeforeRestartAndStartsNothing()
    {
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        {
            const FrozenDaemon frozen(daemon);
            QVERIFY(frozen.isFrozen());
            const DaemonRunner::Result result =
                runner->run({"--restart", "--stop", "-c", configFile});
            QCOMPARE(result.status, 0);
            QCOMPARE(result.standardOutput, QByteArray());
            QCOMPARE(result.standardError, QByteArray());
            QVERIFY(frozen.hasPendingSigterm());
            // The foreground returned without forking a second daemon.
            QCOMPARE(runner->adoptedDaemons(), QList<pid_t>{daemon});
            QCOMPARE(readFile(runner->pidFile()), QByteArray::number(daemon));
        }
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
    }

    void stopLeavesAnUnrelatedProcessAlone()
    {
        // A stale pid file whose pid now belongs to another program.
        SigtermRecorder recorder;
        QVERIFY(recorder.pid > 0);
        writePidFile(QByteArray::number(recorder.pid));
        const DaemonRunner::Result result = runner->run({"--stop"});
        QCOMPARE(result.status, 0);
        QCOMPARE(result.standardOutput, QByteArray());
        QCOMPARE(result.standardError, QByteArray());
        QVERIFY(!recorder.hasPendingSigterm());
        QVERIFY(isAlive(recorder.pid));
        QCOMPARE(readFile(runner->pidFile()), QByteArray::number(recorder.pid));
    }

    void stopReachesADaemonWhoseProgramFileWasReplaced()
    {
        // An upgrade deletes the program file and writes a new one at the same
        // path while the daemon runs; --stop from the new file still stops it.
        QVERIFY(QDir().mkpath(runner->path(QStringLiteral("bin"))));
        const QString program = runner->path(QStringLiteral("bin/orvanta-selvane"));
        QVERIFY(QFile::copy(DaemonRunner::builtExecutable(), program));
        runner->setExecutable(program);
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        QVERIFY(QFile::remove(program));
        QVERIFY(QFile::copy(DaemonRunner::builtExecutable(), program));
        QCOMPARE(QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(daemon)),
                 program + QStringLiteral(" (deleted)"));

        const DaemonRunner::Result result = runner->run({"--stop"});
        QCOMPARE(result.status, 0);
        QCOMPARE(result.standardOutput, QByteArray());
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        QVERIFY(indexOf(DaemonRunner::readLines(runner->defaultLogFile()), quitLine) >= 0);
        QVERIFY(!QFile::exists(runner->pidFile()));
    }

    void stopWithNothingRunningIsSilent()
    {
        const DaemonRunner::Result result = runner->run({"--stop"});
        QCOMPARE(result.status, 0);
        QCOMPARE(result.standardOutput, QByteArray());
        QCOMPARE(result.standardError, QByteArray());
    }

    void startWithoutConfigFailsAndPrintsNothing()
    {
        const DaemonRunner::Result result = runner->run({"--start"});
        QCOMPARE(result.status, 1);
        QCOMPARE(result.standardOutput, QByteArray());
        QCOMPARE(result.standardError, QByteArray());
        QVERIFY(runner->adoptedDaemons().isEmpty());
        // The logger never started: not even the log file exists.
        QVERIFY(!QFile::exists(runner->defaultLogFile()));
    }

    void startDaemonisesAndSigtermEndsItInOrder()
    {
        const DaemonRunner::Result result = runner->run({"--start", "-c", configFile});
        QCOMPARE(result.status, 0);
        QCOMPARE(result.standardOutput, QByteArray());
        QCOMPARE(result.standardError, QByteArray());
        const pid_t daemon = runner->waitForDaemon();
        QVERIFY(daemon > 0);
        QVERIFY(isAlive(daemon));
        // Digits only, no newline, the background child's pid.
        QVERIFY(DaemonRunner::waitUntil(
            [&] { return readFile(runner->pidFile()) == QByteArray::number(daemon); }));

        // Qt runs offscreen without the daemon touching its own environment.
        const QList<QByteArray> environment =
            readFile(QStringLiteral("/proc/%1/environ").arg(daemon)).split('\0');
        QVERIFY(!environment.isEmpty());
        for (const QByteArray& variable : environment) {
            QVERIFY2(!variable.startsWith("QT_QPA_PLATFORM=") && !variable.startsWith("DISPLAY="),
                     variable.constData());
        }

        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        QVERIFY(!QFile::exists(runner->pidFile()));

        const QStringList lines = DaemonRunner::readLines(runner->defaultLogFile());
        for (const QString& line : lines) {
            QVERIFY2(anyLogLine.match(line).hasMatch(), qPrintable(line));
        }
        const int quit = indexOf(lines, quitLine);
        QVERIFY2(quit >= 0, qPrintable(lines.join('\n')));
        QVERIFY2(indexOf(lines, exitLine, quit + 1) > quit, qPrintable(lines.join('\n')));
        // "Logfile opened" is announced before the file channel is on.
        QVERIFY(!lines.join('\n').contains(QStringLiteral("Logfile opened")));
    }

    void theCommandLauncherStartsWithTheDaemonAndEndsWithIt()
    {
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        pid_t launcher = 0;
        QVERIFY(DaemonRunner::waitUntil([&] {
            launcher =
                readFile(QStringLiteral("/proc/%1/task/%1/children").arg(daemon)).trimmed().toInt();
            return launcher > 0;
        }));
        // Once it has settled: its own name; standard input, output and error, its socket to
        // the daemon and the signalfd that tells it of ended commands, nothing else.
        QStringList descriptors;
        QVERIFY2(DaemonRunner::waitUntil([&] {
                     descriptors =
                         QDir(QStringLiteral("/proc/%1/fd").arg(launcher))
                             .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
                     descriptors.sort();
                     return readFile(QStringLiteral("/proc/%1/comm").arg(launcher)) ==
                                "selvane-launch\n" &&
                            descriptors.join(' ') == QStringLiteral("0 1 2 3 4");
                 }),
                 qPrintable(descriptors.join(' ')));
        QVERIFY(QFile::symLinkTarget(QStringLiteral("/proc/%1/fd/3").arg(launcher))
                    .contains("socket:"));
        QVERIFY(QFile::symLinkTarget(QStringLiteral("/proc/%1/fd/4").arg(launcher))
                    .contains("signalfd"));

        const QRegularExpression asRoot =
            DaemonRunner::logLine("Info", "CommandLauncher:start", "Commands run as root");
        int lines = 0;
        for (const QString& line : DaemonRunner::readLines(runner->defaultLogFile())) {
            lines += asRoot.match(line).hasMatch() ? 1 : 0;
        }
        QCOMPARE(lines, 1);

        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        // Adopted by the test once the daemon is gone, and ended by itself.
        QCOMPARE(DaemonRunner::waitForExit(launcher), 0);
    }

    void sigintQuitsLikeSigterm()
    {
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        QCOMPARE(kill(daemon, SIGINT), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        const QStringList lines = DaemonRunner::readLines(runner->defaultLogFile());
        QVERIFY(indexOf(lines, exitLine, indexOf(lines, quitLine) + 1) > 0);
        QVERIFY(!QFile::exists(runner->pidFile()));
    }

    void logfileOptionChoosesTheLogFile()
    {
        const QString first = runner->path(QStringLiteral("first.log"));
        const QString chosen = runner->path(QStringLiteral("chosen.log"));
        const pid_t daemon = startDaemon({"-l", first, "--logfile", chosen});
        QVERIFY(daemon > 0);
        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        QVERIFY(indexOf(DaemonRunner::readLines(chosen), exitLine) >= 0);
        QVERIFY(!QFile::exists(first));
        QVERIFY(!QFile::exists(runner->defaultLogFile()));
    }

    void nonAsciiLogPathOpensThatFile()
    {
        // A UTF-8 name, as a shell passes it; é is the two bytes C3 A9.
        const QByteArray logName =
            runner->path(QStringLiteral("journal-")).toUtf8() + "\xc3\xa9.log";
        const pid_t daemon = startDaemon({"-l", QString::fromUtf8(logName)});
        QVERIFY(daemon > 0);
        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        QVERIFY(!QFile::exists(runner->defaultLogFile()));
        QVERIFY(
            readFile(QString::fromUtf8(logName)).contains("selvane is exiting with exit code 0"));
    }

    void nonAsciiConfigPathOpensThatFileAndReachesTheLogByteForByte()
    {
        const QByteArray configName =
            runner->path(QStringLiteral("touches-")).toUtf8() + "\xc3\xa9.conf";
        QVERIFY(writeFile(QString::fromUtf8(configName), QByteArray()));
        configFile = QString::fromUtf8(configName);
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        const QByteArray log = readFile(runner->defaultLogFile());
        // The file opened, and its name is written as the bytes given.
        QVERIFY2(log.contains("] Parsing config file " + configName + "\n"), log.constData());
        QVERIFY(!log.contains("Could not open config file"));
    }

    void logfileIsAppendedTo()
    {
        {
            QFile log(runner->defaultLogFile());
            QVERIFY(log.open(QIODevice::WriteOnly));
            log.write("an earlier line\n");
        }
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        const QStringList lines = DaemonRunner::readLines(runner->defaultLogFile());
        QCOMPARE(lines.value(0), QStringLiteral("an earlier line"));
        QVERIFY(indexOf(lines, exitLine) > 0);
    }

    void secondStartIsRefused()
    {
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        const DaemonRunner::Result result = runner->run({"-c", configFile});
        QCOMPARE(result.status, 1);
        QCOMPARE(result.standardOutput, alreadyRunning);
        QCOMPARE(result.standardError, QByteArray());
        QCOMPARE(runner->adoptedDaemons(), QList<pid_t>{daemon});
        QVERIFY(isAlive(daemon));
        QCOMPARE(readFile(runner->pidFile()), QByteArray::number(daemon));
    }

    void runningCheckComesBeforeTheMissingConfigCheck()
    {
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        const DaemonRunner::Result result = runner->run({"--start"});
        QCOMPARE(result.status, 1);
        QCOMPARE(result.standardOutput, alreadyRunning);
        QCOMPARE(result.standardError, QByteArray());
        QCOMPARE(runner->adoptedDaemons(), QList<pid_t>{daemon});
    }

    void restartWhileRunningEndsAsAlreadyRunningOrRestarts()
    {
        // The stop does not wait, so either outcome is correct; what must not
        // happen is two daemons at once or a silent failure.
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        const DaemonRunner::Result result = runner->run({"--restart", "-c", configFile});
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        if (result.status == 1) {
            QCOMPARE(result.standardOutput, alreadyRunning);
            QVERIFY(runner->adoptedDaemons().isEmpty());
        } else {
            QCOMPARE(result.status, 0);
            QVERIFY(runner->waitForDaemon() > 0);
        }
    }

    void pidFileOfAnUnrelatedProcessDoesNotBlock()
    {
        // This test process is alive and is not orvanta-selvane.
        writePidFile(QByteArray::number(getpid()));
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        QCOMPARE(readFile(runner->pidFile()), QByteArray::number(daemon));
    }

    void restartLeavesAnUnrelatedProcessAloneAndStarts()
    {
        SigtermRecorder recorder;
        QVERIFY(recorder.pid > 0);
        writePidFile(QByteArray::number(recorder.pid));
        const DaemonRunner::Result result = runner->run({"--restart", "-c", configFile});
        QCOMPARE(result.status, 0);
        QVERIFY(!recorder.hasPendingSigterm());
        QVERIFY(isAlive(recorder.pid));
        const pid_t daemon = runner->waitForDaemon();
        QVERIFY(daemon > 0);
        QVERIFY(DaemonRunner::waitUntil(
            [&] { return readFile(runner->pidFile()) == QByteArray::number(daemon); }));
    }

    void pidAndStopReachTheRunningDaemon()
    {
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        const DaemonRunner::Result pid = runner->run({"--pid"});
        QCOMPARE(pid.status, 0);
        QCOMPARE(pid.standardOutput, QByteArray::number(daemon) + "\n");

        const DaemonRunner::Result stop = runner->run({"--stop"});
        QCOMPARE(stop.status, 0);
        QCOMPARE(stop.standardOutput, QByteArray());
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        QVERIFY(indexOf(DaemonRunner::readLines(runner->defaultLogFile()), quitLine) >= 0);
        QVERIFY(!QFile::exists(runner->pidFile()));
    }

    void fatalSignalLogsABacktraceAndExitsWithStatus1_data()
    {
        QTest::addColumn<int>("signalNumber");
        QTest::addColumn<QString>("signalName");
        QTest::newRow("SIGSEGV") << SIGSEGV << QStringLiteral("SIGSEGV");
        QTest::newRow("SIGBUS") << SIGBUS << QStringLiteral("SIGBUS");
        QTest::newRow("SIGFPE") << SIGFPE << QStringLiteral("SIGFPE");
        QTest::newRow("SIGILL") << SIGILL << QStringLiteral("SIGILL");
        QTest::newRow("SIGABRT") << SIGABRT << QStringLiteral("SIGABRT");
    }

    void fatalSignalLogsABacktraceAndExitsWithStatus1()
    {
        QFETCH(int, signalNumber);
        QFETCH(QString, signalName);
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        QCOMPARE(kill(daemon, signalNumber), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 1);
        QVERIFY(!QFile::exists(runner->pidFile()));

        const QStringList lines = DaemonRunner::readLines(runner->defaultLogFile());
        const int header = indexOf(lines, logLine(R"(\[Error\] \[Main:segfault_handler)",
                                                  "Received " + signalName + ".  Backtrace:"));
        QVERIFY2(header >= 0, qPrintable(lines.join('\n')));
        const int exiting = indexOf(lines, exitingLine, header + 1);
        QVERIFY2(exiting > header + 1, qPrintable(lines.join('\n')));
        for (int i = header + 1; i < exiting; ++i) {
            QVERIFY2(anyLogLine.match(lines[i]).hasMatch() &&
                         lines[i].contains(QLatin1String("] [Error] [Main:segfault_handler:")),
                     qPrintable(lines[i]));
        }
        QCOMPARE(exiting, lines.size() - 1);
        QVERIFY(indexOf(lines, exitLine) < 0);
    }

    void nonRegularPidFileIsRefusedBeforeTheFork_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("a link to a file") << QStringLiteral("link");
        QTest::newRow("a link to nowhere") << QStringLiteral("dangling link");
        QTest::newRow("a FIFO") << QStringLiteral("fifo");
        QTest::newRow("a directory") << QStringLiteral("directory");
    }

    // The run directory belongs to the service account, which could point the
    // pid file anywhere a daemon started by root may write.
    void nonRegularPidFileIsRefusedBeforeTheFork()
    {
        QFETCH(QString, kind);
        const QString target = runner->path(QStringLiteral("target"));
        QVERIFY(writeFile(target, "precious"));
        const QByteArray pidPath = QFile::encodeName(runner->pidFile());
        if (kind == "link") {
            QVERIFY(QFile::link(target, runner->pidFile()));
        } else if (kind == "dangling link") {
            QVERIFY(QFile::link(runner->path(QStringLiteral("nowhere")), runner->pidFile()));
        } else if (kind == "fifo") {
            QCOMPARE(mkfifo(pidPath.constData(), 0600), 0);
        } else {
            QVERIFY(QDir().mkdir(runner->pidFile()));
        }
        const DaemonRunner::Result result = runner->run({"-c", configFile});
        QCOMPARE(result.status, 1);
        QCOMPARE(result.standardOutput, QByteArray());
        QCOMPARE(result.standardError, QByteArray("Refusing pid file ") + Orvanta::Paths::pidFile +
                                           ": not a regular file\n");
        QVERIFY(runner->adoptedDaemons().isEmpty());
        QCOMPARE(readFile(target), QByteArray("precious"));
        QVERIFY(!QFile::exists(runner->path(QStringLiteral("nowhere"))));
        QVERIFY(!QFile::exists(runner->defaultLogFile()));
    }

    void pidAndStopDoNotWaitOnAFifo()
    {
        QCOMPARE(mkfifo(QFile::encodeName(runner->pidFile()).constData(), 0600), 0);
        const DaemonRunner::Result pid = runner->run({"--pid"}, 5000);
        QCOMPARE(pid.status, 0);
        QCOMPARE(pid.standardOutput, QByteArray("0\n"));
        const DaemonRunner::Result stop = runner->run({"--stop"}, 5000);
        QCOMPARE(stop.status, 0);
        QCOMPARE(stop.standardOutput, QByteArray());
    }

    void pidFileIsWrittenUnderAnotherNameFirst()
    {
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        // Only the pid file is left in the directory, readable by all.
        QCOMPARE(
            QDir(runner->runDir())
                .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot),
            QStringList{QStringLiteral("orvanta-selvane.pid")});
        QVERIFY(QFileInfo(runner->pidFile()).permissions() & QFileDevice::ReadOther);
        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
    }

    void shutdownLeavesAPidFileThatNamesAnotherProcess()
    {
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        writePidFile(QByteArray::number(getpid()));
        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        QCOMPARE(readFile(runner->pidFile()), QByteArray::number(getpid()));
    }

    void crashLeavesAPidFileThatNamesAnotherProcess()
    {
        const pid_t daemon = startDaemon();
        QVERIFY(daemon > 0);
        writePidFile(QByteArray::number(getpid()));
        QCOMPARE(kill(daemon, SIGSEGV), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 1);
        QCOMPARE(readFile(runner->pidFile()), QByteArray::number(getpid()));
    }

    void secondStartThatFailsOnTheBusTakesItsPidFileWithIt()
    {
        // A copy of the program is another program to the running check, so
        // its start goes as far as the bus, where the first daemon holds the
        // name.
        const pid_t first = startDaemon();
        QVERIFY(first > 0);
        const QString copy = runner->path(QStringLiteral("orvanta-selvane-copy"));
        QVERIFY(QFile::copy(DaemonRunner::builtExecutable(), copy));
        runner->setExecutable(copy);
        const DaemonRunner::Result result = runner->run({"-c", configFile});
        QCOMPARE(result.status, 0);
        pid_t second = 0;
        QVERIFY(DaemonRunner::waitUntil([&] {
            for (pid_t pid : runner->adoptedDaemons()) {
                second = pid != first ? pid : second;
            }
            return second != 0;
        }));
        QCOMPARE(DaemonRunner::waitForExit(second), 1);
        // Its pid is not left behind for --stop and the running check; the
        // first daemon's was overwritten by then.
        QVERIFY(!QFile::exists(runner->pidFile()));
        QVERIFY(isAlive(first));
        QCOMPARE(kill(first, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(first), 0);
    }

    void runsWithoutPidFileWhenItsDirectoryIsMissing()
    {
        runner->setRunDirPresent(false);
        const DaemonRunner::Result result = runner->run({"-c", configFile});
        QCOMPARE(result.status, 0);
        const pid_t daemon = runner->waitForDaemon();
        QVERIFY(daemon > 0);
        QVERIFY(isAlive(daemon));
        // Without a pid file --pid cannot see it.
        QCOMPARE(runner->run({"--pid"}).standardOutput, QByteArray("0\n"));
        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        QVERIFY(indexOf(DaemonRunner::readLines(runner->defaultLogFile()), exitLine) >= 0);
    }

    void runsWhenTheLogFileCannotBeOpened()
    {
        const pid_t daemon =
            startDaemon({"-l", runner->path(QStringLiteral("no-such-dir/selvane.log"))});
        QVERIFY(daemon > 0);
        QCOMPARE(kill(daemon, SIGTERM), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 0);
        QVERIFY(!QFile::exists(runner->path(QStringLiteral("no-such-dir"))));
    }
};

SELVANE_DAEMON_TEST_MAIN(DaemonBlackBoxTest)
#include "test_daemon_blackbox.moc"
