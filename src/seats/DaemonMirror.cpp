#include "seats/DaemonMirror.h"

QString DaemonMirror::stateToString(DisplayState state)
{
    switch (state) {
    case DisplayState::ConfiguringKeyboard:
        return QStringLiteral("configuring_keyboard");
    case DisplayState::KeyboardConfigured:
        return QStringLiteral("keyboard_configured");
    case DisplayState::MouseBusy:
        return QStringLiteral("mouse_busy");
    case DisplayState::ConfiguringMouse:
        return QStringLiteral("configuring_mouse");
    case DisplayState::MouseConfigured:
        return QStringLiteral("mouse_configured");
    }
    return QString();
}

void DaemonMirror::clear()
{
    devices.clear();
    displays.clear();
    mouseBusy = false;
}

void DaemonMirror::apply(const DaemonCall& call)
{
    switch (call.method) {
    case DaemonCall::Method::UnassignedDeviceAdded:
        devices.insert(call.getDevicePath(), -1);
        return;
    case DaemonCall::Method::DeviceAddedToStation:
        devices.insert(call.getDevicePath(), call.getStationId());
        return;
    case DaemonCall::Method::UnassignedDeviceRemoved:
    case DaemonCall::Method::DeviceRemovedFromStation:
        devices.remove(call.getDevicePath());
        return;
    case DaemonCall::Method::ConfigureKeyboard: {
        Display& display = displayFor(call.getDisplayId(), call.getStationId());
        if (display.state == DisplayState::ConfiguringMouse) {
            handOnMouseButton();
        }
        display.state = DisplayState::ConfiguringKeyboard;
        return;
    }
    case DaemonCall::Method::ConfigureMouse: {
        Display& display = displayFor(call.getDisplayId(), call.getStationId());
        display.state = mouseBusy ? DisplayState::MouseBusy : DisplayState::ConfiguringMouse;
        mouseBusy = true;
        return;
    }
    case DaemonCall::Method::ConfigurationComplete:
        for (int index = 0; index < displays.size(); ++index) {
            if (displays.at(index).displayId == call.getDisplayId()) {
                displays.remove(index);
                return;
            }
        }
        return;
    }
}

void DaemonMirror::keyboardClaimed(const QString& devicePath, int displayId)
{
    dropUnassigned(devicePath);
    for (Display& display : displays) {
        if (display.displayId == displayId && display.state == DisplayState::ConfiguringKeyboard) {
            display.state = DisplayState::KeyboardConfigured;
        }
    }
}

void DaemonMirror::mouseClaimed(const QString& devicePath, int displayId)
{
    dropUnassigned(devicePath);
    for (Display& display : displays) {
        if (display.displayId == displayId && display.state == DisplayState::ConfiguringMouse) {
            display.state = DisplayState::MouseConfigured;
            handOnMouseButton();
            return;
        }
    }
}

void DaemonMirror::dropUnassigned(const QString& devicePath)
{
    if (isUnassigned(devicePath)) {
        devices.remove(devicePath);
    }
}

bool DaemonMirror::isUnassigned(const QString& devicePath) const
{
    return devices.value(devicePath, -2) == -1;
}

int DaemonMirror::stationOf(const QString& devicePath) const
{
    return devices.value(devicePath, -1);
}

const DaemonMirror::Display* DaemonMirror::findDisplay(int displayId) const
{
    for (const Display& display : displays) {
        if (display.displayId == displayId) {
            return &display;
        }
    }
    return nullptr;
}

// The daemon keeps an existing configuration of the display, even one made
// for another station.
DaemonMirror::Display& DaemonMirror::displayFor(int displayId, int stationId)
{
    for (Display& display : displays) {
        if (display.displayId == displayId) {
            return display;
        }
    }
    displays.append({displayId, stationId, DisplayState::ConfiguringKeyboard});
    return displays.last();
}

void DaemonMirror::handOnMouseButton()
{
    mouseBusy = false;
    for (Display& display : displays) {
        if (display.state == DisplayState::MouseBusy) {
            display.state = DisplayState::ConfiguringMouse;
            mouseBusy = true;
            return;
        }
    }
}
