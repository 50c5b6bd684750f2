#pragma once

#include "common/RemoteObjectProxy.h"

#include <QList>
#include <QObject>
#include <QString>

class DBusCommand;
class Selvane;

// The daemon's presence on the session bus. It owns the service name
// "com.orvanta.selvane", exports its slots as the remote methods of the object
// "/", and holds the proxies of the platform's database, session-controller
// and assignment services. A remote call only queues a command and emits
// commandQueued(); `update()`, run by each of the central object's updates,
// executes the queue in arrival order.
class DBusInterface : public QObject
{
    Q_OBJECT
    // Fixed here rather than derived by Qt from the application's name and
    // organisation domain, so that it is the same in every program.
    Q_CLASSINFO("D-Bus Interface", "com.orvanta.selvane.DBusInterface")

public:
    explicit DBusInterface(Selvane* selvane);
    ~DBusInterface() override;

    // Registers the service and the object "/" and announces the start to the
    // assignment service. False when the bus, the name or the path is unavailable.
    bool connect();
    // Executes and drains the queued commands, first in, first out.
    void update();

    // The platform's services; a blocking call to one waits at most 2 s.
    QDBusAbstractInterface* getDatabaseInterface() { return &databaseInterface; }
    QDBusAbstractInterface* getSessionControllerInterface() { return &sessionControllerInterface; }
    QDBusAbstractInterface* getAssignmentInterface() { return &assignmentInterface; }

public Q_SLOTS:
    void deviceAddedToStation(QString devicePath, int stationId);
    void deviceRemovedFromStation(QString devicePath);
    void unassignedDeviceAdded(QString devicePath);
    void unassignedDeviceRemoved(QString devicePath);
    void configureKeyboard(int displayId, int stationId);
    void configureMouse(int displayId, int stationId);
    void configurationComplete(int displayId);
    void logStatus();

Q_SIGNALS:
    // A remote call queued a command for the next update().
    void commandQueued();

private:
    void queueCommand(DBusCommand* command);

    Selvane* selvane;
    Orvanta::RemoteObjectProxy databaseInterface;
    Orvanta::RemoteObjectProxy sessionControllerInterface;
    Orvanta::RemoteObjectProxy assignmentInterface;
    QList<DBusCommand*> commandQueue;
};
