#pragma once

#include <QtGlobal>

#include <functional>

class EventDevice;

// Runs the three lock LEDs of a keyboard in a circle, one LED at a time and one step per second
// of the clock, to show that the keyboard waits to be assigned. The LEDs shown before blinking
// began are put back when the blinker is deleted, which must happen before the device goes.
class LedBlinker
{
public:
    // Current wall-clock time in whole seconds since the Unix epoch.
    using Clock = std::function<qint64()>;

    explicit LedBlinker(EventDevice* device, Clock clock = {});
    ~LedBlinker();
    LedBlinker(const LedBlinker&) = delete;
    LedBlinker& operator=(const LedBlinker&) = delete;

    EventDevice* getEventDevice() const { return eventDevice; }
    // One step of the rotation, if the clock has passed the second of the last step.
    void update();

private:
    EventDevice* eventDevice = nullptr;
    Clock clock;
    qint64 lastChange = 0;
    int currentLed = 0;
};
