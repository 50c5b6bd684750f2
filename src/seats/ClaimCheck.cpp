#include "seats/ClaimCheck.h"

#include "seats/DaemonMirror.h"
#include "seats/Room.h"

QString Claim::toString() const
{
    return QStringLiteral("DeviceAssignedAuto(%1, %2, %3)")
        .arg(devicePath)
        .arg(displayId)
        .arg(type);
}

QString ClaimCheck::problemOf(const Room& room, const DaemonMirror& mirror, const Claim& claim,
                              bool fromOwner)
{
    if (!fromOwner) {
        return QStringLiteral("the sender does not own com.orvanta.selvane");
    }
    if (!claim.isKeyboard() && !claim.isMouse()) {
        return QStringLiteral("the type is neither KeyboardDevice nor MouseDevice");
    }
    if (!mirror.isUnassigned(claim.devicePath)) {
        return QStringLiteral("the device was not announced as unassigned");
    }
    const RoomDevice* device = room.findDevice(claim.devicePath);
    if (!device || device->isAssigned()) {
        return QStringLiteral("the device is no unassigned keyboard or mouse any more");
    }
    if (claim.isKeyboard() ? !device->keyboard : !device->mouse) {
        return claim.isKeyboard() ? QStringLiteral("the device is no keyboard")
                                  : QStringLiteral("the device is no mouse");
    }
    if (device->port.isEmpty()) {
        return QStringLiteral("the device has no port that logind could attach");
    }
    const Station* station = room.findStationOnDisplay(claim.displayId);
    if (!station) {
        return QStringLiteral("display :%1 is no station's").arg(claim.displayId);
    }
    const DaemonMirror::Display* display = mirror.findDisplay(claim.displayId);
    if (!display || display->stationId != station->number) {
        return QStringLiteral("display :%1 shows no prompt of station %2")
            .arg(claim.displayId)
            .arg(station->number);
    }
    const DaemonMirror::DisplayState waiting = claim.isKeyboard()
                                                   ? DaemonMirror::DisplayState::ConfiguringKeyboard
                                                   : DaemonMirror::DisplayState::ConfiguringMouse;
    if (display->state != waiting) {
        return QStringLiteral("display :%1 is at %2, not at %3")
            .arg(claim.displayId)
            .arg(DaemonMirror::stateToString(display->state), DaemonMirror::stateToString(waiting));
    }
    return QString();
}
