#include "common/Privileges.h"

#include <QtTest>

#include <cerrno>
#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace {
// Runs the step in a forked child, so the test process keeps what it has; the child's exit
// status.
int inChild(const std::function<int()>& step)
{
    const pid_t child = fork();
    if (child == 0) {
        _exit(step());
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

bool allSetsEmpty()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2] = {};
    if (syscall(SYS_capget, &header, sets) != 0) {
        return false;
    }
    for (const __user_cap_data_struct& set : sets) {
        if (set.effective != 0 || set.permitted != 0 || set.inheritable != 0) {
            return false;
        }
    }
    return prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_IS_SET, CAP_SETGID, 0, 0) == 0;
}
} // namespace

// What the daemon gives up at start, each step in a child of the test.
class PrivilegesTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        if (!Orvanta::Privileges::hasEffectiveCapability(CAP_SETGID)) {
            QSKIP("the test needs CAP_SETGID to see it go");
        }
    }

    void droppingCapabilitiesEmptiesEverySet()
    {
        QCOMPARE(inChild([] {
                     if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, CAP_SETGID, 0, 0) != 0 &&
                         errno != EPERM) {
                         return 2;
                     }
                     if (!Orvanta::Privileges::dropCapabilities()) {
                         return 3;
                     }
                     if (Orvanta::Privileges::hasEffectiveCapability(CAP_SETGID)) {
                         return 4;
                     }
                     return allSetsEmpty() ? 0 : 5;
                 }),
                 0);
    }

    void droppingGroupsLeavesNone()
    {
        QCOMPARE(inChild([] {
                     const gid_t groups[] = {4242, 4243};
                     if (setgroups(2, groups) != 0 ||
                         !Orvanta::Privileges::dropSupplementaryGroups()) {
                         return 2;
                     }
                     return getgroups(0, nullptr) == 0 ? 0 : 3;
                 }),
                 0);
    }

    void anUndumpableProcessSaysSo()
    {
        QCOMPARE(prctl(PR_GET_DUMPABLE, 0, 0, 0, 0), 1);
        QCOMPARE(inChild([] {
                     return Orvanta::Privileges::makeUndumpable() &&
                                    prctl(PR_GET_DUMPABLE, 0, 0, 0, 0) == 0
                                ? 0
                                : 2;
                 }),
                 0);
    }

    void unknownCapabilitiesAreNotHeld()
    {
        QVERIFY(!Orvanta::Privileges::hasEffectiveCapability(-1));
        QVERIFY(!Orvanta::Privileges::hasEffectiveCapability(64));
    }
};

QTEST_GUILESS_MAIN(PrivilegesTest)
#include "test_privileges.moc"
