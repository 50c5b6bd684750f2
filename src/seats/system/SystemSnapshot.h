#pragma once

#include <QString>
#include <QVector>

#include <sys/types.h>

// What logind and udev tell of the room at one moment, as plain values: the
// adapters (logind, udev) fill them, the model reads them. Nothing here holds
// a connection or a handle.

// One logind seat.
struct SeatInfo
{
    // logind's name ("seat0", "seat1").
    QString name;
    // logind's CanGraphical: the seat has a graphics card and so is a station.
    bool canGraphical = false;
    // The seat's active session, if any: its X display (":N", empty for none
    // or for Wayland), its Type ("x11", "wayland", "tty"...), its Class
    // ("user", "greeter") and its user's uid (-1 when none).
    QString sessionDisplay;
    QString sessionType;
    QString sessionClass;
    qint64 sessionUid = -1;
};

// One keyboard or mouse event node as udev sees it.
struct InputDeviceInfo
{
    // "/dev/input/eventN".
    QString devnode;
    // "/sys/devices/.../input/inputN/eventN".
    QString syspath;
    // The device's name (udev's NAME without quotes, or the parent's "name").
    QString name;
    bool keyboard = false; // ID_INPUT_KEYBOARD=1
    bool mouse = false;    // ID_INPUT_MOUSE=1
    // ID_FOR_SEAT: set when logind can attach the device (it has an ID_PATH).
    QString forSeat;
    // ID_SEAT as the rules left it; empty when no rule gave it a seat.
    QString seat;
    // What logind's AttachDevice is given for the device: the syspath of the
    // nearest USB device ancestor (a file idVendor in it), so that another
    // device plugged into the same port gets the same seat; without one, the
    // event node's inputN parent.
    QString port;
    // The port's own ID_FOR_SEAT: the tag of the rule logind writes when the
    // port is attached (72-seat-<tag>.rules); empty when it has none.
    QString portForSeat;
};

// One graphics card (drm "cardN", not its connectors).
struct GraphicsCardInfo
{
    QString syspath;
    // ID_SEAT, empty for seat0 by default.
    QString seat;
    // The card carries the master-of-seat tag (it can make a seat).
    bool masterOfSeat = false;
    // ID_FOR_SEAT: the tag of the rule logind writes when the card is attached.
    QString forSeat;
};

struct SystemSnapshot
{
    QVector<SeatInfo> seats;
    QVector<InputDeviceInfo> inputDevices;
    QVector<GraphicsCardInfo> graphicsCards;
};
