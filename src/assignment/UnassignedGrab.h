#pragma once

#include <cstdint>
#include <vector>

// Decides which unassigned keyboards and mice the daemon takes for itself (EVIOCGRAB), so that
// the key typed to claim a device for one station does not also reach the session that holds
// the device in the meantime. A device is held while it is unassigned and at least one overlay
// is on a screen; it is let go when it leaves the unassigned set or when no overlay is drawn
// any more.
//
// A device is not taken while a key of it is down: the session that saw the key go down would
// never see it go up, and would repeat it until the device is let go. It is taken at the next
// change once its keys are up.
//
// A device whose grab was refused (another program holds it) is not tried again until the next
// overlay period, that is until no overlay was drawn for a moment: a refusal is logged once,
// not at every update.
//
// Pure: it is told what there is and answers what to change; it never touches a device.
// Owned by the AssignmentHandler; main thread only.
class UnassignedGrab
{
public:
    using DeviceId = std::uint64_t;

    struct Change
    {
        DeviceId device = 0;
        // True: take the device; false: let it go.
        bool hold = false;
    };

    // The grabs to take and to release, given whether an overlay is drawn, the devices that
    // are unassigned now, those that are held now and those with a key down now. Releases come
    // first, each list in the order of its argument.
    std::vector<Change> changes(bool overlayDrawn, const std::vector<DeviceId>& unassigned,
                                const std::vector<DeviceId>& held,
                                const std::vector<DeviceId>& keyDown);
    // The device could not be taken: it is left alone for the rest of this overlay period.
    void refused(DeviceId device);

private:
    std::vector<DeviceId> refusedDevices;
};
