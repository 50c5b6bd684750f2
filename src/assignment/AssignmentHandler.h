#pragma once

#include "assignment/DisplayConfiguration.h"
#include "assignment/PlatformServices.h"
#include "assignment/UnassignedGrab.h"
#include "keys/KeyEngine.h"

#include <QList>
#include <QObject>
#include <QString>
#include <QVector>

#include <optional>

class EventDevice;
class LedBlinker;

// Everything about input devices that belong to no station yet: the opened
// unassigned keyboards and mice, each with its LEDs blinking, one overlay
// (display configuration) per X display that waits for an assignment key, and
// the 39 assignment keys (F1-F12, A-Z, the left mouse button), which the key
// engine watches as its claim keys. A key is armed while a display waits for
// it; pressing it on an unassigned device assigns the device to that display's
// station. A device claims one station at most.
//
// A claim is acted on once the read of that device is done; the assigned
// device is then only queued and dropped at the next update() or
// updateDevices(), which updateWanted() asks for.
//
// With grabUnassigned, the unassigned devices are taken for this process alone
// while any overlay's picture is on a screen (UnassignedGrab decides which), so
// that the keys typed to claim one reach no session. A claimed device is let go
// at once, before the platform hands it to the assigned side.
//
// Owned by the central object; every method runs on the main thread.
class AssignmentHandler : public QObject
{
    Q_OBJECT

public:
    explicit AssignmentHandler(PlatformServices& platform, bool grabUnassigned = false);
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
    // Whether update() has work that comes with time rather than with a device or a remote
    // call: an overlay to drive (its display reached or not), a keyboard's LEDs to step, an
    // assigned device to drop, or a stopped station's thread to join.
    bool needsPeriodicUpdates() const;
    void logStatus();

    EventDevice* getEventDevice(QString deviceFileName);
    // The most display configurations that exist at once.
    static constexpr int maxDisplayConfigurations = 64;

    // The configuration of that display, made and opened on first use; an
    // existing one is returned even when it was made for another station.
    // Null (logged) when maxDisplayConfigurations exist already.
    DisplayConfiguration* getDisplayConfiguration(int displayId, int stationId);
    bool deleteLedBlinker(const EventDevice* eventDevice);
    // The display that waits for the named assignment key, or null.
    DisplayConfiguration* displayWaitingFor(QString keyName) const;

    DisplayConfiguration::OverlayImage getOverlayImage() const { return overlayImage; }
    bool isMouseBusy() const { return mouseBusy; }
    const QVector<DisplayConfiguration*>& getDisplayConfigurations() const
    {
        return displayConfigurations;
    }
    const QVector<EventDevice*>& getUnassignedDevices() const { return unassignedDevices; }
    // Whether any display waits for a key.
    bool isAnyKeyArmed() const;
    // The keys that can claim a device, in the order they are tried.
    static QStringList getAssignmentKeyNames();
    int getNumLedBlinkers() const { return static_cast<int>(ledBlinkers.size()); }

public Q_SLOTS:
    void assignedDevicesChanged();
    void keyboardAssigned(DisplayConfiguration* display, const EventDevice* eventDevice);
    void mouseAssigned(DisplayConfiguration* display, const EventDevice* eventDevice);
    // The display that waited for a click went back to the keyboard step.
    void mouseStepAbandoned();

Q_SIGNALS:
    // updateDevices() has work: a device took new records or waits to be dropped.
    void updateWanted();

private:
    void readVersionFile();
    // The index of the named assignment key among the claim keys, if it is one.
    std::optional<std::size_t> findKeySequenceWithPressKey(QString keyName) const;
    // Arms the display's key for it, taking it from a display that waited for the same key
    // before; false when the display has no key or the key is no assignment key.
    bool bindAssignmentKey(DisplayConfiguration* display);
    void unbindAssignmentKey(std::size_t index);
    // Hands the device to the display that waited for the key it pressed.
    void claim(const EventDevice* device, std::size_t keyIndex);
    void handOnMouseStep();
    void recreateImages();
    // Takes and lets go of the unassigned devices as UnassignedGrab decides; nothing without
    // grabUnassigned.
    void updateGrabs();

    PlatformServices& platform;
    DisplayConfiguration::OverlayImage overlayImage = DisplayConfiguration::OVERLAY_IMAGE_NONE;
    QVector<DisplayConfiguration*> displayConfigurations;
    QVector<EventDevice*> unassignedDevices;
    KeyEngine engine;
    // Per claim key, the display that waits for it, or null.
    QVector<DisplayConfiguration*> waitingDisplays;
    bool mouseBusy = false;
    QVector<LedBlinker*> ledBlinkers;
    QList<QString> devicesToRemove;
    // Only with grabUnassigned.
    std::optional<UnassignedGrab> grab;
};
