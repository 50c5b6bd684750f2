#pragma once

#include "daemon/DBusInterface.h"

#include <QObject>
#include <QString>
#include <QTimer>

class AssignedDeviceHandler;

// The daemon's central object. It owns the handlers and drives all of them
// from one repeating 100 ms timer: the program has no other periodic work and
// no other thread.
class Selvane : public QObject
{
    Q_OBJECT

public:
    // configFile is the key configuration file named on the command line.
    explicit Selvane(QString configFile);
    ~Selvane() override;

    // Logs the state of the handlers.
    void logStatus();

    AssignedDeviceHandler* getAssignedDeviceHandler() { return assignedDeviceHandler; }

public Q_SLOTS:
    // One round of periodic work.
    void update();

private:
    QTimer timer;
    DBusInterface dbusInterface;
    AssignedDeviceHandler* assignedDeviceHandler = nullptr;
};
