#pragma once

#include "input/EventDevice.h"
#include "keys/KeyEngine.h"

// One read of a device for its owner's key engine: the records the device has go to the
// engine, then `act` gets each decision, in order, once the whole read has been examined; the
// read's error comes last, after the records before it have been acted on. A device that the
// error closed leaves the engine. False once the device is closed.
template <typename Act> bool feedEngine(EventDevice& device, KeyEngine& engine, Act&& act)
{
    const EventDevice::Records read = device.takeRecords();
    for (const KeyEngine::Decision& decision : engine.feed(device.getId(), read.records)) {
        act(decision);
    }
    device.reportReadError(read.readError);
    if (device.getFd() != -1) {
        return true;
    }
    engine.removeDevice(device.getId());
    return false;
}
