#pragma once

#include "seats/system/SystemSnapshot.h"

#include <QMap>
#include <QPair>
#include <QString>
#include <QVector>

class SeatNumbers;
class SeatsConfig;

// One station: a seat that can show graphics, with its lasting number and
// the X display where its prompts go.
struct Station
{
    QString seat;
    int number = -1;
    // The X display number N of ":N"; -1 when the station gets no prompt.
    int displayId = -1;
    // How the display was found, or why there is none; for the log.
    QString displayReason;
    // The seat's active session: its Type ("x11", "wayland", "tty"; empty for
    // none) and its user's uid (-1 for none), whose language the prompts use.
    QString sessionType;
    qint64 sessionUid = -1;
};

// One keyboard or mouse that logind can attach to a seat.
struct RoomDevice
{
    QString path;
    QString syspath;
    QString name;
    bool keyboard = false;
    bool mouse = false;
    // ID_SEAT, empty when no rule gave the device a seat.
    QString seat;
    // What logind's AttachDevice is given: the nearest USB device ancestor,
    // else the event node's inputN parent; empty when neither is known.
    QString port;
    // The station the device is assigned to; -1 when it is unassigned.
    int station = -1;

    bool isAssigned() const { return station >= 0; }
};

// The answers to the daemon's four count questions.
struct DeviceCounts
{
    int assignedKeyboards = 0;
    int unassignedKeyboards = 0;
    int assignedMice = 0;
    int unassignedMice = 0;
};

// The room as logind and udev last described it, in the bridge's terms.
//
// Stations are the seats with CanGraphical, numbered by SeatNumbers (a seat
// gets its number the first time it is seen as a station; the caller saves
// the numbers after update()). A station's display is the one seats.conf
// names for its seat, else the display ":N" of its active x11 session or
// greeter; a station without one (no session, Wayland, a tty) gets no prompt,
// and the reason is logged at Info once each time it changes. Two stations
// never share a display: the lower number keeps it.
//
// Only input devices with ID_FOR_SEAT that are keyboards or mice count at all
// (the others cannot be attached, so they are left alone). A device is
// assigned when its ID_SEAT names a station's seat, unassigned otherwise.
//
// Used on the main thread.
class Room
{
public:
    Room(SeatNumbers& seatNumbers, const SeatsConfig& seatsConfig);

    void update(const SystemSnapshot& snapshot);

    // Ordered by station number.
    const QVector<Station>& getStations() const { return stations; }
    const Station* findStation(int number) const;
    const Station* findStationOfSeat(const QString& seat) const;
    const Station* findStationOnDisplay(int displayId) const;
    // The counted devices, in the snapshot's order.
    const QVector<RoomDevice>& getDevices() const { return devices; }
    const RoomDevice* findDevice(const QString& path) const;
    DeviceCounts getCounts() const;

    // What AttachDevice is given for an event node: the port udev found, or
    // else the syspath's inputN parent ("/sys/.../input/input7" for
    // "/sys/.../input/input7/event5"); empty when neither is there.
    static QString portOf(const InputDeviceInfo& device);

private:
    void updateStations(const QVector<SeatInfo>& seats);
    void updateDevices(const QVector<InputDeviceInfo>& inputDevices);
    void logDisplayChanges();

    SeatNumbers& numbers;
    const SeatsConfig& config;
    QVector<Station> stations;
    QVector<RoomDevice> devices;
    // Per seat, the display and reason logged last, so that each is told once.
    QMap<QString, QPair<int, QString>> loggedDisplays;
};
