#include "SoakRun.h"

#include "DeviceDescription.h"
#include "TestFiles.h"
#include "input/InputKeyCode.h"

#include <QDBusMessage>
#include <QDir>
#include <QMap>
#include <QRegularExpression>
#include <QVariant>

#include <algorithm>
#include <csignal>
#include <linux/input.h>

namespace {

// "[time] [Level] [File:function:line] message"
const QRegularExpression
    logLinePattern(QStringLiteral(R"(^\[[^\]]*\] \[(\w+)\] \[[^\]]*\] (.*)$)"));
const QRegularExpression countPattern(QStringLiteral(R"(^There are (\d+) )"));

const QString unassignedHeader = QStringLiteral("unassigned device(s) being managed:");
const QString assignedHeader = QStringLiteral("assigned device(s) being managed:");

QString messageOf(const QString& line, QString* level = nullptr)
{
    const QRegularExpressionMatch match = logLinePattern.match(line);
    if (!match.hasMatch()) {
        return QString();
    }
    if (level) {
        *level = match.captured(1);
    }
    return match.captured(2);
}

int countOf(const QString& message)
{
    const QRegularExpressionMatch match = countPattern.match(message);
    return match.hasMatch() ? match.captured(1).toInt() : -1;
}

QStringList withPrefix(const QStringList& messages, const QString& prefix)
{
    QStringList rest;
    for (const QString& message : messages) {
        if (message.startsWith(prefix)) {
            rest.append(message.mid(prefix.size()));
        }
    }
    return rest;
}

QString differs(const QString& what, const QStringList& daemon, const QStringList& model)
{
    if (daemon == model) {
        return QString();
    }
    return QStringLiteral("%1 differ:\n  daemon: %2\n  model:  %3")
        .arg(what, daemon.join(QStringLiteral(" | ")), model.join(QStringLiteral(" | ")));
}

#ifdef __SANITIZE_ADDRESS__
// The sanitizer's allocator and its records grow by themselves.
constexpr bool residentMemoryIsJudged = false;
#else
constexpr bool residentMemoryIsJudged = true;
#endif

// The daemon's descriptors. Each device held is its node (a pseudo terminal)
// and umockdev's socket for its ioctls.
int openDescriptors(pid_t pid, int* devices)
{
    const QString dir = QStringLiteral("/proc/%1/fd").arg(pid);
    int count = 0;
    *devices = 0;
    for (const QString& entry : QDir(dir).entryList(QDir::NoDotAndDotDot | QDir::System)) {
        const QString target = QFile::symLinkTarget(dir + '/' + entry);
        ++count;
        if (target.startsWith(QLatin1String("/dev/pts/"))) {
            ++*devices;
        }
    }
    return count;
}

QStringList descriptorTargets(pid_t pid)
{
    const QString dir = QStringLiteral("/proc/%1/fd").arg(pid);
    QStringList targets;
    for (const QString& entry : QDir(dir).entryList(QDir::NoDotAndDotDot | QDir::System)) {
        targets.append(entry + '=' + QFile::symLinkTarget(dir + '/' + entry));
    }
    return targets;
}

} // namespace

QStringList LogTail::newLines()
{
    if (!file.isOpen() && !file.open(QIODevice::ReadOnly)) {
        return {};
    }
    file.seek(offset);
    const QByteArray bytes = file.readAll();
    offset += bytes.size();
    partial += bytes;
    const qsizetype end = partial.lastIndexOf('\n');
    if (end < 0) {
        return {};
    }
    const QStringList lines =
        QString::fromLatin1(partial.left(end)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    partial.remove(0, end + 1);
    return lines;
}

const QList<SoakModel::Combination>& SoakRun::combinations()
{
    static const QList<SoakModel::Combination> list{
        {{"KEY_LEFTCTRL"}, "KEY_F1", "ctrl-f1"},
        {{"KEY_LEFTCTRL"}, "KEY_F2", "ctrl-f2"},
        // The same keys twice: both run, in file order.
        {{"KEY_LEFTCTRL"}, "KEY_F2", "ctrl-f2-again"},
        {{"KEY_LEFTCTRL", "KEY_LEFTSHIFT"}, "KEY_A", "ctrl-shift-a"}};
    return list;
}

SoakRun::SoakRun()
    : model(combinations()), lastNode(world.devices.size()), plugCount(world.devices.size())
{
    commandsFile = box.getRunner().path(QStringLiteral("commands"));
}

SoakRun::~SoakRun() = default;

QString SoakRun::start()
{
    QByteArray keys;
    for (const SoakModel::Combination& combination : combinations()) {
        keys += combination.holdKeys.join(QLatin1Char(',')).toLatin1() + ':' +
                combination.pressKey.toLatin1() + ":echo \"" + combination.word.toLatin1() +
                " $STATION_ID\" >> " + QFile::encodeName(commandsFile) + '\n';
    }
    box.setKeyConfiguration(keys);
    for (int i = 0; i < SoakWorld::servers; ++i) {
        servers[i] = std::make_unique<StoppableStation>(QStringLiteral("640x480x24"));
        if (!servers[i]->start()) {
            return QStringLiteral("Xvfb %1 did not start: %2").arg(i).arg(servers[i]->startError());
        }
        serverNumbers[i] = servers[i]->number();
    }
    noServerDisplay = XvfbServer::unusedDisplayNumber();
    for (int slot = 0; slot < world.devices.size(); ++slot) {
        const QString error = plug(slot);
        if (!error.isEmpty()) {
            return error;
        }
    }
    if (!box.startPlatform({}) || !box.startDaemon(QStringLiteral(SELVANE_BUILT_DATA_DIR))) {
        return QStringLiteral("the platform simulator or the daemon did not start:\n") +
               box.logTail();
    }
    log.setFile(box.getRunner().defaultLogFile());
    clock.start();
    return settle();
}

bool SoakRun::applies(const SoakStep& step) const
{
    const int slot = step.slot();
    const int server = step.server();
    switch (step.kind) {
    case SoakStep::Call:
    case SoakStep::WrongType:
    case SoakStep::Pause:
        return true;
    case SoakStep::Plug:
        return slot < world.devices.size() && world.devices[slot].node.isEmpty();
    case SoakStep::Unplug:
        return slot < world.devices.size() && !world.devices[slot].node.isEmpty();
    case SoakStep::Press:
    case SoakStep::Release: {
        if (slot >= world.devices.size() || !InputKeyCode::keyCodeFindByName(step.key)) {
            return false;
        }
        const SoakWorld::Slot& device = world.devices[slot];
        const bool heldOnce = !device.node.isEmpty() &&
                              model.isUnassigned(device.node) != model.isAssigned(device.node);
        return heldOnce && device.keysDown.contains(step.key) == (step.kind == SoakStep::Release);
    }
    case SoakStep::Kill:
        return server < SoakWorld::servers && world.serverRunning[server];
    case SoakStep::Restart:
        return server < SoakWorld::servers && !world.serverRunning[server];
    }
    return false;
}

QString SoakRun::apply(const SoakStep& step)
{
    if (!applies(step)) {
        return QString();
    }
    const int slot = step.slot();
    switch (step.kind) {
    case SoakStep::Call:
        return call(step);
    case SoakStep::WrongType:
        return wrongTypeCall(step.method);
    case SoakStep::Plug:
        return plug(slot);
    case SoakStep::Unplug: {
        SoakWorld::Slot& device = world.devices[slot];
        box.removeDevice(device.node);
        model.setPlugged(device.node, false);
        device.node.clear();
        device.keysDown.clear();
        return QString();
    }
    case SoakStep::Press:
    case SoakStep::Release: {
        SoakWorld::Slot& device = world.devices[slot];
        const int code = InputKeyCode::keyCodeFindByName(step.key)->getCode();
        const bool pressed = step.kind == SoakStep::Press;
        UmockdevTestbed& devices = box.getDevices();
        if (!(pressed ? devices.pressKey(device.node, code)
                      : devices.releaseKey(device.node, code))) {
            return QStringLiteral("could not write to ") + device.node;
        }
        // Delivered to the daemon's side before the status is asked for, unless
        // the daemon has taken the bytes already.
        devices.waitForDelivery(device.node, 20);
        if (pressed) {
            device.keysDown.insert(step.key);
        } else {
            device.keysDown.remove(step.key);
        }
        model.keyEvent(device.node, step.key, pressed);
        // The first status comes after the update that read the key, the
        // second after the one that dropped a device the key claimed.
        const QString error = settle();
        return error.isEmpty() ? settle() : error;
    }
    case SoakStep::Kill:
        servers[step.server()]->kill();
        world.serverRunning[step.server()] = false;
        return QString();
    case SoakStep::Restart:
        if (!servers[step.server()]->startOn(serverNumbers[step.server()])) {
            return QStringLiteral("Xvfb %1 did not start again on :%2: %3")
                .arg(step.server())
                .arg(serverNumbers[step.server()])
                .arg(servers[step.server()]->startError());
        }
        world.serverRunning[step.server()] = true;
        return QString();
    case SoakStep::Pause:
        QTest::qWait(static_cast<int>(step.number));
        return QString();
    }
    return QString();
}

QString SoakRun::plug(int slot)
{
    SoakWorld::Slot& device = world.devices[slot];
    const int plugs = plugCount[slot]++;
    // Each keyboard starts with some lock LEDs lit, which blinking must give back.
    QVector<int> leds;
    if (!device.mouse && (slot + plugs) % 2 == 0) {
        leds = {LED_NUML};
    }
    if (!device.mouse && (slot + plugs) % 3 == 0) {
        leds.append(LED_SCROLLL);
    }
    const QString name =
        QStringLiteral("Soak %1 %2").arg(device.mouse ? "mouse" : "keyboard").arg(slot);
    device.node = box.addDevice(
        device.mouse ? DeviceDescription::mouse(name) : DeviceDescription::keyboard(name), leds);
    if (device.node.isEmpty()) {
        return QStringLiteral("could not add device %1").arg(slot);
    }
    lastNode[slot] = device.node;
    model.setPlugged(device.node, true);
    return QString();
}

int SoakRun::displayNumber(const QString& token) const
{
    if (token.startsWith(QLatin1Char('x'))) {
        return serverNumbers[qBound(0, token.mid(1).toInt(), SoakWorld::servers - 1)];
    }
    if (token == QLatin1String("none")) {
        return noServerDisplay;
    }
    return token.toInt();
}

QString SoakRun::deviceArgument(const SoakStep& step) const
{
    const int slot = step.slot();
    if (slot >= 0 && slot < world.devices.size()) {
        // An unplugged slot stands for the node it had last.
        return world.devices[slot].node.isEmpty() ? lastNode[slot] : world.devices[slot].node;
    }
    return step.literalPath();
}

QString SoakRun::call(const SoakStep& step)
{
    const QString device = deviceArgument(step);
    const int display = displayNumber(step.display);
    const int station = static_cast<int>(step.number);
    QVariantList arguments;
    if (step.method == QLatin1String("deviceAddedToStation")) {
        arguments = {device, station};
        model.deviceAddedToStation(device, station);
    } else if (step.method == QLatin1String("deviceRemovedFromStation")) {
        arguments = {device};
        model.deviceRemovedFromStation(device);
    } else if (step.method == QLatin1String("unassignedDeviceAdded")) {
        arguments = {device};
        model.unassignedDeviceAdded(device);
    } else if (step.method == QLatin1String("unassignedDeviceRemoved")) {
        arguments = {device};
        model.unassignedDeviceRemoved(device);
    } else if (step.method == QLatin1String("configureKeyboard")) {
        arguments = {display, station};
        model.configureKeyboard(display, station);
    } else if (step.method == QLatin1String("configureMouse")) {
        arguments = {display, station};
        model.configureMouse(display, station);
    } else if (step.method == QLatin1String("configurationComplete")) {
        arguments = {display};
        model.configurationComplete(display);
    } else if (step.method != QLatin1String("logStatus")) {
        return QStringLiteral("unknown method ") + step.method;
    }
    const QString error = box.call(step.method, arguments);
    if (!error.isEmpty()) {
        return error;
    }
    return settle();
}

QString SoakRun::wrongTypeCall(const QString& method)
{
    // Strings where numbers belong and numbers where strings belong.
    QVariantList arguments;
    if (method.startsWith(QLatin1String("configur"))) {
        arguments = {QStringLiteral("12"), QStringLiteral("x")};
        if (method == QLatin1String("configurationComplete")) {
            arguments.removeLast();
        }
    } else {
        arguments = {42};
        if (method == QLatin1String("deviceAddedToStation")) {
            arguments.append(QStringLiteral("7"));
        }
    }
    if (box.call(method, arguments).isEmpty()) {
        return method + QStringLiteral(" with wrongly typed arguments was accepted");
    }
    return settle();
}

QString SoakRun::settle()
{
    if (!box.call(QStringLiteral("logStatus")).isEmpty()) {
        return QStringLiteral("logStatus was not answered");
    }
    // The status block: the unassigned devices, the displays, the assigned
    // devices; done when the last list is complete.
    QStringList block;
    bool inBlock = false;
    const bool done = DaemonRunner::waitUntil([&] {
        for (const QString& line : log.newLines()) {
            QString level;
            const QString message = messageOf(line, &level);
            if (level == QLatin1String("Bug")) {
                bugLines.append(message);
            } else if (level == QLatin1String("Error")) {
                errorLines.append(message);
            }
            if (message.startsWith(QLatin1String("There are ")) &&
                message.endsWith(unassignedHeader)) {
                inBlock = true;
                block.clear();
            }
            if (inBlock && (message.startsWith(QLatin1String("There are ")) ||
                            message.startsWith(QLatin1String("Unassigned device: ")) ||
                            message.startsWith(QLatin1String("Assigned device: ")) ||
                            message.startsWith(QLatin1String("Display configuration running")))) {
                block.append(message);
            }
        }
        if (!inBlock || block.isEmpty()) {
            return false;
        }
        int assignedAt = -1;
        for (int i = 0; i < block.size(); ++i) {
            if (block[i].endsWith(assignedHeader) && !block[i].endsWith(unassignedHeader)) {
                assignedAt = i;
            }
        }
        return assignedAt >= 0 && block.size() - assignedAt - 1 >= countOf(block[assignedAt]);
    });
    if (!done) {
        return QStringLiteral("the status was not written; the log ends:\n") + box.logTail();
    }
    status = block;
    return QString();
}

QString SoakRun::summary() const
{
    return QStringLiteral("%1 DeviceAssignedAuto calls, %2 commands, %3 expected Bug lines")
        .arg(model.assignedAutoCalls().size())
        .arg(model.commandLines().size())
        .arg(model.bugMessages().size());
}

QString SoakRun::compare(int stepsDone)
{
    if (kill(box.getDaemon(), 0) != 0) {
        return QStringLiteral("the daemon has ended; the log ends:\n") + box.logTail();
    }
    QString mismatch = settle();
    for (const QString& next :
         {compareStatus(), compareLogLevels(), compareLeds(), compareWindows()}) {
        if (mismatch.isEmpty()) {
            mismatch = next;
        }
    }
    if (mismatch.isEmpty()) {
        mismatch = differs(QStringLiteral("DeviceAssignedAuto calls"),
                           box.getPlatform().calls().filter(
                               QStringLiteral("com.orvanta.Assignment.DeviceAssignedAuto ")),
                           model.assignedAutoCalls());
    }
    if (mismatch.isEmpty()) {
        mismatch = compareCommands();
    }
    if (mismatch.isEmpty()) {
        mismatch = compareResources(stepsDone);
    }
    return mismatch;
}

namespace {
// The lines of each station in their order, the stations one after the other: commands of
// different stations run side by side, so only each station's own order is fixed.
QStringList byStation(const QStringList& lines)
{
    QMap<QString, QStringList> stations;
    for (const QString& line : lines) {
        stations[line.section(QLatin1Char(' '), -1)].append(line);
    }
    QStringList grouped;
    for (const QStringList& station : stations) {
        grouped += station;
    }
    return grouped;
}
} // namespace

// Commands run without the daemon waiting for them: the model's count is waited for, and one
// more command than the model has would show on the next comparison.
QString SoakRun::compareCommands()
{
    const int expected = static_cast<int>(model.commandLines().size());
    DaemonRunner::waitUntil(
        [&] { return DaemonRunner::readLines(commandsFile).size() >= expected; });
    return differs(QStringLiteral("commands run"), byStation(DaemonRunner::readLines(commandsFile)),
                   byStation(model.commandLines()));
}

QString SoakRun::compareStatus()
{
    QStringList displays;
    for (const SoakModel::Display& display : model.displays()) {
        displays.append(QStringLiteral("%1  station: %2").arg(display.id).arg(display.station));
    }
    QString mismatch = differs(QStringLiteral("unassigned devices"),
                               withPrefix(status, QStringLiteral("Unassigned device: ")),
                               model.unassignedDevices());
    if (mismatch.isEmpty()) {
        mismatch = differs(QStringLiteral("assigned devices"),
                           withPrefix(status, QStringLiteral("Assigned device: ")),
                           model.assignedDevices());
    }
    if (mismatch.isEmpty()) {
        mismatch = differs(
            QStringLiteral("display configurations"),
            withPrefix(status, QStringLiteral("Display configuration running on display: ")),
            displays);
    }
    return mismatch;
}

QString SoakRun::compareLogLevels()
{
    // Each string drawn on an overlay is logged at level Bug, found or not; how
    // often a station composes its picture depends on its X server's timing.
    static const QRegularExpression drawnString(QStringLiteral(
        "^Cannot find string '(station-num|station-name|station-location|configure-keyboard|"
        "configure-keyboard-key|keyboards-available|keyboards-assigned|configure-mouse|"
        "mice-available|mice-assigned|please-wait-mouse)' for language 'en'$"));
    QStringList daemon;
    for (const QString& message : std::as_const(bugLines)) {
        if (!drawnString.match(message).hasMatch()) {
            daemon.append(message);
        }
    }
    QStringList expected = model.bugMessages();
    daemon.sort();
    expected.sort();
    QString mismatch = differs(QStringLiteral("Bug lines (sorted)"), daemon, expected);
    if (mismatch.isEmpty() && !errorLines.isEmpty()) {
        mismatch = QStringLiteral("Error lines: ") + errorLines.join(QStringLiteral(" | "));
    }
    return mismatch;
}

QString SoakRun::compareLeds()
{
    box.takeLedRecords();
    for (const QString& node : model.takeLeftUnassigned()) {
        const bool plugged =
            std::any_of(world.devices.cbegin(), world.devices.cend(),
                        [&](const SoakWorld::Slot& slot) { return slot.node == node; });
        if (model.isUnassigned(node) || !plugged) {
            continue; // blinking again, or gone
        }
        const QVector<int> initial = box.initialLeds(node);
        const QMap<int, int> last = box.lastLeds(node);
        for (int led = LED_NUML; led <= LED_SCROLLL; ++led) {
            if (last.value(led, -1) != (initial.contains(led) ? 1 : 0)) {
                return QStringLiteral("%1 left the unassigned set with LED %2 at %3 (-1: never "
                                      "written), not as before blinking")
                    .arg(node)
                    .arg(led)
                    .arg(last.value(led, -1));
            }
        }
    }
    // Every unassigned device blinks: one step a second.
    const qint64 now = clock.elapsed();
    for (auto it = blinkingSince.begin(); it != blinkingSince.end();) {
        it = model.isUnassigned(it.key()) ? std::next(it) : blinkingSince.erase(it);
    }
    for (const QString& node : model.unassignedDevices()) {
        if (!std::any_of(world.devices.cbegin(), world.devices.cend(),
                         [&](const SoakWorld::Slot& slot) { return slot.node == node; })) {
            continue;
        }
        if (!blinkingSince.contains(node)) {
            blinkingSince.insert(node, {now, box.ledRecords(node)});
        } else if (now - blinkingSince[node].first >= 3000) {
            if (box.ledRecords(node) <= blinkingSince[node].second) {
                return QStringLiteral("%1 has not blinked for %2 ms")
                    .arg(node)
                    .arg(now - blinkingSince[node].first);
            }
            blinkingSince.insert(node, {now, box.ledRecords(node)});
        }
    }
    return QString();
}

QString SoakRun::compareWindows()
{
    for (int i = 0; i < SoakWorld::servers; ++i) {
        if (!world.serverRunning[i]) {
            continue;
        }
        const int expected = model.display(serverNumbers[i]) ? 1 : 0;
        int windows = -1;
        // The station's own thread makes and removes the window; after a
        // server's restart it first has to notice the loss and connect again,
        // which a loaded machine running the sanitizer build can stretch to
        // several seconds.
        if (!DaemonRunner::waitUntil(
                [&] { return (windows = servers[i]->overlayWindows()) == expected; }, 30000)) {
            if (windows < 0) {
                return QStringLiteral("display :%1 accepts no connection (its server: %2), "
                                      "expected %3 overlay windows")
                    .arg(serverNumbers[i])
                    .arg(servers[i]->processSummary())
                    .arg(expected);
            }
            return QStringLiteral("display :%1 shows %2 overlay windows, expected %3")
                .arg(serverNumbers[i])
                .arg(windows)
                .arg(expected);
        }
    }
    return QString();
}

QString SoakRun::compareResources(int stepsDone)
{
    const pid_t daemon = box.getDaemon();
    int devices = 0;
    int descriptors = openDescriptors(daemon, &devices);
    // Each device holds its node twice: its own descriptor, for the LEDs, and the input
    // reader's duplicate.
    const int descriptorsPerDevice = 2;
    const int heldDevices =
        descriptorsPerDevice *
        static_cast<int>(model.unassignedDevices().size() + model.assignedDevices().size());
    if (devices != heldDevices) {
        return QStringLiteral("the daemon has %1 device descriptors open, the model holds %2: %3")
            .arg(devices)
            .arg(heldDevices)
            .arg(descriptorTargets(daemon).join(QStringLiteral(", ")));
    }
    // Memory and descriptors are compared whenever no display is configured:
    // then every station thread has ended, or is about to, with its picture,
    // and what is left besides the devices (each a node and umockdev's socket)
    // must be what it was.
    if (stepsDone < baseStep || !model.displays().isEmpty()) {
        return QString();
    }
    const qint64 resident = DaemonRunner::residentKiB(daemon);
    if (baseResidentKiB < 0) {
        baseResidentKiB = resident;
    } else if (residentMemoryIsJudged && resident > baseResidentKiB + 10 * 1024) {
        return QStringLiteral("resident memory grew from %1 to %2 KiB")
            .arg(baseResidentKiB)
            .arg(resident);
    }
    const auto others = [&] {
        descriptors = openDescriptors(daemon, &devices);
        return descriptors - 2 * devices;
    };
    if (baseDescriptors < 0) {
        DaemonRunner::waitUntil([&] { return false; }, 500);
        baseDescriptors = others();
        return QString();
    }
    if (!DaemonRunner::waitUntil([&] { return others() <= baseDescriptors + 4; }, 5000)) {
        return QStringLiteral("descriptors grew from %1 to %2 (devices aside): %3")
            .arg(baseDescriptors)
            .arg(others())
            .arg(descriptorTargets(daemon).join(QStringLiteral(", ")));
    }
    return QString();
}
