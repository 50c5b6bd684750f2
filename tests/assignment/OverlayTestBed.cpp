#include "OverlayTestBed.h"
#include "DaemonRunner.h"

#include "TestFiles.h"
#include "XDisplayProbe.h"
#include "XvfbServer.h"

#include "input/InputKeyCode.h"

#include "Paths.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace {

// True when /usr/share is the private overlay that run-isolated.sh mounts, so
// that writing the daemon's data directory cannot touch the host's.
bool isShareDirPrivate()
{
    const QStringList mounts = DaemonRunner::readLines(QStringLiteral("/proc/self/mountinfo"));
    bool isPrivate = false;
    for (const QString& mount : mounts) {
        // "... <mount point> <options> ... - <type> <source> <super options>"
        const QStringList fields = mount.split(' ');
        const int separator = fields.indexOf(QStringLiteral("-"));
        if (fields.size() > 4 && separator > 0 && separator + 2 < fields.size() &&
            fields.at(4) == QLatin1String("/usr/share")) {
            // The last mount on a path is the one in effect.
            isPrivate = fields.at(separator + 1) == QLatin1String("overlay") &&
                        fields.at(separator + 2) == QLatin1String("isolated-share");
        }
    }
    return isPrivate;
}

} // namespace

QString OverlayTestBed::unavailableReason(bool needsX)
{
    if (!QString::fromLatin1(Orvanta::Paths::dataDir).startsWith(QLatin1String("/usr/share/")) ||
        !isShareDirPrivate()) {
        return QStringLiteral("not running in a private mount namespace (run-isolated.sh)");
    }
    if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty()) {
        return QStringLiteral("dbus-daemon is not installed");
    }
    if (needsX && !XvfbServer::isInstalled()) {
        return QStringLiteral("Xvfb is not installed");
    }
    if (needsX && !XvfbServer().start()) {
        return QStringLiteral("Xvfb cannot be started");
    }
    return QString();
}

QString OverlayTestBed::stationBlackboxUnavailableReason()
{
    const QString reason = DaemonRunner::unavailableReasonWithEmulatedInput();
    if (reason.isEmpty() && !XvfbServer::isInstalled()) {
        return QStringLiteral("Xvfb is not installed");
    }
    return reason;
}

QString OverlayTestBed::dataPath(const QString& relativePath)
{
    return QString::fromLatin1(Orvanta::Paths::dataDir) + "/" + relativePath;
}

bool OverlayTestBed::writeDataFile(const QString& relativePath, const QByteArray& content)
{
    const QString path = dataPath(relativePath);
    return QDir().mkpath(QFileInfo(path).path()) && writeFile(path, content);
}

bool OverlayTestBed::writePicture(const QString& fileName, const QImage& picture)
{
    const QString path = dataPath("images/" + fileName);
    return QDir().mkpath(QFileInfo(path).path()) && picture.save(path, "PNG");
}

bool OverlayTestBed::removeDataFile(const QString& relativePath)
{
    return QFile::remove(dataPath(relativePath));
}

OverlayTestBed::OverlayTestBed(const QStringList& simulatorOptions)
{
    if (!bus.isBusRunning()) {
        return;
    }
    // Before the first use of the session bus in this process.
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus.busAddress().toLocal8Bit());
    if (!restartSimulator(simulatorOptions)) {
        return;
    }
    writeFile(keysFile(), "KEY_LEFTCTRL:KEY_F1:true\n");
    InputKeyCode::buildTable();
    log = std::make_unique<LogCapture>();
    recreateCentral();
}

bool OverlayTestBed::restartSimulator(const QStringList& simulatorOptions)
{
    simulator.reset();
    ++simulatorRuns;
    simulator = std::make_unique<PlatformSimulatorProcess>(
        bus.busAddress(), bus.path(QStringLiteral("calls-%1").arg(simulatorRuns)),
        simulatorOptions);
    return simulator->isReady();
}

void OverlayTestBed::recreateCentral(bool grabUnassigned)
{
    platform.reset();
    dbus.reset();
    central.reset();
    central = std::make_unique<Selvane>(keysFile(), grabUnassigned);
    dbus = std::make_unique<DBusInterface>(central.get());
    platform = std::make_unique<BusPlatformServices>(*dbus, *central);
}

OverlayTestBed::~OverlayTestBed()
{
    platform.reset();
    dbus.reset();
    central.reset();
    log.reset();
    InputKeyCode::cleanupTable();
}

std::unique_ptr<DisplayConfiguration>
OverlayTestBed::create(int displayId, int stationId, DisplayConfiguration::OverlayImage overlay)
{
    auto display = std::make_unique<DisplayConfiguration>(*platform, overlay, displayId, stationId);
    // The locale is asked without waiting; the tests start from its answer.
    DaemonRunner::waitUntil([&] { return display->isLanguageDetermined(); });
    return display;
}

ScreenPicture::Taken OverlayTestBed::waitForPicture(DisplayConfiguration& display,
                                                    const XDisplayProbe& probe,
                                                    const QImage& previous)
{
    // The window first: before it is mapped, the root's pattern shows there.
    DaemonRunner::waitUntil(
        [&] {
            display.update();
            const QList<xcb_window_t> windows = probe.windowsNamed("Press F Key");
            if (windows.size() != 1) {
                return false;
            }
            const auto attributes = probe.attributes(windows.first());
            return attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
        },
        10000);
    // A picture reaches the window through its first pixel (1,1 on the
    // screen, past the border): that is cleared to the window's white
    // background, and the exposure this causes copies the whole picture. In
    // between it shows white; the pictures' first pixel is never white.
    const QPoint firstPixel(1, 1);
    const QRgb windowBackground = qRgb(255, 255, 255);
    return ScreenPicture::takeWhen(
        probe, [&] { display.update(); },
        [&](const QImage& screen) {
            return screen.pixel(firstPixel) != windowBackground && screen != previous;
        });
}
