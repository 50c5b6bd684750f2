#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

// The platform simulator (tools/platform-simulator) run for one test on the
// test's private bus, recording every call it receives into a file.
class PlatformSimulatorProcess
{
public:
    // Starts the simulator and waits until it owns its names.
    PlatformSimulatorProcess(const QString& busAddress, const QString& recordFile,
                             const QStringList& options = {});
    ~PlatformSimulatorProcess();

    PlatformSimulatorProcess(const PlatformSimulatorProcess&) = delete;
    PlatformSimulatorProcess& operator=(const PlatformSimulatorProcess&) = delete;

    bool isReady() const { return ready; }
    // The calls received so far, one "interface.Method arguments" line each.
    QStringList calls() const;
    // Waits until a call line equal to `call` has been recorded.
    bool waitForCall(const QString& call, int timeoutMs = 10000) const;

private:
    QProcess process;
    QString recordFile;
    bool ready = false;
};
