#include "DaemonRunner.h"
#include "TestFiles.h"

#include "common/Daemon.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Daemon = Orvanta::Daemon;

namespace {

// fork() with nothing left in stdio buffers, so no output is written twice.
pid_t forkFlushed()
{
    fflush(nullptr);
    return fork();
}

// The executable of the idle processes that DaemonRunner starts, as the
// kernel names it.
QString sleepProgram()
{
    return QFileInfo(QStandardPaths::findExecutable(QStringLiteral("sleep"))).canonicalFilePath();
}

} // namespace

class DaemonControlTest : public QObject
{
    Q_OBJECT

private:
    // A fresh directory for every test, which sees all that is left in it.
    std::unique_ptr<QTemporaryDir> dir;
    QString pidFile;

private Q_SLOTS:
    void initTestCase() { QVERIFY(DaemonRunner::becomeSubreaper()); }

    void init()
    {
        dir = std::make_unique<QTemporaryDir>();
        QVERIFY(dir->isValid());
        pidFile = dir->filePath(QStringLiteral("selvane.pid"));
    }

    void getPid_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("pid");
        QTest::newRow("a file with digits gives its number") << QByteArray("4242") << 4242;
        QTest::newRow("an empty file gives 0") << QByteArray() << 0;
        QTest::newRow("letters give 0") << QByteArray("abc") << 0;
        QTest::newRow("digits followed by letters give 0") << QByteArray("12ab") << 0;
        QTest::newRow("the text ends at a NUL byte") << QByteArray("77\0garbage", 10) << 77;
    }

    void getPid()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, pid);
        QVERIFY(writeFile(pidFile, content));
        QCOMPARE(Daemon::getPid(pidFile), pid);
    }

    void getPidOfAMissingFileIsZero() { QCOMPARE(Daemon::getPid(pidFile), 0); }

    void getPidOfAnUnreadableFileIsZero()
    {
        // A directory exists but cannot be read as a file.
        QCOMPARE(Daemon::getPid(dir->path()), 0);
    }

    void getPidReadsOnlyARegularFile()
    {
        // A link to a file with a pid, a FIFO (whose opening would wait for a
        // writer for ever) and a directory.
        const QString target = dir->filePath(QStringLiteral("target"));
        QVERIFY(writeFile(target, "4242"));
        QVERIFY(QFile::link(target, pidFile));
        QCOMPARE(Daemon::getPid(pidFile), 0);
        QVERIFY(QFile::remove(pidFile));
        QCOMPARE(mkfifo(QFile::encodeName(pidFile).constData(), 0600), 0);
        QCOMPARE(Daemon::getPid(pidFile), 0);
        QVERIFY(QFile::remove(pidFile));
        QVERIFY(QDir(dir->path()).mkdir(QStringLiteral("selvane.pid")));
        QCOMPARE(Daemon::getPid(pidFile), 0);
        QVERIFY(QDir(dir->path()).rmdir(QStringLiteral("selvane.pid")));
    }

    void onlyAMissingOrRegularPidFileIsUsable()
    {
        QVERIFY(Daemon::isUsablePidFilePath(pidFile));
        QVERIFY(Daemon::isUsablePidFilePath(dir->filePath(QStringLiteral("no-such-dir/x.pid"))));
        QVERIFY(writeFile(pidFile, "1"));
        QVERIFY(Daemon::isUsablePidFilePath(pidFile));
        QVERIFY(QFile::remove(pidFile));

        // A link is refused wherever it points, even to a regular file or nowhere.
        QVERIFY(writeFile(dir->filePath(QStringLiteral("target")), "1"));
        QVERIFY(QFile::link(dir->filePath(QStringLiteral("target")), pidFile));
        QVERIFY(!Daemon::isUsablePidFilePath(pidFile));
        QVERIFY(QFile::remove(pidFile));
        QVERIFY(QFile::link(dir->filePath(QStringLiteral("nowhere")), pidFile));
        QVERIFY(!Daemon::isUsablePidFilePath(pidFile));
        QVERIFY(QFile::remove(pidFile));
        QCOMPARE(mkfifo(QFile::encodeName(pidFile).constData(), 0600), 0);
        QVERIFY(!Daemon::isUsablePidFilePath(pidFile));
        QVERIFY(QFile::remove(pidFile));
        QVERIFY(QDir(dir->path()).mkdir(QStringLiteral("selvane.pid")));
        QVERIFY(!Daemon::isUsablePidFilePath(pidFile));
        QVERIFY(QDir(dir->path()).rmdir(QStringLiteral("selvane.pid")));
    }

    void removeOwnPidFileRemovesOnlyAFileWithThisProcesssPid()
    {
        const QByteArray path = QFile::encodeName(pidFile);
        const QByteArray own = QByteArray::number(getpid());
        QVERIFY(writeFile(pidFile, own));
        Daemon::removeOwnPidFile(path.constData());
        QVERIFY(!QFile::exists(pidFile));

        for (const QByteArray& other : {QByteArray::number(getppid()), own + "0", own + "\n",
                                        QByteArray("x") + own, QByteArray()}) {
            QVERIFY(writeFile(pidFile, other));
            Daemon::removeOwnPidFile(path.constData());
            QVERIFY2(QFile::exists(pidFile), other.constData());
            QCOMPARE(readFile(pidFile), other);
        }
        QVERIFY(QFile::remove(pidFile));

        // A link is not followed, even to a file with this pid.
        const QString target = dir->filePath(QStringLiteral("target"));
        QVERIFY(writeFile(target, own));
        QVERIFY(QFile::link(target, pidFile));
        Daemon::removeOwnPidFile(path.constData());
        QVERIFY(QFileInfo(pidFile).isSymLink());
        QCOMPARE(readFile(target), own);
        QVERIFY(QFile::remove(pidFile));
    }

    void ownProcessWithOwnExecutableIsRunning()
    {
        QVERIFY(writeFile(pidFile, QByteArray::number(getpid())));
        QVERIFY(Daemon::isProgramRunning(pidFile, QCoreApplication::applicationFilePath()));
    }

    void ownProcessWithAnotherExecutableIsNotRunning()
    {
        QVERIFY(writeFile(pidFile, QByteArray::number(getpid())));
        QVERIFY(!Daemon::isProgramRunning(pidFile, QStringLiteral("/bin/sh")));
        // The comparison is exact: case matters.
        QVERIFY(
            !Daemon::isProgramRunning(pidFile, QCoreApplication::applicationFilePath().toUpper()));
    }

    void missingOrUnusablePidFileIsNotRunning()
    {
        const QString self = QCoreApplication::applicationFilePath();
        QVERIFY(!Daemon::isProgramRunning(pidFile, self));
        QVERIFY(writeFile(pidFile, "letters"));
        QVERIFY(!Daemon::isProgramRunning(pidFile, self));
    }

    void endedProcessIsNotRunning()
    {
        const pid_t child = forkFlushed();
        if (child == 0) {
            _exit(0);
        }
        QCOMPARE(DaemonRunner::waitForExit(child), 0);
        QVERIFY(writeFile(pidFile, QByteArray::number(child)));
        QVERIFY(!Daemon::isProgramRunning(pidFile, QCoreApplication::applicationFilePath()));
    }

    void stopSendsSigtermToTheNamedProcessOfThisProgram()
    {
        const pid_t child = DaemonRunner::startIdleProcess();
        QVERIFY(child > 0);
        QVERIFY(writeFile(pidFile, QByteArray::number(child)));
        Daemon::stop(pidFile, sleepProgram());
        QCOMPARE(DaemonRunner::waitForExit(child), 128 + SIGTERM);
        // The stopped process removes the pid file itself, not stop().
        QVERIFY(QFile::exists(pidFile));
    }

    void stopLeavesAProcessOfAnotherProgramAlone()
    {
        // Keeps SIGTERM pending, so a signal sent would be seen.
        const pid_t child = DaemonRunner::startIdleProcess(true);
        QVERIFY(child > 0);
        QVERIFY(writeFile(pidFile, QByteArray::number(child)));
        Daemon::stop(pidFile, QCoreApplication::applicationFilePath());
        const bool signalled = DaemonRunner::hasPendingSigterm(child);
        // The same process does take the signal when it is the program named.
        Daemon::stop(pidFile, sleepProgram());
        const bool signalledAsItsOwnProgram = DaemonRunner::hasPendingSigterm(child);
        kill(child, SIGKILL);
        DaemonRunner::waitForExit(child);
        QVERIFY(!signalled);
        QVERIFY(signalledAsItsOwnProgram);
        QVERIFY(QFile::exists(pidFile));
    }

    void stopReachesAProcessWhoseProgramFileWasReplaced()
    {
        // The program file is deleted and copied anew at the same path while
        // the process runs, as an upgrade does.
        const QString program = dir->filePath(QStringLiteral("sleep-copy"));
        QVERIFY(QFile::copy(sleepProgram(), program));
        const QByteArray programBytes = QFile::encodeName(program);
        const pid_t child = forkFlushed();
        if (child == 0) {
            execl(programBytes.constData(), programBytes.constData(), "infinity", nullptr);
            _exit(127);
        }
        QVERIFY(DaemonRunner::waitUntil([&] {
            return QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(child)) == program;
        }));
        QVERIFY(QFile::remove(program));
        QVERIFY(QFile::copy(sleepProgram(), program));
        QVERIFY(writeFile(pidFile, QByteArray::number(child)));
        Daemon::stop(pidFile, program);
        const int status = DaemonRunner::waitForExit(child, 5000);
        if (status == -1) {
            kill(child, SIGKILL);
            DaemonRunner::waitForExit(child);
        }
        QFile::remove(program);
        QCOMPARE(status, 128 + SIGTERM);
    }

    void stopWithoutPidFileDoesNothing()
    {
        Daemon::stop(pidFile, sleepProgram());
        QVERIFY(writeFile(pidFile, "0"));
        Daemon::stop(pidFile, sleepProgram());
        QVERIFY(QFile::exists(pidFile));
    }

    void startForksAndTheChildWritesItsPid()
    {
        // The forked test process plays the daemon: its parent half must exit 0
        // and its child half must get true and find its pid in the file.
        const pid_t foreground = forkFlushed();
        if (foreground == 0) {
            const bool started = Daemon::start(pidFile);
            _exit(started ? 42 : 43);
        }
        QCOMPARE(DaemonRunner::waitForExit(foreground), 0);

        QByteArray content;
        QVERIFY(DaemonRunner::waitUntil([&] {
            content = readFile(pidFile);
            return !content.isEmpty();
        }));
        QVERIFY2(QRegularExpression(QStringLiteral("^[0-9]+$"))
                     .match(QString::fromLatin1(content))
                     .hasMatch(),
                 content.constData());
        const pid_t background = content.toInt();
        QVERIFY(background != foreground);
        QCOMPARE(DaemonRunner::waitForExit(background), 42);
        // The file written first under another name is gone.
        QCOMPARE(
            QDir(dir->path())
                .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot),
            QStringList{QStringLiteral("selvane.pid")});
        const mode_t mask = umask(0);
        umask(mask);
        struct stat status = {};
        QCOMPARE(stat(QFile::encodeName(pidFile).constData(), &status), 0);
        QCOMPARE(status.st_mode & 07777, 0644 & ~mask);
    }

    void startReplacesWhatIsAtTheNameWithoutFollowingIt()
    {
        // A link at the name is replaced; the file it pointed to stays as it was.
        const QString target = dir->filePath(QStringLiteral("target"));
        QVERIFY(writeFile(target, "precious"));
        QVERIFY(QFile::link(target, pidFile));
        const pid_t foreground = forkFlushed();
        if (foreground == 0) {
            const bool started = Daemon::start(pidFile);
            _exit(started ? 42 : 43);
        }
        QCOMPARE(DaemonRunner::waitForExit(foreground), 0);
        QByteArray content;
        QVERIFY(DaemonRunner::waitUntil([&] {
            content = readFile(pidFile);
            return !content.isEmpty() && content != "precious";
        }));
        QCOMPARE(DaemonRunner::waitForExit(content.toInt()), 42);
        QVERIFY(!QFileInfo(pidFile).isSymLink());
        QCOMPARE(readFile(target), QByteArray("precious"));
        QVERIFY(QFile::remove(target));
    }

    void startReturnsFalseInTheChildWhenThePidFileCannotBeWritten()
    {
        const QString unwritable = dir->filePath(QStringLiteral("no-such-dir/selvane.pid"));
        // The background half writes its pid where the test can find it.
        const QString reportFile = dir->filePath(QStringLiteral("background.pid"));
        const pid_t foreground = forkFlushed();
        if (foreground == 0) {
            const bool started = Daemon::start(unwritable);
            QFile report(reportFile);
            if (report.open(QIODevice::WriteOnly)) {
                report.write(QByteArray::number(getpid()));
            }
            report.close();
            _exit(started ? 42 : 43);
        }
        QCOMPARE(DaemonRunner::waitForExit(foreground), 0);
        QVERIFY(DaemonRunner::waitUntil([&] { return readFile(reportFile).size(); }));
        const pid_t background = readFile(reportFile).toInt();
        QVERIFY(background != foreground);
        QCOMPARE(DaemonRunner::waitForExit(background), 43);
        QVERIFY(!QFile::exists(unwritable));
    }

    // An undumpable daemon hides its executable from its own account (root sees it anyway):
    // the account's --stop and running check still find it by its short name.
    void anUndumpableDaemonIsFoundByItsOwnAccount()
    {
        if (geteuid() != 0) {
            QSKIP("playing two processes of another account needs root");
        }
        constexpr uid_t account = 65534;
        const pid_t daemon = forkFlushed();
        if (daemon == 0) {
            // A SIGTERM stays pending, for the test to see.
            sigset_t all;
            sigfillset(&all);
            if (sigprocmask(SIG_SETMASK, &all, nullptr) != 0 ||
                setresuid(account, account, account) != 0 ||
                prctl(PR_SET_NAME, "orvanta-selvane", 0, 0, 0) != 0 ||
                prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0) {
                _exit(3);
            }
            for (;;) {
                pause();
            }
        }
        QVERIFY(daemon > 0);
        QVERIFY(DaemonRunner::waitUntil([&] {
            return readFile(QStringLiteral("/proc/%1/comm").arg(daemon)) == "orvanta-selvane\n";
        }));
        QVERIFY(chmod(QFile::encodeName(dir->path()).constData(), 0711) == 0);
        QVERIFY(writeFile(pidFile, QByteArray::number(daemon)));
        QVERIFY(chmod(QFile::encodeName(pidFile).constData(), 0644) == 0);

        // Each check in a child of the same account; its exit status is the answer.
        const auto asAccount = [&](const std::function<bool()>& check) {
            const pid_t child = forkFlushed();
            if (child == 0) {
                _exit(setresuid(account, account, account) == 0 && check() ? 0 : 1);
            }
            return DaemonRunner::waitForExit(child);
        };
        QCOMPARE(asAccount([&] {
                     char target[1];
                     const QByteArray link = "/proc/" + QByteArray::number(daemon) + "/exe";
                     return readlink(link.constData(), target, sizeof target) == -1 &&
                            errno == EACCES;
                 }),
                 0);
        QCOMPARE(asAccount([&] {
                     return Daemon::isProgramRunning(pidFile, "/usr/sbin/orvanta-selvane");
                 }),
                 0);
        QCOMPARE(asAccount([&] { return Daemon::isProgramRunning(pidFile, "/usr/bin/other"); }), 1);
        QCOMPARE(asAccount([&] {
                     Daemon::stop(pidFile, "/usr/bin/other");
                     return true;
                 }),
                 0);
        QVERIFY(!DaemonRunner::hasPendingSigterm(daemon));
        QCOMPARE(asAccount([&] {
                     Daemon::stop(pidFile, "/usr/sbin/orvanta-selvane");
                     return true;
                 }),
                 0);
        QVERIFY(DaemonRunner::hasPendingSigterm(daemon));
        QCOMPARE(kill(daemon, SIGKILL), 0);
        QCOMPARE(DaemonRunner::waitForExit(daemon), 128 + SIGKILL);
    }
};

QTEST_GUILESS_MAIN(DaemonControlTest)
#include "test_daemon_control.moc"
