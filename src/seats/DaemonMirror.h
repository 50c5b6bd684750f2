#pragma once

#include "seats/DaemonCall.h"

#include <QMap>
#include <QString>
#include <QVector>

// What the daemon holds, as far as the calls made to it and the claims it
// sent tell: which devices it was told of, and its display configurations
// with their states and the one mouse button they share. It follows the
// daemon's own rules, so that the bridge knows, for example, which display
// waits for the click after a mouse was claimed elsewhere:
//
// - configureKeyboard makes or reuses the display's configuration and puts it
//   in ConfiguringKeyboard; from ConfiguringMouse it first gives the button up.
// - configureMouse puts it in ConfiguringMouse when the button is free (which
//   then makes it busy), else in MouseBusy.
// - A mouse claimed (or a mouse step given up) frees the button, and the first
//   configuration made that is MouseBusy gets it.
// - configurationComplete drops the configuration and leaves the button as it
//   is: completing one in ConfiguringMouse would leave the button busy for
//   good, which the driver never does.
//
// Plain value class; used on the main thread.
class DaemonMirror
{
public:
    enum class DisplayState
    {
        ConfiguringKeyboard,
        KeyboardConfigured,
        MouseBusy,
        ConfiguringMouse,
        MouseConfigured
    };
    static QString stateToString(DisplayState state);

    struct Display
    {
        int displayId;
        int stationId;
        DisplayState state;
    };

    // The daemon after a start: nothing known, the button free.
    void clear();
    // Follows one call as the daemon carries it out.
    void apply(const DaemonCall& call);
    // The daemon's own steps when a key or click claimed a device at a display:
    // the device leaves its unassigned set, and the display moves on when it
    // was in the matching state.
    void keyboardClaimed(const QString& devicePath, int displayId);
    void mouseClaimed(const QString& devicePath, int displayId);

    bool isUnassigned(const QString& devicePath) const;
    // The station the daemon was told the device is on, or -1.
    int stationOf(const QString& devicePath) const;
    // Every device the daemon was told of, by path: its station, or -1 for
    // an unassigned one.
    const QMap<QString, int>& getDevices() const { return devices; }
    const Display* findDisplay(int displayId) const;
    // In the order the daemon made them.
    const QVector<Display>& getDisplays() const { return displays; }
    bool isMouseBusy() const { return mouseBusy; }

private:
    Display& displayFor(int displayId, int stationId);
    void dropUnassigned(const QString& devicePath);
    void handOnMouseButton();

    QMap<QString, int> devices;
    QVector<Display> displays;
    bool mouseBusy = false;
};
