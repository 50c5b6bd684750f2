#include "XvfbServer.h"

#include "TestFiles.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QStandardPaths>
#include <QStringList>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <thread>
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

int XvfbServer::unusedDisplayNumber(int from)
{
    for (int number = from; number < firstNumberForNoServer + 100; ++number) {
        if (!QFile::exists(QStringLiteral("/tmp/.X11-unix/X%1").arg(number)) &&
            !QFile::exists(lockFile(number))) {
            return number;
        }
    }
    return -1;
}

bool XvfbServer::start()
{
    if (process.isRunning()) {
        return true;
    }
    if (displayNumber >= 0) {
        releaseNumber();
        return launch(displayNumber);
    }
    // Xvfb left to choose takes the first number whose socket it can bind,
    // held by a lock file or not, and so the number of a server that another
    // test killed and will start again. The numbers that no lock file names
    // and no server listens on are tried in turn instead (a server started
    // with -displayfd writes no lock file): one that a server starting beside
    // this one takes meanwhile makes the start fail, and the next one is
    // tried. A server that cannot start at all is not tried on every number.
    constexpr int maximumLaunches = 16;
    int launches = 0;
    for (int number = 0; number < firstNumberForNoServer && launches < maximumLaunches; ++number) {
        if (QFile::exists(lockFile(number)) || isListenedOn(number)) {
            continue;
        }
        ++launches;
        if (launch(number)) {
            return true;
        }
    }
    return false;
}

bool XvfbServer::launch(int number)
{
    const QStringList arguments = {
        QStringLiteral(":%1").arg(number), QStringLiteral("-screen"), QStringLiteral("0"), screen,
        QStringLiteral("-nolisten"),       QStringLiteral("tcp")};
    if (process.start(QStringLiteral("Xvfb"), arguments, outputFile()) != number) {
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
        waitForListenersToClose();
    }
}

bool XvfbServer::isListenedOn(int number)
{
    const QByteArray socketName = QStringLiteral("/tmp/.X11-unix/X%1").arg(number).toLatin1();
    const QList<QByteArray> lines = readFile(QStringLiteral("/proc/net/unix")).split('\n');
    return std::any_of(lines.begin(), lines.end(), [&socketName](const QByteArray& line) {
        return line.endsWith(" " + socketName) || line.endsWith(" @" + socketName);
    });
}

void XvfbServer::waitForListenersToClose() const
{
    // The server runs xkbcomp through a shell at every reset, and both inherit
    // its listening sockets; killed in the middle of one, the server leaves
    // them listening until the compiler is done, and a new server on the
    // same number cannot bind its socket.
    const QDeadlineTimer deadline(10000);
    while (isListenedOn(displayNumber) && !deadline.hasExpired()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void XvfbServer::holdNumber()
{
    // The killed server could not remove its lock file; a server that finds a
    // lock of a live process leaves that number alone.
    QFile lock(lockFile(displayNumber));
    if (lock.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        lock.write(QByteArray::number(getpid()).rightJustified(10, ' ') + '\n');
    }
}

void XvfbServer::releaseNumber()
{
    if (displayNumber < 0) {
        return;
    }
    QFile lock(lockFile(displayNumber));
    if (lock.open(QIODevice::ReadOnly) && lock.readAll().trimmed().toLongLong() == getpid()) {
        lock.close();
        lock.remove();
    }
}
