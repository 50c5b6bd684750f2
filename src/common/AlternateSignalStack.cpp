#include "common/AlternateSignalStack.h"

#include <csignal>
#include <sys/mman.h>
#include <unistd.h>

namespace Orvanta {

namespace {
// The crash report itself needs little (no allocation, no formatting library),
// but the unwinder behind backtrace() and the sanitizer builds take larger
// frames. Pages that are never touched cost nothing.
constexpr size_t stackSize = size_t{256} * 1024;
} // namespace

AlternateSignalStack::AlternateSignalStack()
{
    const size_t guardSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* mapped = mmap(nullptr, guardSize + stackSize, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (mapped == MAP_FAILED) {
        return;
    }
    stack_t stack = {};
    stack.ss_sp = static_cast<char*>(mapped) + guardSize;
    stack.ss_size = stackSize;
    if (mprotect(mapped, guardSize, PROT_NONE) != 0 || sigaltstack(&stack, nullptr) != 0) {
        munmap(mapped, guardSize + stackSize);
        return;
    }
    memory = mapped;
    mappedSize = guardSize + stackSize;
}

AlternateSignalStack::~AlternateSignalStack()
{
    if (!memory) {
        return;
    }
    stack_t disabled = {};
    disabled.ss_flags = SS_DISABLE;
    sigaltstack(&disabled, nullptr);
    munmap(memory, mappedSize);
}

} // namespace Orvanta
