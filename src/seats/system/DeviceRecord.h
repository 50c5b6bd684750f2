#pragma once

#include "seats/system/SystemSnapshot.h"

#include <QHash>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

// What udev tells of one device, copied out of libudev so that the choices
// below can be made (and tested) without it.
struct DeviceRecord
{
    QString syspath;
    QString sysname;
    QString subsystem;
    QString devtype;
    QString devnode;
    // udev's properties (ID_INPUT_KEYBOARD, ID_FOR_SEAT, ID_SEAT, NAME...).
    QHash<QString, QString> properties;
    QStringList tags;
    // The sysfs attribute "idVendor" exists: a USB device, not an interface.
    bool hasIdVendor = false;
    // The sysfs attribute "name" (an inputN device's name), empty when none.
    QString nameAttribute;
};

// The syspath that logind's AttachDevice is given for an event node, from the
// node's ancestors nearest first: the nearest USB device (subsystem usb,
// devtype usb_device, with an idVendor), so that whatever is later plugged
// into that port gets the same seat; without one, the inputN parent. Empty
// when there is neither.
QString portOf(const QVector<DeviceRecord>& ancestors);

// The keyboard or mouse an event node is, or nothing when it is no "eventN"
// node of the input subsystem or neither ID_INPUT_KEYBOARD nor ID_INPUT_MOUSE
// is 1. `ancestors` are the node's ancestors, nearest first.
std::optional<InputDeviceInfo> inputDeviceFrom(const DeviceRecord& node,
                                               const QVector<DeviceRecord>& ancestors);

// The graphics card a drm device is, or nothing when it is no "cardN" (a
// connector such as card0-HDMI-A-1, or a render node).
std::optional<GraphicsCardInfo> graphicsCardFrom(const DeviceRecord& device);
