#include "sequences/AssignedDeviceHandler.h"

#include "common/Logger.h"
#include "common/Util.h"
#include "input/EngineFeed.h"
#include "input/EventDevice.h"
#include "sequences/KeySequence.h"

#include <QFile>
#include <QSet>

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
        auto* sequence = new KeySequence(line);
        if (sequence->isValid()) {
            sequences.append(sequence);
        } else {
            delete sequence;
        }
    }
    file.close();
    carryOverWaitingCommands(sequences);
    qDeleteAll(keySequences);
    keySequences = sequences;
    SELVANE_LOG(LEVEL_INFO, "Parsed %d key sequence(s).", static_cast<int>(keySequences.size()));
    return true;
}

// Nothing of the file read before runs after a new one is read: a command still waiting for
// its keys to be released, or behind its station's running command, runs only if the new file
// has the same line (same keys, same command), and then as that line's command.
void AssignedDeviceHandler::carryOverWaitingCommands(const QVector<KeySequence*>& sequences)
{
    std::vector<KeyEngine::Combination> combinations;
    QHash<QString, std::size_t> firstOfLine;
    QSet<QString> lines;
    for (const KeySequence* sequence : sequences) {
        combinations.push_back(sequence->toCombination());
        firstOfLine.insert(sequence->identity(),
                           firstOfLine.value(sequence->identity(), combinations.size() - 1));
        lines.insert(sequence->identity());
    }
    std::map<std::size_t, std::size_t> kept;
    for (qsizetype old = 0; old < keySequences.size(); ++old) {
        const auto same = firstOfLine.constFind(keySequences.at(old)->identity());
        if (same != firstOfLine.constEnd()) {
            kept.emplace(static_cast<std::size_t>(old), same.value());
        }
    }
    engine.setCommandCombinations(std::move(combinations), kept);
    scheduler.retainWaiting(lines);
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
        connect(device, &EventDevice::recordsWaiting, this, &AssignedDeviceHandler::updateWanted);
        assignedDevices.append(device);
        engine.addDevice(device->getId(), device->getKeysAtOpen());
    }
    deviceVariables[device].insert(QStringLiteral("station_id"), QString::number(stationId));
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
    // Its commands still waiting for their keys go with it; those already released stay queued.
    assignedDevices.removeOne(device);
    engine.removeDevice(device->getId());
    deviceVariables.erase(device);
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

QHash<QString, QString> AssignedDeviceHandler::getDeviceVariables(QString deviceFileName) const
{
    for (const EventDevice* device : assignedDevices) {
        if (device->getDeviceFileName() == deviceFileName) {
            const auto found = deviceVariables.find(device);
            return found == deviceVariables.end() ? QHash<QString, QString>() : found->second;
        }
    }
    return {};
}

void AssignedDeviceHandler::update()
{
    for (EventDevice* device : qAsConst(assignedDevices)) {
        const bool open = feedEngine(*device, engine, [&](const KeyEngine::Decision& decision) {
            if (decision.kind == KeyEngine::Decision::Kind::RUN_COMMAND &&
                decision.index < static_cast<std::size_t>(keySequences.size())) {
                runCommand(device, keySequences.at(static_cast<qsizetype>(decision.index)));
            }
        });
        if (!open) {
            deviceVariables.erase(device);
        }
    }
    EventDevice::deleteClosedEventDevices(assignedDevices);
}

void AssignedDeviceHandler::runCommand(const EventDevice* device, const KeySequence* sequence)
{
    const QHash<QString, QString> variables = deviceVariables[device];
    scheduler.submit({variables.value(QStringLiteral("station_id")), sequence->getCommand(),
                      variables, sequence->identity()});
}

void AssignedDeviceHandler::dropWaitingCommandsAtExit()
{
    scheduler.dropWaitingAtExit();
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
