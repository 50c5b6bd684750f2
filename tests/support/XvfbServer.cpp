#include "XvfbServer.h"

#include <QStandardPaths>
#include <QStringList>

#include <csignal>

XvfbServer::XvfbServer(QString screenSpec) : screen(std::move(screenSpec)) {}

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
    process.stop(SIGKILL);
}
