#include "daemon/Selvane.h"

#include "common/Logger.h"

namespace {
constexpr char logSource[] = "Selvane";
constexpr int updateIntervalMs = 100;
} // namespace

Selvane::Selvane([[maybe_unused]] QString configFile)
{
    connect(&timer, &QTimer::timeout, this, &Selvane::update);
    timer.start(updateIntervalMs);
}

Selvane::~Selvane() = default;

void Selvane::update() {}

void Selvane::logStatus() {}
