#include "common/Privileges.h"

#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Orvanta::Privileges {

namespace {
// Version 3 describes the sets in two 32-bit words each.
constexpr int capabilityWords = 2;
} // namespace

bool hasEffectiveCapability(int capability)
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[capabilityWords] = {};
    if (capability < 0 || capability >= 32 * capabilityWords ||
        syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    return (data[capability / 32].effective & (1U << (capability % 32))) != 0;
}

bool dropCapabilities()
{
    // The ambient set first: it can hold only what stays permitted and inheritable.
    if (prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) != 0) {
        return false;
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[capabilityWords] = {};
    return syscall(SYS_capset, &header, none) == 0;
}

bool dropSupplementaryGroups()
{
    return setgroups(0, nullptr) == 0;
}

bool makeUndumpable()
{
    return prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0;
}

} // namespace Orvanta::Privileges
