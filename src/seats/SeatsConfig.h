#pragma once

#include <QMap>
#include <QString>

// The administrator's settings of the room, from a small text file
// (/etc/orvanta/seats.conf in the installed program):
//
//     # The room, as the prompts show it
//     name = Library
//     location = First floor, west wing
//     # seat1's prompts go to the X server on :3, whatever session runs there
//     display seat1 = :3
//
// Blank lines and lines that start with "#" are skipped. The name and the
// location are the room's, not a station's: the daemon's StationGetTag names
// no station, so every station shows them. A line that is none of the above,
// names no valid seat or X display, or repeats a setting, is ignored with one
// Warning naming the file and line. A missing file is an empty configuration.
//
// Plain value class; used on the main thread.
class SeatsConfig
{
public:
    explicit SeatsConfig(QString file = QString());

    // Replaces the settings with the file's; false (logged) when the file
    // exists but cannot be read, which leaves the settings empty.
    bool load();

    QString getName() const { return name; }
    QString getLocation() const { return location; }
    // The answer to StationGetTag: the name for "name", the location for
    // "location", empty for any other tag.
    QString tag(const QString& tagName) const;
    // The X display number the file names for the seat, or -1.
    int displayOf(const QString& seat) const { return displays.value(seat, -1); }
    const QMap<QString, int>& getDisplays() const { return displays; }

    // The number N of a local X display name ":N" or ":N.S"; -1 for anything
    // else (a host part, a number above maxDisplay, no colon).
    static int displayNumber(const QString& displayName);
    static constexpr int maxDisplay = 32767;

private:
    // Why the line is ignored; empty when it was taken.
    QString take(const QString& line);

    QString fileName;
    QString name;
    QString location;
    bool hasName = false;
    bool hasLocation = false;
    QMap<QString, int> displays;
};
