#pragma once

#include <condition_variable>
#include <mutex>

// Bounds how many pictures are composed at once, over all station threads:
// as many as the daemon may use cores, so that forty-eight stations switched
// on together take turns instead of all scaling at once and starving the main
// thread. Only composing takes a slot; talking to an X server never does, so a
// server that stops reading holds no slot.
//
// The daemon's one instance (shared()) lives for the whole process; any
// thread takes and gives back slots, under its mutex. A Slot belongs to the
// thread that took it.
class CompositionSlots
{
public:
    // Holds one slot for its lifetime.
    class Slot
    {
    public:
        explicit Slot(CompositionSlots& pool);
        ~Slot();
        Slot(const Slot&) = delete;
        Slot& operator=(const Slot&) = delete;

    private:
        CompositionSlots& owner;
    };

    explicit CompositionSlots(int count);

    // The daemon's slots: one per core it may run on (sched_getaffinity).
    static CompositionSlots& shared();
    static int usableCores();

    int getCount() const { return count; }

private:
    void acquire();
    void release();

    const int count;
    std::mutex mutex;
    std::condition_variable freed;
    int taken = 0;
};
