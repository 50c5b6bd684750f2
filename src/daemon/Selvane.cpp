#include "daemon/Selvane.h"

#include "common/Logger.h"
#include "sequences/AssignedDeviceHandler.h"

namespace {
constexpr char logSource[] = "Selvane";
constexpr int updateIntervalMs = 100;
} // namespace

Selvane::Selvane(QString configFile)
{
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
    assignedDeviceHandler->update();
}

void Selvane::logStatus()
{
    assignedDeviceHandler->logStatus();
}
