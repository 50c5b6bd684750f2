#include "FramePacer.h"

#include <thread>

FramePacer::FramePacer(int framesPerSecond)
    : period(std::chrono::microseconds(1000000 / framesPerSecond)),
      next(std::chrono::steady_clock::now())
{
}

void FramePacer::waitForNextFrame()
{
    const auto now = std::chrono::steady_clock::now();
    next += period;
    if (next < now) {
        next = now + period;
    }
    std::this_thread::sleep_until(next);
}
