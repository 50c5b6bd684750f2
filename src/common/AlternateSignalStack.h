#pragma once

#include <cstddef>

namespace Orvanta {

// A stack of its own for the signal handlers of the thread that creates it,
// so that the crash report runs even when that thread overflowed its own
// stack. An inaccessible page sits below it: a handler that runs out of room
// faults there instead of writing over other memory. Each thread the daemon
// starts holds one on its own stack for as long as it runs; the destructor
// takes it back from the thread before freeing it.
class AlternateSignalStack
{
public:
    AlternateSignalStack();
    ~AlternateSignalStack();

    AlternateSignalStack(const AlternateSignalStack&) = delete;
    AlternateSignalStack& operator=(const AlternateSignalStack&) = delete;

    // False when the stack could not be set up: the thread's handlers then
    // run on the thread's own stack.
    bool isValid() const { return memory != nullptr; }

private:
    void* memory = nullptr;
    size_t mappedSize = 0;
};

} // namespace Orvanta
