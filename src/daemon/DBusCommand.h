#pragma once

#include <QString>

class AssignedDeviceHandler;
class AssignmentHandler;
class Selvane;

// A remote call received on the daemon's D-Bus object, kept with its arguments
// until the central object's next update, where `execute` forwards it to
// the handler that owns the matter. Calls are never acted on inside the D-Bus
// dispatch, so they cannot re-enter a handler in the middle of its update.
class DBusCommand
{
public:
    virtual ~DBusCommand();
    virtual void execute(Selvane* selvane) const = 0;

protected:
    // The central object's handlers; null (with a Bug line) when there is no
    // central object or it has no such handler.
    static AssignedDeviceHandler* assignedDeviceHandler(Selvane* selvane);
    static AssignmentHandler* assignmentHandler(Selvane* selvane);
};

class DBusCommandLogStatus : public DBusCommand
{
public:
    void execute(Selvane* selvane) const override;
};

class DBusCommandDeviceAddedToStation : public DBusCommand
{
public:
    DBusCommandDeviceAddedToStation(QString devicePath, int stationId);
    void execute(Selvane* selvane) const override;

private:
    QString devicePath;
    int stationId;
};

class DBusCommandDeviceRemovedFromStation : public DBusCommand
{
public:
    explicit DBusCommandDeviceRemovedFromStation(QString devicePath);
    void execute(Selvane* selvane) const override;

private:
    QString devicePath;
};

class DBusCommandUnassignedDeviceAdded : public DBusCommand
{
public:
    explicit DBusCommandUnassignedDeviceAdded(QString devicePath);
    void execute(Selvane* selvane) const override;

private:
    QString devicePath;
};

class DBusCommandUnassignedDeviceRemoved : public DBusCommand
{
public:
    explicit DBusCommandUnassignedDeviceRemoved(QString devicePath);
    void execute(Selvane* selvane) const override;

private:
    QString devicePath;
};

class DBusCommandConfigureKeyboard : public DBusCommand
{
public:
    DBusCommandConfigureKeyboard(int displayId, int stationId);
    void execute(Selvane* selvane) const override;

private:
    int displayId;
    int stationId;
};

class DBusCommandConfigureMouse : public DBusCommand
{
public:
    DBusCommandConfigureMouse(int displayId, int stationId);
    void execute(Selvane* selvane) const override;

private:
    int displayId;
    int stationId;
};

class DBusCommandConfigurationComplete : public DBusCommand
{
public:
    explicit DBusCommandConfigurationComplete(int displayId);
    void execute(Selvane* selvane) const override;

private:
    int displayId;
};
