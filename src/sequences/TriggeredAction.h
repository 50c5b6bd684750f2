#pragma once

#include "input/EventDevice.h"

#include <QPointer>

class SystemCommandAction;

// A system command that matched on a device and waits until every key of that
// device is up again.
class TriggeredAction
{
public:
    TriggeredAction(const SystemCommandAction* action, const EventDevice* device);

    TriggeredAction(const TriggeredAction&) = delete;
    TriggeredAction& operator=(const TriggeredAction&) = delete;

    const SystemCommandAction* getAction() const { return action; }
    // Null once the device has been deleted: a device created later at the same
    // address must never inherit a trigger it did not see.
    const EventDevice* getEventDevice() const { return eventDevice.data(); }

private:
    const SystemCommandAction* action;
    QPointer<const EventDevice> eventDevice;
};
