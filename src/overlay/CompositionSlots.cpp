#include "overlay/CompositionSlots.h"

#include <sched.h>

#include <algorithm>

CompositionSlots::Slot::Slot(CompositionSlots& pool) : owner(pool)
{
    owner.acquire();
}

CompositionSlots::Slot::~Slot()
{
    owner.release();
}

CompositionSlots::CompositionSlots(int slotCount) : count(std::max(slotCount, 1)) {}

CompositionSlots& CompositionSlots::shared()
{
    static CompositionSlots daemonSlots(usableCores());
    return daemonSlots;
}

int CompositionSlots::usableCores()
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    if (sched_getaffinity(0, sizeof(cores), &cores) != 0) {
        return 1;
    }
    return std::max(CPU_COUNT(&cores), 1);
}

void CompositionSlots::acquire()
{
    std::unique_lock<std::mutex> lock(mutex);
    freed.wait(lock, [this] { return taken < count; });
    ++taken;
}

void CompositionSlots::release()
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        --taken;
    }
    freed.notify_one();
}
