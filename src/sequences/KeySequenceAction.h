#pragma once

class EventDevice;

// What a key sequence does when it matches on a device.
class KeySequenceAction
{
public:
    KeySequenceAction();
    virtual ~KeySequenceAction();

    KeySequenceAction(const KeySequenceAction&) = delete;
    KeySequenceAction& operator=(const KeySequenceAction&) = delete;

    virtual void performAction(const EventDevice* device) const = 0;
};
