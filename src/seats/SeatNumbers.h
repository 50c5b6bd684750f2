#pragma once

#include <QMap>
#include <QString>

// The station number of every seat ever seen, kept in a state file so that a
// seat's F-key and STATION_ID never move: "seat0" is 0, every other seat gets
// the lowest number >= 1 that no seat has, once, when it is first seen, and
// keeps it even while it is gone.
//
// The file holds one "SEAT NUMBER" per line; "#" starts a comment. A missing
// file is an empty record. A line that is not valid (not two fields, a name
// that is no logind seat name, a number that is not a decimal in range, seat0
// with another number than 0 or another seat with 0, a seat or a number that
// an earlier line has) is left out with one Warning naming the file and line.
// save() writes the whole record through a temporary file and a rename, and
// only when the record changed since it was loaded or last saved.
//
// Plain value class; used on the main thread.
class SeatNumbers
{
public:
    // The highest number a seat can get; higher numbers in the file are
    // corrupt. The daemon has assignment keys for stations 0 to 47 only.
    static constexpr int maxNumber = 9999;

    explicit SeatNumbers(QString file);

    // Replaces the record with the file's content; false (logged) when the
    // file exists but cannot be read. A missing file gives an empty record.
    bool load();
    // Writes the record when it changed; true when the file is up to date.
    // After a failed load() nothing is written (false): the numbers in the
    // unreadable file are still the seats' and must not be overwritten.
    bool save();

    // The seat's number, given now if the seat has none; -1 (logged) for a
    // name that is no seat name or when every number up to maxNumber is taken.
    int numberOf(const QString& seat);
    // The seat's number, or -1 when it has none.
    int find(const QString& seat) const;
    bool isChanged() const { return changed; }
    const QMap<QString, int>& getNumbers() const { return numbers; }

    // A name as logind makes seat names: letters, digits, "_" and "-".
    static bool isSeatName(const QString& name);

private:
    QString stateFile;
    QMap<QString, int> numbers;
    bool changed = false;
    bool unreadable = false;
};
