#include "seats/DaemonDriver.h"

#include "common/Logger.h"
#include "seats/Room.h"

#include <algorithm>

static constexpr char logSource[] = "DaemonDriver";

using DisplayState = DaemonMirror::DisplayState;

DaemonCalls DaemonDriver::reconcile(const Room& room, qint64 nowMs)
{
    forgetStaleClaims(room, nowMs);
    DaemonCalls calls;
    removeDevices(room, calls);
    announceDevices(room, calls);
    retireDisplays(room, calls);
    driveStations(room, calls);
    return calls;
}

DaemonCalls DaemonDriver::resendAll(const Room& room, qint64 nowMs)
{
    SELVANE_LOG(LEVEL_INFO, "The daemon started: it is told the whole room again");
    mirror.clear();
    return reconcile(room, nowMs);
}

ClaimOutcome DaemonDriver::claim(const Room& room, const Claim& claim, bool fromOwner, qint64 nowMs)
{
    ClaimOutcome outcome;
    const QString problem = ClaimCheck::problemOf(room, mirror, claim, fromOwner);
    // The daemon took its own steps before it sent the claim, accepted or not:
    // the device left its unassigned set and the prompt moved on. A refused
    // device is thus announced again below.
    if (fromOwner && claim.isKeyboard()) {
        mirror.keyboardClaimed(claim.devicePath, claim.displayId);
    } else if (fromOwner && claim.isMouse()) {
        mirror.mouseClaimed(claim.devicePath, claim.displayId);
    }
    if (!problem.isEmpty()) {
        SELVANE_LOG(LEVEL_WARNING, "Ignoring " + claim.toString() + ": " + problem);
        outcome.calls = reconcile(room, nowMs);
        return outcome;
    }
    const RoomDevice* device = room.findDevice(claim.devicePath);
    const Station* station = room.findStationOnDisplay(claim.displayId);
    const AttachRequest attach{claim.devicePath, device->port, station->seat, station->number};
    pendingClaims.insert(claim.devicePath,
                         {attach, claim.displayId, claim.isKeyboard(), std::nullopt});
    SELVANE_LOG(LEVEL_INFO,
                QStringLiteral("%1 claimed as the %2 of station %3 on display :%4: "
                               "attaching its port %5 to %6")
                    .arg(claim.devicePath,
                         claim.isKeyboard() ? QStringLiteral("keyboard") : QStringLiteral("mouse"))
                    .arg(station->number)
                    .arg(claim.displayId)
                    .arg(attach.port, attach.seat));
    outcome.accepted = true;
    outcome.attach = attach;
    outcome.calls = reconcile(room, nowMs);
    return outcome;
}

DaemonCalls DaemonDriver::attachSucceeded(const Room& room, const QString& devicePath, qint64 nowMs)
{
    const auto pending = pendingClaims.constFind(devicePath);
    if (pending == pendingClaims.cend() || pending->retryDue) {
        SELVANE_LOG(LEVEL_INFO, "The attach of " + devicePath + " is not waited for any more");
        return reconcile(room, nowMs);
    }
    SELVANE_LOG(LEVEL_INFO, QStringLiteral("%1 is on %2 now (station %3)")
                                .arg(devicePath, pending->attach.seat)
                                .arg(pending->attach.station));
    attachedStations.insert(devicePath, pending->attach.station);
    pendingClaims.erase(pending);
    return reconcile(room, nowMs);
}

DaemonCalls DaemonDriver::attachFailed(const Room& room, const QString& devicePath,
                                       const QString& step, qint64 nowMs)
{
    const auto pending = pendingClaims.find(devicePath);
    if (pending == pendingClaims.end() || pending->retryDue) {
        SELVANE_LOG(LEVEL_INFO, "The attach of " + devicePath + " is not waited for any more");
        return reconcile(room, nowMs);
    }
    SELVANE_LOG(LEVEL_ERROR,
                QStringLiteral("Could not attach %1 to %2 (station %3): %4; it is announced "
                               "again in %5 ms")
                    .arg(devicePath, pending->attach.seat)
                    .arg(pending->attach.station)
                    .arg(step)
                    .arg(retryDelayMs));
    pending->retryDue = nowMs + retryDelayMs;
    return reconcile(room, nowMs);
}

std::optional<qint64> DaemonDriver::nextRetryDue() const
{
    std::optional<qint64> due;
    for (const PendingClaim& pending : pendingClaims) {
        if (pending.retryDue && (!due || *pending.retryDue < *due)) {
            due = pending.retryDue;
        }
    }
    return due;
}

bool DaemonDriver::isAttaching(const QString& devicePath) const
{
    const auto pending = pendingClaims.constFind(devicePath);
    return pending != pendingClaims.cend() && !pending->retryDue;
}

void DaemonDriver::send(DaemonCalls& calls, const DaemonCall& call)
{
    calls.append(call);
    mirror.apply(call);
}

void DaemonDriver::forgetStaleClaims(const Room& room, qint64 nowMs)
{
    for (auto it = pendingClaims.begin(); it != pendingClaims.end();) {
        if (!room.findDevice(it.key())) {
            SELVANE_LOG(LEVEL_INFO, it.key() + " is gone while it was claimed");
            it = pendingClaims.erase(it);
        } else if (it->retryDue && *it->retryDue <= nowMs) {
            SELVANE_LOG(LEVEL_INFO, it.key() + " is announced again after its failed attach");
            it = pendingClaims.erase(it);
        } else {
            ++it;
        }
    }
    // Once the room shows a seat for an attached device (or the device or its
    // station is gone), the room is right again.
    for (auto it = attachedStations.begin(); it != attachedStations.end();) {
        const RoomDevice* device = room.findDevice(it.key());
        if (!device || device->isAssigned() || !room.findStation(it.value())) {
            it = attachedStations.erase(it);
        } else {
            ++it;
        }
    }
}

int DaemonDriver::stationOf(const RoomDevice& device) const
{
    return device.isAssigned() ? device.station : attachedStations.value(device.path, -1);
}

DaemonDriver::Step DaemonDriver::stepOf(const Room& room, const Station& station) const
{
    bool keyboard = false;
    bool mouse = false;
    for (const RoomDevice& device : room.getDevices()) {
        if (stationOf(device) == station.number) {
            keyboard = keyboard || device.keyboard;
            mouse = mouse || device.mouse;
        }
    }
    if (!keyboard) {
        return Step::Keyboard;
    }
    return mouse ? Step::Complete : Step::Mouse;
}

bool DaemonDriver::isHeld(int station) const
{
    return std::any_of(
        pendingClaims.cbegin(), pendingClaims.cend(),
        [station](const PendingClaim& pending) { return pending.attach.station == station; });
}

void DaemonDriver::removeDevices(const Room& room, DaemonCalls& calls)
{
    const QMap<QString, int> told = mirror.getDevices();
    for (auto it = told.cbegin(); it != told.cend(); ++it) {
        const RoomDevice* device = room.findDevice(it.key());
        if (device && stationOf(*device) == it.value()) {
            continue;
        }
        send(calls, it.value() < 0 ? DaemonCall::unassignedDeviceRemoved(it.key())
                                   : DaemonCall::deviceRemovedFromStation(it.key()));
    }
}

void DaemonDriver::announceDevices(const Room& room, DaemonCalls& calls)
{
    const auto unknown = [this](const RoomDevice& device) {
        return !mirror.getDevices().contains(device.path) && !pendingClaims.contains(device.path);
    };
    for (const RoomDevice& device : room.getDevices()) {
        const int station = stationOf(device);
        if (station >= 0 && unknown(device)) {
            send(calls, DaemonCall::deviceAddedToStation(device.path, station));
        }
    }
    for (const RoomDevice& device : room.getDevices()) {
        if (stationOf(device) < 0 && unknown(device)) {
            send(calls, DaemonCall::unassignedDeviceAdded(device.path));
        }
    }
}

void DaemonDriver::retireDisplays(const Room& room, DaemonCalls& calls)
{
    const QVector<DaemonMirror::Display> displays = mirror.getDisplays();
    for (const DaemonMirror::Display& display : displays) {
        const Station* station = room.findStation(display.stationId);
        if (station && station->displayId == display.displayId &&
            (isHeld(station->number) || stepOf(room, *station) != Step::Complete)) {
            continue;
        }
        // Completing a display that holds the mouse button would leave the
        // button busy for good; back at the keyboard step it is handed on.
        if (display.state == DisplayState::ConfiguringMouse) {
            send(calls, DaemonCall::configureKeyboard(display.displayId, display.stationId));
        }
        send(calls, DaemonCall::configurationComplete(display.displayId));
    }
}

void DaemonDriver::driveStations(const Room& room, DaemonCalls& calls)
{
    for (const Station& station : room.getStations()) {
        if (station.displayId < 0 || isHeld(station.number)) {
            continue;
        }
        const DaemonMirror::Display* shown = mirror.findDisplay(station.displayId);
        const std::optional<DisplayState> state =
            shown ? std::optional<DisplayState>(shown->state) : std::nullopt;
        switch (stepOf(room, station)) {
        case Step::Keyboard:
            if (state != DisplayState::ConfiguringKeyboard) {
                send(calls, DaemonCall::configureKeyboard(station.displayId, station.number));
            }
            break;
        case Step::Mouse:
            if (state == DisplayState::MouseBusy || state == DisplayState::ConfiguringMouse) {
                break;
            }
            // A display at the keyboard step keeps its key armed; made anew, it has none.
            if (state == DisplayState::ConfiguringKeyboard) {
                send(calls, DaemonCall::configurationComplete(station.displayId));
            }
            send(calls, DaemonCall::configureMouse(station.displayId, station.number));
            break;
        case Step::Complete:
            break;
        }
    }
}
