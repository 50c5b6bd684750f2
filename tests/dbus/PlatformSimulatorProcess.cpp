#include "PlatformSimulatorProcess.h"

#include "DaemonRunner.h"

#include <QProcessEnvironment>

PlatformSimulatorProcess::PlatformSimulatorProcess(const QString& busAddress,
                                                   const QString& recordFile_,
                                                   const QStringList& options)
    : recordFile(recordFile_)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("DBUS_SESSION_BUS_ADDRESS", busAddress);
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QString::fromLatin1(SELVANE_PLATFORM_SIMULATOR),
                  QStringList{"--quiet", "--record", recordFile} + options);
    ready = process.waitForStarted() && DaemonRunner::waitUntil([this] {
                return process.canReadLine() &&
                       process.readLine().trimmed() == "platform-simulator ready";
            });
}

PlatformSimulatorProcess::~PlatformSimulatorProcess()
{
    process.terminate();
    if (!process.waitForFinished()) {
        process.kill();
        process.waitForFinished();
    }
}

QStringList PlatformSimulatorProcess::calls() const
{
    return DaemonRunner::readLines(recordFile);
}

bool PlatformSimulatorProcess::waitForCall(const QString& call, int timeoutMs) const
{
    return DaemonRunner::waitUntil([&] { return calls().contains(call); }, timeoutMs);
}
