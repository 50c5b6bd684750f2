#pragma once

#include <QString>

class TranslationLanguage;

namespace Orvanta {
class PendingCallGroup;
}

// What the assignment side needs of the platform around it: the session
// controller's locale of a display's user, the assignment service that hears
// of each claimed device, the database's values for the overlay, and the
// overlay's languages. The daemon implements it over its D-Bus proxies and
// the languages read at start.
//
// A question is sent into a pending call group at once and never waits: its
// answer is in the group at the returned index once the group is done. Every
// method runs on the main thread.
class PlatformServices
{
public:
    enum class DeviceKind
    {
        KEYBOARD,
        MOUSE,
    };

    virtual ~PlatformServices() = default;

    // The locale of the user on :displayId, a string such as "de_DE.UTF-8".
    virtual int askLocale(Orvanta::PendingCallGroup& calls, int displayId) = 0;
    // How many devices of that kind are assigned to stations, an int.
    virtual int askAssignedCount(Orvanta::PendingCallGroup& calls, DeviceKind kind) = 0;
    // How many devices of that kind belong to no station, an int.
    virtual int askUnassignedCount(Orvanta::PendingCallGroup& calls, DeviceKind kind) = 0;
    // The station's tag of that name ("name", "location"), a string.
    virtual int askStationTag(Orvanta::PendingCallGroup& calls, const QString& tag) = 0;
    // Tells the assignment service that the device was claimed for :displayId,
    // without waiting for its answer.
    virtual void reportClaim(const QString& deviceFileName, int displayId, DeviceKind kind) = 0;
    // The language with this id, or null.
    virtual const TranslationLanguage* findLanguage(const QString& id) const = 0;

protected:
    PlatformServices() = default;
    PlatformServices(const PlatformServices&) = default;
    PlatformServices& operator=(const PlatformServices&) = default;
};
