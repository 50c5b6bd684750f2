#pragma once

#include <chrono>

// The attempts to reach one station's X display while it cannot be reached:
// when the next one is due, and what is logged. The first failure of an outage
// is logged at once ("Could not get connection to display :N"); while the
// display stays unreachable, one line a reportInterval tells how many attempts
// have failed. A connection ends the outage. The time is the caller's, so that
// it can be given in tests.
//
// Owned by a DisplayConfiguration; main thread only.
class ConnectionAttempts
{
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::seconds reportInterval{60};

    explicit ConnectionAttempts(int display) : displayId(display) {}

    // Whether the next attempt may be made at `now`.
    bool isDue(Clock::time_point now) const { return now >= nextAttempt; }
    // An attempt failed at `now`; the next one is due `retryDelay` later.
    void failed(Clock::time_point now, Clock::duration retryDelay);
    // The display was reached: the next failure starts a new outage.
    void connected();
    // The failed attempts of the current outage.
    int getFailures() const { return failures; }

private:
    int displayId;
    int failures = 0;
    Clock::time_point lastReport;
    Clock::time_point nextAttempt;
};
