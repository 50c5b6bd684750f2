#include "TestFiles.h"

#include "common/OwnedFd.h"
#include "sequences/LauncherProcess.h"

#include <QtTest>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using LauncherProcess::Reply;
using LauncherProcess::Request;
using Orvanta::OwnedFd;

namespace {
constexpr int timeoutMs = 10000;
constexpr gid_t extraGroup = 4242;
constexpr uid_t serviceUid = 65534;

// In a forked child of the root test: become an ordinary account that holds the extra group
// and, with keepSetgid, CAP_SETGID as its only capability, ambient as the service unit grants
// it, so that it would pass on to commands. Ends the child when that fails.
void becomeServiceAccount(bool keepSetgid)
{
    const gid_t groups[] = {getgid(), extraGroup};
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    const std::uint32_t setgid = keepSetgid ? 1U << CAP_SETGID : 0;
    sets[0].permitted = sets[0].effective = sets[0].inheritable = setgid;
    if (setgroups(2, groups) != 0 || prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0 ||
        setresuid(serviceUid, serviceUid, serviceUid) != 0 ||
        syscall(SYS_capset, &header, sets) != 0 ||
        (keepSetgid && prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_SETGID, 0, 0) != 0)) {
        _exit(3);
    }
}

bool waitReadable(int fd)
{
    pollfd ready{fd, POLLIN, 0};
    int polled;
    do {
        polled = poll(&ready, 1, timeoutMs);
    } while (polled < 0 && errno == EINTR);
    return polled > 0;
}

// Whether the pidfd says its process has ended, without waiting.
bool hasEnded(int pidFd)
{
    pollfd ready{pidFd, POLLIN, 0};
    return poll(&ready, 1, 0) == 1;
}

// The pid a pidfd refers to, from its fdinfo.
QByteArray pidOf(int pidFd)
{
    const QByteArray info = readFile(QStringLiteral("/proc/self/fdinfo/%1").arg(pidFd));
    const QRegularExpressionMatch match =
        QRegularExpression("^Pid:\\s*(\\d+)$", QRegularExpression::MultilineOption).match(info);
    return match.captured(1).toLatin1();
}

// The values of the fields of /proc/<pid>/status that a test looks at, one "Name: value" line
// each, the values with their blanks simplified.
QByteArray statusFields(const QByteArray& status, const QList<QByteArray>& names)
{
    QByteArray result;
    for (const QByteArray& line : status.split('\n')) {
        const int colon = line.indexOf(':');
        if (colon > 0 && names.contains(line.left(colon))) {
            result += line.left(colon) + ": " + line.mid(colon + 1).simplified() + '\n';
        }
    }
    return result;
}
} // namespace

// A launcher forked by the test, which plays the daemon on the other end of the pair.
class LauncherUnderTest
{
public:
    LauncherUnderTest(LauncherProcess::Privileges privileges,
                      const std::function<void()>& beforeRun = {},
                      unsigned maxRunning = LauncherProcess::maxRunningCommands)
    {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
            return;
        }
        OwnedFd launcherEnd(ends[1]);
        socket.reset(ends[0]);
        pid = fork();
        if (pid == 0) {
            if (beforeRun) {
                beforeRun();
            }
            LauncherProcess::run(launcherEnd.get(), privileges, maxRunning);
        }
    }
    ~LauncherUnderTest()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    LauncherUnderTest(const LauncherUnderTest&) = delete;
    LauncherUnderTest& operator=(const LauncherUnderTest&) = delete;

    pid_t getPid() const { return pid; }
    void closeSocket() { socket.reset(); }

    bool sendBytes(const QByteArray& bytes)
    {
        return send(socket.get(), bytes.constData(), static_cast<size_t>(bytes.size()),
                    MSG_NOSIGNAL) == bytes.size();
    }
    bool sendRequest(const QByteArray& command, const QList<QByteArray>& environment)
    {
        QByteArray strings = command + '\0';
        for (const QByteArray& entry : environment) {
            strings += entry + '\0';
        }
        const Request request{static_cast<std::uint32_t>(strings.size()),
                              static_cast<std::uint32_t>(environment.size() + 1)};
        return sendBytes(QByteArray(reinterpret_cast<const char*>(&request), sizeof request) +
                         strings);
    }
    // The next answer and the descriptor it carried; kind 0 when none came.
    Reply receive(OwnedFd& attached)
    {
        Reply reply{0, 0};
        if (!waitReadable(socket.get())) {
            return reply;
        }
        iovec data{&reply, sizeof reply};
        msghdr message = {};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        if (recvmsg(socket.get(), &message, MSG_CMSG_CLOEXEC) != sizeof reply) {
            return Reply{0, 0};
        }
        if (cmsghdr* header = CMSG_FIRSTHDR(&message)) {
            int fd;
            std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
            attached.reset(fd);
        }
        return reply;
    }
    // Starts the command; its pidfd, invalid if it was not started.
    OwnedFd startCommand(const QByteArray& command, const QList<QByteArray>& environment = {})
    {
        OwnedFd process;
        if (!sendRequest(command, environment) || receive(process).kind != Reply::STARTED) {
            return OwnedFd();
        }
        return process;
    }
    // Runs the command to its end as the daemon sees it; false if any step went otherwise.
    bool runCommand(const QByteArray& command, const QList<QByteArray>& environment = {})
    {
        const OwnedFd process = startCommand(command, environment);
        return process.isValid() && waitReadable(process.get());
    }
    // The pids of the launcher's children, that is of the commands it has not collected.
    QByteArray children() const
    {
        return readFile(QStringLiteral("/proc/%1/task/%1/children").arg(pid)).trimmed();
    }
    // The launcher's exit status, -1 when it did not end in time.
    int waitForExit()
    {
        QDeadlineTimer deadline(timeoutMs);
        while (!deadline.hasExpired()) {
            int status = 0;
            const pid_t done = waitpid(pid, &status, WNOHANG);
            if (done == pid) {
                pid = 0;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            QTest::qWait(10);
        }
        return -1;
    }

private:
    OwnedFd socket;
    pid_t pid = -1;
};

// The process that starts the daemon's commands, played against by a test in the daemon's
// place.
class LauncherProcessTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        dir.reset(new QTemporaryDir);
        QVERIFY(dir->isValid());
    }

    void withDroppedGroupsACommandHasNoGroupsAndNoCapabilities()
    {
        if (geteuid() != 0) {
            QSKIP("playing the service account needs root");
        }
        LauncherUnderTest launcher(LauncherProcess::Privileges::DROP_GROUPS,
                                   [] { becomeServiceAccount(true); });
        const QString out = writableFile("status");
        QVERIFY(launcher.runCommand("cat /proc/self/status > " + out.toUtf8()));
        QCOMPARE(statusFields(readFile(out), {"Groups", "CapInh", "CapPrm", "CapEff", "CapAmb"}),
                 QByteArray("Groups: \nCapInh: 0000000000000000\nCapPrm: 0000000000000000\n"
                            "CapEff: 0000000000000000\nCapAmb: 0000000000000000\n"));
    }

    void withKeptGroupsACommandHasTheGroupsButNoCapabilities()
    {
        if (geteuid() != 0) {
            QSKIP("playing the service account needs root");
        }
        LauncherUnderTest launcher(LauncherProcess::Privileges::KEEP_GROUPS,
                                   [] { becomeServiceAccount(false); });
        const QString out = writableFile("status");
        QVERIFY(launcher.runCommand("cat /proc/self/status > " + out.toUtf8()));
        QCOMPARE(statusFields(readFile(out), {"Groups", "CapInh", "CapPrm", "CapEff", "CapAmb"}),
                 QByteArray("Groups: " + QByteArray::number(getgid()) +
                            " 4242\nCapInh: 0000000000000000\nCapPrm: 0000000000000000\n"
                            "CapEff: 0000000000000000\nCapAmb: 0000000000000000\n"));
    }

    void keepingAllACommandHasTheCapabilitiesOfItsAccount()
    {
        const QString out = dir->filePath("status");
        LauncherUnderTest launcher(LauncherProcess::Privileges::KEEP_ALL);
        QVERIFY(launcher.runCommand("cat /proc/self/status > " + out.toUtf8()));
        const QList<QByteArray> fields = {"Groups", "CapPrm", "CapEff"};
        QCOMPARE(statusFields(readFile(out), fields),
                 statusFields(readFile("/proc/self/status"), fields));
    }

    void aCommandHasItsOwnSessionNullInputAndNoneOfTheDaemonsDescriptors()
    {
        // A descriptor the "daemon" holds open without close-on-exec, as a device could be.
        const int held = open("/dev/zero", O_RDONLY);
        QVERIFY(held > 2);
        const OwnedFd heldFd(held);
        LauncherUnderTest launcher(LauncherProcess::Privileges::KEEP_ALL);
        const QString out = dir->filePath("out");
        // Field 6 of /proc/<pid>/stat is the session: the shell's own pid when it leads a
        // session of its own.
        const QByteArray command =
            "read -r -a stat < /proc/$$/stat; echo \"$(( stat[5] == $$ && stat[5] != " +
            QByteArray::number(getsid(0)) + " ))\"; readlink /proc/$$/fd/0; if [ -e /proc/$$/fd/" +
            QByteArray::number(held) + " ]; then echo held; else echo closed; fi; echo $STATION_ID";
        QVERIFY(launcher.runCommand("{ " + command + "; } > " + out.toUtf8(),
                                    {"STATION_ID=3", "PATH=/usr/bin:/bin"}));
        QCOMPARE(readFile(out), QByteArray("1\n/dev/null\nclosed\n3\n"));
        QCOMPARE(readFile(QStringLiteral("/proc/%1/comm").arg(launcher.getPid())),
                 QByteArray("selvane-launch\n"));
    }

    void aCommandThatCannotStartIsAnsweredWithItsError()
    {
        LauncherUnderTest launcher(LauncherProcess::Privileges::KEEP_ALL);
        // Longer than the kernel takes for one string of an environment.
        QVERIFY(launcher.sendRequest("true", {"HUGE=" + QByteArray(200 * 1024, 'x')}));
        OwnedFd attached;
        const Reply reply = launcher.receive(attached);
        QCOMPARE(reply.kind, std::int32_t(Reply::FAILED));
        QCOMPARE(reply.error, std::int32_t(E2BIG));
        QVERIFY(!attached.isValid());
        // It goes on serving.
        QVERIFY(launcher.runCommand("true"));
    }

    void aCommandStartsWithNoSignalBlockedOrIgnored()
    {
        // The launcher itself blocks SIGCHLD.
        LauncherUnderTest launcher(LauncherProcess::Privileges::KEEP_ALL);
        const QString out = dir->filePath("out");
        QVERIFY(
            launcher.runCommand("grep -E '^Sig(Blk|Ign):' /proc/self/status > " + out.toUtf8()));
        QCOMPARE(readFile(out),
                 QByteArray("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"));
    }

    void aCommandStartsWhileAnEarlierOneStillRuns()
    {
        LauncherUnderTest launcher(LauncherProcess::Privileges::KEEP_ALL);
        const QString gate = dir->filePath("gate");
        const OwnedFd first = launcher.startCommand(commandWaitingFor(gate).toUtf8());
        QVERIFY(first.isValid());
        const QString out = dir->filePath("out");
        QVERIFY(launcher.runCommand("echo second > " + out.toUtf8()));
        QCOMPARE(readFile(out), QByteArray("second\n"));
        QVERIFY(!hasEnded(first.get()));
        QVERIFY(writeFile(gate, {}));
        QVERIFY(waitReadable(first.get()));
    }

    void theLauncherCollectsEndedCommandsOnItsOwn()
    {
        LauncherUnderTest launcher(LauncherProcess::Privileges::KEEP_ALL);
        const QString gate = dir->filePath("gate");
        const OwnedFd waiting = launcher.startCommand(commandWaitingFor(gate).toUtf8());
        QVERIFY(waiting.isValid());
        std::vector<OwnedFd> quick;
        for (int i = 0; i < 5; ++i) {
            quick.push_back(launcher.startCommand("true"));
            QVERIFY(quick.back().isValid());
        }
        for (const OwnedFd& process : quick) {
            QVERIFY(waitReadable(process.get()));
        }
        // Only the command that still runs is left a child of the launcher.
        const QByteArray waitingPid = pidOf(waiting.get());
        QVERIFY(!waitingPid.isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(launcher.children(), waitingPid, timeoutMs);
        QVERIFY(writeFile(gate, {}));
        QVERIFY(waitReadable(waiting.get()));
        QTRY_COMPARE_WITH_TIMEOUT(launcher.children(), QByteArray(), timeoutMs);
    }

    void beyondItsLimitOfRunningCommandsTheLauncherAnswersEagain()
    {
        LauncherUnderTest launcher(LauncherProcess::Privileges::KEEP_ALL, {}, 2);
        const QString gate = dir->filePath("gate");
        const OwnedFd first = launcher.startCommand(commandWaitingFor(gate).toUtf8());
        const OwnedFd second = launcher.startCommand(commandWaitingFor(gate).toUtf8());
        QVERIFY(first.isValid() && second.isValid());
        const QString out = dir->filePath("out");
        QVERIFY(launcher.sendRequest("echo third > " + out.toUtf8(), {}));
        OwnedFd attached;
        const Reply reply = launcher.receive(attached);
        QCOMPARE(reply.kind, std::int32_t(Reply::FAILED));
        QCOMPARE(reply.error, std::int32_t(EAGAIN));
        QVERIFY(!attached.isValid());
        QVERIFY(writeFile(gate, {}));
        QVERIFY(waitReadable(first.get()));
        QVERIFY(waitReadable(second.get()));
        // Ended commands free their places.
        QVERIFY(launcher.runCommand("echo fourth > " + out.toUtf8()));
        QCOMPARE(readFile(out), QByteArray("fourth\n"));
    }

    void aRequestThatIsNotTheDaemonsEndsTheLauncher_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const auto header = [](std::uint32_t length, std::uint32_t strings) {
            const Request request{length, strings};
            return QByteArray(reinterpret_cast<const char*>(&request), sizeof request);
        };
        QTest::newRow("longer than any command") << header(LauncherProcess::maxRequestBytes + 1, 1);
        QTest::newRow("no string at all") << header(5, 0) + QByteArray("true\0", 5);
        QTest::newRow("more strings than allowed")
            << header(5, LauncherProcess::maxStrings + 1) + QByteArray("true\0", 5);
        QTest::newRow("fewer strings than announced") << header(5, 2) + QByteArray("true\0", 5);
        QTest::newRow("more strings than announced")
            << header(10, 1) + QByteArray("true\0A=1\0", 10);
        QTest::newRow("the last string unterminated") << header(4, 1) + QByteArray("true");
        QTest::newRow("half a header") << QByteArray("\x05\x00", 2);
    }

    void aRequestThatIsNotTheDaemonsEndsTheLauncher()
    {
        QFETCH(QByteArray, bytes);
        const QString out = dir->filePath("out");
        LauncherUnderTest launcher(LauncherProcess::Privileges::KEEP_ALL);
        QVERIFY(launcher.sendBytes(bytes));
        // A short request stays incomplete until the daemon's end closes.
        launcher.closeSocket();
        QCOMPARE(launcher.waitForExit(), 0);
        QVERIFY(!QFile::exists(out));
    }

    void theLauncherEndsWithTheDaemonsEnd()
    {
        LauncherUnderTest launcher(LauncherProcess::Privileges::KEEP_ALL);
        QVERIFY(launcher.runCommand("true"));
        launcher.closeSocket();
        QCOMPARE(launcher.waitForExit(), 0);
    }

    void theLauncherEndsWithTheDaemonsEndWhileACommandRuns()
    {
        LauncherUnderTest launcher(LauncherProcess::Privileges::KEEP_ALL);
        QVERIFY(launcher.sendRequest("exec sleep 60", {}));
        OwnedFd process;
        QCOMPARE(launcher.receive(process).kind, std::int32_t(Reply::STARTED));
        QVERIFY(process.isValid());
        launcher.closeSocket();
        QCOMPARE(launcher.waitForExit(), 0);
        // The command is not the launcher's to end.
        pollfd ended{process.get(), POLLIN, 0};
        QCOMPARE(poll(&ended, 1, 0), 0);
        QCOMPARE(syscall(SYS_pidfd_send_signal, process.get(), SIGKILL, nullptr, 0), 0L);
    }

private:
    // A file in the test's directory that the service account may write.
    QString writableFile(const QString& name)
    {
        const QString path = dir->filePath(name);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) ||
            chmod(QFile::encodeName(dir->path()).constData(), 0711) != 0 ||
            chmod(QFile::encodeName(path).constData(), 0666) != 0) {
            qWarning("%s cannot be made writable", qPrintable(path));
        }
        return path;
    }

    QScopedPointer<QTemporaryDir> dir; // fresh for every test function
};

QTEST_GUILESS_MAIN(LauncherProcessTest)
#include "test_launcherprocess.moc"
