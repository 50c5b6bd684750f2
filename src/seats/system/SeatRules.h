#pragma once

#include "seats/system/SystemSnapshot.h"

#include <QString>
#include <QStringList>
#include <QVector>

// logind's rule files: for each device attached with AttachDevice, logind
// writes "72-seat-<tag>.rules" into udev's rules directory, a rule that gives
// the devices whose ID_FOR_SEAT is the tag their seat:
//     TAG=="seat", ENV{ID_FOR_SEAT}=="usb-pci-0000_00_05_0-usb-0_1", ENV{ID_SEAT}="seat1"
// (it keeps one for seat0 too once a device was attached back there).
//
// Releasing a seat removes the rules that give that seat a keyboard's or
// mouse's port, never one that names a graphics card, and has udev evaluate
// the devices again by writing "change" to their sysfs uevent files: port
// first, then the input device and its event node, so that each imports its
// parent's new (empty) seat. udevd re-reads a rules directory it finds
// changed before it handles new uevents, but looks only every few seconds; a
// device it evaluated with the old rule still shows the seat, and the next
// release evaluates it again. Nothing here runs a command.
// Used by the command line, on its main thread.
class SeatRules
{
public:
    // One rule file as logind wrote it.
    struct Rule
    {
        QString fileName; // without the directory
        QString forSeat;  // the ID_FOR_SEAT it matches
        QString seat;     // the ID_SEAT it gives
    };

    struct Release
    {
        QStringList removedFiles; // full paths
        QStringList retriggered;  // syspaths written "change" to, in order
        QStringList errors;       // one line each, empty when all went well
    };

    // The directory logind writes its rules into (/etc/udev/rules.d).
    explicit SeatRules(const QString& rulesDirectory);

    // Every file "72-seat-*.rules" of the directory whose lines all agree on
    // one ID_FOR_SEAT and one ID_SEAT; any other file is not logind's and is
    // left out. Sorted by file name.
    QVector<Rule> rules() const;

    // Removes the rules of `seat` whose tag is the port (or the ID_FOR_SEAT)
    // of one of the snapshot's keyboards or mice and of none of its graphics
    // cards, then re-triggers those devices and every keyboard or mouse that
    // shows the seat though no rule places it. Every step is logged.
    Release release(const QString& seat, const SystemSnapshot& snapshot) const;

private:
    QString directory;
};
