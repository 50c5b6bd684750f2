#include "assignment/AssignmentHandler.h"

#include "Paths.h"
#include "assignment/AssignmentAction.h"
#include "assignment/StationThread.h"
#include "common/Logger.h"
#include "common/Util.h"
#include "input/EventDevice.h"
#include "input/InputKeyCode.h"
#include "input/LedBlinker.h"
#include "sequences/KeySequence.h"

#include <QFile>

namespace {
constexpr char logSource[] = "AssignmentHandler";

// The keys that can claim a device for a station, in the order they are
// tried: the keyboard's function keys, its letters, the mouse's left button.
const char* const assignmentKeyNames[] = {
    "KEY_F1", "KEY_F2",  "KEY_F3",  "KEY_F4",  "KEY_F5", "KEY_F6", "KEY_F7",  "KEY_F8",
    "KEY_F9", "KEY_F10", "KEY_F11", "KEY_F12", "KEY_A",  "KEY_B",  "KEY_C",   "KEY_D",
    "KEY_E",  "KEY_F",   "KEY_G",   "KEY_H",   "KEY_I",  "KEY_J",  "KEY_K",   "KEY_L",
    "KEY_M",  "KEY_N",   "KEY_O",   "KEY_P",   "KEY_Q",  "KEY_R",  "KEY_S",   "KEY_T",
    "KEY_U",  "KEY_V",   "KEY_W",   "KEY_X",   "KEY_Y",  "KEY_Z",  "BTN_LEFT"};

const QString mouseButtonName = QStringLiteral("BTN_LEFT");
} // namespace

AssignmentHandler::AssignmentHandler(DBusInterface& dbus, const Selvane& centralObject)
    : dbusInterface(dbus), central(centralObject)
{
    readVersionFile();
    for (const char* name : assignmentKeyNames) {
        auto* sequence = new KeySequence();
        assignmentKeySequences.append(sequence);
        sequence->addPressKey(InputKeyCode::keyCodeFindByName(QString::fromLatin1(name)));
    }
}

AssignmentHandler::~AssignmentHandler()
{
    qDeleteAll(displayConfigurations);
    // A station thread that was still composing when it was stopped uses the
    // central object's languages until it ends.
    StationThread::joinAbandoned(true);
    // A blinker gives its keyboard the LEDs back, so it goes before the device.
    qDeleteAll(ledBlinkers);
    qDeleteAll(unassignedDevices);
    qDeleteAll(assignmentKeySequences);
}

// The platform's release shows as a badge on the overlay: "ALPHA" wins over
// "BETA"; any other release, or none known, shows no badge.
void AssignmentHandler::readVersionFile()
{
    QFile file(QString::fromLatin1(Orvanta::Paths::versionFile));
    if (!file.open(QIODevice::ReadOnly)) {
        Orvanta::Logger::write(Orvanta::Logger::LEVEL_WARNING, QString::fromLatin1(logSource),
                               QStringLiteral("AssignmentHandler"), __LINE__,
                               QStringLiteral("Could not determine Qel version"));
        return;
    }
    QByteArray version = file.readAll();
    const qsizetype end = version.indexOf('\0');
    if (end >= 0) {
        version.truncate(end);
    }
    if (version.contains("ALPHA")) {
        overlayImage = DisplayConfiguration::OVERLAY_IMAGE_ALPHA;
    } else if (version.contains("BETA")) {
        overlayImage = DisplayConfiguration::OVERLAY_IMAGE_BETA;
    }
}

bool AssignmentHandler::addUnassignedDevice(QString deviceFileName)
{
    if (getEventDevice(deviceFileName)) {
        return true;
    }
    if (EventDevice::findOtherName(unassignedDevices, deviceFileName,
                                   DeviceNode::ofPath(deviceFileName))) {
        return false;
    }
    SELVANE_LOG(LEVEL_INFO, "Adding unassigned device " + Orvanta::escapeForLog(deviceFileName));
    auto* device = new EventDevice(deviceFileName);
    // The open descriptor decides: the name may lead elsewhere by now.
    if (device->getFd() == -1 ||
        EventDevice::findOtherName(unassignedDevices, deviceFileName, device->getNode())) {
        delete device;
        return false;
    }
    connect(device, &EventDevice::keymapChanged, this, &AssignmentHandler::keymapChanged);
    connect(device, &EventDevice::recordsWaiting, this, &AssignmentHandler::updateWanted);
    ledBlinkers.append(new LedBlinker(device));
    unassignedDevices.append(device);
    recreateImages();
    return true;
}

void AssignmentHandler::removeUnassignedDevice(QString deviceFileName)
{
    if (EventDevice* device = getEventDevice(deviceFileName)) {
        SELVANE_LOG(LEVEL_INFO,
                    "Removing unassigned device " + Orvanta::escapeForLog(deviceFileName));
        deleteLedBlinker(device);
        unassignedDevices.removeOne(device);
        delete device;
    }
    recreateImages();
}

DisplayConfiguration* AssignmentHandler::getDisplayConfiguration(DBusInterface& dbus, int displayId,
                                                                 int stationId)
{
    for (DisplayConfiguration* display : qAsConst(displayConfigurations)) {
        if (display->getDisplayId() == displayId) {
            return display;
        }
    }
    // Each configuration asks the platform, holds its display's connection and
    // draws; a caller gets no more than a room's worth of them.
    if (displayConfigurations.size() >= maxDisplayConfigurations) {
        SELVANE_LOG(LEVEL_WARNING, "Refusing display :%d: %d displays are configured already",
                    displayId, maxDisplayConfigurations);
        return nullptr;
    }
    auto* display = new DisplayConfiguration(dbus, central, overlayImage, displayId, stationId);
    display->openDisplay();
    connect(display, &DisplayConfiguration::keyboardAssigned, this,
            &AssignmentHandler::keyboardAssigned);
    connect(display, &DisplayConfiguration::mouseAssigned, this, &AssignmentHandler::mouseAssigned);
    displayConfigurations.append(display);
    return display;
}

bool AssignmentHandler::bindAssignmentKey(DisplayConfiguration* display)
{
    const QString key = display->getAssignmentKey();
    if (key.isEmpty()) {
        return false;
    }
    KeySequence* sequence = findKeySequenceWithPressKey(key);
    if (!sequence) {
        return false;
    }
    // Replaces, and so deletes, the action of a display that waited for the
    // same key before.
    sequence->setAction(new AssignmentAction(display));
    return true;
}

void AssignmentHandler::configureKeyboard(int displayId, int stationId)
{
    DisplayConfiguration* display = getDisplayConfiguration(dbusInterface, displayId, stationId);
    if (!display) {
        return;
    }
    display->configureKeyboard();
    bindAssignmentKey(display);
}

// There is one left mouse button sequence, so one display at a time waits for
// a click; the others show the please-wait picture until it is handed on.
void AssignmentHandler::configureMouse(int displayId, int stationId)
{
    DisplayConfiguration* display = getDisplayConfiguration(dbusInterface, displayId, stationId);
    if (!display) {
        return;
    }
    display->configureMouse(mouseBusy);
    if (display->getState() == DisplayConfiguration::STATE_CONFIGURING_MOUSE) {
        mouseBusy = true;
        bindAssignmentKey(display);
    }
}

void AssignmentHandler::configurationComplete(int displayId)
{
    for (DisplayConfiguration* display : qAsConst(displayConfigurations)) {
        if (display->getDisplayId() != displayId) {
            continue;
        }
        // No action may outlive the display it hands devices to.
        for (KeySequence* sequence : qAsConst(assignmentKeySequences)) {
            const auto* action = dynamic_cast<const AssignmentAction*>(sequence->getAction());
            if (action && action->getDisplay() == display) {
                sequence->setAction(nullptr);
            }
        }
        displayConfigurations.removeOne(display);
        delete display;
        return;
    }
}

KeySequence* AssignmentHandler::findKeySequenceWithPressKey(QString keyName) const
{
    for (KeySequence* sequence : assignmentKeySequences) {
        for (const InputKeyCode* key : sequence->getPressKeys()) {
            if (key->getName() == keyName) {
                return sequence;
            }
        }
    }
    SELVANE_LOG(LEVEL_BUG, "Could not find key sequence for " + keyName);
    return nullptr;
}

void AssignmentHandler::update()
{
    for (DisplayConfiguration* display : qAsConst(displayConfigurations)) {
        display->update();
    }
    StationThread::joinAbandoned(false);
    for (LedBlinker* blinker : qAsConst(ledBlinkers)) {
        blinker->update();
    }
    updateDevices();
}

void AssignmentHandler::updateDevices()
{
    const QList<QString> assigned = devicesToRemove;
    devicesToRemove.clear();
    for (const QString& deviceFileName : assigned) {
        removeUnassignedDevice(deviceFileName);
    }
    EventDevice::readEvents(unassignedDevices);
    for (const EventDevice* device : qAsConst(unassignedDevices)) {
        if (device->getFd() == -1) {
            deleteLedBlinker(device);
        }
    }
    EventDevice::deleteClosedEventDevices(unassignedDevices);
}

void AssignmentHandler::logStatus()
{
    SELVANE_LOG(LEVEL_INFO, "There are %d unassigned device(s) being managed:",
                static_cast<int>(unassignedDevices.size()));
    for (const EventDevice* device : qAsConst(unassignedDevices)) {
        SELVANE_LOG(LEVEL_INFO,
                    "Unassigned device: " + Orvanta::escapeForLog(device->getDeviceFileName()));
    }
    SELVANE_LOG(LEVEL_INFO, "There are %d display configuration(s) active:",
                static_cast<int>(displayConfigurations.size()));
    for (const DisplayConfiguration* display : qAsConst(displayConfigurations)) {
        SELVANE_LOG(LEVEL_INFO, "Display configuration running on display: %d  station: %d",
                    display->getDisplayId(), display->getStationId());
    }
}

EventDevice* AssignmentHandler::getEventDevice(QString deviceFileName)
{
    for (EventDevice* device : qAsConst(unassignedDevices)) {
        if (device->getDeviceFileName() == deviceFileName) {
            return device;
        }
    }
    return nullptr;
}

bool AssignmentHandler::deleteLedBlinker(const EventDevice* eventDevice)
{
    for (LedBlinker* blinker : qAsConst(ledBlinkers)) {
        if (blinker->getEventDevice() == eventDevice) {
            ledBlinkers.removeOne(blinker);
            delete blinker;
            return true;
        }
    }
    return false;
}

void AssignmentHandler::recreateImages()
{
    for (DisplayConfiguration* display : qAsConst(displayConfigurations)) {
        display->recreateImage();
    }
}

void AssignmentHandler::assignedDevicesChanged()
{
    recreateImages();
}

void AssignmentHandler::keymapChanged(const EventDevice* eventDevice)
{
    if (!eventDevice) {
        SELVANE_LOG(LEVEL_BUG, "eventDevice is NULL");
        return;
    }
    // Just assigned: it goes at the next update and claims nothing more.
    if (devicesToRemove.contains(eventDevice->getDeviceFileName())) {
        return;
    }
    for (const KeySequence* sequence : qAsConst(assignmentKeySequences)) {
        if (sequence->checkForValidSequence(eventDevice)) {
            return;
        }
    }
}

void AssignmentHandler::keyboardAssigned(DisplayConfiguration* display,
                                         const EventDevice* eventDevice)
{
    if (!display) {
        SELVANE_LOG(LEVEL_BUG, "display is NULL");
        return;
    }
    const QString key = display->getAssignmentKey();
    if (key.isEmpty()) {
        SELVANE_LOG(LEVEL_BUG, "The assignment key is empty");
        return;
    }
    if (KeySequence* sequence = findKeySequenceWithPressKey(key)) {
        sequence->setAction(nullptr);
    }
    devicesToRemove.append(eventDevice->getDeviceFileName());
    Q_EMIT updateWanted();
}

void AssignmentHandler::mouseAssigned(DisplayConfiguration*, const EventDevice* eventDevice)
{
    mouseBusy = false;
    if (KeySequence* sequence = findKeySequenceWithPressKey(mouseButtonName)) {
        sequence->setAction(nullptr);
    }
    for (DisplayConfiguration* waiting : qAsConst(displayConfigurations)) {
        if (waiting->getState() != DisplayConfiguration::STATE_MOUSE_BUSY) {
            continue;
        }
        waiting->configureMouse(false);
        if (waiting->getState() != DisplayConfiguration::STATE_CONFIGURING_MOUSE) {
            continue;
        }
        mouseBusy = true;
        if (waiting->getAssignmentKey().isEmpty()) {
            SELVANE_LOG(
                LEVEL_BUG,
                "Display should be configuring the mouse, but it's assignment key is empty");
        } else {
            bindAssignmentKey(waiting);
        }
        break;
    }
    if (eventDevice) {
        devicesToRemove.append(eventDevice->getDeviceFileName());
        Q_EMIT updateWanted();
    }
}
