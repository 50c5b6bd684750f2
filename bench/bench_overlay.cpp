// Benchmark of the station overlay's keyboard picture (not a test: it prints figures).
//
// For each screen size (an Xvfb server of its own, 24 bits deep) it times one
// redraw of a station's display, StationDisplay::show(), and its parts. Each
// figure is the median of 20 runs after one warm-up run:
//
//   first      show() of the keyboard step after the mouse step, so that no
//              one holds the keyboard background any more: the PNG is read
//              and scaled, the background uploaded whole, the texts put
//   count      show() of the same picture with other counts: what a device
//              plugged in costs each overlay; with the bytes of pixels it put
//   D-Bus      the four calls of one picture sent together on the main thread
//              (PendingCallGroup), until the last answer is in
//   load       BackgroundLibrary::obtain() of configure-keyboard.png, held by
//              no one: read, scaled and placed
//   text       the composing part of a count change, the background held:
//              compose(), the changed rectangles and their pixels (render())
//
// The daemon runs show() on the station's own thread, so the figure that
// matters is that thread's processor time (CLOCK_THREAD_CPUTIME_ID). Each time
// is given as clock / thread CPU / process CPU: Qt spreads a big scaling or
// conversion over its thread pool, whose share is only in the last. The X
// server's work is in none of the processor times; it is in the clock time,
// which also follows whatever else the machine is doing (the load average is
// printed with the figures).
//
// The backgrounds are shared by the whole process while someone holds them;
// one that nobody holds is gone, so the next use reads and scales it again.
//
// The last column is the start of the MD5 sum of the visible screen once it
// shows the whole picture: a change meant only to make the picture faster must
// leave it as it is. With BENCH_OVERLAY_SCREENS=DIR in the environment the
// screens are also saved there as PNG files, to see what changed.
//
// It draws the shipped pictures and translations of the build tree (its data
// directory, laid out like the installed one) and never the host's: it runs
// itself again through run-isolated.sh, which shows that directory in a private
// mount namespace as the daemon's data directory. A private session bus with
// the platform simulator answers the calls, so no platform is needed.
//
// Run: bench_overlay [WIDTHxHEIGHTxDEPTH...] (from the build tree; it needs
// root for the namespace, Xvfb and dbus-daemon). Without screens it measures
// 1024x768x24, 1920x1080x24 and 3840x2160x24, one after the other.

#include "BenchSupport.h"
#include "OverlayTestBed.h"
#include "XDisplayProbe.h"
#include "XvfbServer.h"

#include "assignment/DisplayConfiguration.h"
#include "assignment/PlatformServices.h"
#include "common/PendingCallGroup.h"
#include "common/RemoteObjectProxy.h"
#include "overlay/BackgroundLibrary.h"
#include "overlay/OverlayComposer.h"
#include "overlay/OverlayContent.h"
#include "overlay/StationDisplay.h"

#include <QCryptographicHash>
#include <QGuiApplication>

#include <array>
#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

namespace {

using BenchSupport::Clock;

constexpr int runs = 20;
constexpr int stationId = 3;
// What the platform simulator answers.
constexpr int assignedKeyboards = 2;
constexpr int unassignedKeyboards = 5;
constexpr char stationName[] = "Front Desk";
constexpr char stationLocation[] = "Room 12";
constexpr char background[] = "configure-keyboard.png";
// The background cache keeps this many pictures; filling it with as many
// others pushes a screen-sized one out.
// Median times of one operation in milliseconds: on the clock, of processor
// time of the thread that ran it, and of the whole process (all its threads;
// the X server's work not included).
struct Timing
{
    double wall = 0;
    double thread = 0;
    double process = 0;
};

struct Figures
{
    Timing first;
    Timing count;
    Timing dbus;
    Timing load;
    Timing text;
    // Bytes of pixels put to the server by one count change.
    uint64_t countBytes = 0;
    // The first bytes of the MD5 sum of the screen showing the whole picture.
    QByteArray screen;
};

// Times `operation` over `runs` runs, after one run to warm up; `prepare`
// runs untimed before each and `settle` after each.
Timing measureRuns(
    const std::function<void()>& operation, const std::function<void()>& prepare = [] {},
    const std::function<void()>& settle = [] {})
{
    prepare();
    operation();
    settle();
    std::vector<double> wall;
    std::vector<double> thread;
    std::vector<double> process;
    for (int i = 0; i < runs; ++i) {
        prepare();
        const Clock::time_point start = Clock::now();
        const double threadStart = BenchSupport::threadCpuMs();
        const double processStart = BenchSupport::processCpuMs();
        operation();
        thread.push_back(BenchSupport::threadCpuMs() - threadStart);
        process.push_back(BenchSupport::processCpuMs() - processStart);
        wall.push_back(BenchSupport::msSince(start));
        settle();
    }
    return {BenchSupport::median(wall), BenchSupport::median(thread),
            BenchSupport::median(process)};
}

OverlayContent keyboardContent(const TranslationLanguage* language, int available)
{
    OverlayContent content;
    content.generation = 1;
    content.step = OverlayContent::STEP_KEYBOARD;
    content.stationId = stationId;
    content.language = language;
    content.assignmentKey = QStringLiteral("KEY_F%1").arg(stationId + 1);
    content.stationName = QString::fromLatin1(stationName);
    content.stationLocation = QString::fromLatin1(stationLocation);
    content.available = available;
    content.assigned = assignedKeyboards;
    return content;
}

OverlayContent mouseContent(const TranslationLanguage* language)
{
    OverlayContent content = keyboardContent(language, 1);
    content.step = OverlayContent::STEP_MOUSE;
    content.assignmentKey = QStringLiteral("BTN_LEFT");
    return content;
}

// The four calls of one keyboard picture, sent together as the display
// configuration sends them, answered through the event loop.
void callDatabase(PlatformServices& platform)
{
    Orvanta::PendingCallGroup calls(Orvanta::RemoteObjectProxy::callTimeoutMs);
    platform.askAssignedCount(calls, PlatformServices::DeviceKind::KEYBOARD);
    platform.askUnassignedCount(calls, PlatformServices::DeviceKind::KEYBOARD);
    platform.askStationTag(calls, QStringLiteral("name"));
    platform.askStationTag(calls, QStringLiteral("location"));
    bool done = calls.start();
    QObject::connect(&calls, &Orvanta::PendingCallGroup::done, [&] { done = true; });
    while (!done) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    if (calls.intAnswer(0) != assignedKeyboards || calls.intAnswer(1) != unassignedKeyboards) {
        std::fprintf(stderr, "a database call failed\n");
    }
}

// Shows `content` and answers the screen's checksum once the screen shows
// exactly that picture, or an empty one. The window's one-pixel border puts
// the picture one pixel right and down, so its last column and row are off
// the screen.
QByteArray screenChecksum(StationDisplay& display, const XDisplayProbe& probe,
                          const OverlayContent& content)
{
    if (!display.show(content)) {
        return QByteArray();
    }
    const QSize size(static_cast<int>(display.getWidth()), static_cast<int>(display.getHeight()));
    const std::optional<OverlayPicture> picture = OverlayComposer::compose(content, size);
    if (!picture) {
        return QByteArray();
    }
    const QRect visible(QPoint(0, 0), size - QSize(1, 1));
    const QImage expected =
        OverlayComposer::renderWhole(*picture).copy(visible).convertToFormat(QImage::Format_RGB32);
    QImage shot;
    const bool shown = DaemonRunner::waitUntil([&] {
        display.update();
        shot = probe.screenshot(visible.translated(1, 1));
        return shot == expected;
    });
    if (!shown) {
        return QByteArray();
    }
    // To find what changed when a checksum did.
    const QString saveDir = qEnvironmentVariable("BENCH_OVERLAY_SCREENS");
    if (!saveDir.isEmpty()) {
        shot.save(QStringLiteral("%1/%2x%3.png")
                      .arg(saveDir)
                      .arg(shot.width() + 1)
                      .arg(shot.height() + 1));
    }
    return BenchSupport::rgbMd5(shot).left(12);
}

bool measure(OverlayTestBed& bed, const QString& screen, Figures& figures)
{
    XvfbServer server(screen);
    if (!server.start()) {
        std::fprintf(stderr, "Xvfb %s cannot be started\n", qPrintable(screen));
        return false;
    }
    const XDisplayProbe probe(server.getDisplayName());
    const TranslationLanguage* language = bed.getCentral().getLanguage(QStringLiteral("en"));
    // Run on this thread, as the station's thread runs it in the daemon.
    StationDisplay display(server.getDisplayNumber());
    if (!probe.isConnected() || !language || !display.openDisplay()) {
        std::fprintf(stderr, "no language or no display on %s\n", qPrintable(screen));
        return false;
    }
    // Between runs the expose events are answered and the server has done
    // everything asked of it, so that no run pays for the one before.
    const auto settle = [&] {
        display.update();
        probe.sync();
    };
    settle();

    bool shown = true;
    // Each run shows another count, as after a device was plugged in. The
    // counts alternate between 4 and 5: Qt's text rendering keeps state
    // between drawings, and other digits in between (6, for one) change the
    // edges of the large texts at 3840x2160 by a few levels in later pictures,
    // the old code's as much as this one's, which would make the screen's
    // checksum depend on the order of the runs.
    int available = unassignedKeyboards;
    const auto nextAvailable = [&] {
        available =
            available == unassignedKeyboards ? unassignedKeyboards - 1 : unassignedKeyboards;
        return available;
    };
    const auto showNext = [&] {
        shown = display.show(keyboardContent(language, nextAvailable())) && shown;
    };
    const auto leaveTheKeyboardStep = [&] { display.show(mouseContent(language)); };
    figures.first = measureRuns(showNext, leaveTheKeyboardStep, settle);
    const auto nothing = [] {};
    figures.count = measureRuns(showNext, nothing, settle);
    display.takeBytesPut();
    showNext();
    figures.countBytes = display.takeBytesPut();
    figures.dbus = measureRuns([&] { callDatabase(bed.getPlatform()); });

    const QSize size(static_cast<int>(display.getWidth()), static_cast<int>(display.getHeight()));
    // The display shows the mouse step, so no one holds the keyboard's background.
    leaveTheKeyboardStep();
    figures.load = measureRuns([&] {
        shown = BackgroundLibrary::shared().obtain(QString::fromLatin1(background), QString(),
                                                   size) != nullptr &&
                shown;
    });
    std::optional<OverlayPicture> before =
        OverlayComposer::compose(keyboardContent(language, nextAvailable()), size);
    shown = before.has_value() && shown;
    figures.text = measureRuns([&] {
        std::optional<OverlayPicture> after =
            OverlayComposer::compose(keyboardContent(language, nextAvailable()), size);
        if (!after || !before) {
            shown = false;
            return;
        }
        for (const QRect& area : OverlayTextLayout::changedAreas(before->texts, after->texts)) {
            OverlayComposer::render(*after, area);
        }
        before = std::move(after);
    });
    figures.screen = screenChecksum(display, probe, keyboardContent(language, unassignedKeyboards));
    if (!shown || figures.screen.isEmpty()) {
        std::fprintf(stderr, "the picture could not be made or shown on %s\n", qPrintable(screen));
        return false;
    }
    return true;
}

QByteArray cell(const Timing& timing)
{
    return QByteArray::number(timing.wall, 'f', 1) + " / " +
           QByteArray::number(timing.thread, 'f', 1) + " / " +
           QByteArray::number(timing.process, 'f', 1);
}

} // namespace

int main(int argc, char* argv[])
{
    if (!BenchSupport::isIsolated(argc, argv)) {
        return BenchSupport::runIsolated(argc, argv);
    }
    // Text rendering needs a GUI application, but no screen of its own.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    int qtArgc = 1;
    QGuiApplication app(qtArgc, argv);
    const QString reason = OverlayTestBed::unavailableReason(true);
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "bench_overlay cannot run: %s\n", qPrintable(reason));
        return 77;
    }
    OverlayTestBed bed({"--assigned-keyboards", QString::number(assignedKeyboards),
                        "--unassigned-keyboards", QString::number(unassignedKeyboards), "--tag",
                        QStringLiteral("name=") + stationName, "--tag",
                        QStringLiteral("location=") + stationLocation, "--locale", "*=en"});
    if (!bed.isReady()) {
        std::fprintf(stderr, "the private bus or the platform simulator did not start\n");
        return 1;
    }
    DisplayConfiguration::initTranslations();

    std::printf("Median of %d runs in milliseconds: clock / CPU of the thread that ran it /\n"
                "CPU of this process, station %d (key F%d), no badge; load average %s.\n\n",
                runs, stationId, stationId + 1, BenchSupport::loadAverage().constData());
    std::printf("| screen | redraw, first composition | redraw, count change "
                "| bytes put, count change | 4 D-Bus calls | load (not held) "
                "| composing a count change | screen MD5 |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---|\n");
    // The screens named after the options, or the three usual ones.
    QStringList screens;
    for (int i = 2; i < argc; ++i) {
        screens.append(QString::fromLocal8Bit(argv[i]));
    }
    if (screens.isEmpty()) {
        screens = QStringList{"1024x768x24", "1920x1080x24", "3840x2160x24"};
    }
    bool ok = true;
    for (const QString& screen : screens) {
        Figures figures;
        if (!measure(bed, screen, figures)) {
            ok = false;
            continue;
        }
        std::printf("| %s | %s | %s | %llu | %s | %s | %s | %s |\n", qPrintable(screen),
                    cell(figures.first).constData(), cell(figures.count).constData(),
                    static_cast<unsigned long long>(figures.countBytes),
                    cell(figures.dbus).constData(), cell(figures.load).constData(),
                    cell(figures.text).constData(), figures.screen.constData());
        std::fflush(stdout);
    }
    return ok ? 0 : 1;
}
