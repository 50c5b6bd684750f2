#include "XvfbServer.h"

#include <QFile>
#include <QStandardPaths>
#include <QStringList>

#include <csignal>
#include <unistd.h>

XvfbServer::XvfbServer(QString screenSpec) : screen(std::move(screenSpec)) {}

XvfbServer::~XvfbServer()
{
    process.stop(SIGTERM);
    releaseNumber();
}

bool XvfbServer::isInstalled()
{
    return !QStandardPaths::findExecutable(QStringLiteral("Xvfb")).isEmpty();
}

bool XvfbServer::start()
{
    if (process.isRunning()) {
        return true;
    }
    QStringList arguments;
    if (displayNumber >= 0) {
        releaseNumber();
        arguments << getDisplayName();
    }
    arguments << QStringLiteral("-screen") << QStringLiteral("0") << screen
              << QStringLiteral("-nolisten") << QStringLiteral("tcp");
    const int number = process.start(QStringLiteral("Xvfb"), arguments);
    if (number < 0) {
        return false;
    }
    displayNumber = number;
    return true;
}

void XvfbServer::kill()
{
    const bool wasRunning = process.isRunning();
    process.stop(SIGKILL);
    if (wasRunning) {
        holdNumber();
    }
}

void XvfbServer::holdNumber()
{
    // The killed server could not remove its lock file; a server that finds a
    // lock of a live process leaves that number alone.
    QFile lock(lockFile());
    if (lock.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        lock.write(QByteArray::number(getpid()).rightJustified(10, ' ') + '\n');
    }
}

void XvfbServer::releaseNumber()
{
    if (displayNumber < 0) {
        return;
    }
    QFile lock(lockFile());
    if (lock.open(QIODevice::ReadOnly) && lock.readAll().trimmed().toLongLong() == getpid()) {
        lock.close();
        lock.remove();
    }
}
