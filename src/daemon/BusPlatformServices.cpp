#include "daemon/BusPlatformServices.h"

#include "common/PendingCallGroup.h"
#include "daemon/DBusInterface.h"
#include "daemon/Selvane.h"

BusPlatformServices::BusPlatformServices(DBusInterface& dbusInterface, const Selvane& centralObject)
    : dbus(dbusInterface), central(centralObject)
{
}

int BusPlatformServices::askLocale(Orvanta::PendingCallGroup& calls, int displayId)
{
    return calls.send(*dbus.getSessionControllerInterface(),
                      QStringLiteral("GetLocaleForUserOnDisplay"), {displayId});
}

int BusPlatformServices::askAssignedCount(Orvanta::PendingCallGroup& calls, DeviceKind kind)
{
    return calls.send(*dbus.getDatabaseInterface(),
                      kind == DeviceKind::KEYBOARD
                          ? QStringLiteral("DeviceGetNumberOfAssignedKeyboards")
                          : QStringLiteral("DeviceGetNumberOfAssignedMice"));
}

int BusPlatformServices::askUnassignedCount(Orvanta::PendingCallGroup& calls, DeviceKind kind)
{
    return calls.send(*dbus.getDatabaseInterface(),
                      kind == DeviceKind::KEYBOARD
                          ? QStringLiteral("DeviceGetNumberOfUnassignedKeyboards")
                          : QStringLiteral("DeviceGetNumberOfUnassignedMice"));
}

int BusPlatformServices::askStationTag(Orvanta::PendingCallGroup& calls, const QString& tag)
{
    return calls.send(*dbus.getDatabaseInterface(), QStringLiteral("StationGetTag"), {tag});
}

void BusPlatformServices::reportClaim(const QString& deviceFileName, int displayId, DeviceKind kind)
{
    // The platform's answer is never needed: the claim stands regardless.
    dbus.getAssignmentInterface()->call(
        QDBus::NoBlock, QStringLiteral("DeviceAssignedAuto"), deviceFileName, displayId,
        kind == DeviceKind::KEYBOARD ? QStringLiteral("KeyboardDevice")
                                     : QStringLiteral("MouseDevice"));
}

const TranslationLanguage* BusPlatformServices::findLanguage(const QString& id) const
{
    return central.getLanguage(id);
}
