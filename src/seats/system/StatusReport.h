#pragma once

#include "seats/system/SystemSnapshot.h"

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

// What `--status` prints: the seats with their stations and displays, every
// keyboard and mouse with its port, name and seat, and for each graphics card
// not on a seat yet the command that makes a new seat of it.
//
// Made by main() for one --status run from a snapshot it owns; one thread only.
class StatusReport
{
public:
    // A seat's station as the bridge keeps it.
    struct Station
    {
        int number = -1;
        QString display; // ":N", empty when the station has none
    };

    // `stations` maps a seat's name to its station; seats missing from it
    // have none.
    StatusReport(const SystemSnapshot& snapshot, const QMap<QString, Station>& stations);

    // The report as columns of text for a person, ending with a newline.
    QString table() const;

    // The same as a JSON document. Every object's keys come in alphabetical
    // order (QJsonObject's), so the output is stable:
    // {
    //   "devices": [{"keyboard": true, "mouse": false, "name": "QEMU USB Keyboard",
    //                "node": "/dev/input/event3", "port": "/sys/devices/.../usb1/1-1",
    //                "seat": "seat1", "syspath": "/sys/devices/.../input/input4/event3"}],
    //   "newSeats": [{"card": "/sys/devices/.../drm/card1", "command":
    //                 "loginctl attach seat1 /sys/devices/.../drm/card1", "seat": "seat1"}],
    //   "seats": [{"canGraphical": true, "display": ":0", "name": "seat0",
    //              "sessionType": "x11", "station": 0}]
    // }
    // "seat" is "" for a device no rule gave a seat, "display" "" and
    // "station" null for a seat without them. Arrays in the table's order.
    QByteArray json() const;

    // For each graphics card not on a seat yet, the command that attaches it
    // to a new seat ("loginctl attach seatN <syspath>"), with the lowest seat
    // names not taken. A card is on no seat when it can make one
    // (master-of-seat) and no rule gave it a seat, except the first such card
    // (by number) while no card names seat0: that one is seat0's.
    QStringList attachCommands() const;

private:
    struct NewSeat
    {
        QString seat;
        QString card;
    };
    QVector<NewSeat> newSeats() const;

    QVector<SeatInfo> seats;
    QVector<InputDeviceInfo> devices;
    QVector<GraphicsCardInfo> cards;
    QMap<QString, Station> stations;
};
