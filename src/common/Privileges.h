#pragma once

// The calling process's groups, capabilities and dumpable flag. Every function
// is a plain system call, safe in a child forked from a process with threads.
namespace Orvanta::Privileges {

// True when the capability is in the calling thread's effective set.
bool hasEffectiveCapability(int capability);

// Empties the calling thread's ambient, inheritable, permitted and effective
// sets. Threads started afterwards inherit the empty sets; threads that run
// already keep theirs, so this belongs before the first thread starts.
bool dropCapabilities();

// Leaves the process without supplementary groups (needs CAP_SETGID).
bool dropSupplementaryGroups();

// Neither a process of the same account can trace the process or open its
// descriptors and memory through /proc, nor is a core dump written.
bool makeUndumpable();

} // namespace Orvanta::Privileges
