#include "DaemonRunner.h"
#include "TestFiles.h"
#include "ToolRun.h"

#include <QDBusConnection>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTimer>
#include <QtTest>

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
// directory, rotates the log while the daemon writes to it.
class LogrotateTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void rotatingWhileTheDaemonWritesLosesOnlyTheCopytruncateWindow()
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

        // The shipped file, with the daemon's log where this daemon writes it.
        QByteArray rotation = readFile(QStringLiteral(SELVANE_LOGROTATE_FILE));
        QVERIFY(rotation.contains("copytruncate"));
        QCOMPARE(rotation.count(SELVANE_LOG), 1);
        rotation.replace(SELVANE_LOG, QFile::encodeName(log));
        const QString rotationFile = runner.path(QStringLiteral("logrotate.conf"));
        QVERIFY(writeFile(rotationFile, rotation));

        QDBusConnection bus =
            QDBusConnection::connectToBus(runner.busAddress(), QStringLiteral("logrotate-test"));
        QVERIFY(bus.isConnected());
        // Ten numbered calls every 5 ms: the daemon writes them in bursts at
        // each 100 ms tick, before, during and after the rotation.
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

        QProcess logrotate;
        logrotate.start(QStringLiteral("logrotate"),
                        {QStringLiteral("--force"), QStringLiteral("--state"),
                         runner.path(QStringLiteral("logrotate.state")), rotationFile});
        QVERIFY(logrotate.waitForStarted());
        QVERIFY(DaemonRunner::waitUntil([&] { return logrotate.state() == QProcess::NotRunning; }));
        QVERIFY2(logrotate.exitStatus() == QProcess::NormalExit && logrotate.exitCode() == 0,
                 logrotate.readAllStandardError().constData());
        const int sentDuringRotation = sent;

        // Lines keep arriving in the truncated file after the rotation.
        QVERIFY(DaemonRunner::waitUntil([&] { return sent >= sentDuringRotation + 100; }));
        writer.stop();
        const int last = sent;
        QVERIFY(DaemonRunner::waitUntil([&] {
            const QList<int> numbers = lineNumbers(log);
            return !numbers.isEmpty() && numbers.last() == last;
        }));
        QCOMPARE(DaemonRunner::stopDaemon(daemon), 0);

        // The copy holds every line from the first one on, in order.
        const QString rotated = log + QStringLiteral(".1");
        QVERIFY(QFile::exists(rotated));
        const QList<int> before = lineNumbers(rotated);
        QVERIFY2(!before.isEmpty() && isRun(before, 1, before.last()), describe(before));

        // The daemon appends: it goes on at the start of the truncated file,
        // with whole lines and no hole of zero bytes where the old end was.
        const QByteArray after = readFile(log);
        QVERIFY(!after.contains('\0'));
        for (const QString& line : DaemonRunner::readLines(log)) {
            QVERIFY2(anyLogLine.match(line).hasMatch(), qPrintable(line));
        }
        const QList<int> afterNumbers = lineNumbers(log);
        QVERIFY2(!afterNumbers.isEmpty() && isRun(afterNumbers, afterNumbers.first(), last),
                 describe(afterNumbers));

        // Lost are at most the lines written between logrotate's copy and its
        // truncation, which both happened while it ran: every call sent after
        // it ended is in the new file.
        QVERIFY2(afterNumbers.first() > before.last(), describe(afterNumbers));
        QVERIFY2(afterNumbers.first() <= sentDuringRotation + 1, describe(afterNumbers));
        qInfo("rotated after line %d; %d line(s) lost in the copytruncate window", before.last(),
              afterNumbers.first() - before.last() - 1);
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
