#pragma once

#include <QString>

#include <memory>
#include <vector>

class CallRecorder;
class SimulatedService;
class SimulatorSettings;

// The platform's three services as the daemon sees them: the database, the
// assignment service and the session controller, each owning its well-known
// name on the session bus with one object of the interface of the same name.
class PlatformSimulator
{
public:
    PlatformSimulator(const SimulatorSettings& settings, CallRecorder& recorder);
    ~PlatformSimulator();

    // Registers every object and owns every name; on failure `error` says which
    // (also a delay or hang given for a service that is not simulated).
    bool start(QString& error);

private:
    const SimulatorSettings& settings;
    std::vector<std::unique_ptr<SimulatedService>> services;
};
