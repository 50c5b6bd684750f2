#pragma once

#include "XServerProcess.h"

#include <QString>
#include <QTemporaryDir>

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

    // The numbers from here on are left to tests that need a display on
    // which no server runs.
    static constexpr int firstNumberForNoServer = 600;
    // A display number from `from` on that no server uses, far above those
    // that servers choosing their own number take first; -1 when there is none.
    static int unusedDisplayNumber(int from = firstNumberForNoServer);

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
    // Why the last start() failed, as the server said it.
    QString startError() const { return XServerProcess::fatalError(outputFile()); }

private:
    QString outputFile() const { return outputDir.filePath(QStringLiteral("Xvfb.output")); }
    static QString lockFile(int number) { return QStringLiteral("/tmp/.X%1-lock").arg(number); }
    // Starts the server on this number; false when it did not come up there.
    bool launch(int number);
    // The lock file as an X server writes it, with this process's pid.
    void holdNumber();
    // Whether a process listens on the display's socket, abstract or not.
    static bool isListenedOn(int number);
    // Waits until no process (the killed server's children) listens on its
    // sockets any more.
    void waitForListenersToClose() const;
    // Removes the lock file if this process holds it.
    void releaseNumber();

    QString screen;
    QTemporaryDir outputDir;
    XServerProcess process;
    int displayNumber = -1;
};
