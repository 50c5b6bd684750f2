#include "seats/DaemonCall.h"

#include <QStringList>

DaemonCall DaemonCall::unassignedDeviceAdded(const QString& devicePath)
{
    return {Method::UnassignedDeviceAdded, {devicePath}};
}

DaemonCall DaemonCall::unassignedDeviceRemoved(const QString& devicePath)
{
    return {Method::UnassignedDeviceRemoved, {devicePath}};
}

DaemonCall DaemonCall::deviceAddedToStation(const QString& devicePath, int stationId)
{
    return {Method::DeviceAddedToStation, {devicePath, stationId}};
}

DaemonCall DaemonCall::deviceRemovedFromStation(const QString& devicePath)
{
    return {Method::DeviceRemovedFromStation, {devicePath}};
}

DaemonCall DaemonCall::configureKeyboard(int displayId, int stationId)
{
    return {Method::ConfigureKeyboard, {displayId, stationId}};
}

DaemonCall DaemonCall::configureMouse(int displayId, int stationId)
{
    return {Method::ConfigureMouse, {displayId, stationId}};
}

DaemonCall DaemonCall::configurationComplete(int displayId)
{
    return {Method::ConfigurationComplete, {displayId}};
}

QString DaemonCall::getMethodName() const
{
    switch (method) {
    case Method::UnassignedDeviceAdded:
        return QStringLiteral("unassignedDeviceAdded");
    case Method::UnassignedDeviceRemoved:
        return QStringLiteral("unassignedDeviceRemoved");
    case Method::DeviceAddedToStation:
        return QStringLiteral("deviceAddedToStation");
    case Method::DeviceRemovedFromStation:
        return QStringLiteral("deviceRemovedFromStation");
    case Method::ConfigureKeyboard:
        return QStringLiteral("configureKeyboard");
    case Method::ConfigureMouse:
        return QStringLiteral("configureMouse");
    case Method::ConfigurationComplete:
        return QStringLiteral("configurationComplete");
    }
    return QString();
}

QString DaemonCall::getDevicePath() const
{
    return arguments.value(0).toString();
}

int DaemonCall::getDisplayId() const
{
    return arguments.value(0).toInt();
}

int DaemonCall::getStationId() const
{
    return arguments.size() > 1 ? arguments.at(1).toInt() : -1;
}

QString DaemonCall::toString() const
{
    QStringList texts;
    for (const QVariant& argument : arguments) {
        texts << argument.toString();
    }
    return getMethodName() + "(" + texts.join(QStringLiteral(", ")) + ")";
}
