#include "LogCapture.h"
#include "TestFiles.h"

#include "input/EventDevice.h"
#include "sequences/AssignedDeviceHandler.h"
#include "sequences/SystemCommandAction.h"
#include "sequences/TriggeredAction.h"

#include <QtTest>

#include <cerrno>
#include <csignal>
#include <unistd.h>

using Orvanta::Logger;

// Commands run on behalf of a device. The device here is one that could not
// be opened: it still carries variables, and none of its keys is down.
class SystemCommandActionTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        dir.reset(new QTemporaryDir);
        QVERIFY(dir->isValid());
        device = new EventDevice(dir->filePath("no-such-event-device"));
    }
    void cleanup() { delete device; }

    void deviceVariablesReachTheCommandUpperCased()
    {
        device->setDeviceVariable("station_id", "3");
        device->setDeviceVariable("seat_name", "front desk");
        const QString out = dir->filePath("out");
        SystemCommandAction action("printf '%s|%s' \"$STATION_ID\" \"$SEAT_NAME\" > " + out,
                                   nullptr);
        LogCapture capture;
        action.executeCommand(device);
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
        SystemCommandAction action("printf '%s|%s' \"$0\" \"${BASH_VERSION:+is-bash}\" > " + out,
                                   nullptr);
        action.executeCommand(device);
        QCOMPARE(readFile(out), QByteArray("bash|is-bash"));
    }

    void mixedCaseVariableNameBecomesUpperCase()
    {
        device->setDeviceVariable("Station_Id", "7");
        const QString out = dir->filePath("out");
        SystemCommandAction action("echo \"$STATION_ID\" > " + out, nullptr);
        action.executeCommand(device);
        QCOMPARE(readFile(out), QByteArray("7\n"));
    }

    void namesDifferingByCaseLaterInHashOrderWins()
    {
        device->setDeviceVariable("station_id", "1");
        device->setDeviceVariable("STATION_id", "2");
        device->setDeviceVariable("Station_ID", "3");
        QString expected;
        const QHash<QString, QString> variables = device->getDeviceVariables();
        for (auto it = variables.constBegin(); it != variables.constEnd(); ++it) {
            expected = it.value();
        }
        const QString out = dir->filePath("out");
        SystemCommandAction action("echo \"$STATION_ID\" > " + out, nullptr);
        action.executeCommand(device);
        QCOMPARE(readFile(out), expected.toLatin1() + '\n');
    }

    void trailingLineBreakInTheCommandIsHarmless()
    {
        const QString out = dir->filePath("out");
        SystemCommandAction action("echo ran >> " + out + "\n", nullptr);
        action.executeCommand(device);
        QCOMPARE(readFile(out), QByteArray("ran\n"));
    }

    void bytesOfTheCommandReachTheShellUnchanged()
    {
        // The file was read as Latin-1, so UTF-8 text goes through byte for byte.
        const QByteArray utf8 = QString::fromUtf8("Platz f\u00fcr Gr\u00fc\u00dfe").toUtf8();
        const QString out = dir->filePath("out");
        SystemCommandAction action(QString::fromLatin1("printf '%s' '" + utf8 + "' > ") + out,
                                   nullptr);
        action.executeCommand(device);
        QCOMPARE(readFile(out), utf8);
    }

    void executeCommandReturnsOnlyAfterTheCommandEnded()
    {
        // The command writes its own pid only at its very end. When
        // executeCommand returns the line is there and the child is reaped
        // (no zombie left): the daemon waited for the whole command.
        const QString out = dir->filePath("pid");
        SystemCommandAction action("sleep 0.5; echo $$ > " + out, nullptr);
        action.executeCommand(device);
        const QByteArray pidText = readFile(out).trimmed();
        QVERIFY2(!pidText.isEmpty(), "executeCommand returned before the command finished");
        bool ok = false;
        const pid_t child = pidText.toInt(&ok);
        QVERIFY(ok && child > 0 && child != getpid());
        errno = 0;
        QCOMPARE(kill(child, 0), -1);
        QCOMPARE(errno, ESRCH);
    }

    void failedExecEndsTheChild()
    {
        // A single environment string longer than the kernel's limit for one
        // argument (128 KiB) makes the exec fail with E2BIG.
        device->setDeviceVariable("huge", QString(200 * 1024, QLatin1Char('x')));
        const QString out = dir->filePath("out");
        const QString escaped = dir->filePath("escaped");
        SystemCommandAction action("echo ran > " + out, nullptr);
        LogCapture capture;
        const pid_t self = getpid();
        action.executeCommand(device);
        if (getpid() != self) {
            // Only a child that came back from a failed exec gets here.
            QFile marker(escaped);
            if (marker.open(QIODevice::WriteOnly)) {
                marker.write("child returned");
            }
            _exit(0);
        }
        QVERIFY2(!QFile::exists(out), "the exec was expected to fail");
        QVERIFY2(!QFile::exists(escaped), "the child returned into the caller");
        QVERIFY(capture.contains("Error executing command: echo ran > " + out));
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
        SystemCommandAction action("grep -E '^Sig(Blk|Ign):' /proc/self/status > " + out, nullptr);
        action.executeCommand(device);
        sigaction(SIGPIPE, &previousPipe, nullptr);
        sigprocmask(SIG_SETMASK, &previousMask, nullptr);

        QCOMPARE(readFile(out),
                 QByteArray("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"));
    }

    void commandInheritsTheDaemonsEnvironmentUnderItsOwnVariables()
    {
        qputenv("SELVANE_TEST_INHERITED", "inherited");
        qputenv("STATION_ID", "from the daemon");
        device->setDeviceVariable("station_id", "3");
        const QString out = dir->filePath("out");
        SystemCommandAction action(
            "printf '%s|%s' \"$SELVANE_TEST_INHERITED\" \"$STATION_ID\" > " + out, nullptr);
        action.executeCommand(device);
        qunsetenv("SELVANE_TEST_INHERITED");
        qunsetenv("STATION_ID");
        QCOMPARE(readFile(out), QByteArray("inherited|3"));
    }

    void performActionTwiceRecordsOneTrigger()
    {
        AssignedDeviceHandler handler(dir->filePath("no-config"));
        const QString out = dir->filePath("out");
        SystemCommandAction action("echo ran >> " + out, &handler);
        action.performAction(device);
        action.performAction(device);
        // performAction itself runs nothing.
        QVERIFY(!QFile::exists(out));
        // No key of the device is down: the handler runs what was triggered.
        handler.keymapChanged(device);
        QCOMPARE(readFile(out), QByteArray("ran\n"));
        handler.keymapChanged(device);
        QCOMPARE(readFile(out), QByteArray("ran\n"));
    }

    void nullArgumentsAreReportedAsBugs()
    {
        LogCapture capture;
        SystemCommandAction action("true", nullptr);
        action.performAction(nullptr);
        action.executeCommand(nullptr);
        TriggeredAction triggered(nullptr, nullptr);
        QCOMPARE(triggered.getAction(), nullptr);
        QCOMPARE(triggered.getEventDevice(), nullptr);

        const QList<LogCapture::Entry>& entries = capture.entries();
        QCOMPARE(entries.size(), 5);
        const QStringList expected[] = {
            {"SystemCommandAction", "SystemCommandAction", "handler is NULL"},
            {"SystemCommandAction", "performAction", "eventDevice is NULL"},
            {"SystemCommandAction", "executeCommand", "eventDevice is NULL"},
            {"TriggeredAction", "TriggeredAction", "action is NULL"},
            {"TriggeredAction", "TriggeredAction", "eventDevice is NULL"}};
        for (int i = 0; i < entries.size(); ++i) {
            QCOMPARE(entries.at(i).level, Logger::LEVEL_BUG);
            QCOMPARE(entries.at(i).file, expected[i].at(0));
            QCOMPARE(entries.at(i).function, expected[i].at(1));
            QCOMPARE(entries.at(i).message, expected[i].at(2));
        }
    }

    void triggeredActionKeepsItsPair()
    {
        SystemCommandAction action("true", nullptr);
        TriggeredAction triggered(&action, device);
        QCOMPARE(triggered.getAction(), &action);
        QCOMPARE(triggered.getEventDevice(), device);
    }

    // Last: the launcher of this process does not come back.
    void noCommandRunsOnceTheLauncherHasEnded()
    {
        const QString out = dir->filePath("out");
        SystemCommandAction action("echo ran >> " + out, nullptr);
        action.executeCommand(device);
        QCOMPARE(readFile(out), QByteArray("ran\n"));
        const pid_t launcher = launcherPid();
        QVERIFY(launcher > 0);
        QCOMPARE(kill(launcher, SIGKILL), 0);

        LogCapture capture;
        action.executeCommand(device);
        action.executeCommand(device);
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

    QScopedPointer<QTemporaryDir> dir; // fresh for every test function
    EventDevice* device = nullptr;
};

QTEST_GUILESS_MAIN(SystemCommandActionTest)
#include "test_systemcommandaction.moc"
