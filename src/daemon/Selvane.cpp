#include "daemon/Selvane.h"

#include "common/Logger.h"
#include "sequences/AssignedDeviceHandler.h"

#include <cstdlib>

namespace {
constexpr char logSource[] = "Selvane";
constexpr int updateIntervalMs = 100;
} // namespace

Selvane::Selvane(QString configFile) : dbusInterface(this)
{
    if (!dbusInterface.connect()) {
        SELVANE_LOG(LEVEL_ERROR, "Could not connect to dbus");
        exit(1);
    }
    assignedDeviceHandler = new AssignedDeviceHandler(configFile);
    connect(&timer, &QTimer::timeout, this, &Selvane::update);
    timer.start(updateIntervalMs);
}

Selvane::~Selvane()
{
    delete assignedDeviceHandler;
}

void Selvane::update()
{
    dbusInterface.update();
    assignedDeviceHandler->update();
}

void Selvane::logStatus()
{
    assignedDeviceHandler->logStatus();
}
