#include "assignment/AssignmentHandler.h"

#include "Paths.h"
#include "common/Logger.h"
#include "common/Util.h"
#include "input/EngineFeed.h"
#include "input/EventDevice.h"
#include "input/InputKeyCode.h"
#include "input/LedBlinker.h"
#include "overlay/StationThread.h"

#include <QFile>

#include <algorithm>
#include <iterator>

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

AssignmentHandler::AssignmentHandler(PlatformServices& platformServices, bool grabUnassigned)
    : platform(platformServices)
{
    if (grabUnassigned) {
        grab.emplace();
    }
    readVersionFile();
    std::vector<KeyEngine::Combination> keys;
    for (const char* name : assignmentKeyNames) {
        const InputKeyCode* key = InputKeyCode::keyCodeFindByName(QString::fromLatin1(name));
        // A key missing from the table is pressed by nobody: code -1 never goes down.
        keys.push_back({{}, {key ? key->getCode() : -1}});
    }
    engine.setClaimKeys(std::move(keys));
    waitingDisplays.fill(nullptr, std::size(assignmentKeyNames));
}

AssignmentHandler::~AssignmentHandler()
{
    qDeleteAll(displayConfigurations);
    // A station thread that was still composing when it was stopped uses the
    // platform's languages until it ends.
    StationThread::joinAbandoned(true);
    // A blinker gives its keyboard the LEDs back, so it goes before the device.
    qDeleteAll(ledBlinkers);
    qDeleteAll(unassignedDevices);
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
    connect(device, &EventDevice::recordsWaiting, this, &AssignmentHandler::updateWanted);
    engine.addDevice(device->getId(), device->getKeysAtOpen());
    ledBlinkers.append(new LedBlinker(device));
    unassignedDevices.append(device);
    recreateImages();
    updateGrabs();
    return true;
}

void AssignmentHandler::removeUnassignedDevice(QString deviceFileName)
{
    if (EventDevice* device = getEventDevice(deviceFileName)) {
        SELVANE_LOG(LEVEL_INFO,
                    "Removing unassigned device " + Orvanta::escapeForLog(deviceFileName));
        deleteLedBlinker(device);
        unassignedDevices.removeOne(device);
        engine.removeDevice(device->getId());
        delete device;
    }
    recreateImages();
}

DisplayConfiguration* AssignmentHandler::getDisplayConfiguration(int displayId, int stationId)
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
    auto* display = new DisplayConfiguration(platform, overlayImage, displayId, stationId);
    display->openDisplay();
    connect(display, &DisplayConfiguration::keyboardAssigned, this,
            &AssignmentHandler::keyboardAssigned);
    connect(display, &DisplayConfiguration::mouseAssigned, this, &AssignmentHandler::mouseAssigned);
    connect(display, &DisplayConfiguration::mouseStepAbandoned, this,
            &AssignmentHandler::mouseStepAbandoned);
    connect(display, &DisplayConfiguration::pictureShownChanged, this,
            &AssignmentHandler::updateGrabs);
    displayConfigurations.append(display);
    return display;
}

bool AssignmentHandler::bindAssignmentKey(DisplayConfiguration* display)
{
    const QString key = display->getAssignmentKey();
    if (key.isEmpty()) {
        return false;
    }
    const std::optional<std::size_t> index = findKeySequenceWithPressKey(key);
    if (!index) {
        return false;
    }
    // A display that waited for the same key before waits no more.
    waitingDisplays[static_cast<qsizetype>(*index)] = display;
    engine.setClaimKeyArmed(*index, true);
    return true;
}

void AssignmentHandler::unbindAssignmentKey(std::size_t index)
{
    waitingDisplays[static_cast<qsizetype>(index)] = nullptr;
    engine.setClaimKeyArmed(index, false);
}

void AssignmentHandler::configureKeyboard(int displayId, int stationId)
{
    DisplayConfiguration* display = getDisplayConfiguration(displayId, stationId);
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
    DisplayConfiguration* display = getDisplayConfiguration(displayId, stationId);
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
        // No key may hand devices to a display that is gone.
        for (qsizetype index = 0; index < waitingDisplays.size(); ++index) {
            if (waitingDisplays.at(index) == display) {
                unbindAssignmentKey(static_cast<std::size_t>(index));
            }
        }
        displayConfigurations.removeOne(display);
        delete display;
        updateGrabs();
        return;
    }
}

std::optional<std::size_t> AssignmentHandler::findKeySequenceWithPressKey(QString keyName) const
{
    for (std::size_t index = 0; index < std::size(assignmentKeyNames); ++index) {
        if (keyName == QLatin1String(assignmentKeyNames[index])) {
            return index;
        }
    }
    SELVANE_LOG(LEVEL_BUG, "Could not find key sequence for " + keyName);
    return std::nullopt;
}

DisplayConfiguration* AssignmentHandler::displayWaitingFor(QString keyName) const
{
    for (std::size_t index = 0; index < std::size(assignmentKeyNames); ++index) {
        if (keyName == QLatin1String(assignmentKeyNames[index])) {
            return waitingDisplays.at(static_cast<qsizetype>(index));
        }
    }
    return nullptr;
}

QStringList AssignmentHandler::getAssignmentKeyNames()
{
    QStringList names;
    for (const char* name : assignmentKeyNames) {
        names.append(QString::fromLatin1(name));
    }
    return names;
}

bool AssignmentHandler::isAnyKeyArmed() const
{
    return std::any_of(waitingDisplays.begin(), waitingDisplays.end(),
                       [](const DisplayConfiguration* display) { return display != nullptr; });
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

bool AssignmentHandler::needsPeriodicUpdates() const
{
    return !displayConfigurations.isEmpty() || !ledBlinkers.isEmpty() ||
           !devicesToRemove.isEmpty() || StationThread::hasAbandoned();
}

void AssignmentHandler::updateDevices()
{
    const QList<QString> assigned = devicesToRemove;
    devicesToRemove.clear();
    for (const QString& deviceFileName : assigned) {
        removeUnassignedDevice(deviceFileName);
    }
    for (EventDevice* device : qAsConst(unassignedDevices)) {
        const bool open = feedEngine(*device, engine, [&](const KeyEngine::Decision& decision) {
            if (decision.kind == KeyEngine::Decision::Kind::CLAIM) {
                claim(device, decision.index);
            }
        });
        if (!open) {
            deleteLedBlinker(device);
        }
    }
    EventDevice::deleteClosedEventDevices(unassignedDevices);
    updateGrabs();
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

void AssignmentHandler::claim(const EventDevice* device, std::size_t keyIndex)
{
    DisplayConfiguration* display = waitingDisplays.value(static_cast<qsizetype>(keyIndex));
    if (!display) {
        return;
    }
    unbindAssignmentKey(keyIndex);
    if (!display->assignmentKeyPressed(device)) {
        // Not taken: the display keeps its key, and the device may still claim a station.
        waitingDisplays[static_cast<qsizetype>(keyIndex)] = display;
        engine.withdrawClaim(device->getId(), keyIndex);
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
    if (const std::optional<std::size_t> index = findKeySequenceWithPressKey(key)) {
        unbindAssignmentKey(*index);
    }
    devicesToRemove.append(eventDevice->getDeviceFileName());
    updateGrabs();
    Q_EMIT updateWanted();
}

void AssignmentHandler::mouseAssigned(DisplayConfiguration*, const EventDevice* eventDevice)
{
    handOnMouseStep();
    if (eventDevice) {
        devicesToRemove.append(eventDevice->getDeviceFileName());
        updateGrabs();
        Q_EMIT updateWanted();
    }
}

void AssignmentHandler::mouseStepAbandoned()
{
    handOnMouseStep();
}

// The click is free again: the first display that waits for it gets it.
void AssignmentHandler::handOnMouseStep()
{
    mouseBusy = false;
    if (const std::optional<std::size_t> index = findKeySequenceWithPressKey(mouseButtonName)) {
        unbindAssignmentKey(*index);
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
            // Reported as the hand-on after an assignment, where this has always been told.
            Orvanta::Logger::write(
                Orvanta::Logger::LEVEL_BUG, QString::fromLatin1(logSource),
                QStringLiteral("mouseAssigned"), __LINE__,
                QStringLiteral(
                    "Display should be configuring the mouse, but it's assignment key is empty"));
        } else {
            bindAssignmentKey(waiting);
        }
        break;
    }
}

void AssignmentHandler::updateGrabs()
{
    if (!grab) {
        return;
    }
    const bool overlayDrawn =
        std::any_of(displayConfigurations.begin(), displayConfigurations.end(),
                    [](const DisplayConfiguration* display) { return display->isPictureShown(); });
    std::vector<UnassignedGrab::DeviceId> unassigned;
    std::vector<UnassignedGrab::DeviceId> held;
    std::vector<UnassignedGrab::DeviceId> keyDown;
    for (const EventDevice* device : qAsConst(unassignedDevices)) {
        // A claimed device is the assigned side's from now on, whenever it gets to open it.
        if (device->getFd() != -1 && !devicesToRemove.contains(device->getDeviceFileName())) {
            unassigned.push_back(device->getId());
        }
        if (device->isGrabbed()) {
            held.push_back(device->getId());
        } else if (overlayDrawn && device->isAnyKeyDown()) {
            // Asked again once the key's release has been read.
            keyDown.push_back(device->getId());
        }
    }
    for (const UnassignedGrab::Change& change :
         grab->changes(overlayDrawn, unassigned, held, keyDown)) {
        const auto found = std::find_if(
            unassignedDevices.begin(), unassignedDevices.end(),
            [&change](const EventDevice* device) { return device->getId() == change.device; });
        if (found != unassignedDevices.end() && !(*found)->setGrabbed(change.hold) && change.hold) {
            grab->refused(change.device);
        }
    }
}
