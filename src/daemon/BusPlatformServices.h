#pragma once

#include "assignment/PlatformServices.h"

class DBusInterface;
class Selvane;

// The platform's services as the daemon reaches them: the proxies of its D-Bus
// interface, and the languages the central object read from the translation
// file. Both outlive it. Owned by the central object; every method runs on the
// main thread.
class BusPlatformServices : public PlatformServices
{
public:
    BusPlatformServices(DBusInterface& dbus, const Selvane& central);

    int askLocale(Orvanta::PendingCallGroup& calls, int displayId) override;
    int askAssignedCount(Orvanta::PendingCallGroup& calls, DeviceKind kind) override;
    int askUnassignedCount(Orvanta::PendingCallGroup& calls, DeviceKind kind) override;
    int askStationTag(Orvanta::PendingCallGroup& calls, const QString& tag) override;
    void reportClaim(const QString& deviceFileName, int displayId, DeviceKind kind) override;
    const TranslationLanguage* findLanguage(const QString& id) const override;

private:
    DBusInterface& dbus;
    const Selvane& central;
};
