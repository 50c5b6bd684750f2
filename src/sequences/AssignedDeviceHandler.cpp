#include "sequences/AssignedDeviceHandler.h"

#include "common/Logger.h"
#include "common/Util.h"
#include "input/EventDevice.h"
#include "sequences/KeySequence.h"
#include "sequences/SystemCommandAction.h"
#include "sequences/TriggeredAction.h"

#include <QFile>

#include <utility>

namespace {
constexpr char logSource[] = "AssignedDeviceHandler";
// The longest line taken, its line break included. A longer one is refused
// whole, so that no part of a command ever runs on its own.
constexpr qint64 maxLineLength = 4096;

enum class LineRead
{
    End,
    Whole,
    TooLong
};

// Reads the next line of the file, its line break included, into `line`. A
// line longer than maxLineLength is read to its end and dropped.
LineRead readLine(QFile& file, QByteArray& line)
{
    // One byte more than the longest line, to tell one from the other; the
    // size given counts the terminating NUL byte of Qt's buffer as well.
    line = file.readLine(maxLineLength + 2);
    if (line.isEmpty()) {
        return LineRead::End;
    }
    if (line.size() <= maxLineLength) {
        return LineRead::Whole;
    }
    char byte = 0;
    if (!line.endsWith('\n')) {
        while (file.getChar(&byte) && byte != '\n') {
        }
    }
    return LineRead::TooLong;
}
} // namespace

AssignedDeviceHandler::AssignedDeviceHandler(QString configFileName)
{
    parseConfigFile(configFileName);
}

AssignedDeviceHandler::~AssignedDeviceHandler()
{
    qDeleteAll(assignedDevices);
    qDeleteAll(keySequences);
    qDeleteAll(triggeredActions);
}

bool AssignedDeviceHandler::parseConfigFile(QString configFileName)
{
    if (configFileName.isEmpty()) {
        SELVANE_LOG(LEVEL_ERROR, "configFileName is empty");
        return false;
    }
    // The name holds the path's bytes one character each, as the command line gave them.
    QFile file;
    if (!Orvanta::openLatin1Path(file, configFileName, QIODevice::ReadOnly)) {
        SELVANE_LOG(LEVEL_ERROR, "Could not open config file " + configFileName);
        return false;
    }
    SELVANE_LOG(LEVEL_INFO, "Parsing config file " + configFileName);

    QVector<KeySequence*> sequences;
    QByteArray bytes;
    int lineNumber = 0;
    for (LineRead read; (read = readLine(file, bytes)) != LineRead::End;) {
        ++lineNumber;
        if (read == LineRead::TooLong) {
            SELVANE_LOG(LEVEL_ERROR,
                        "Line %d of the configuration file is longer than %d bytes.  Ignoring it.",
                        lineNumber, static_cast<int>(maxLineLength));
            continue;
        }
        if (bytes.contains('\0')) {
            SELVANE_LOG(LEVEL_ERROR,
                        "Line %d of the configuration file contains a NUL byte.  Ignoring it.",
                        lineNumber);
            continue;
        }
        // Latin-1 keeps every byte of the file as it is, so the command later
        // reaches the shell unchanged. A line saved with Windows line endings
        // ends like any other, or its command would end in a carriage return.
        if (bytes.endsWith("\r\n")) {
            bytes.chop(2);
            bytes.append('\n');
        }
        const QString line = QString::fromLatin1(bytes);
        // Only the first character decides: an indented comment is a bad line.
        if (line.at(0) == QLatin1Char('#') || line.at(0) == QLatin1Char('\n')) {
            continue;
        }
        auto* sequence = new KeySequence(line, this);
        if (sequence->isValid()) {
            sequences.append(sequence);
        } else {
            delete sequence;
        }
    }
    file.close();
    carryOverTriggeredActions(sequences);
    qDeleteAll(keySequences);
    keySequences = sequences;
    SELVANE_LOG(LEVEL_INFO, "Parsed %d key sequence(s).", static_cast<int>(keySequences.size()));
    return true;
}

namespace {
const SystemCommandAction* commandAction(const KeySequence* sequence)
{
    return dynamic_cast<const SystemCommandAction*>(sequence->getAction());
}

// The command action of the sequence of `sequences` with the same keys and
// command as `sequence`, or null.
const SystemCommandAction* findSameLine(const KeySequence* sequence,
                                        const QVector<KeySequence*>& sequences)
{
    const SystemCommandAction* action = commandAction(sequence);
    for (const KeySequence* candidate : sequences) {
        const SystemCommandAction* candidateAction = commandAction(candidate);
        if (action && candidateAction && candidate->getHoldKeys() == sequence->getHoldKeys() &&
            candidate->getPressKeys() == sequence->getPressKeys() &&
            candidateAction->getCommand() == action->getCommand()) {
            return candidateAction;
        }
    }
    return nullptr;
}
} // namespace

// Nothing of the file read before runs after a new one is read: a command
// still waiting for its keys to be released runs only if the new file has
// the same line, and then as that line's action. The others are dropped, so
// that no trigger points at an action deleted with its sequence.
void AssignedDeviceHandler::carryOverTriggeredActions(const QVector<KeySequence*>& sequences)
{
    const QVector<TriggeredAction*> waiting = std::exchange(triggeredActions, {});
    for (TriggeredAction* triggered : waiting) {
        const EventDevice* device = triggered->getEventDevice();
        for (const KeySequence* old : qAsConst(keySequences)) {
            if (old->getAction() != triggered->getAction()) {
                continue;
            }
            const SystemCommandAction* same = findSameLine(old, sequences);
            if (same && device) {
                actionTriggered(same, device);
            }
            break;
        }
        delete triggered;
    }
}

void AssignedDeviceHandler::reloadConfigFile(QString configFileName)
{
    if (!parseConfigFile(configFileName)) {
        SELVANE_LOG(LEVEL_WARNING, "Keeping the running configuration of %d key sequence(s).",
                    static_cast<int>(keySequences.size()));
    }
}

bool AssignedDeviceHandler::addAssignedDevice(QString deviceFileName, int stationId)
{
    const int previousCount = assignedDevices.size();
    EventDevice* device = getEventDevice(deviceFileName);
    if (!device) {
        if (EventDevice::findOtherName(assignedDevices, deviceFileName,
                                       DeviceNode::ofPath(deviceFileName))) {
            return false;
        }
        SELVANE_LOG(LEVEL_INFO, "Adding assigned device " + Orvanta::escapeForLog(deviceFileName));
        device = new EventDevice(deviceFileName);
        // The open descriptor decides: the name may lead elsewhere by now.
        if (device->getFd() == -1 ||
            EventDevice::findOtherName(assignedDevices, deviceFileName, device->getNode())) {
            delete device;
            return false;
        }
        connect(device, &EventDevice::keymapChanged, this, &AssignedDeviceHandler::keymapChanged);
        connect(device, &EventDevice::recordsWaiting, this, &AssignedDeviceHandler::updateWanted);
        assignedDevices.append(device);
    }
    device->setDeviceVariable(QStringLiteral("station_id"), QString::number(stationId));
    if (assignedDevices.size() != previousCount) {
        Q_EMIT assignedDevicesChanged();
    }
    return true;
}

void AssignedDeviceHandler::removeAssignedDevice(QString deviceFileName)
{
    EventDevice* device = getEventDevice(deviceFileName);
    if (!device) {
        SELVANE_LOG(LEVEL_WARNING, "The event device " + Orvanta::escapeForLog(deviceFileName) +
                                       " is not being used.  There's nothing to remove");
        return;
    }
    SELVANE_LOG(LEVEL_INFO,
                "Removing assigned device " + Orvanta::escapeForLog(device->getDeviceFileName()));
    // Its pending triggers stay listed; they lose their device with it and can
    // never fire again.
    assignedDevices.removeOne(device);
    delete device;
    Q_EMIT assignedDevicesChanged();
}

EventDevice* AssignedDeviceHandler::getEventDevice(QString deviceFileName)
{
    for (EventDevice* device : qAsConst(assignedDevices)) {
        if (device->getDeviceFileName() == deviceFileName) {
            return device;
        }
    }
    return nullptr;
}

void AssignedDeviceHandler::update()
{
    EventDevice::readEvents(assignedDevices);
    for (const EventDevice* device : qAsConst(assignedDevices)) {
        if (device->getFd() == -1) {
            deleteTriggeredAction(device);
        }
    }
    EventDevice::deleteClosedEventDevices(assignedDevices);
}

void AssignedDeviceHandler::actionTriggered(const SystemCommandAction* action,
                                            const EventDevice* device)
{
    for (const TriggeredAction* triggered : qAsConst(triggeredActions)) {
        if (triggered->getAction() == action && triggered->getEventDevice() == device) {
            return;
        }
    }
    triggeredActions.append(new TriggeredAction(action, device));
}

void AssignedDeviceHandler::deleteTriggeredAction(const EventDevice* device)
{
    // The index advances after a removal too, so of two adjacent entries of
    // the device the second one is passed over and stays.
    for (int i = 0; i < triggeredActions.size(); ++i) {
        if (triggeredActions.at(i)->getEventDevice() == device) {
            delete triggeredActions.takeAt(i);
        }
    }
}

void AssignedDeviceHandler::logStatus()
{
    SELVANE_LOG(LEVEL_INFO, "There are %d assigned device(s) being managed:",
                static_cast<int>(assignedDevices.size()));
    for (const EventDevice* device : qAsConst(assignedDevices)) {
        SELVANE_LOG(LEVEL_INFO,
                    "Assigned device: " + Orvanta::escapeForLog(device->getDeviceFileName()));
    }
}

void AssignedDeviceHandler::keymapChanged(const EventDevice* device)
{
    if (!device) {
        SELVANE_LOG(LEVEL_BUG, "eventDevice is NULL");
        return;
    }
    for (const KeySequence* sequence : qAsConst(keySequences)) {
        sequence->checkForValidSequence(device);
    }
    // The press that completes a match leaves keys down, so a command recorded
    // just now never runs in the same call.
    if (device->isKeyPressed()) {
        return;
    }
    // When a device goes away the kernel first releases every key still held, and only a moment
    // later do reads fail. Such a release completes nothing: the device's pending commands are
    // dropped, as its removal would drop them.
    const bool releasedByPerson = !device->isReleasedByKernel();
    for (int i = 0; i < triggeredActions.size();) {
        TriggeredAction* triggered = triggeredActions.at(i);
        if (triggered->getEventDevice() != device) {
            ++i;
            continue;
        }
        const SystemCommandAction* action = triggered->getAction();
        if (action && releasedByPerson) {
            action->executeCommand(device);
        }
        triggeredActions.removeAt(i);
        delete triggered;
    }
}
