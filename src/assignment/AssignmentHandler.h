#pragma once

#include "assignment/DisplayConfiguration.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QVector>

class DBusInterface;
class EventDevice;
class KeySequence;
class LedBlinker;
class Selvane;

// Everything about input devices that belong to no station yet: the opened
// unassigned keyboards and mice, each with its LEDs blinking, one overlay
// (display configuration) per X display that waits for an assignment key, and
// the 39 assignment key sequences (F1-F12, A-Z, the left mouse button). A key
// sequence carries an AssignmentAction while a display waits for its key;
// pressing that key on an unassigned device assigns the device to that
// display's station.
//
// Assignments are reported from inside the read of the devices, so an
// assigned device is only queued there and dropped at the next update() or
// updateDevices(); updateWanted() asks for that update.
//
// Owned by the central object; every method runs on the main thread.
class AssignmentHandler : public QObject
{
    Q_OBJECT

public:
    AssignmentHandler(DBusInterface& dbusInterface, const Selvane& central);
    ~AssignmentHandler() override;

    AssignmentHandler(const AssignmentHandler&) = delete;
    AssignmentHandler& operator=(const AssignmentHandler&) = delete;

    // True when the device is (now) held under this name; false when it could not be opened
    // or is held under another name.
    bool addUnassignedDevice(QString deviceFileName);
    void removeUnassignedDevice(QString deviceFileName);
    void configureKeyboard(int displayId, int stationId);
    void configureMouse(int displayId, int stationId);
    void configurationComplete(int displayId);
    // The periodic round: the displays' work, the LED steps, then updateDevices().
    void update();
    // Drops the devices assigned since the last round, then reads the others.
    void updateDevices();
    void logStatus();

    EventDevice* getEventDevice(QString deviceFileName);
    // The most display configurations that exist at once.
    static constexpr int maxDisplayConfigurations = 64;

    // The configuration of that display, made and opened on first use; an
    // existing one is returned even when it was made for another station.
    // Null (logged) when maxDisplayConfigurations exist already.
    DisplayConfiguration* getDisplayConfiguration(DBusInterface& dbus, int displayId,
                                                  int stationId);
    bool deleteLedBlinker(const EventDevice* eventDevice);
    // The first assignment key sequence that presses the named key, or null.
    KeySequence* findKeySequenceWithPressKey(QString keyName) const;

    DisplayConfiguration::OverlayImage getOverlayImage() const { return overlayImage; }
    bool isMouseBusy() const { return mouseBusy; }
    const QVector<DisplayConfiguration*>& getDisplayConfigurations() const
    {
        return displayConfigurations;
    }
    const QVector<EventDevice*>& getUnassignedDevices() const { return unassignedDevices; }
    const QVector<KeySequence*>& getAssignmentKeySequences() const
    {
        return assignmentKeySequences;
    }
    int getNumLedBlinkers() const { return static_cast<int>(ledBlinkers.size()); }

public Q_SLOTS:
    void assignedDevicesChanged();
    void keymapChanged(const EventDevice* eventDevice);
    void keyboardAssigned(DisplayConfiguration* display, const EventDevice* eventDevice);
    void mouseAssigned(DisplayConfiguration* display, const EventDevice* eventDevice);

Q_SIGNALS:
    // updateDevices() has work: a device took new records or waits to be dropped.
    void updateWanted();

private:
    void readVersionFile();
    // Gives the sequence of the display's key an action bound to the display;
    // false when the display has no key or the key has no sequence.
    bool bindAssignmentKey(DisplayConfiguration* display);
    void recreateImages();

    DBusInterface& dbusInterface;
    const Selvane& central;
    DisplayConfiguration::OverlayImage overlayImage = DisplayConfiguration::OVERLAY_IMAGE_NONE;
    QVector<DisplayConfiguration*> displayConfigurations;
    QVector<EventDevice*> unassignedDevices;
    QVector<KeySequence*> assignmentKeySequences;
    bool mouseBusy = false;
    QVector<LedBlinker*> ledBlinkers;
    QList<QString> devicesToRemove;
};
