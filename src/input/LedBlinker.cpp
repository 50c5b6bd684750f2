#include "input/LedBlinker.h"

#include "common/Logger.h"
#include "common/Util.h"
#include "input/EventDevice.h"

#include <linux/input-event-codes.h>

#include <utility>

namespace {
constexpr char logSource[] = "LedBlinker";

// Num Lock, Caps Lock and Scroll Lock, in the order they light up.
constexpr int rotatedLeds = LED_SCROLLL + 1;
} // namespace

LedBlinker::LedBlinker(EventDevice* device, Clock clockFunction)
    : clock(clockFunction ? std::move(clockFunction) : Clock(Orvanta::utilSecondsSinceEpoch))
{
    if (!device) {
        SELVANE_LOG(LEVEL_BUG, "eventDevice is NULL");
        return;
    }
    eventDevice = device;
    lastChange = clock();
    currentLed = LED_NUML;
    eventDevice->storeLedState();
}

LedBlinker::~LedBlinker()
{
    if (eventDevice) {
        eventDevice->restoreLedState();
    }
}

void LedBlinker::update()
{
    if (!eventDevice) {
        return;
    }
    // At most one step per second of the clock; a clock set back waits until it passes the
    // last step again.
    const qint64 now = clock();
    if (now <= lastChange) {
        return;
    }
    lastChange = now;
    eventDevice->setLedOn(currentLed, false);
    currentLed = (currentLed + 1) % rotatedLeds;
    eventDevice->setLedOn(currentLed, true);
}
