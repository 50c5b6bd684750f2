#include "seats/system/DeviceRecord.h"

#include <QRegularExpression>

namespace {
const QString one = QStringLiteral("1");

bool isUsbDevice(const DeviceRecord& device)
{
    return device.subsystem == QLatin1String("usb") &&
           device.devtype == QLatin1String("usb_device") && device.hasIdVendor;
}

bool isInputParent(const DeviceRecord& device)
{
    static const QRegularExpression inputName(QStringLiteral("^input[0-9]+$"));
    return device.subsystem == QLatin1String("input") && inputName.match(device.sysname).hasMatch();
}

const DeviceRecord* portRecord(const QVector<DeviceRecord>& ancestors)
{
    for (const DeviceRecord& ancestor : ancestors) {
        if (isUsbDevice(ancestor)) {
            return &ancestor;
        }
    }
    for (const DeviceRecord& ancestor : ancestors) {
        if (isInputParent(ancestor)) {
            return &ancestor;
        }
    }
    return nullptr;
}

// udev's NAME of an input device carries the quotes of the kernel's uevent
// ("\"QEMU USB Keyboard\"").
QString unquoted(const QString& text)
{
    if (text.size() >= 2 && text.startsWith(QLatin1Char('"')) && text.endsWith(QLatin1Char('"'))) {
        return text.mid(1, text.size() - 2);
    }
    return text;
}

QString nameOf(const DeviceRecord& node, const QVector<DeviceRecord>& ancestors)
{
    QString own = unquoted(node.properties.value(QStringLiteral("NAME")));
    if (!own.isEmpty()) {
        return own;
    }
    for (const DeviceRecord& ancestor : ancestors) {
        if (isInputParent(ancestor)) {
            return ancestor.nameAttribute.isEmpty()
                       ? unquoted(ancestor.properties.value(QStringLiteral("NAME")))
                       : ancestor.nameAttribute.trimmed();
        }
    }
    return {};
}
} // namespace

QString portOf(const QVector<DeviceRecord>& ancestors)
{
    const DeviceRecord* port = portRecord(ancestors);
    return port == nullptr ? QString() : port->syspath;
}

std::optional<InputDeviceInfo> inputDeviceFrom(const DeviceRecord& node,
                                               const QVector<DeviceRecord>& ancestors)
{
    static const QRegularExpression eventName(QStringLiteral("^event[0-9]+$"));
    if (node.subsystem != QLatin1String("input") || !eventName.match(node.sysname).hasMatch()) {
        return std::nullopt;
    }
    InputDeviceInfo device;
    device.keyboard = node.properties.value(QStringLiteral("ID_INPUT_KEYBOARD")) == one;
    device.mouse = node.properties.value(QStringLiteral("ID_INPUT_MOUSE")) == one;
    if (!device.keyboard && !device.mouse) {
        return std::nullopt;
    }
    device.devnode = node.devnode;
    device.syspath = node.syspath;
    device.name = nameOf(node, ancestors);
    // udev's seat rules tag the inputN device, not its event node: that is
    // where ID_FOR_SEAT is (ID_SEAT is imported down to the node).
    device.forSeat = node.properties.value(QStringLiteral("ID_FOR_SEAT"));
    for (auto ancestor = ancestors.cbegin();
         device.forSeat.isEmpty() && ancestor != ancestors.cend(); ++ancestor) {
        if (isInputParent(*ancestor)) {
            device.forSeat = ancestor->properties.value(QStringLiteral("ID_FOR_SEAT"));
            break;
        }
    }
    device.seat = node.properties.value(QStringLiteral("ID_SEAT"));
    if (const DeviceRecord* port = portRecord(ancestors)) {
        device.port = port->syspath;
        device.portForSeat = port->properties.value(QStringLiteral("ID_FOR_SEAT"));
    }
    return device;
}

std::optional<GraphicsCardInfo> graphicsCardFrom(const DeviceRecord& device)
{
    static const QRegularExpression cardName(QStringLiteral("^card[0-9]+$"));
    if (device.subsystem != QLatin1String("drm") || !cardName.match(device.sysname).hasMatch()) {
        return std::nullopt;
    }
    GraphicsCardInfo card;
    card.syspath = device.syspath;
    card.seat = device.properties.value(QStringLiteral("ID_SEAT"));
    card.masterOfSeat = device.tags.contains(QStringLiteral("master-of-seat"));
    card.forSeat = device.properties.value(QStringLiteral("ID_FOR_SEAT"));
    return card;
}
