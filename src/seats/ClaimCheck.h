#pragma once

#include <QString>

class DaemonMirror;
class Room;

// A device claimed on the daemon's prompt: what its DeviceAssignedAuto says.
struct Claim
{
    QString devicePath;
    // The X display number of the prompt where the key or click came.
    int displayId = -1;
    // "KeyboardDevice" for the keyboard step's key, "MouseDevice" for the click.
    QString type;

    bool isKeyboard() const { return type == QLatin1String("KeyboardDevice"); }
    bool isMouse() const { return type == QLatin1String("MouseDevice"); }
    // "DeviceAssignedAuto(/dev/input/event5, 1, KeyboardDevice)", for the log.
    QString toString() const;
};

// Whether the bridge acts on a claim. It does only when the claim comes from
// the owner of the daemon's bus name (anyone else on the bus could otherwise
// move devices between seats), names a device the daemon was told is
// unassigned, is of the claimed type (a mouse is never taken as a station's
// keyboard) and can be attached by a port, and names a station's display that
// waits for that type of device: the keyboard step for a keyboard, the mouse
// step for a mouse.
//
// A value the bridge makes for each claim on its main thread; it holds no state of its own.
class ClaimCheck
{
public:
    // Why the claim is refused; empty when it is accepted.
    static QString problemOf(const Room& room, const DaemonMirror& mirror, const Claim& claim,
                             bool fromOwner);
};
