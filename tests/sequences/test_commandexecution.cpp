#include "LogCapture.h"
#include "TestFiles.h"

#include "sequences/CommandScheduler.h"

#include <QSignalSpy>
#include <QtTest>

#include <cerrno>
#include <csignal>
#include <unistd.h>

using Orvanta::Logger;

// What a command of a device runs as: bash -c with the command's text byte for byte, the
// daemon's environment with the device's variables upper-cased, default signal handling.
class CommandExecutionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        dir.reset(new QTemporaryDir);
        QVERIFY(dir->isValid());
        variables.clear();
    }

    void deviceVariablesReachTheCommandUpperCased()
    {
        variables.insert("station_id", "3");
        variables.insert("seat_name", "front desk");
        const QString out = dir->filePath("out");
        LogCapture capture;
        QVERIFY(run("printf '%s|%s' \"$STATION_ID\" \"$SEAT_NAME\" > " + out));
        QCOMPARE(readFile(out), QByteArray("3|front desk"));

        const LogCapture::Entry* entry = capture.find(
            "Executing command: printf '%s|%s' \"$STATION_ID\" \"$SEAT_NAME\" > " + out);
        QVERIFY(entry);
        QCOMPARE(entry->level, Logger::LEVEL_INFO);
        QCOMPARE(entry->file, QString("SystemCommandAction"));
        QCOMPARE(entry->function, QString("executeCommand"));
    }

    void commandRunsUnderBashWithDashC()
    {
        // "bash -c command": the shell names itself "bash" as $0 and is bash,
        // whatever /bin/sh happens to be.
        const QString out = dir->filePath("out");
        QVERIFY(run("printf '%s|%s' \"$0\" \"${BASH_VERSION:+is-bash}\" > " + out));
        QCOMPARE(readFile(out), QByteArray("bash|is-bash"));
    }

    void mixedCaseVariableNameBecomesUpperCase()
    {
        variables.insert("Station_Id", "7");
        const QString out = dir->filePath("out");
        QVERIFY(run("echo \"$STATION_ID\" > " + out));
        QCOMPARE(readFile(out), QByteArray("7\n"));
    }

    void namesDifferingByCaseLaterInHashOrderWins()
    {
        variables.insert("station_id", "1");
        variables.insert("STATION_id", "2");
        variables.insert("Station_ID", "3");
        QString expected;
        for (auto it = variables.constBegin(); it != variables.constEnd(); ++it) {
            expected = it.value();
        }
        const QString out = dir->filePath("out");
        QVERIFY(run("echo \"$STATION_ID\" > " + out));
        QCOMPARE(readFile(out), expected.toLatin1() + '\n');
    }

    void trailingLineBreakInTheCommandIsHarmless()
    {
        const QString out = dir->filePath("out");
        QVERIFY(run("echo ran >> " + out + "\n"));
        QCOMPARE(readFile(out), QByteArray("ran\n"));
    }

    void bytesOfTheCommandReachTheShellUnchanged()
    {
        // The file was read as Latin-1, so UTF-8 text goes through byte for byte.
        const QByteArray utf8 = QString::fromUtf8("Platz f\u00fcr Gr\u00fc\u00dfe").toUtf8();
        const QString out = dir->filePath("out");
        QVERIFY(run(QString::fromLatin1("printf '%s' '" + utf8 + "' > ") + out));
        QCOMPARE(readFile(out), utf8);
    }

    void theLauncherCollectsAnEndedCommand()
    {
        // The command writes its own pid at its end; once its end has been seen, the launcher
        // collects it (no zombie left).
        const QString out = dir->filePath("pid");
        QVERIFY(run("echo $$ > " + out));
        bool ok = false;
        const pid_t child = readFile(out).trimmed().toInt(&ok);
        QVERIFY(ok && child > 0 && child != getpid());
        QTRY_VERIFY_WITH_TIMEOUT(kill(child, 0) == -1 && errno == ESRCH, 10000);
    }

    void aCommandThatCannotBeStartedIsReported()
    {
        // A single environment string longer than the kernel's limit for one
        // argument (128 KiB) makes the start fail with E2BIG.
        variables.insert("huge", QString(200 * 1024, QLatin1Char('x')));
        const QString out = dir->filePath("out");
        LogCapture capture;
        QVERIFY(!run("echo ran > " + out));
        QVERIFY2(!QFile::exists(out), "the start was expected to fail");
        const LogCapture::Entry* entry = capture.find("Error executing command: echo ran > " + out);
        QVERIFY(entry);
        QCOMPARE(entry->level, Logger::LEVEL_ERROR);
        QCOMPARE(entry->file, QString("SystemCommandAction"));
        QCOMPARE(entry->function, QString("executeCommand"));
    }

    void commandStartsWithDefaultSignalHandlingWhateverTheDaemonsIs()
    {
        // The daemon blocks, ignores and catches signals; the command inherits none of it.
        sigset_t blocked;
        sigset_t previousMask;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGUSR2);
        QCOMPARE(sigprocmask(SIG_BLOCK, &blocked, &previousMask), 0);
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        struct sigaction previousPipe = {};
        QCOMPARE(sigaction(SIGPIPE, &ignore, &previousPipe), 0);

        const QString out = dir->filePath("out");
        const bool ran = run("grep -E '^Sig(Blk|Ign):' /proc/self/status > " + out);
        sigaction(SIGPIPE, &previousPipe, nullptr);
        sigprocmask(SIG_SETMASK, &previousMask, nullptr);

        QVERIFY(ran);
        QCOMPARE(readFile(out),
                 QByteArray("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"));
    }

    void commandInheritsTheDaemonsEnvironmentUnderItsOwnVariables()
    {
        qputenv("SELVANE_TEST_INHERITED", "inherited");
        qputenv("STATION_ID", "from the daemon");
        variables.insert("station_id", "3");
        const QString out = dir->filePath("out");
        QVERIFY(run("printf '%s|%s' \"$SELVANE_TEST_INHERITED\" \"$STATION_ID\" > " + out));
        qunsetenv("SELVANE_TEST_INHERITED");
        qunsetenv("STATION_ID");
        QCOMPARE(readFile(out), QByteArray("inherited|3"));
    }

    // Last: the launcher of this process does not come back.
    void noCommandRunsOnceTheLauncherHasEnded()
    {
        const QString out = dir->filePath("out");
        QVERIFY(run("echo ran >> " + out));
        QCOMPARE(readFile(out), QByteArray("ran\n"));
        const pid_t launcher = launcherPid();
        QVERIFY(launcher > 0);
        QCOMPARE(kill(launcher, SIGKILL), 0);

        LogCapture capture;
        QVERIFY(!run("echo ran >> " + out));
        QVERIFY(!run("echo ran >> " + out));
        QCOMPARE(readFile(out), QByteArray("ran\n"));
        QStringList messages;
        for (const LogCapture::Entry& entry : capture.entries()) {
            messages.append(QString::number(entry.level) + ' ' + entry.message);
        }
        const QString executing =
            QString::number(Logger::LEVEL_INFO) + " Executing command: echo ran >> " + out;
        const QString failed =
            QString::number(Logger::LEVEL_ERROR) + " Error executing command: echo ran >> " + out;
        QCOMPARE(messages,
                 QStringList({executing,
                              QString::number(Logger::LEVEL_ERROR) +
                                  " The command launcher has ended; commands are not run any more",
                              failed, executing, failed}));
        // The daemon collected its launcher.
        QCOMPARE(launcherPid(), pid_t(0));
    }

private:
    // This process's command launcher, 0 when it has none.
    static pid_t launcherPid()
    {
        for (const QString& task :
             QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            for (const QByteArray& child :
                 readFile("/proc/self/task/" + task + "/children").simplified().split(' ')) {
                if (readFile("/proc/" + child + "/comm") == "selvane-launch\n") {
                    return child.toInt();
                }
            }
        }
        return 0;
    }

    // Runs the text as a command of station 3 with the test's variables and waits for its end.
    // False when it could not be started.
    bool run(const QString& text)
    {
        CommandScheduler scheduler;
        QSignalSpy ended(&scheduler, &CommandScheduler::commandEnded);
        const QString station = QStringLiteral("3");
        scheduler.submit({station, text, variables, text});
        return scheduler.isRunning(station) && ended.wait(10000);
    }

    QScopedPointer<QTemporaryDir> dir; // fresh for every test function
    QHash<QString, QString> variables;
};

QTEST_GUILESS_MAIN(CommandExecutionTest)
#include "test_commandexecution.moc"
