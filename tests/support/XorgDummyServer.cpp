#include "XorgDummyServer.h"

#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>

namespace {

// The longest an X client program (xrandr, setxkbmap) may take.
constexpr int clientTimeoutMs = 10000;
const QString dummyDriver = QStringLiteral("/usr/lib/xorg/modules/drivers/dummy_drv.so");

// The dummy driver keeps the screen in "video memory" of its own:
// 1920 x 1080 x 4 bytes is 8.3 MB, so 16 MB hold the largest mode.
// The server adds input devices only from the configuration (none here),
// never from udev, and ignores the keys that switch terminals.
const QByteArray configuration = R"(Section "ServerFlags"
    Option "AutoAddDevices" "false"
    Option "AutoEnableDevices" "false"
    Option "AutoAddGPU" "false"
    Option "DontVTSwitch" "true"
EndSection

Section "Device"
    Identifier "dummy"
    Driver "dummy"
    VideoRam 16384
EndSection

Section "Monitor"
    Identifier "monitor"
    HorizSync 5.0-1000.0
    VertRefresh 5.0-200.0
    Modeline "1920x1080" 148.50 1920 2008 2052 2200 1080 1084 1089 1125 +hsync +vsync
    Modeline "1280x1024" 108.00 1280 1328 1440 1688 1024 1025 1028 1066 +hsync +vsync
    Modeline "1024x768" 65.00 1024 1048 1184 1344 768 771 777 806 -hsync -vsync
    Modeline "1024x768_75" 78.75 1024 1040 1136 1312 768 769 772 800 +hsync +vsync
EndSection

Section "Screen"
    Identifier "screen"
    Device "dummy"
    Monitor "monitor"
    DefaultDepth 24
    SubSection "Display"
        Depth 24
        Modes "1920x1080" "1280x1024" "1024x768" "1024x768_75"
        Virtual 1920 1080
    EndSubSection
EndSection
)";

} // namespace

bool XorgDummyServer::start()
{
    if (process.isRunning()) {
        return true;
    }
    if (QStandardPaths::findExecutable(QStringLiteral("Xorg")).isEmpty()) {
        return fail(QStringLiteral("Xorg is not installed (xserver-xorg-core)"));
    }
    if (!QFile::exists(dummyDriver)) {
        return fail(QStringLiteral("the dummy video driver is not installed "
                                   "(xserver-xorg-video-dummy, %1)")
                        .arg(dummyDriver));
    }
    if (QStandardPaths::findExecutable(QStringLiteral("xrandr")).isEmpty()) {
        return fail(QStringLiteral("xrandr is not installed (x11-xserver-utils)"));
    }
    if (!dir.isValid() || !QDir(dir.path()).mkdir(QStringLiteral("xorg.conf.d")) ||
        !writeFile(dir.filePath(QStringLiteral("xorg.conf")), configuration)) {
        return fail(QStringLiteral("cannot write the server's configuration"));
    }
    // The configuration directory is empty: the server reads no snippets
    // from there (and logs that it found none).
    QStringList arguments = {
        QStringLiteral("-config"),    dir.filePath(QStringLiteral("xorg.conf")),
        QStringLiteral("-configdir"), dir.filePath(QStringLiteral("xorg.conf.d")),
        QStringLiteral("-logfile"),   dir.filePath(QStringLiteral("Xorg.log")),
        QStringLiteral("-nolisten"),  QStringLiteral("tcp"),
    };
    arguments << QStringLiteral("-noreset") << QStringLiteral("-novtswitch")
              << QStringLiteral("-sharevts");
    displayNumber = process.start(QStringLiteral("Xorg"), arguments,
                                  dir.filePath(QStringLiteral("Xorg.output")));
    if (displayNumber < 0) {
        // Kept for whoever wants to read the whole log.
        dir.setAutoRemove(false);
        return fail(
            QStringLiteral("Xorg did not start: %1 (log: %2)")
                .arg(XServerProcess::fatalError(dir.filePath(QStringLiteral("Xorg.output"))),
                     dir.filePath(QStringLiteral("Xorg.log"))));
    }
    return true;
}

bool XorgDummyServer::fail(const QString& reason)
{
    failure = reason;
    return false;
}

bool XorgDummyServer::setScreenSize(QSize size, int refreshRate) const
{
    QStringList arguments = {QStringLiteral("-display"), getDisplayName(), QStringLiteral("-s"),
                             QStringLiteral("%1x%2").arg(size.width()).arg(size.height())};
    if (refreshRate != 0) {
        arguments << QStringLiteral("-r") << QString::number(refreshRate);
    }
    return runClient(QStringLiteral("xrandr"), arguments);
}

bool XorgDummyServer::setKeyboardLayout(const QString& layout) const
{
    return runClient(QStringLiteral("setxkbmap"), {QStringLiteral("-display"), getDisplayName(),
                                                   QStringLiteral("-layout"), layout});
}

bool XorgDummyServer::runClient(const QString& program, const QStringList& arguments)
{
    QProcess client;
    client.setProcessChannelMode(QProcess::ForwardedChannels);
    client.start(program, arguments);
    if (!client.waitForFinished(clientTimeoutMs)) {
        client.kill();
        client.waitForFinished(clientTimeoutMs);
        return false;
    }
    return client.exitStatus() == QProcess::NormalExit && client.exitCode() == 0;
}
