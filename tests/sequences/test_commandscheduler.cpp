#include "LogCapture.h"
#include "TestFiles.h"

#include "sequences/CommandScheduler.h"

#include <QAbstractEventDispatcher>
#include <QtTest>

using Orvanta::Logger;

namespace {
constexpr int timeoutMs = 10000;

CommandScheduler::Command command(const QString& station, const QString& text,
                                  const QString& origin = "line 1")
{
    return {station, text, {{"station_id", station}}, origin};
}
} // namespace

// Commands queued per station and run through this process's command launcher. Commands
// that must stay running wait for a gate file the test writes.
class CommandSchedulerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        dir.reset(new QTemporaryDir);
        QVERIFY(dir->isValid());
        gate = dir->filePath("gate");
        out = dir->filePath("out");
    }

    void commandsOfOneStationRunOneAtATimeInTheirOrder()
    {
        CommandScheduler scheduler;
        QSignalSpy ended(&scheduler, &CommandScheduler::commandEnded);
        LogCapture capture;
        const QString first = commandWaitingFor(gate) + "; echo first-$STATION_ID >> " + out;
        const QString second = "echo second >> " + out;
        const QString third = "echo third >> " + out + "\n";
        scheduler.submit(command("3", first));
        scheduler.submit(command("3", second));
        scheduler.submit(command("3", third));
        QVERIFY(scheduler.isRunning("3"));
        QCOMPARE(scheduler.waitingCount("3"), 2);
        QCOMPARE(capture.messages(), QStringList{"Executing command: " + first});

        QVERIFY(writeFile(gate, {}));
        QTRY_COMPARE_WITH_TIMEOUT(ended.count(), 3, timeoutMs);
        QCOMPARE(readFile(out), QByteArray("first-3\nsecond\nthird\n"));
        for (const QList<QVariant>& arguments : ended) {
            QCOMPARE(arguments.at(0).toString(), QString("3"));
        }
        QVERIFY(!scheduler.isRunning("3"));
        QCOMPARE(scheduler.waitingCount("3"), 0);
        const QList<LogCapture::Entry>& entries = capture.entries();
        QCOMPARE(entries.size(), 3);
        const QString texts[] = {first, second, third};
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(entries.at(i).message, "Executing command: " + texts[i]);
            QCOMPARE(entries.at(i).level, Logger::LEVEL_INFO);
            QCOMPARE(entries.at(i).file, QString("SystemCommandAction"));
            QCOMPARE(entries.at(i).function, QString("executeCommand"));
        }
    }

    void aStationsCommandStartsWhileAnotherStationsCommandRuns()
    {
        CommandScheduler scheduler;
        QSignalSpy ended(&scheduler, &CommandScheduler::commandEnded);
        scheduler.submit(command("3", commandWaitingFor(gate)));
        scheduler.submit(command("4", "echo ran > " + out));
        QVERIFY(scheduler.isRunning("3"));
        QCOMPARE(scheduler.waitingCount("4"), 0);

        QVERIFY(ended.wait(timeoutMs));
        QCOMPARE(ended.count(), 1);
        QCOMPARE(ended.at(0).at(0).toString(), QString("4"));
        QCOMPARE(readFile(out), QByteArray("ran\n"));
        QVERIFY(scheduler.isRunning("3"));

        QVERIFY(writeFile(gate, {}));
        QTRY_COMPARE_WITH_TIMEOUT(ended.count(), 2, timeoutMs);
        QCOMPARE(ended.at(1).at(0).toString(), QString("3"));
    }

    void theSeventeenthWaitingCommandIsDropped()
    {
        CommandScheduler scheduler;
        QSignalSpy ended(&scheduler, &CommandScheduler::commandEnded);
        scheduler.submit(command("5", commandWaitingFor(gate)));
        QByteArray expected;
        LogCapture capture;
        for (int i = 1; i <= 16; ++i) {
            scheduler.submit(command("5", QString("echo %1 >> %2").arg(i).arg(out)));
            expected += QByteArray::number(i) + '\n';
        }
        QCOMPARE(scheduler.waitingCount("5"), 16);
        QVERIFY(capture.entries().isEmpty());

        scheduler.submit(command("5", "echo 17 >> " + out));
        QCOMPARE(scheduler.waitingCount("5"), 16);
        QCOMPARE(capture.entries().size(), 1);
        const LogCapture::Entry& entry = capture.entries().at(0);
        QCOMPARE(entry.message,
                 QString("Dropping command of station 5: 16 commands are waiting already"));
        QCOMPARE(entry.level, Logger::LEVEL_WARNING);

        QVERIFY(writeFile(gate, {}));
        QTRY_COMPARE_WITH_TIMEOUT(ended.count(), 17, timeoutMs);
        QCOMPARE(readFile(out), expected);
    }

    void aLongRunningCommandIsReportedOnceAndLeftRunning()
    {
        CommandScheduler scheduler(std::chrono::milliseconds(200));
        QSignalSpy ended(&scheduler, &CommandScheduler::commandEnded);
        const QString text = commandWaitingFor(gate) + "; echo finished > " + out;
        LogCapture capture;
        scheduler.submit(command("6", text));
        const QString warning = "Command of station 6 still running after 0.2 s: " + text;
        QTRY_VERIFY_WITH_TIMEOUT(capture.contains(warning), timeoutMs);
        const LogCapture::Entry* entry = capture.find(warning);
        QCOMPARE(entry->level, Logger::LEVEL_WARNING);
        QVERIFY(scheduler.isRunning("6"));
        QCOMPARE(ended.count(), 0);
        // No second warning can come: no timer is left.
        QVERIFY(QAbstractEventDispatcher::instance()->registeredTimers(&scheduler).isEmpty());

        QVERIFY(writeFile(gate, {}));
        QVERIFY(ended.wait(timeoutMs));
        QCOMPARE(readFile(out), QByteArray("finished\n"));
        QCOMPARE(capture.count(warning), 1);
    }

    void aReloadKeepsOnlyTheWaitingCommandsOfLinesStillThere()
    {
        CommandScheduler scheduler;
        QSignalSpy ended(&scheduler, &CommandScheduler::commandEnded);
        scheduler.submit(command("7", commandWaitingFor(gate) + "; echo a >> " + out, "a"));
        scheduler.submit(command("7", "echo b1 >> " + out, "b"));
        scheduler.submit(command("7", "echo c >> " + out, "c"));
        scheduler.submit(command("7", "echo b2 >> " + out, "b"));
        QCOMPARE(scheduler.waitingCount("7"), 3);

        LogCapture capture;
        scheduler.retainWaiting({"b"});
        QVERIFY(capture.entries().isEmpty());
        QVERIFY(scheduler.isRunning("7"));
        QCOMPARE(scheduler.waitingCount("7"), 2);

        QVERIFY(writeFile(gate, {}));
        QTRY_COMPARE_WITH_TIMEOUT(ended.count(), 3, timeoutMs);
        // The running command was not touched, though its line has gone.
        QCOMPARE(readFile(out), QByteArray("a\nb1\nb2\n"));
    }

    void atExitWaitingCommandsAreDroppedOneLineEach()
    {
        CommandScheduler scheduler;
        QSignalSpy ended(&scheduler, &CommandScheduler::commandEnded);
        scheduler.submit(command("8", commandWaitingFor(gate) + "; echo 8 >> " + out));
        scheduler.submit(command("8", "echo x >> " + out));
        scheduler.submit(command("8", "echo y >> " + out + "\n"));
        scheduler.submit(command("9", commandWaitingFor(gate) + "; echo 9 >> " + out));
        scheduler.submit(command("9", "echo z >> " + out));

        LogCapture capture;
        scheduler.dropWaitingAtExit();
        QCOMPARE(capture.messages(),
                 QStringList({"Dropping command of station 8 at exit: echo x >> " + out,
                              "Dropping command of station 8 at exit: echo y >> " + out + "\n",
                              "Dropping command of station 9 at exit: echo z >> " + out}));
        for (const LogCapture::Entry& entry : capture.entries()) {
            QCOMPARE(entry.level, Logger::LEVEL_INFO);
        }
        QCOMPARE(scheduler.waitingCount("8"), 0);
        QCOMPARE(scheduler.waitingCount("9"), 0);
        QVERIFY(scheduler.isRunning("8"));
        QVERIFY(scheduler.isRunning("9"));

        // The running ones go on to their ends.
        QVERIFY(writeFile(gate, {}));
        QTRY_COMPARE_WITH_TIMEOUT(ended.count(), 2, timeoutMs);
        QByteArray written = readFile(out);
        QVERIFY(written == "8\n9\n" || written == "9\n8\n");
    }

    void aCommandThatCannotStartIsReportedAndTheNextOneRuns()
    {
        CommandScheduler scheduler;
        QSignalSpy ended(&scheduler, &CommandScheduler::commandEnded);
        // Longer than the kernel takes for one string of an environment.
        CommandScheduler::Command failing = command("10", "echo failed >> " + out);
        failing.variables.insert("huge", QString(200 * 1024, 'x'));
        const QString next = "echo next >> " + out;
        scheduler.submit(command("10", commandWaitingFor(gate)));
        scheduler.submit(failing);
        scheduler.submit(command("10", next));

        LogCapture capture;
        QVERIFY(writeFile(gate, {}));
        QTRY_COMPARE_WITH_TIMEOUT(ended.count(), 2, timeoutMs);
        QCOMPARE(readFile(out), QByteArray("next\n"));
        QCOMPARE(capture.messages(), QStringList({"Executing command: " + failing.text,
                                                  "Error executing command: " + failing.text,
                                                  "Executing command: " + next}));
        const LogCapture::Entry& error = capture.entries().at(1);
        QCOMPARE(error.level, Logger::LEVEL_ERROR);
        QCOMPARE(error.file, QString("SystemCommandAction"));
        QCOMPARE(error.function, QString("executeCommand"));

        // An idle station stays idle.
        capture.clear();
        scheduler.submit(failing);
        QVERIFY(!scheduler.isRunning("10"));
        QCOMPARE(scheduler.waitingCount("10"), 0);
        QCOMPARE(capture.count("Error executing command: " + failing.text), 1);
    }

    void noTimerRunsWhileNoCommandRuns()
    {
        QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance();
        CommandScheduler scheduler;
        QSignalSpy ended(&scheduler, &CommandScheduler::commandEnded);
        QVERIFY(dispatcher->registeredTimers(&scheduler).isEmpty());
        scheduler.submit(command("11", commandWaitingFor(gate)));
        QCOMPARE(dispatcher->registeredTimers(&scheduler).size(), 1);

        QVERIFY(writeFile(gate, {}));
        QVERIFY(ended.wait(timeoutMs));
        QVERIFY(dispatcher->registeredTimers(&scheduler).isEmpty());
        for (QObject* child : scheduler.findChildren<QObject*>()) {
            QVERIFY(dispatcher->registeredTimers(child).isEmpty());
        }
    }

    void aCommandOutlivesItsScheduler()
    {
        {
            CommandScheduler scheduler;
            scheduler.submit(command("12", commandWaitingFor(gate) + "; echo finished > " + out));
            QVERIFY(scheduler.isRunning("12"));
        }
        QVERIFY(writeFile(gate, {}));
        QTRY_COMPARE_WITH_TIMEOUT(readFile(out), QByteArray("finished\n"), timeoutMs);
    }

private:
    QScopedPointer<QTemporaryDir> dir; // fresh for every test function
    QString gate;
    QString out;
};

QTEST_GUILESS_MAIN(CommandSchedulerTest)
#include "test_commandscheduler.moc"
