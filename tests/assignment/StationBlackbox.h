#pragma once

#include "DaemonRunner.h"
#include "DeviceDescription.h"
#include "PlatformSimulatorProcess.h"
#include "UmockdevTestbed.h"
#include "XvfbServer.h"

#include "overlay/OverlayContent.h"

#include <QDBusConnection>
#include <QHash>
#include <QImage>
#include <QMap>
#include <QRect>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVector>

#include <memory>
#include <sys/types.h>

// The built daemon among Xvfb stations for the tests of its station threads:
// a private bus with the platform simulator on it, emulated keyboards whose
// nodes this process owns (so that the LED records the daemon writes to them
// can be read back) and one key combination, Ctrl+F1, whose command appends
// the wall-clock time to a file with bash's own clock ($EPOCHREALTIME, in
// microseconds; no second program to start). The time from a keyboard's last
// key release to that stamp is how long the daemon took to run the
// combination.
//
// Everything here runs on the test's main thread.
class StationBlackbox
{
public:
    // The station of the keyboard that types the combinations.
    static constexpr int typingStation = 40;
    // The overlay window's name.
    static const QByteArray windowName;

    StationBlackbox();
    // Stops the daemon (SIGKILL when it still runs), then the simulator and the devices.
    ~StationBlackbox();

    StationBlackbox(const StationBlackbox&) = delete;
    StationBlackbox& operator=(const StationBlackbox&) = delete;

    // An emulated keyboard whose lock LEDs start as `ledsOn`; returns its node.
    QString addKeyboard(const QVector<int>& ledsOn = {});
    // Any emulated device, with its lock LEDs as `ledsOn`; returns its node.
    QString addDevice(const DeviceDescription& description, const QVector<int>& ledsOn = {});
    // Removes the device's node: it can no longer be opened, and its LED
    // records are no longer read.
    void removeDevice(const QString& node);
    UmockdevTestbed& getDevices() { return devices; }
    // The LEDs each keyboard started with.
    QVector<int> initialLeds(const QString& keyboard) const { return startLeds.value(keyboard); }

    // Starts the platform simulator with these options, ending the one before:
    // the counts it answers can only change this way. Its record of calls
    // starts empty.
    bool startPlatform(const QStringList& options);
    PlatformSimulatorProcess& getPlatform() { return *simulator; }

    // The key configuration file the daemon is started with; without it, the
    // one Ctrl+F1 combination that stamps the time (see above).
    void setKeyConfiguration(const QByteArray& lines) { keyConfiguration = lines; }
    QString keyConfigurationFile() const { return keysFile; }

    // Starts the daemon with the keyboards visible to it and `shareDir` as
    // its data directory; waits until it is on the bus.
    bool startDaemon(const QString& shareDir);
    pid_t getDaemon() const { return daemon; }
    // The daemon's command launcher, its only child process; 0 when there is none.
    pid_t getLauncher() const;
    DaemonRunner& getRunner() { return runner; }
    // Sends SIGTERM and waits up to timeoutMs for the daemon to end: its exit
    // status, or -1 when it did not end in time.
    int terminateDaemon(int timeoutMs);

    // What the daemon's thread of the display is doing, for the test's output:
    // its state letter and kernel wait channel ("S unix_stream_sendmsg"), or
    // "none" when the daemon has no such thread.
    QString stationThreadState(int display) const;

    // Calls a method of the daemon's service and waits for its answer: an
    // error text, empty on success.
    QString call(const QString& method, const QVariantList& arguments = {});
    // How long the daemon's service took to answer Introspect; -1 on an error.
    qint64 introspectMs();

    // Types Ctrl+F1 on the keyboard and returns the time from its last key
    // release to the command's stamp in milliseconds; -1 when the command did
    // not run within timeoutMs.
    qint64 combinationLatencyMs(const QString& keyboard, int timeoutMs = 5000);
    // A stamp of bash's $EPOCHREALTIME in microseconds since the epoch; -1
    // when the text is not one.
    static qint64 stampMicroseconds(const QString& stamp);
    // For the last combination: from its last key release until the daemon
    // logged that it starts the command, in milliseconds; the rest of the
    // combination's time is the command's start. -1 when unknown.
    qint64 commandStartedMs() const;
    // How many times the combination's command ran.
    int combinationsRun() const;
    // The combination typed on the keyboard, then, once its command has
    // ended, Introspect: an error text when either failed or took longer than
    // its limit, else empty. Both times are printed.
    QString checkResponsive(const QString& keyboard, qint64 combinationLimitMs,
                            qint64 introspectLimitMs);

    // The daemon's log.
    QStringList log() const;
    // Waits until the log has this many lines with this exact message.
    bool waitForLog(const QString& message, int count = 1,
                    int timeoutMs = DaemonRunner::defaultTimeoutMs) const;
    int logCount(const QString& message) const;
    // The log's last lines, for a failure message.
    QString logTail(int lines = 40) const;
    // Asks for the status lines and waits until they are written: the
    // daemon's main thread has run another tick since the call.
    bool passTick();

    // Reads the LED records the daemon has written to the keyboards so far;
    // called now and then, it also keeps the devices' buffers from filling.
    void takeLedRecords();
    // The last value written for each lock LED of the keyboard (Num, Caps,
    // Scroll Lock), from the records taken so far.
    QMap<int, int> lastLeds(const QString& keyboard) const { return leds.value(keyboard); }
    // How many LED records the keyboard got so far.
    int ledRecords(const QString& keyboard) const { return ledRecordCount.value(keyboard); }

private:
    UmockdevTestbed devices;
    QHash<QString, QVector<int>> startLeds;
    QHash<QString, QMap<int, int>> leds;
    QHash<QString, int> ledRecordCount;
    DaemonRunner runner;
    std::unique_ptr<PlatformSimulatorProcess> simulator;
    int platformRuns = 0;
    QDBusConnection bus{QString()};
    QString keysFile;
    QString stampsFile;
    QByteArray keyConfiguration;
    pid_t daemon = 0;
    qint64 lastReleaseNs = 0;
};

// A station's X server whose process a test stops and continues. The
// destructor continues it, so that it can end.
class StoppableStation
{
public:
    explicit StoppableStation(const QString& screen = QStringLiteral("1024x768x24"))
        : server(screen)
    {
    }
    ~StoppableStation();

    StoppableStation(const StoppableStation&) = delete;
    StoppableStation& operator=(const StoppableStation&) = delete;

    bool start() { return server.start(); }
    bool startOn(int number) { return server.startOn(number); }
    // Why the last start failed, as the server said it.
    QString startError() const { return server.startError(); }
    // SIGKILL, stopped or not; start() brings it back on the same display number.
    void kill();
    // SIGSTOP, and waits until the kernel reports the process stopped.
    bool stop();
    // SIGCONT, and waits until it runs again.
    bool resume();
    bool isStopped() const { return stopped; }

    int number() const { return server.getDisplayNumber(); }
    QString name() const { return server.getDisplayName(); }

    // Never while stopped: a request to a stopped server waits for ever.
    QImage screen() const;
    QImage screen(const QRect& area) const;
    // The number of overlay windows on the server; -1 without a connection.
    int overlayWindows() const;
    // The server process's state letter in /proc ('R', 'S', 'T', ...; '?'
    // when there is none) and its open descriptors (each client one), or how
    // it ended and the fatal error it wrote, to tell why it does not answer.
    QString processSummary() const;
    QSize size() const;

private:
    XvfbServer server;
    bool stopped = false;
};

namespace StationPictures {
// The footer with the free and assigned counts on a screen of this size.
QRect countsArea(const QSize& screen);
// A composed overlay rather than a plain window or the root's black: the
// antialiased texts and the picture's shades give many colours.
bool showsAPicture(const QImage& screen);
// True when the two differ somewhere inside `area` and nowhere outside it.
bool differOnlyIn(const QImage& before, const QImage& after, const QRect& area);
// The platform's answers in round `round`: each round other counts, so that
// a redraw shows on the screen.
QStringList platformOfRound(int round);
// What the keyboard picture of station `stationId` shows in round `round`,
// in the daemon's English.
OverlayContent pictureOfRound(int round, int stationId);
} // namespace StationPictures
