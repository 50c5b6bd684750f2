#pragma once

#include <QString>

#include <functional>

// What the daemon asks of the platform, answered by the seats bridge from its
// model of the room. PlatformBus calls it on the main thread, from the bus's
// callbacks; an answer that needs another service (the locale) is given
// through a callback, so that no call waits on anything.
class PlatformRole
{
public:
    enum class DeviceCount
    {
        ASSIGNED_KEYBOARDS,
        UNASSIGNED_KEYBOARDS,
        ASSIGNED_MICE,
        UNASSIGNED_MICE
    };

    virtual ~PlatformRole() = default;

    virtual int countDevices(DeviceCount which) const = 0;
    // StationGetTag: the room's "name" or "location"; empty for another tag.
    virtual QString stationTag(const QString& tag) const = 0;
    // GetLocaleForUserOnDisplay: `answer` is called once, maybe later.
    virtual void localeForDisplay(int displayId, std::function<void(const QString&)> answer) = 0;
    // SelvaneStarted from `sender` (a unique bus name).
    virtual void selvaneStarted(const QString& sender) = 0;
    // DeviceAssignedAuto from `sender`.
    virtual void deviceAssigned(const QString& sender, const QString& devicePath, int displayId,
                                const QString& deviceKind) = 0;
};
