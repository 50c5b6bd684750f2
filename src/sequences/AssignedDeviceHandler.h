#pragma once

#include <QObject>
#include <QString>
#include <QVector>

class EventDevice;
class KeySequence;
class SystemCommandAction;
class TriggeredAction;

// Owns the devices assigned to stations and the key sequences of the key
// configuration file. After each key event of a device it tests every
// sequence; a matched command runs once every key of that device is up again.
//
// Owned by the central object; every method runs on the main thread.
class AssignedDeviceHandler : public QObject
{
    Q_OBJECT

public:
    explicit AssignedDeviceHandler(QString configFileName);
    ~AssignedDeviceHandler() override;

    // Reads the key sequences of the file in place of the current ones; of the
    // commands still waiting for their keys to be released, only those whose
    // line the file still has stay. False, with everything kept, when the
    // file cannot be opened.
    bool parseConfigFile(QString configFileName);
    // parseConfigFile(), and a warning when the running configuration is kept.
    void reloadConfigFile(QString configFileName);

    // Opens the device (unless it is already assigned) and sets its
    // "station_id". False when the device could not be used or is
    // assigned under another name (which is then left as it is).
    bool addAssignedDevice(QString deviceFileName, int stationId);
    void removeAssignedDevice(QString deviceFileName);
    EventDevice* getEventDevice(QString deviceFileName);

    // One pass: read every device, drop the unplugged ones.
    void update();

    void actionTriggered(const SystemCommandAction* action, const EventDevice* device);
    void deleteTriggeredAction(const EventDevice* device);
    void logStatus();

public Q_SLOTS:
    void keymapChanged(const EventDevice* device);

Q_SIGNALS:
    void assignedDevicesChanged();
    // update() has work: a device took new records.
    void updateWanted();

private:
    void carryOverTriggeredActions(const QVector<KeySequence*>& sequences);

    QVector<EventDevice*> assignedDevices;
    QVector<KeySequence*> keySequences;
    QVector<TriggeredAction*> triggeredActions;
};
