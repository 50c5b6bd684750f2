#include "SoakModel.h"

namespace {

// The key a station's keyboard is claimed with; empty past the digits.
QString keyOfStation(int station)
{
    const qint64 number = qint64(station) + 1;
    if (number <= 12) {
        return QStringLiteral("KEY_F%1").arg(number);
    }
    if (number <= 38) {
        return QStringLiteral("KEY_") + QChar('A' + station - 12);
    }
    if (number <= 48) {
        return QStringLiteral("KEY_") + QChar('0' + station - 38);
    }
    return QString();
}

const QString leftButton = QStringLiteral("BTN_LEFT");

} // namespace

const QStringList& SoakModel::assignmentKeys()
{
    static const QStringList keys = [] {
        QStringList names;
        for (int n = 1; n <= 12; ++n) {
            names.append(QStringLiteral("KEY_F%1").arg(n));
        }
        for (char letter = 'A'; letter <= 'Z'; ++letter) {
            names.append(QStringLiteral("KEY_") + QLatin1Char(letter));
        }
        names.append(QStringLiteral("BTN_LEFT"));
        return names;
    }();
    return keys;
}

QString SoakModel::stateName(State state)
{
    switch (state) {
    case Start:
        return QStringLiteral("start");
    case ConfiguringKeyboard:
        return QStringLiteral("configuring_keyboard");
    case KeyboardConfigured:
        return QStringLiteral("keyboard_configured");
    case MouseBusy:
        return QStringLiteral("mouse_busy");
    case ConfiguringMouse:
        return QStringLiteral("configuring_mouse");
    case MouseConfigured:
        return QStringLiteral("mouse_configured");
    }
    return QString();
}

SoakModel::SoakModel(const QList<Combination>& keyCombinations) : combinations(keyCombinations) {}

void SoakModel::setPlugged(const QString& path, bool isPlugged)
{
    if (isPlugged) {
        plugged.insert(path);
    } else {
        plugged.remove(path);
    }
}

void SoakModel::deviceAddedToStation(const QString& path, int station)
{
    if (AssignedDevice* device = findAssigned(path)) {
        device->station = station;
    } else if (plugged.contains(path)) {
        assigned.append({path, station, {}});
    }
    update();
}

void SoakModel::deviceRemovedFromStation(const QString& path)
{
    for (int i = 0; i < assigned.size(); ++i) {
        if (assigned[i].path == path) {
            // Its pending combinations never run: no more keys come from it.
            assigned.removeAt(i);
            triggers.removeIf([&](const Trigger& trigger) { return trigger.path == path; });
            break;
        }
    }
    update();
}

void SoakModel::unassignedDeviceAdded(const QString& path)
{
    if (!unassigned.contains(path) && plugged.contains(path)) {
        unassigned.append(path);
        unassignedKeysDown.insert(path, {});
    }
    update();
}

void SoakModel::unassignedDeviceRemoved(const QString& path)
{
    removeUnassigned(path);
    update();
}

void SoakModel::configureKeyboard(int displayId, int station)
{
    Display& display = displayFor(displayId, station);
    if (display.state == ConfiguringMouse) {
        // The mouse step is abandoned: the button goes to the next display.
        mouseAssigned(QString());
    }
    if (display.station < 0) {
        bugs.append(QStringLiteral("stationId is invalid: %1").arg(display.station));
    }
    display.key = keyOfStation(display.station);
    if (display.key.isEmpty()) {
        bugs.append(
            QStringLiteral("There are no possible keys to use for assignment for station %1")
                .arg(display.station));
    }
    display.state = ConfiguringKeyboard;
    if (!display.key.isEmpty()) {
        bind(display.key, displayId);
    }
    update();
}

void SoakModel::configureMouse(int displayId, int station)
{
    Display& display = displayFor(displayId, station);
    if (display.state != KeyboardConfigured && display.state != MouseBusy) {
        bugs.append(QStringLiteral("State is %1, but it's expected to be state "
                                   "keyboard_configured or mouse_busy")
                        .arg(stateName(display.state)));
    }
    if (mouseBusy) {
        display.state = MouseBusy;
    } else {
        display.key = leftButton;
        display.state = ConfiguringMouse;
        mouseBusy = true;
        bind(leftButton, displayId);
    }
    update();
}

void SoakModel::configurationComplete(int displayId)
{
    for (int i = 0; i < displayList.size(); ++i) {
        if (displayList[i].id == displayId) {
            displayList.removeAt(i);
            // No key stays bound to a display that is gone.
            for (auto it = bindings.begin(); it != bindings.end();) {
                it = it.value() == displayId ? bindings.erase(it) : std::next(it);
            }
            break;
        }
    }
    update();
}

void SoakModel::keyEvent(const QString& path, const QString& key, bool pressed)
{
    if (unassigned.contains(path)) {
        QSet<QString>& keysDown = unassignedKeysDown[path];
        const bool pressedOnce = pressed && !keysDown.contains(key);
        if (pressed) {
            keysDown.insert(key);
        } else {
            keysDown.remove(key);
        }
        if (pressedOnce && !devicesToRemove.contains(path) && bindings.contains(key)) {
            if (Display* display = findDisplay(bindings.value(key))) {
                assignmentKeyPressed(*display, path);
            }
        }
    }
    if (AssignedDevice* device = findAssigned(path)) {
        assignedKeyEvent(*device, key, pressed);
    }
    // The claimed device leaves at the next update, before the next step.
    update();
}

void SoakModel::update()
{
    const QStringList names = std::exchange(devicesToRemove, {});
    for (const QString& path : names) {
        removeUnassigned(path);
    }
}

QStringList SoakModel::assignedDevices() const
{
    QStringList paths;
    for (const AssignedDevice& device : assigned) {
        paths.append(device.path);
    }
    return paths;
}

int SoakModel::stationOf(const QString& assignedPath) const
{
    for (const AssignedDevice& device : assigned) {
        if (device.path == assignedPath) {
            return device.station;
        }
    }
    return noStation;
}

const SoakModel::Display* SoakModel::display(int displayId) const
{
    for (const Display& display : displayList) {
        if (display.id == displayId) {
            return &display;
        }
    }
    return nullptr;
}

QStringList SoakModel::takeLeftUnassigned()
{
    return std::exchange(leftUnassigned, {});
}

SoakModel::Display* SoakModel::findDisplay(int displayId)
{
    for (Display& display : displayList) {
        if (display.id == displayId) {
            return &display;
        }
    }
    return nullptr;
}

SoakModel::Display& SoakModel::displayFor(int displayId, int station)
{
    // An existing configuration is reused whatever station it was made for.
    if (Display* display = findDisplay(displayId)) {
        return *display;
    }
    displayList.append({displayId, station, Start, QString()});
    return displayList.last();
}

SoakModel::AssignedDevice* SoakModel::findAssigned(const QString& path)
{
    for (AssignedDevice& device : assigned) {
        if (device.path == path) {
            return &device;
        }
    }
    return nullptr;
}

void SoakModel::bind(const QString& key, int displayId)
{
    if (!assignmentKeys().contains(key)) {
        // A digit or a key outside the table: nothing can claim that display.
        bugs.append(QStringLiteral("Could not find key sequence for ") + key);
        return;
    }
    bindings.insert(key, displayId);
}

void SoakModel::assignmentKeyPressed(Display& display, const QString& path)
{
    if (display.state == ConfiguringKeyboard) {
        autoCalls.append(
            QStringLiteral("com.orvanta.Assignment.DeviceAssignedAuto \"%1\" %2 \"KeyboardDevice\"")
                .arg(path)
                .arg(display.id));
        display.state = KeyboardConfigured;
        keyboardAssigned(display, path);
    } else if (display.state == ConfiguringMouse) {
        autoCalls.append(
            QStringLiteral("com.orvanta.Assignment.DeviceAssignedAuto \"%1\" %2 \"MouseDevice\"")
                .arg(path)
                .arg(display.id));
        display.state = MouseConfigured;
        mouseAssigned(path);
    } else {
        bugs.append(QStringLiteral("State is invalid for handling assignment key.  State: ") +
                    stateName(display.state));
    }
}

void SoakModel::keyboardAssigned(const Display& display, const QString& path)
{
    // A display without a key, or with one outside the table, can still be
    // claimed through a key that an earlier step bound to it: the left button
    // of a mouse step, still bound after the display went on to the keyboard.
    // The handler then reports the key it cannot find.
    if (display.key.isEmpty()) {
        bugs.append(QStringLiteral("The assignment key is empty"));
        return;
    }
    if (!assignmentKeys().contains(display.key)) {
        bugs.append(QStringLiteral("Could not find key sequence for ") + display.key);
    }
    bindings.remove(display.key);
    devicesToRemove.append(path);
}

void SoakModel::mouseAssigned(const QString& path)
{
    mouseBusy = false;
    bindings.remove(leftButton);
    for (Display& waiting : displayList) {
        if (waiting.state == MouseBusy) {
            waiting.key = leftButton;
            waiting.state = ConfiguringMouse;
            mouseBusy = true;
            bindings.insert(leftButton, waiting.id);
            break;
        }
    }
    if (!path.isEmpty()) {
        devicesToRemove.append(path);
    }
}

void SoakModel::removeUnassigned(const QString& path)
{
    if (unassigned.removeOne(path)) {
        unassignedKeysDown.remove(path);
        if (plugged.contains(path)) {
            leftUnassigned.append(path);
        }
    }
}

void SoakModel::assignedKeyEvent(AssignedDevice& device, const QString& key, bool pressed)
{
    const bool pressedOnce = pressed && !device.keysDown.contains(key);
    if (pressed) {
        device.keysDown.insert(key);
    } else {
        device.keysDown.remove(key);
    }
    if (pressedOnce) {
        for (int i = 0; i < combinations.size(); ++i) {
            const Combination& combination = combinations[i];
            bool held = combination.pressKey == key;
            for (const QString& holdKey : combination.holdKeys) {
                held = held && device.keysDown.contains(holdKey);
            }
            bool known = false;
            for (const Trigger& trigger : std::as_const(triggers)) {
                known = known || (trigger.combination == i && trigger.path == device.path);
            }
            if (held && !known) {
                triggers.append({i, device.path});
            }
        }
    }
    if (!device.keysDown.isEmpty()) {
        return;
    }
    // All keys up: the device's combinations run, in the order they were typed.
    for (auto it = triggers.begin(); it != triggers.end();) {
        if (it->path == device.path) {
            commands.append(combinations[it->combination].word + QLatin1Char(' ') +
                            QString::number(device.station));
            it = triggers.erase(it);
        } else {
            ++it;
        }
    }
}
