#pragma once

#include "XServerProcess.h"

#include <QSize>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A real X.Org server on Debian's dummy video driver, for the tests that need
// what Xvfb cannot do: change the screen's size through RandR, and take
// another keyboard layout (Xvfb accepts setxkbmap but keeps its US map). It runs on a
// free display number with a configuration of its own, written into a
// temporary directory: no input devices, and a 24-bit screen that starts at
// 1920x1080 with the modes 1920x1080, 1280x1024 and 1024x768 (the last at 60
// and at 75 Hz, so that the mode can change while the size stays). Run by
// root, the server shares the active virtual terminal without switching to it
// or reading its input; run by another user, it opens none. The destructor
// ends it.
class XorgDummyServer
{
public:
    XorgDummyServer() = default;
    ~XorgDummyServer() = default;

    XorgDummyServer(const XorgDummyServer&) = delete;
    XorgDummyServer& operator=(const XorgDummyServer&) = delete;

    // Starts the server; false when it cannot run here, getFailure() says why.
    bool start();
    // Why start() failed: what is not installed, or the server's own error.
    QString getFailure() const { return failure; }

    int getDisplayNumber() const { return displayNumber; }
    QString getDisplayName() const { return QStringLiteral(":%1").arg(displayNumber); }

    // Switches the screen to its mode of this size with "xrandr -s", at the
    // refresh rate in Hz unless it is 0; true when xrandr succeeded.
    bool setScreenSize(QSize size, int refreshRate = 0) const;
    // Gives the server's keyboard this layout ("de", "ru,us") with
    // "setxkbmap"; true when setxkbmap succeeded.
    bool setKeyboardLayout(const QString& layout) const;

private:
    bool fail(const QString& reason);
    // Runs an X client program against the server and waits for it; true when it succeeded.
    static bool runClient(const QString& program, const QStringList& arguments);

    QTemporaryDir dir;
    XServerProcess process;
    int displayNumber = -1;
    QString failure;
};
