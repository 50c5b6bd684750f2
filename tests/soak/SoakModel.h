#pragma once

#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

// What the daemon is meant to do, written from its documented behaviour and
// nothing else: which devices it holds unassigned and assigned, which display
// configurations exist and what each waits for, which assignment key is bound
// to which display, which "DeviceAssignedAuto" calls and which commands must
// have happened, and which Bug lines it writes on the way. The soak test feeds
// it the same steps as the daemon and compares.
//
// Each operation stands for what the daemon does once the step has settled:
// a D-Bus call is executed at the next update, followed by that update's
// deferred removals; a key is read at an update and a device it claimed is
// dropped at the following one.
class SoakModel
{
public:
    enum State
    {
        Start,
        ConfiguringKeyboard,
        KeyboardConfigured,
        MouseBusy,
        ConfiguringMouse,
        MouseConfigured
    };
    static QString stateName(State state);
    // The keys that can claim a device, in the order the daemon tries them:
    // F1-F12, A-Z, then the left button.
    static const QStringList& assignmentKeys();

    struct Display
    {
        int id = 0;
        int station = 0;
        State state = Start;
        QString key;
    };

    // One key combination of the key configuration file: hold keys, the
    // pressed key and the word its command writes before the station.
    struct Combination
    {
        QStringList holdKeys;
        QString pressKey;
        QString word;
    };

    explicit SoakModel(const QList<Combination>& keyCombinations);

    // Paths whose device can be opened now (its node exists).
    void setPlugged(const QString& path, bool plugged);

    void deviceAddedToStation(const QString& path, int station);
    void deviceRemovedFromStation(const QString& path);
    void unassignedDeviceAdded(const QString& path);
    void unassignedDeviceRemoved(const QString& path);
    void configureKeyboard(int displayId, int station);
    void configureMouse(int displayId, int station);
    void configurationComplete(int displayId);
    // A key record on the device: pressed (1) or released (0).
    void keyEvent(const QString& path, const QString& key, bool pressed);
    // The daemon's next update: devices claimed by an assignment key leave the
    // unassigned set.
    void update();

    const QStringList& unassignedDevices() const { return unassigned; }
    // Assigned devices in the order the daemon holds them.
    QStringList assignedDevices() const;
    int stationOf(const QString& assignedPath) const;
    bool isUnassigned(const QString& path) const { return unassigned.contains(path); }
    bool isAssigned(const QString& path) const { return stationOf(path) != noStation; }
    const QList<Display>& displays() const { return displayList; }
    const Display* display(int displayId) const;
    // The assignment keys bound now, and the display each is bound to.
    const QHash<QString, int>& boundKeys() const { return bindings; }

    // Expected so far, in order: the platform's "DeviceAssignedAuto" records,
    // the commands' output lines and the daemon's Bug messages.
    const QStringList& assignedAutoCalls() const { return autoCalls; }
    const QStringList& commandLines() const { return commands; }
    const QStringList& bugMessages() const { return bugs; }
    // Devices that left the unassigned set while their node still existed:
    // their LEDs must be back as they were. Taken by the caller.
    QStringList takeLeftUnassigned();

    static constexpr int noStation = -2147483647 - 1;

private:
    struct AssignedDevice
    {
        QString path;
        int station = 0;
        QSet<QString> keysDown;
    };
    struct Trigger
    {
        int combination = 0;
        QString path;
    };

    Display* findDisplay(int displayId);
    Display& displayFor(int displayId, int station);
    AssignedDevice* findAssigned(const QString& path);
    void bind(const QString& key, int displayId);
    void assignmentKeyPressed(Display& display, const QString& path);
    void keyboardAssigned(const Display& display, const QString& path);
    void mouseAssigned(const QString& path);
    void removeUnassigned(const QString& path);
    void assignedKeyEvent(AssignedDevice& device, const QString& key, bool pressed);

    QList<Combination> combinations;
    QSet<QString> plugged;
    QStringList unassigned;
    QHash<QString, QSet<QString>> unassignedKeysDown;
    QList<AssignedDevice> assigned;
    QList<Display> displayList;
    QHash<QString, int> bindings;
    bool mouseBusy = false;
    QStringList devicesToRemove;
    QList<Trigger> triggers;
    QStringList autoCalls;
    QStringList commands;
    QStringList bugs;
    QStringList leftUnassigned;
};
