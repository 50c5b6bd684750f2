#include "overlay/ConnectionAttempts.h"

#include "common/Logger.h"

namespace {
constexpr char logSource[] = "DisplayConfiguration";
} // namespace

void ConnectionAttempts::failed(Clock::time_point now, Clock::duration retryDelay)
{
    ++failures;
    nextAttempt = now + retryDelay;
    if (failures == 1) {
        lastReport = now;
        SELVANE_LOG(LEVEL_WARNING, "Could not get connection to display :%d", displayId);
    } else if (now - lastReport >= reportInterval) {
        lastReport = now;
        SELVANE_LOG(LEVEL_WARNING, "Still no connection to display :%d after %d attempts",
                    displayId, failures);
    }
}

void ConnectionAttempts::connected()
{
    failures = 0;
    nextAttempt = Clock::time_point();
}
