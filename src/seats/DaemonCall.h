#pragma once

#include <QString>
#include <QVariantList>
#include <QVector>

// One call to make to the daemon (service "com.orvanta.selvane", object "/"),
// as a value: the bus adapter sends `getMethodName()` with `arguments` in
// order, without waiting for a reply. The arguments have the daemon's types:
// a device path is a QString, a station or display number an int.
struct DaemonCall
{
    enum class Method
    {
        UnassignedDeviceAdded,    // (QString devicePath)
        UnassignedDeviceRemoved,  // (QString devicePath)
        DeviceAddedToStation,     // (QString devicePath, int stationId)
        DeviceRemovedFromStation, // (QString devicePath)
        ConfigureKeyboard,        // (int displayId, int stationId)
        ConfigureMouse,           // (int displayId, int stationId)
        ConfigurationComplete     // (int displayId)
    };

    Method method;
    QVariantList arguments;

    static DaemonCall unassignedDeviceAdded(const QString& devicePath);
    static DaemonCall unassignedDeviceRemoved(const QString& devicePath);
    static DaemonCall deviceAddedToStation(const QString& devicePath, int stationId);
    static DaemonCall deviceRemovedFromStation(const QString& devicePath);
    static DaemonCall configureKeyboard(int displayId, int stationId);
    static DaemonCall configureMouse(int displayId, int stationId);
    static DaemonCall configurationComplete(int displayId);

    // The daemon's method name, e.g. "configureKeyboard".
    QString getMethodName() const;
    // The first argument as a device path, or as a display number.
    QString getDevicePath() const;
    int getDisplayId() const;
    // The station argument of the calls that have one, else -1.
    int getStationId() const;
    // "configureKeyboard(1, 1)", "unassignedDeviceAdded(/dev/input/event3)":
    // for logs and for tests that compare sequences of calls.
    QString toString() const;

    bool operator==(const DaemonCall& other) const
    {
        return method == other.method && arguments == other.arguments;
    }
};

using DaemonCalls = QVector<DaemonCall>;
