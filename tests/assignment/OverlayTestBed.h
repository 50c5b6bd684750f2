#pragma once

#include "DaemonRunner.h"
#include "LogCapture.h"
#include "PlatformSimulatorProcess.h"
#include "ScreenPicture.h"
#include "XorgDummyServer.h"

#include "assignment/DisplayConfiguration.h"
#include "daemon/BusPlatformServices.h"
#include "daemon/DBusInterface.h"
#include "daemon/Selvane.h"

#include <QByteArray>
#include <QGuiApplication>
#include <QImage>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class XDisplayProbe;

// What a display configuration needs around it in a test: a private session
// bus with the platform simulator on it (answering with the given options and
// recording every call), the central object, a D-Bus interface and the
// platform services over it for the display configurations, and a capture of
// the log.
//
// The tests run in a private mount namespace (support/run-isolated.sh), where
// /usr/share is a throw-away overlay: they write the overlay's pictures,
// translations and font into the daemon's fixed data directory there. The
// central object reads the translations when the bed is built, so they are
// written before.
class OverlayTestBed
{
public:
    // Why the tests cannot run here (not isolated, no dbus-daemon, no Xvfb
    // when needsX), or an empty string.
    static QString unavailableReason(bool needsX);
    // Why the built daemon cannot be run here against Xvfb stations and
    // emulated devices, or an empty string.
    static QString stationBlackboxUnavailableReason();

    // A file under the daemon's data directory, e.g. "images/ALPHA.png".
    static QString dataPath(const QString& relativePath);
    static bool writeDataFile(const QString& relativePath, const QByteArray& content);
    static bool writePicture(const QString& fileName, const QImage& picture);
    static bool removeDataFile(const QString& relativePath);

    explicit OverlayTestBed(const QStringList& simulatorOptions = {});
    ~OverlayTestBed();

    OverlayTestBed(const OverlayTestBed&) = delete;
    OverlayTestBed& operator=(const OverlayTestBed&) = delete;

    bool isReady() const { return simulator && simulator->isReady() && central; }
    Selvane& getCentral() { return *central; }
    DBusInterface& getDBus() { return *dbus; }
    PlatformServices& getPlatform() { return *platform; }
    PlatformSimulatorProcess& getSimulator() { return *simulator; }
    LogCapture& getLog() { return *log; }

    // Starts the platform simulator anew with these options, ending the one
    // before: the counts it answers change only so. Its record of calls starts
    // empty.
    bool restartSimulator(const QStringList& simulatorOptions);

    // The key configuration the central object reads when it is made.
    QString keysFile() const { return bus.path(QStringLiteral("keys.conf")); }
    // Makes the central object anew, which reads the translations again; grabUnassigned as
    // the daemon's option of that name.
    void recreateCentral(bool grabUnassigned = false);

    // A display configuration whose language is chosen: its locale was answered.
    std::unique_ptr<DisplayConfiguration>
    create(int displayId, int stationId,
           DisplayConfiguration::OverlayImage overlay = DisplayConfiguration::OVERLAY_IMAGE_NONE);
    // Runs the display's update() until the probe's screen shows a picture on
    // the overlay window, not its white background, that differs from
    // `previous`: the first picture of a new display, or the next one. Each
    // picture reaches the window in one copy from the server's pixmap.
    static ScreenPicture::Taken waitForPicture(DisplayConfiguration& display,
                                               const XDisplayProbe& probe,
                                               const QImage& previous = QImage());
    // The calls recorded after the first `from` ones.
    QStringList callsSince(int from) const { return simulator->calls().mid(from); }
    int callCount() const { return simulator->calls().size(); }

private:
    DaemonRunner bus;
    std::unique_ptr<PlatformSimulatorProcess> simulator;
    int simulatorRuns = 0;
    std::unique_ptr<LogCapture> log;
    std::unique_ptr<Selvane> central;
    std::unique_ptr<DBusInterface> dbus;
    std::unique_ptr<BusPlatformServices> platform;
};

// Skips (77) when the tests cannot run here; otherwise runs them on the
// offscreen platform, which the pictures' text rendering needs.
#define SELVANE_OVERLAY_TEST_MAIN(TestObject, needsX)                                              \
    int main(int argc, char** argv)                                                                \
    {                                                                                              \
        QGuiApplication app(argc, argv);                                                           \
        const QString reason = OverlayTestBed::unavailableReason(needsX);                          \
        if (!reason.isEmpty()) {                                                                   \
            std::fprintf(stderr, "SKIP: %s\n", qPrintable(reason));                                \
            return 77;                                                                             \
        }                                                                                          \
        TestObject test;                                                                           \
        QTEST_SET_MAIN_SOURCE_PATH                                                                 \
        return QTest::qExec(&test, argc, argv);                                                    \
    }

// For tests of the built daemon with Xvfb stations and emulated devices: skips
// (77) when one of them is missing here.
#define SELVANE_STATION_BLACKBOX_TEST_MAIN(TestObject)                                             \
    int main(int argc, char** argv)                                                                \
    {                                                                                              \
        return runUnlessUnavailable<QGuiApplication, TestObject>(                                  \
            argc, argv, &OverlayTestBed::stationBlackboxUnavailableReason);                        \
    }

// For tests on an X.Org server of their own (XorgDummyServer): starts it and
// runs the test object made with it, or skips (77) when `unavailableReason`
// names something missing here or the server does not start.
template <typename TestObject>
int runWithXorgDummyServer(int argc, char** argv, const std::function<QString()>& unavailableReason)
{
    QGuiApplication app(argc, argv);
    QString reason = unavailableReason();
    XorgDummyServer server;
    if (reason.isEmpty() && !server.start()) {
        reason = server.getFailure();
    }
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "SKIP: %s\n", qPrintable(reason));
        return 77;
    }
    TestObject test(server);
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}
