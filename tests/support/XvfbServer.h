#pragma once

#include "XServerProcess.h"

#include <QString>

// One Xvfb server for a test: "Xvfb :N -screen 0 <screen> -nolisten tcp" on a
// display number that was free, ready to accept connections when start()
// returns true. The server tells on its -displayfd pipe when it is ready, so
// nothing waits a fixed time. It can be killed and started again on the same
// number, for tests of a server that goes away and comes back: while it is
// down, its lock file names this process, so that no other server (of this
// test or another one running beside it) takes the number. The destructor
// kills it and gives the number back.
class XvfbServer
{
public:
    // screen: "WIDTHxHEIGHTxDEPTH", e.g. "1024x768x24".
    explicit XvfbServer(QString screen = QStringLiteral("1024x768x24"));
    ~XvfbServer();

    XvfbServer(const XvfbServer&) = delete;
    XvfbServer& operator=(const XvfbServer&) = delete;

    // Whether an Xvfb program can be found at all.
    static bool isInstalled();

    // Starts on a free display number, or on the last one after kill().
    bool start();
    // Starts on this display number, for a test that names the display before
    // its server runs; false when that number is taken.
    bool startOn(int number)
    {
        if (!isRunning()) {
            displayNumber = number;
        }
        return start() && displayNumber == number;
    }
    // Ends the server at once (SIGKILL) and reaps it.
    void kill();

    bool isRunning() const { return process.isRunning(); }
    // -1 when it is not running.
    pid_t getPid() const { return process.getPid(); }
    int getDisplayNumber() const { return displayNumber; }
    QString getDisplayName() const { return QStringLiteral(":%1").arg(displayNumber); }

private:
    QString lockFile() const { return QStringLiteral("/tmp/.X%1-lock").arg(displayNumber); }
    // The lock file as an X server writes it, with this process's pid.
    void holdNumber();
    // Removes the lock file if this process holds it.
    void releaseNumber();

    QString screen;
    XServerProcess process;
    int displayNumber = -1;
};
