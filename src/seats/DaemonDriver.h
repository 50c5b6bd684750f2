#pragma once

#include "seats/ClaimCheck.h"
#include "seats/DaemonCall.h"
#include "seats/DaemonMirror.h"

#include <QMap>
#include <QString>

#include <optional>

class Room;
struct RoomDevice;
struct Station;

// A claimed device's port, to be attached to the station's seat with logind.
struct AttachRequest
{
    QString devicePath;
    QString port;
    QString seat;
    int station = -1;
};

// What a claim led to: whether it was accepted (then `attach` says what to
// attach) and the calls to make to the daemon now.
struct ClaimOutcome
{
    bool accepted = false;
    AttachRequest attach;
    DaemonCalls calls;
};

// Plays the platform's part towards the daemon: given the room after each
// change, it returns the calls that bring the daemon in line with it, in the
// order they are to be made. It keeps a mirror of what the daemon was told.
//
// Devices: one the daemon does not know yet is announced with
// deviceAddedToStation or unassignedDeviceAdded; one that leaves the
// unassigned set without a claim (gone, or given a seat by a rule) gets
// unassignedDeviceRemoved, one that leaves a station deviceRemovedFromStation,
// before anything else, so that no key of it reaches a prompt or a command it
// no longer belongs to. Then announcements (stations' devices first), then
// the prompts, station by station in number order:
// - a station without a keyboard: configureKeyboard;
// - with a keyboard but no mouse: one configureMouse for that step (from the
//   keyboard step, the configuration is completed and made again, so that the
//   keyboard's key no longer claims for this display);
// - with both, or no display any more: configurationComplete; a display that
//   holds the mouse button is first sent back to the keyboard step, which
//   makes the daemon hand the button to the next display waiting for it.
// A station is left alone while a claim for it is being attached or waits
// for its retry. The daemon expects configureMouse after its own keyboard
// step; where a station got its keyboard otherwise (a reboot, loginctl
// attach, a port), the daemon notes the unexpected state at Bug level and
// goes on, as nothing else leads to the mouse step.
//
// Claims: an accepted claim returns the port to attach; the caller reports
// the result with attachSucceeded() (after the room shows the device's
// ID_SEAT; until it does, the driver counts the device as the station's) or
// attachFailed(), which logs one Error and, retryDelayMs later, lets the
// device be announced again and the prompt put back. Time is the caller's
// monotonic clock in milliseconds; the driver reads none.
//
// Used on the main thread.
class DaemonDriver
{
public:
    static constexpr qint64 retryDelayMs = 300;

    // The calls that bring the daemon in line with the room.
    DaemonCalls reconcile(const Room& room, qint64 nowMs);
    // The daemon (re)started and knows nothing: the whole state again.
    DaemonCalls resendAll(const Room& room, qint64 nowMs);
    // A DeviceAssignedAuto from the daemon; fromOwner tells whether its sender
    // owns com.orvanta.selvane. A refused claim is logged as one Warning.
    ClaimOutcome claim(const Room& room, const Claim& claim, bool fromOwner, qint64 nowMs);
    DaemonCalls attachSucceeded(const Room& room, const QString& devicePath, qint64 nowMs);
    // `step` names what failed, e.g. "AttachDevice: Access denied".
    DaemonCalls attachFailed(const Room& room, const QString& devicePath, const QString& step,
                             qint64 nowMs);
    // When reconcile() is next due for a retry, if any retry waits.
    std::optional<qint64> nextRetryDue() const;
    bool isAttaching(const QString& devicePath) const;

    const DaemonMirror& getMirror() const { return mirror; }

private:
    enum class Step
    {
        Keyboard,
        Mouse,
        Complete
    };

    struct PendingClaim
    {
        AttachRequest attach;
        int displayId;
        bool keyboard;
        // Set once the attach failed: when the device is announced again.
        std::optional<qint64> retryDue;
    };

    void send(DaemonCalls& calls, const DaemonCall& call);
    void forgetStaleClaims(const Room& room, qint64 nowMs);
    int stationOf(const RoomDevice& device) const;
    Step stepOf(const Room& room, const Station& station) const;
    bool isHeld(int station) const;
    void removeDevices(const Room& room, DaemonCalls& calls);
    void announceDevices(const Room& room, DaemonCalls& calls);
    void retireDisplays(const Room& room, DaemonCalls& calls);
    void driveStations(const Room& room, DaemonCalls& calls);

    DaemonMirror mirror;
    QMap<QString, PendingClaim> pendingClaims;
    // Devices attached to a station whose ID_SEAT the room has not shown yet.
    QMap<QString, int> attachedStations;
};
