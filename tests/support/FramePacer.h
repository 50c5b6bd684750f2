#pragma once

#include <chrono>

// Paces a sending loop to at most a given number of frames a second, as a device that
// reports at a fixed rate does. A loop that falls behind (a slow or busy machine) carries
// on at the rate from where it is instead of catching up in a burst: a burst is faster
// than any such device and would only starve the reader the test watches.
class FramePacer
{
public:
    explicit FramePacer(int framesPerSecond);

    // Sleeps until the next frame is due.
    void waitForNextFrame();

private:
    std::chrono::steady_clock::duration period;
    std::chrono::steady_clock::time_point next;
};
