#pragma once

#include "keys/KeyEngine.h"
#include "sequences/CommandScheduler.h"

#include <QHash>
#include <QObject>
#include <QString>
#include <QVector>

#include <map>

class EventDevice;
class KeySequence;

// Owns the devices assigned to stations, the variables each device gives its commands
// ("station_id") and the key sequences of the key configuration file. The key engine matches
// the sequences on every device's records; a command whose keys have all been released again
// goes to the command scheduler, which runs it without holding the daemon.
//
// Owned by the central object; every method runs on the main thread.
class AssignedDeviceHandler : public QObject
{
    Q_OBJECT

public:
    explicit AssignedDeviceHandler(QString configFileName);
    ~AssignedDeviceHandler() override;

    // Reads the key sequences of the file in place of the current ones; of the commands still
    // waiting for their keys to be released, or waiting behind their station's running
    // command, only those whose line the file still has stay. False, with everything kept,
    // when the file cannot be opened.
    bool parseConfigFile(QString configFileName);
    // parseConfigFile(), and a warning when the running configuration is kept.
    void reloadConfigFile(QString configFileName);

    // Opens the device (unless it is already assigned) and sets its
    // "station_id". False when the device could not be used or is
    // assigned under another name (which is then left as it is).
    bool addAssignedDevice(QString deviceFileName, int stationId);
    void removeAssignedDevice(QString deviceFileName);
    EventDevice* getEventDevice(QString deviceFileName);
    // The variables of the assigned device, as its commands get them; empty for a device that
    // is not assigned.
    QHash<QString, QString> getDeviceVariables(QString deviceFileName) const;

    // One pass: read every device, act on what its keys did, drop the unplugged ones.
    void update();
    // The daemon is ending: the commands not started yet are dropped.
    void dropWaitingCommandsAtExit();

    CommandScheduler& getCommandScheduler() { return scheduler; }
    void logStatus();

Q_SIGNALS:
    void assignedDevicesChanged();
    // update() has work: a device took new records.
    void updateWanted();

private:
    void carryOverWaitingCommands(const QVector<KeySequence*>& sequences);
    void runCommand(const EventDevice* device, const KeySequence* sequence);

    QVector<EventDevice*> assignedDevices;
    std::map<const EventDevice*, QHash<QString, QString>> deviceVariables;
    QVector<KeySequence*> keySequences;
    KeyEngine engine;
    CommandScheduler scheduler;
};
