#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// One step of the soak test's walk, and its line in a replay file:
//
//     call configureKeyboard x1 14      a D-Bus method of the daemon; devices are
//     call unassignedDeviceAdded dev2   slots (dev0-dev5) or literal paths
//     call deviceRemovedFromStation path=%2Fdev%2Fnull   (percent-encoded, may be empty),
//                                       displays are the stations' servers (x0-x2),
//                                       "none" (no server) or a number
//     wrongtype configurationComplete   the method called with wrongly typed arguments
//     plug dev3 / unplug dev3           a device's node appears or goes
//     press dev0 KEY_F3 / release dev0 KEY_F3
//     kill x2 / restart x2              a station's X server
//     pause 300                         milliseconds
struct SoakStep
{
    enum Kind
    {
        Call,
        WrongType,
        Plug,
        Unplug,
        Press,
        Release,
        Kill,
        Restart,
        Pause
    };

    Kind kind = Pause;
    QString method;    // Call, WrongType
    QString device;    // "dev<N>" or "path=<encoded>"
    QString display;   // "x<N>", "none" or a number
    qint64 number = 0; // station of a call, milliseconds of a pause
    QString key;       // Press, Release

    // The slot of a "dev<N>" device, -1 for a literal path.
    int slot() const;
    // The literal path of a "path=" device.
    QString literalPath() const;
    // The server index of "x<N>", -1 otherwise.
    int server() const;

    QString toLine() const;
    // Parses one line; false when it is not a step.
    static bool fromLine(const QString& line, SoakStep& step);

    static QString deviceToken(int slot);
    static QString pathToken(const QString& path);
};

// A replay file: one step per line; blank lines and "#" comments are skipped.
bool readSteps(const QString& fileName, QList<SoakStep>& steps, QString& error);
bool writeSteps(const QString& fileName, const QList<SoakStep>& steps, const QString& header);
