#include "assignment/UnassignedGrab.h"

#include <algorithm>

namespace {
bool contains(const std::vector<UnassignedGrab::DeviceId>& devices, UnassignedGrab::DeviceId device)
{
    return std::find(devices.begin(), devices.end(), device) != devices.end();
}
} // namespace

std::vector<UnassignedGrab::Change> UnassignedGrab::changes(bool overlayDrawn,
                                                            const std::vector<DeviceId>& unassigned,
                                                            const std::vector<DeviceId>& held,
                                                            const std::vector<DeviceId>& keyDown)
{
    // The overlay period is over: the next one tries every device again.
    if (!overlayDrawn) {
        refusedDevices.clear();
    }
    std::vector<Change> result;
    for (DeviceId device : held) {
        if (!overlayDrawn || !contains(unassigned, device)) {
            result.push_back({device, false});
        }
    }
    if (!overlayDrawn) {
        return result;
    }
    for (DeviceId device : unassigned) {
        if (!contains(held, device) && !contains(refusedDevices, device) &&
            !contains(keyDown, device)) {
            result.push_back({device, true});
        }
    }
    return result;
}

void UnassignedGrab::refused(DeviceId device)
{
    if (!contains(refusedDevices, device)) {
        refusedDevices.push_back(device);
    }
}
