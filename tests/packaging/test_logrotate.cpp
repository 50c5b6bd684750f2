#include "DaemonRunner.h"
#include "TestFiles.h"
#include "ToolRun.h"

#include <QDBusConnection>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTimer>
#include <QtTest>

#include <csignal>

namespace {

// Each numbered call writes exactly one line, which names its number:
// "The event device line-N is not being used.  There's nothing to remove".
const QRegularExpression numberedLine(QStringLiteral(
    R"(^\[[^\]]+\] \[Warning\] \[AssignedDeviceHandler:removeAssignedDevice:\d+\] )"
    R"(The event device line-(\d+) is not being used\.  There's nothing to remove$)"));
// Any complete line of the logger.
const QRegularExpression anyLogLine(
    QStringLiteral(R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] \[\w+\] \[\w+:\w+:\d+\] .*$)"));

// The numbers of the numbered lines of a log file, in file order.
QList<int> lineNumbers(const QString& fileName)
{
    QList<int> numbers;
    for (const QString& line : DaemonRunner::readLines(fileName)) {
        const QRegularExpressionMatch match = numberedLine.match(line);
        if (match.hasMatch()) {
            numbers.append(match.captured(1).toInt());
        }
    }
    return numbers;
}

bool isRun(const QList<int>& numbers, int first, int last)
{
    if (numbers.size() != last - first + 1) {
        return false;
    }
    for (int i = 0; i < numbers.size(); ++i) {
        if (numbers[i] != first + i) {
            return false;
        }
    }
    return true;
}

QByteArray describe(const QList<int>& numbers)
{
    if (numbers.isEmpty()) {
        return "no numbered line";
    }
    return QByteArray::number(numbers.size()) + " numbered lines from " +
           QByteArray::number(numbers.first()) + " to " + QByteArray::number(numbers.last());
}

} // namespace

// The shipped logrotate file, pointed at a daemon's log in a temporary
// directory and at its pid file, rotates the log while the daemon writes to it.
class LogrotateTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void rotatingWhileTheDaemonWritesLosesNoLine()
    {
        DaemonRunner runner;
        QVERIFY(runner.isBusRunning());
        const QString config = runner.path(QStringLiteral("keys.conf"));
        QVERIFY(writeFile(config, "KEY_LEFTCTRL:KEY_F1:true\n"));
        const pid_t daemon =
            runner.startDaemon({QStringLiteral("-c"), config},
                               DaemonRunner::logMessage(QStringLiteral("Connection established")));
        QVERIFY(daemon > 0);
        const QString log = runner.defaultLogFile();
        QVERIFY(
            QFile::setPermissions(log, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup));
        const QString rotationFile = writeRotation(runner, runner.pidFile());

        QDBusConnection bus =
            QDBusConnection::connectToBus(runner.busAddress(), QStringLiteral("logrotate-test"));
        QVERIFY(bus.isConnected());
        // Ten numbered calls every 5 ms, before, during and after the rotation.
        int sent = 0;
        QTimer writer;
        QObject::connect(&writer, &QTimer::timeout, [&] {
            for (int i = 0; i < 10; ++i) {
                ++sent;
                bus.send(DaemonRunner::daemonCall(QStringLiteral("deviceRemovedFromStation"),
                                                  {QStringLiteral("line-%1").arg(sent)}));
            }
        });
        writer.start(5);
        QVERIFY(DaemonRunner::waitUntil([&] { return lineNumbers(log).size() >= 100; }));

        runLogrotate(runner, rotationFile);
        const int sentDuringRotation = sent;
        // Lines keep arriving in the new file after the rotation.
        QVERIFY(DaemonRunner::waitUntil([&] { return sent >= sentDuringRotation + 100; }));
        writer.stop();
        const int last = sent;
        QVERIFY(DaemonRunner::waitUntil([&] {
            const QList<int> numbers = lineNumbers(log);
            return !numbers.isEmpty() && numbers.last() == last;
        }));
        QCOMPARE(DaemonRunner::stopDaemon(daemon), 0);

        // The renamed file holds every line up to the reopening, the new one
        // every line after it: together all of them, each once, in order.
        const QString rotated = log + QStringLiteral(".1");
        QVERIFY(QFile::exists(rotated));
        const QList<int> before = lineNumbers(rotated);
        const QList<int> after = lineNumbers(log);
        QVERIFY2(!before.isEmpty() && isRun(before, 1, before.last()), describe(before));
        QVERIFY2(!after.isEmpty() && isRun(after, before.last() + 1, last), describe(after));
        qInfo("%d line(s) before the reopening, %d after it", int(before.size()),
              int(after.size()));

        // logrotate created the new file with the old one's mode, and the
        // daemon appended whole lines to it, from its reopening on.
        QCOMPARE(QFileInfo(log).permissions(), QFileInfo(rotated).permissions());
        const QStringList lines = DaemonRunner::readLines(log);
        QVERIFY(lines.first().endsWith(QStringLiteral("] Logfile reopened: ") +
                                       QString::fromLatin1(SELVANE_LOG)));
        for (const QString& line : lines) {
            QVERIFY2(anyLogLine.match(line).hasMatch(), qPrintable(line));
        }
        QVERIFY(DaemonRunner::readLines(rotated).join('\n').contains(
            QStringLiteral("Received signal to reload")));
    }

    void stalePidFileHangsUpNothing()
    {
        // The pid file names a process that is not the daemon, with the
        // default action for SIGHUP: it must live on.
        DaemonRunner runner;
        const pid_t unrelated = DaemonRunner::startIdleProcess();
        QVERIFY(unrelated > 0);
        QVERIFY(writeFile(runner.pidFile(), QByteArray::number(unrelated)));
        QVERIFY(writeFile(runner.defaultLogFile(), "a line to rotate\n"));
        runLogrotate(runner, writeRotation(runner, runner.pidFile()));
        QVERIFY(QFile::exists(runner.defaultLogFile() + QStringLiteral(".1")));
        QCOMPARE(DaemonRunner::waitForExit(unrelated, 300), -1);
        kill(unrelated, SIGKILL);
        QCOMPARE(DaemonRunner::waitForExit(unrelated), 128 + SIGKILL);
    }

private:
    // The shipped file, with the daemon's log and pid file where this test's
    // daemon has them; the program file is the built daemon.
    static QString writeRotation(const DaemonRunner& runner, const QString& pidFile)
    {
        QByteArray rotation = readFile(QStringLiteral(SELVANE_LOGROTATE_FILE));
        if (!rotation.contains("\tcreate\n") || rotation.contains("copytruncate") ||
            rotation.count(SELVANE_LOG) != 1 || rotation.count(SELVANE_PID_FILE) != 1 ||
            rotation.count("\"" SELVANE_BINARY "\"") != 1) {
            qWarning("unexpected logrotate file:\n%s", rotation.constData());
            return QString();
        }
        rotation.replace(SELVANE_LOG, QFile::encodeName(runner.defaultLogFile()));
        rotation.replace(SELVANE_PID_FILE, QFile::encodeName(pidFile));
        rotation.replace(SELVANE_BINARY, QFile::encodeName(DaemonRunner::builtExecutable()));
        const QString rotationFile = runner.path(QStringLiteral("logrotate.conf"));
        return writeFile(rotationFile, rotation) ? rotationFile : QString();
    }

    static void runLogrotate(const DaemonRunner& runner, const QString& rotationFile)
    {
        QVERIFY(!rotationFile.isEmpty());
        QProcess logrotate;
        logrotate.start(QStringLiteral("logrotate"),
                        {QStringLiteral("--force"), QStringLiteral("--state"),
                         runner.path(QStringLiteral("logrotate.state")), rotationFile});
        QVERIFY(logrotate.waitForStarted());
        QVERIFY(DaemonRunner::waitUntil([&] { return logrotate.state() == QProcess::NotRunning; }));
        QVERIFY2(logrotate.exitStatus() == QProcess::NormalExit && logrotate.exitCode() == 0,
                 logrotate.readAllStandardError().constData());
    }
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QString reason = DaemonRunner::unavailableReason();
    if (reason.isEmpty() && !ToolRun::missingProgram({QStringLiteral("logrotate")}).isEmpty()) {
        reason = QStringLiteral("logrotate is not installed");
    }
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "SKIP: %s\n", qPrintable(reason));
        return 77;
    }
    LogrotateTest test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "test_logrotate.moc"
