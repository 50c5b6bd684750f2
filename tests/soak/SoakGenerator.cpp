#include "SoakGenerator.h"

#include <limits>

namespace {

// The station each server's display asks for, so that its key recurs: a
// function key, a letter and a digit (which claims nothing).
const qint64 stationOfServer[SoakWorld::servers] = {2, 14, 40};

bool heldOnce(const SoakWorld& world, const SoakModel& model, int slot)
{
    const QString& node = world.devices[slot].node;
    return !node.isEmpty() && model.isUnassigned(node) != model.isAssigned(node);
}

// Every key a keyboard types at random: the assignment keys and the digits.
QStringList keyboardKeys()
{
    QStringList keys = SoakModel::assignmentKeys();
    keys.removeAll(QStringLiteral("BTN_LEFT"));
    for (char digit = '0'; digit <= '9'; ++digit) {
        keys.append(QStringLiteral("KEY_") + QLatin1Char(digit));
    }
    return keys;
}

} // namespace

std::uint64_t SoakGenerator::nextRandom()
{
    // splitmix64
    std::uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

int SoakGenerator::below(int bound)
{
    return bound <= 0 ? 0 : static_cast<int>(nextRandom() % static_cast<std::uint64_t>(bound));
}

SoakStep SoakGenerator::next(const SoakWorld& world, const SoakModel& model)
{
    const int draw = below(100);
    SoakStep step;
    if (draw < 40) {
        step = keyStep(world, model);
        if (step.kind == SoakStep::Press || step.kind == SoakStep::Release) {
            return step;
        }
    }
    if (draw >= 40 && draw < 48) {
        const int slot = below(static_cast<int>(world.devices.size()));
        step.device = SoakStep::deviceToken(slot);
        step.kind = world.devices[slot].node.isEmpty() ? SoakStep::Plug : SoakStep::Unplug;
        return step;
    }
    if (draw >= 48 && draw < 51) {
        step.display = QStringLiteral("x%1").arg(SoakWorld::restartedServer);
        step.kind =
            world.serverRunning[SoakWorld::restartedServer] ? SoakStep::Kill : SoakStep::Restart;
        return step;
    }
    if (draw >= 51 && draw < 55) {
        step.kind = SoakStep::Pause;
        step.number = 100 + below(300);
        return step;
    }
    if (draw >= 55 && draw < 57) {
        step.kind = SoakStep::WrongType;
        step.method =
            pick(QList<QString>{"deviceAddedToStation", "deviceRemovedFromStation",
                                "unassignedDeviceAdded", "unassignedDeviceRemoved",
                                "configureKeyboard", "configureMouse", "configurationComplete"});
        return step;
    }
    return callStep(world, model);
}

SoakStep SoakGenerator::keyStep(const SoakWorld& world, const SoakModel& model)
{
    QList<int> usable;
    for (int slot = 0; slot < world.devices.size(); ++slot) {
        if (heldOnce(world, model, slot)) {
            usable.append(slot);
        }
    }
    SoakStep step;
    if (usable.isEmpty()) {
        return step;
    }
    const int slot = pick(usable);
    const SoakWorld::Slot& device = world.devices[slot];
    step.device = SoakStep::deviceToken(slot);
    if (!device.keysDown.isEmpty() && chance(device.mouse ? 100 : 50)) {
        step.kind = SoakStep::Release;
        QStringList down = device.keysDown.values();
        down.sort();
        step.key = pick(down);
        return step;
    }
    step.kind = SoakStep::Press;
    if (device.mouse) {
        step.key = QStringLiteral("BTN_LEFT");
        return step;
    }
    QStringList candidates;
    const int kind = below(100);
    if (model.isAssigned(device.node) && kind < 60) {
        // Towards a combination: Ctrl first, then what completes one.
        candidates = device.keysDown.contains(QStringLiteral("KEY_LEFTCTRL"))
                         ? QStringList{"KEY_F1", "KEY_F2", "KEY_LEFTSHIFT", "KEY_A"}
                         : QStringList{"KEY_LEFTCTRL"};
    } else if (kind < 35) {
        for (auto it = model.boundKeys().cbegin(); it != model.boundKeys().cend(); ++it) {
            if (it.key() != QLatin1String("BTN_LEFT")) {
                candidates.append(it.key());
            }
        }
    } else if (kind < 60) {
        candidates = {"KEY_LEFTCTRL", "KEY_LEFTSHIFT"};
    } else if (kind < 80) {
        candidates = {"KEY_F1", "KEY_F2", "KEY_A"};
    }
    if (candidates.isEmpty()) {
        candidates = keyboardKeys();
    }
    candidates.sort();
    QStringList up;
    for (const QString& key : std::as_const(candidates)) {
        if (!device.keysDown.contains(key)) {
            up.append(key);
        }
    }
    if (up.isEmpty()) {
        step.kind = SoakStep::Release;
        QStringList down = device.keysDown.values();
        down.sort();
        step.key = pick(down);
        return step;
    }
    step.key = pick(up);
    return step;
}

SoakStep SoakGenerator::callStep(const SoakWorld& world, const SoakModel& model)
{
    if (hasPreviousCall && chance(4)) {
        return previousCall; // the same call twice
    }
    SoakStep step;
    step.kind = SoakStep::Call;
    const int draw = below(100);
    if (draw < 14) {
        step.method = QStringLiteral("unassignedDeviceAdded");
        step.device = anyDevice(world);
    } else if (draw < 22) {
        step.method = QStringLiteral("unassignedDeviceRemoved");
        step.device = anyDevice(world);
    } else if (draw < 34) {
        // Mostly the platform's answer to a claim: the device goes to a station.
        step.method = QStringLiteral("deviceAddedToStation");
        step.device = anyDevice(world);
        const int slot = step.slot();
        const bool held = slot >= 0 && !world.devices[slot].node.isEmpty() &&
                          (model.isUnassigned(world.devices[slot].node) ||
                           model.isAssigned(world.devices[slot].node));
        if (held && chance(80)) {
            // Not while the daemon holds it unassigned: keys could then not
            // be typed on it. The claim has already dropped it.
            step.method = QStringLiteral("unassignedDeviceRemoved");
        }
        step.number = chance(85) ? 1 + below(47) : pick(QList<qint64>{-1, 0, 100000});
    } else if (draw < 42) {
        step.method = QStringLiteral("deviceRemovedFromStation");
        step.device = anyDevice(world);
    } else if (draw < 62) {
        step.method = QStringLiteral("configureKeyboard");
        step.display = anyDisplay();
        step.number = anyStation(step.display);
    } else if (draw < 76) {
        step.method = QStringLiteral("configureMouse");
        step.display = anyDisplay();
        step.number = anyStation(step.display);
    } else if (draw < 92) {
        step.method = QStringLiteral("configurationComplete");
        step.display = anyDisplay();
    } else {
        step.method = QStringLiteral("logStatus");
    }
    previousCall = step;
    hasPreviousCall = true;
    return step;
}

QString SoakGenerator::anyDevice(const SoakWorld& world)
{
    if (chance(90)) {
        return SoakStep::deviceToken(below(static_cast<int>(world.devices.size())));
    }
    return SoakStep::pathToken(pick(QList<QString>{"", "/dev/input/event999", "/dev/null",
                                                   "relative/event0", "/run/missing/event1"}));
}

QString SoakGenerator::anyDisplay()
{
    const int draw = below(100);
    if (draw < 85) {
        return QStringLiteral("x%1").arg(below(SoakWorld::servers));
    }
    if (draw < 92) {
        return QStringLiteral("none");
    }
    return QString::number(pick(QList<qint64>{-1, std::numeric_limits<int>::max()}));
}

qint64 SoakGenerator::anyStation(const QString& display)
{
    const int server = display.startsWith(QLatin1Char('x')) ? display.mid(1).toInt() : -1;
    const int draw = below(100);
    if (server >= 0 && draw < 75) {
        return stationOfServer[server];
    }
    if (draw < 90) {
        return below(48);
    }
    return pick(QList<qint64>{-1, -7, 48, 100, std::numeric_limits<int>::max(),
                              std::numeric_limits<int>::min()});
}
