#pragma once

#include "daemon/BusPlatformServices.h"
#include "daemon/DBusInterface.h"

#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

class AssignedDeviceHandler;
class AssignmentHandler;
class TranslationLanguage;

// The daemon's central object. It owns the handlers and the overlay's
// languages, read from the translation file at start, and runs their updates
// on the main thread: the D-Bus queue, then the unassigned devices, then the
// assigned ones.
//
// A repeating 100 ms timer runs the full update, which also drives the
// overlays and the LED rotation. In between, a queued D-Bus call or new key
// records ask for an early update of the input side alone, so that a
// combination's command or an assignment does not wait for the timer. An
// early update runs once the event loop is back at its top (never inside a
// device read or a D-Bus callback), once however many asked for it.
//
// The timer runs only while the assignment handler has work that comes with
// time (AssignmentHandler::needsPeriodicUpdates(): a display configuration,
// a blinking keyboard, an assigned device to drop, a station thread to join).
// Everything else wakes the daemon by itself: devices, remote calls and
// signals through early updates, commands and remote calls' bounds through
// timers of their own. So an idle daemon sleeps. Every update, full or early,
// ends by starting the timer when such work has appeared (a running timer
// keeps its cadence) and stopping it when none is left.
//
// A reload (SIGHUP) is done at the start of the next update, never in the
// middle of one: the log file is reopened and the key configuration file read
// again; devices, LEDs, overlays and the D-Bus service stay as they are.
//
// Made by main() on the main thread, where it lives and where every method
// runs; what runs on the station threads only gets values from it.
class Selvane : public QObject
{
    Q_OBJECT

public:
    // configFile is the key configuration file named on the command line; grabUnassigned
    // has the assignment handler take the unassigned devices while an overlay is drawn.
    explicit Selvane(QString configFile, bool grabUnassigned = false);
    ~Selvane() override;

    // Logs the state of the handlers.
    void logStatus();
    // Asks the next update to reopen the log file and read the key
    // configuration file again; several requests before it make one reload.
    void requestReload();

    AssignmentHandler* getAssignmentHandler() { return assignmentHandler; }
    AssignedDeviceHandler* getAssignedDeviceHandler() { return assignedDeviceHandler; }
    // The language with this id, or null; an unknown id adds no entry.
    TranslationLanguage* getLanguage(QString id) const;
    // The ids of the languages read from the translation file, sorted.
    QStringList getLanguageIds() const;

public Q_SLOTS:
    // The full update, run by the timer.
    void update();

private:
    void requestEarlyUpdate();
    void runEarlyUpdate();
    void reloadIfRequested();
    // Runs the timer while there is periodic work, and only then.
    void scheduleUpdates();

    QString configFileName;
    QTimer timer;
    bool earlyUpdateRequested = false;
    bool reloadRequested = false;
    DBusInterface dbusInterface;
    // What the assignment handler and its displays use of the platform.
    BusPlatformServices platformServices;
    QHash<QString, TranslationLanguage*> languages;
    AssignmentHandler* assignmentHandler = nullptr;
    AssignedDeviceHandler* assignedDeviceHandler = nullptr;
};
