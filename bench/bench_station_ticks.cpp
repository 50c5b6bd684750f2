// Benchmark of the daemon's main thread while many station overlays are drawn
// (not a test: it prints figures).
//
// The main thread runs the daemon's 100 ms tick (Selvane::update(): the D-Bus
// command queue, the devices, the key combinations, LED blinking, the overlays'
// state). Whatever holds that thread makes the next tick late, so the interval
// between the starts of two ticks is what a person at any station feels: a key
// combination is handled on the first tick after its release.
//
// How the tick is observed. The daemon's own classes run in this process: the
// central Selvane object with its own 100 ms QTimer, its D-Bus service on a
// private session bus (the platform simulator, tools/platform-simulator, stands
// in for the platform), the station threads against Xvfb servers, the logger
// writing to a file as the daemon's does. This program replaces only the
// application object: a QGuiApplication whose notify() notes the time when the
// event loop delivers the timer event of the central object's timer (the QTimer
// that is a member of Selvane, told apart by its address lying inside the
// Selvane object) and when that delivery, which runs Selvane::update(),
// returns. So each tick start is the real tick's, after whatever the real
// main thread did before it (D-Bus replies, station reports, commands), and
// nothing of this program runs on the main thread while it is measured except
// a 20 ms timer that lets it look at a flag. The stations are driven from
// outside, as the platform drives them: another thread with a bus connection
// of its own calls the daemon's D-Bus methods (configureKeyboard, and
// unassignedDeviceRemoved for a device it does not hold, which makes every
// overlay ask for its counts again and redraw, exactly as a device plugged in
// or taken out does). Another thread reads the screens back through
// connections of its own to see when the pictures arrive.
//
// Scenarios (each in a process of its own, so that the background cache and
// the servers start cold), 1920x1080x24 Xvfb screens, station s on the s-th
// server with key F1.., A.., 0..:
//   idle16     16 overlays up, nothing to redraw: the baseline
//   redraw16   16 overlays, every overlay redrawn every --interval ms
//   start48    configureKeyboard on 48 displays at once until every picture is
//              on screen (the wall time), then 48 overlays redrawn as redraw16;
//              it also prints the ticks of that start, as every scenario does
//              with --start-rows 1
//   stopped16  as redraw16 with one station's server SIGSTOPped throughout
//              (SIGCONT at the end, when its picture must come right)
//   hungdb16   as redraw16 with the platform's database answering after 60 s:
//              every picture waits for the 2 s bound and shows the fallbacks
// Each row gives the intervals between tick starts (p50/p99/max), the longest
// tick itself, the main thread's CPU share, the pictures asked for (the
// database calls the simulator saw), and the wall time from the first
// configureKeyboard until all of that scenario's pictures were on screen (the
// bottom row of each screen equals the scaled background's). The longest
// interval and the longest tick come with the main thread's CPU time in them
// and its time runnable but waiting for a core (schedstat's run delay, which
// the kernel books when the thread next runs, so it can spill over from just
// before); what is left of the clock time the thread slept, on a lock or in a
// system call. At the end every screen is compared with the picture composed
// for it: a scenario whose screens are wrong says so. BENCH_TICKS_SCREENS=DIR
// in the environment saves the wrong screens there; BENCH_TICKS_LOG=FILE keeps
// the daemon's log, which otherwise goes with the namespace.
//
// Run: bench_station_ticks [--runs N] [--seconds S] [--interval MS]
//      [--start-rows 1] [--scenario NAME]
// from the build tree; it needs root for the private mount namespace, Xvfb
// and dbus-daemon. Defaults: 1 run, 30 s, 500 ms, every scenario.

#include "BenchSupport.h"
#include "ComposedPicture.h"
#include "DaemonRunner.h"
#include "PlatformSimulatorProcess.h"
#include "TestFiles.h"
#include "XDisplayProbe.h"
#include "XvfbServer.h"

#include "Paths.h"
#include "assignment/DisplayConfiguration.h"
#include "common/Logger.h"
#include "daemon/Selvane.h"
#include "input/InputKeyCode.h"
#include "overlay/BackgroundLibrary.h"
#include "overlay/OverlayContent.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QGuiApplication>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

using BenchSupport::Clock;
using ComposedPicture::assignmentKeyOf;
using ComposedPicture::compareScreens;
using ComposedPicture::composedPicture;
using ComposedPicture::ScreenDifference;
using ComposedPicture::textEdgeLevels;
using ComposedPicture::visibleOnScreen;
using ComposedPicture::visiblePart;

constexpr int screenWidth = 1920;
constexpr int screenHeight = 1080;
constexpr char screenSpec[] = "1920x1080x24";
constexpr int assignedKeyboards = 2;
constexpr int unassignedKeyboards = 5;
constexpr char stationName[] = "Front Desk";
constexpr char stationLocation[] = "Room 12";
// A device the daemon never holds: its removal only redraws the overlays.
constexpr char absentDevice[] = "/dev/input/bench-absent";
// How long the pictures may take to arrive before a scenario gives up.
constexpr int setupTimeoutMs = 120000;

struct Options
{
    int runs = 1;
    int seconds = 30;
    int intervalMs = 500;
    // Every scenario also prints the ticks while its pictures are first drawn.
    bool startRows = false;
    std::string scenario;
};

// The daemon's application object, noting when the central object's tick starts and ends.
class TickApplication : public QGuiApplication
{
public:
    struct Tick
    {
        Clock::time_point start;
        // The main thread's CPU time and time spent runnable but not running
        // (waiting for a core) so far, at the tick's start.
        double cpuAtStartMs;
        double waitAtStartMs;
        // How long Selvane::update() took on the clock, of the main thread's
        // CPU, and waiting for a core.
        double durationMs;
        double cpuMs;
        double waitMs;
    };

    using QGuiApplication::QGuiApplication;

    // The ticks of this central object's timer are noted from now on.
    void watch(const Selvane* central)
    {
        const auto* begin = reinterpret_cast<const char*>(central);
        centralEnd.store(begin + sizeof(Selvane));
        centralBegin.store(begin);
    }

    bool notify(QObject* receiver, QEvent* event) override
    {
        if (event->type() != QEvent::Timer || !isCentralTimer(receiver)) {
            return QGuiApplication::notify(receiver, event);
        }
        const Clock::time_point start = Clock::now();
        const double cpuStart = BenchSupport::threadCpuMs();
        const double waitStart = BenchSupport::threadRunQueueWaitMs();
        const bool handled = QGuiApplication::notify(receiver, event);
        ticks.push_back({start, cpuStart, waitStart, BenchSupport::msSince(start),
                         BenchSupport::threadCpuMs() - cpuStart,
                         BenchSupport::threadRunQueueWaitMs() - waitStart});
        return handled;
    }

    // The ticks noted since the last call; main thread only.
    std::vector<Tick> takeTicks()
    {
        std::vector<Tick> taken;
        taken.swap(ticks);
        return taken;
    }

private:
    bool isCentralTimer(QObject* receiver) const
    {
        const auto* address = reinterpret_cast<const char*>(receiver);
        const char* begin = centralBegin.load();
        return begin && address >= begin && address < centralEnd.load() &&
               qobject_cast<QTimer*>(receiver);
    }

    // Read by notify() on every thread that delivers events; written before
    // the central object's timer first fires.
    std::atomic<const char*> centralBegin{nullptr};
    std::atomic<const char*> centralEnd{nullptr};
    std::vector<Tick> ticks;
};

// Runs the event loop (the daemon's) for `ms` milliseconds.
void runEventLoopFor(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, Qt::PreciseTimer, &loop, &QEventLoop::quit);
    loop.exec();
}

// Runs the event loop until `condition` holds (looked at every 20 ms) or the time is up.
bool runEventLoopUntil(const std::function<bool()>& condition, int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired()) {
            return false;
        }
        runEventLoopFor(20);
    }
    return true;
}

// The platform's side: calls the daemon's D-Bus methods from a thread and a
// bus connection of its own, so that the main thread only receives them.
class BusDriver
{
public:
    explicit BusDriver(const QString& busAddress) : thread([this, busAddress] { run(busAddress); })
    {
    }
    ~BusDriver()
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        changed.notify_all();
        thread.join();
    }
    BusDriver(const BusDriver&) = delete;
    BusDriver& operator=(const BusDriver&) = delete;

    // Sends the calls one after the other, each once the previous one was answered.
    void send(const QList<QDBusMessage>& calls)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            for (const QDBusMessage& call : calls) {
                queue.push_back(call);
            }
        }
        changed.notify_all();
    }
    // From now on sends `call` every intervalMs; 0 stops.
    void repeat(const QDBusMessage& call, int intervalMs)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            repeated = call;
            repeatMs = intervalMs;
            nextRepeat = Clock::now();
        }
        changed.notify_all();
    }
    int failures() const { return failed.load(); }

private:
    void run(const QString& busAddress)
    {
        QDBusConnection bus =
            QDBusConnection::connectToBus(busAddress, QStringLiteral("bench-bus-driver"));
        std::unique_lock<std::mutex> lock(mutex);
        while (!stopping) {
            if (!queue.empty()) {
                const QDBusMessage call = queue.front();
                queue.pop_front();
                lock.unlock();
                call1(bus, call);
                lock.lock();
                continue;
            }
            if (repeatMs > 0 && Clock::now() >= nextRepeat) {
                const QDBusMessage call = repeated;
                nextRepeat += std::chrono::milliseconds(repeatMs);
                lock.unlock();
                call1(bus, call);
                lock.lock();
                continue;
            }
            if (repeatMs > 0) {
                changed.wait_until(lock, nextRepeat);
            } else {
                changed.wait(lock);
            }
        }
        lock.unlock();
        QDBusConnection::disconnectFromBus(QStringLiteral("bench-bus-driver"));
    }

    void call1(QDBusConnection& bus, const QDBusMessage& call)
    {
        const QDBusMessage reply = bus.call(call, QDBus::Block, 30000);
        if (reply.type() != QDBusMessage::ReplyMessage) {
            ++failed;
        }
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<QDBusMessage> queue;
    QDBusMessage repeated;
    int repeatMs = 0;
    Clock::time_point nextRepeat;
    bool stopping = false;
    std::atomic<int> failed{0};
    std::thread thread;
};

// Watches the screens from a thread and connections of its own and notes
// when each first shows `expectedRow` as its bottom row (the window's border
// puts the picture one pixel right and down).
class ArrivalWatcher
{
public:
    ArrivalWatcher(const QList<int>& displays, QImage row)
        : expectedRow(std::move(row)), arrivals(static_cast<size_t>(displays.size()), -1)
    {
        start = Clock::now();
        thread = std::thread([this, displays] { run(displays); });
    }
    ~ArrivalWatcher()
    {
        stopping = true;
        thread.join();
    }
    ArrivalWatcher(const ArrivalWatcher&) = delete;
    ArrivalWatcher& operator=(const ArrivalWatcher&) = delete;

    bool allArrived() const { return arrived.load() == static_cast<int>(arrivals.size()); }
    // Milliseconds from the watcher's start until the last arrival; -1 when some are missing.
    double lastArrivalMs() const
    {
        if (!allArrived()) {
            return -1;
        }
        const std::lock_guard<std::mutex> lock(mutex);
        return *std::max_element(arrivals.begin(), arrivals.end());
    }

private:
    void run(const QList<int>& displays)
    {
        std::vector<std::unique_ptr<XDisplayProbe>> probes;
        for (int display : displays) {
            probes.push_back(std::make_unique<XDisplayProbe>(QStringLiteral(":%1").arg(display)));
        }
        const QRect bottom(1, screenHeight - 1, screenWidth - 1, 1);
        while (!stopping && !allArrived()) {
            for (size_t i = 0; i < probes.size(); ++i) {
                {
                    const std::lock_guard<std::mutex> lock(mutex);
                    if (arrivals[i] >= 0) {
                        continue;
                    }
                }
                if (probes[i]->screenshot(bottom) == expectedRow) {
                    const std::lock_guard<std::mutex> lock(mutex);
                    arrivals[i] = BenchSupport::msSince(start);
                    ++arrived;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    const QImage expectedRow;
    mutable std::mutex mutex;
    std::vector<double> arrivals;
    std::atomic<int> arrived{0};
    std::atomic<bool> stopping{false};
    Clock::time_point start;
    std::thread thread;
};

// The process of the X server of `display`, as the kernel names the peer of
// a connection to its socket (abstract first, as xcb connects); -1 when none answers.
pid_t serverPid(int display)
{
    const QByteArray path = "/tmp/.X11-unix/X" + QByteArray::number(display);
    for (const QByteArray& candidate : {QByteArray(1, '\0') + path, path}) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return -1;
        }
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, candidate.constData(),
                    std::min(sizeof(address.sun_path), static_cast<size_t>(candidate.size())));
        const auto length =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + candidate.size());
        ucred peer{};
        socklen_t peerLength = sizeof(peer);
        const bool found = connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
                           getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &peerLength) == 0 &&
                           peer.pid > 0;
        close(fd);
        if (found) {
            return peer.pid;
        }
    }
    return -1;
}

struct Scenario
{
    QString name;
    int stations = 16;
    bool redraw = true;
    bool stopOne = false;
    bool hungDatabase = false;
    // Also prints the ticks while the pictures are first drawn.
    bool reportStart = false;
};

Scenario scenarioNamed(const std::string& name, bool& known)
{
    known = true;
    Scenario scenario;
    scenario.name = QString::fromStdString(name);
    if (name == "idle16") {
        scenario.redraw = false;
    } else if (name == "redraw16") {
    } else if (name == "start48") {
        scenario.stations = 48;
        scenario.reportStart = true;
    } else if (name == "stopped16") {
        scenario.stopOne = true;
    } else if (name == "hungdb16") {
        scenario.hungDatabase = true;
    } else {
        known = false;
    }
    return scenario;
}

const std::vector<std::string>& allScenarios()
{
    static const std::vector<std::string> names = {"idle16", "redraw16", "stopped16", "hungdb16",
                                                   "start48"};
    return names;
}

struct PhaseFigures
{
    size_t ticks = 0;
    double p50 = 0;
    double p99 = 0;
    double max = 0;
    // The main thread's CPU and wait for a core in the longest interval.
    double maxCpu = 0;
    double maxWait = 0;
    double longestTick = 0;
    // The main thread's CPU and wait for a core in that tick: the rest of it
    // the thread slept (on a lock or a system call).
    double longestTickCpu = 0;
    double longestTickWait = 0;
    double mainCpuPercent = 0;
};

PhaseFigures summarise(const std::vector<TickApplication::Tick>& ticks, double mainCpuMs,
                       double wallMs)
{
    PhaseFigures figures;
    std::vector<double> intervals;
    for (size_t i = 1; i < ticks.size(); ++i) {
        intervals.push_back(
            std::chrono::duration<double, std::milli>(ticks[i].start - ticks[i - 1].start).count());
        if (intervals.back() > figures.max) {
            figures.max = intervals.back();
            figures.maxCpu = ticks[i].cpuAtStartMs - ticks[i - 1].cpuAtStartMs;
            figures.maxWait = ticks[i].waitAtStartMs - ticks[i - 1].waitAtStartMs;
        }
    }
    for (const TickApplication::Tick& tick : ticks) {
        if (tick.durationMs > figures.longestTick) {
            figures.longestTick = tick.durationMs;
            figures.longestTickCpu = tick.cpuMs;
            figures.longestTickWait = tick.waitMs;
        }
    }
    figures.ticks = intervals.size();
    figures.p50 = BenchSupport::median(intervals);
    figures.p99 = BenchSupport::percentile(intervals, 0.99);
    figures.mainCpuPercent = wallMs > 0 ? 100.0 * mainCpuMs / wallMs : 0;
    return figures;
}

int countCalls(const PlatformSimulatorProcess& simulator, const QString& method)
{
    int count = 0;
    for (const QString& call : simulator.calls()) {
        if (call.startsWith("com.orvanta.DB." + method)) {
            ++count;
        }
    }
    return count;
}

void printRow(const QString& label, const PhaseFigures& figures, int pictures, double arrivalMs,
              const QString& screens)
{
    std::printf("| %s | %zu | %.1f | %.1f | %.1f (%.1f / %.1f) | %.1f (%.1f / %.1f) | %.1f %% | %d "
                "| %s | %s |\n",
                qPrintable(label), figures.ticks, figures.p50, figures.p99, figures.max,
                figures.maxCpu, figures.maxWait, figures.longestTick, figures.longestTickCpu,
                figures.longestTickWait, figures.mainCpuPercent, pictures,
                arrivalMs < 0 ? "not all"
                              : qPrintable(QString::number(arrivalMs / 1000, 'f', 2) + " s"),
                qPrintable(screens));
    std::fflush(stdout);
}

// Runs one scenario in this process; the exit status says whether it could.
int runScenario(TickApplication& app, const Scenario& scenario, const Options& options)
{
    DaemonRunner bus;
    if (!bus.isBusRunning()) {
        std::fprintf(stderr, "no private dbus-daemon could be started\n");
        return 77;
    }
    // Before the first use of the session bus in this process.
    qputenv("DBUS_SESSION_BUS_ADDRESS", bus.busAddress().toLocal8Bit());
    QStringList simulatorOptions = {"--assigned-keyboards",
                                    QString::number(assignedKeyboards),
                                    "--unassigned-keyboards",
                                    QString::number(unassignedKeyboards),
                                    "--tag",
                                    QStringLiteral("name=") + stationName,
                                    "--tag",
                                    QStringLiteral("location=") + stationLocation,
                                    "--locale",
                                    "*=en"};
    if (scenario.hungDatabase) {
        simulatorOptions << "--delay"
                         << "com.orvanta.DB=60";
    }
    PlatformSimulatorProcess simulator(bus.busAddress(), bus.path(QStringLiteral("calls")),
                                       simulatorOptions);
    if (!simulator.isReady()) {
        std::fprintf(stderr, "the platform simulator did not start\n");
        return 1;
    }

    std::vector<std::unique_ptr<XvfbServer>> servers;
    QList<int> displays;
    for (int i = 0; i < scenario.stations; ++i) {
        servers.push_back(std::make_unique<XvfbServer>(QString::fromLatin1(screenSpec)));
        if (!servers.back()->start()) {
            std::fprintf(stderr, "Xvfb %d cannot be started\n", i);
            return 77;
        }
        displays.append(servers.back()->getDisplayNumber());
    }

    // The process as the daemon's main() sets it up.
    DisplayConfiguration::initTranslations();
    InputKeyCode::buildTable();
    Orvanta::Logger::initialize();
    // The namespace's /var/log goes with it; BENCH_TICKS_LOG keeps the log elsewhere.
    const QString logFile =
        qEnvironmentVariable("BENCH_TICKS_LOG", QStringLiteral("/var/log/bench-station-ticks.log"));
    Orvanta::Logger::enableFileChannel(Orvanta::Logger::LEVEL_DEBUG, logFile, true);
    writeFile(bus.path(QStringLiteral("keys.conf")), "KEY_LEFTCTRL:KEY_F1:true\n");
    auto central = std::make_unique<Selvane>(bus.path(QStringLiteral("keys.conf")));
    app.watch(central.get());
    const TranslationLanguage* language = central->getLanguage(QStringLiteral("en"));
    if (!language) {
        std::fprintf(stderr, "no language \"en\" in the build tree's translations\n");
        return 1;
    }

    // The bottom row of every keyboard picture: the scaled background, which
    // no text reaches. Let go of at once, so that the stations start cold.
    const QImage bottomRow = BackgroundLibrary::shared()
                                 .obtain(QStringLiteral("configure-keyboard.png"), QString(),
                                         QSize(screenWidth, screenHeight))
                                 ->image.copy(0, screenHeight - 2, screenWidth - 1, 1)
                                 .convertToFormat(QImage::Format_RGB32);

    BusDriver driver(bus.busAddress());
    runEventLoopFor(500);
    app.takeTicks();

    // Every station asked for its keyboard at once, as the platform does at start.
    QList<QDBusMessage> configure;
    for (int s = 0; s < scenario.stations; ++s) {
        configure.append(
            DaemonRunner::daemonCall(QStringLiteral("configureKeyboard"), {displays.at(s), s}));
    }
    double arrivalMs = -1;
    {
        const int callsBefore = countCalls(simulator, "DeviceGetNumberOfAssignedKeyboards");
        const double cpuBefore = BenchSupport::threadCpuMs();
        const Clock::time_point started = Clock::now();
        ArrivalWatcher watcher(displays, bottomRow);
        driver.send(configure);
        runEventLoopUntil([&] { return watcher.allArrived(); }, setupTimeoutMs);
        arrivalMs = watcher.lastArrivalMs();
        const PhaseFigures figures =
            summarise(app.takeTicks(), BenchSupport::threadCpuMs() - cpuBefore,
                      BenchSupport::msSince(started));
        if (scenario.reportStart || options.startRows) {
            printRow(QStringLiteral("%1 × configureKeyboard at once, until all on screen")
                         .arg(scenario.stations),
                     figures,
                     countCalls(simulator, "DeviceGetNumberOfAssignedKeyboards") - callsBefore,
                     arrivalMs, QStringLiteral("see next row"));
        }
    }
    if (arrivalMs < 0) {
        std::fprintf(stderr, "%s: not every picture arrived within %d s\n",
                     qPrintable(scenario.name), setupTimeoutMs / 1000);
    }
    // Let the last uploads and expose events settle before measuring.
    runEventLoopFor(1000);

    pid_t stopped = -1;
    if (scenario.stopOne) {
        stopped = serverPid(displays.first());
        if (stopped <= 0 || kill(stopped, SIGSTOP) != 0) {
            std::fprintf(stderr, "cannot stop the server of display :%d\n", displays.first());
            return 1;
        }
    }
    const int callsBefore = countCalls(simulator, "DeviceGetNumberOfAssignedKeyboards");
    app.takeTicks();
    const double cpuBefore = BenchSupport::threadCpuMs();
    const Clock::time_point started = Clock::now();
    if (scenario.redraw) {
        driver.repeat(DaemonRunner::daemonCall(QStringLiteral("unassignedDeviceRemoved"),
                                               {QString::fromLatin1(absentDevice)}),
                      options.intervalMs);
    }
    runEventLoopFor(options.seconds * 1000);
    driver.repeat(QDBusMessage(), 0);
    const PhaseFigures figures = summarise(app.takeTicks(), BenchSupport::threadCpuMs() - cpuBefore,
                                           BenchSupport::msSince(started));
    const int pictures = countCalls(simulator, "DeviceGetNumberOfAssignedKeyboards") - callsBefore;
    if (stopped > 0) {
        kill(stopped, SIGCONT);
    }

    // Every screen must end up showing its own picture. Qt's text rendering
    // keeps state between drawings (which digits were drawn before, on any
    // thread), which moves the edges of large texts by a few levels from one
    // drawing of the same picture to the next; a screen that differs from the
    // picture composed here by no more than that counts as right "up to text
    // edges", anything more as wrong.
    const QSize screenSize(screenWidth, screenHeight);
    std::vector<QImage> expected;
    for (int s = 0; s < scenario.stations; ++s) {
        OverlayContent content;
        content.stationId = s;
        content.language = language;
        content.assignmentKey = assignmentKeyOf(s);
        if (!scenario.hungDatabase) {
            content.stationName = QString::fromLatin1(stationName);
            content.stationLocation = QString::fromLatin1(stationLocation);
            content.available = unassignedKeyboards;
            content.assigned = assignedKeyboards;
        }
        expected.push_back(composedPicture(content, screenSize).copy(visiblePart(screenSize)));
    }
    int exact = 0;
    int edges = 0;
    const QString saveDir = qEnvironmentVariable("BENCH_TICKS_SCREENS");
    const bool settled = runEventLoopUntil(
        [&] {
            exact = 0;
            edges = 0;
            for (int s = 0; s < scenario.stations; ++s) {
                const XDisplayProbe probe(QStringLiteral(":%1").arg(displays.at(s)));
                const QImage shot = probe.screenshot(visibleOnScreen(screenSize));
                const ScreenDifference difference = compareScreens(shot, expected.at(s));
                if (difference.pixels == 0) {
                    ++exact;
                } else if (difference.maxLevels <= textEdgeLevels) {
                    ++edges;
                } else if (!saveDir.isEmpty()) {
                    shot.save(
                        QStringLiteral("%1/%2-station%3.png").arg(saveDir, scenario.name).arg(s));
                }
            }
            return exact + edges == scenario.stations;
        },
        30000);
    const QString screens =
        QStringLiteral("%1 of %2 right%3%4")
            .arg(exact + edges)
            .arg(scenario.stations)
            .arg(edges ? QStringLiteral(" (%1 up to text edges)").arg(edges) : QString())
            .arg(driver.failures() ? QStringLiteral(", D-Bus calls failed") : QString());

    QString label;
    if (scenario.stations == 48) {
        label = QStringLiteral("48 overlays, redraw every %1 ms").arg(options.intervalMs);
    } else if (!scenario.redraw) {
        label = QStringLiteral("%1 overlays, nothing to redraw").arg(scenario.stations);
    } else if (scenario.stopOne) {
        label = QStringLiteral("%1 overlays, redraw every %2 ms, one server SIGSTOPped")
                    .arg(scenario.stations)
                    .arg(options.intervalMs);
    } else if (scenario.hungDatabase) {
        label = QStringLiteral("%1 overlays, redraw every %2 ms, database answers after 60 s")
                    .arg(scenario.stations)
                    .arg(options.intervalMs);
    } else {
        label = QStringLiteral("%1 overlays, redraw every %2 ms")
                    .arg(scenario.stations)
                    .arg(options.intervalMs);
    }
    printRow(label, figures, pictures, arrivalMs, screens);

    central.reset();
    InputKeyCode::cleanupTable();
    Orvanta::Logger::shutDown();
    return settled ? 0 : 1;
}

// Runs each scenario `runs` times, each in a process of its own (this program
// again, already in the namespace), and prints the table.
int runAll(char* self, const Options& options)
{
    std::printf("Main thread's tick: intervals between tick starts in ms; %d s measured a "
                "scenario; 1920x1080x24 Xvfb stations; load average %s.\n\n",
                options.seconds, BenchSupport::loadAverage().constData());
    std::printf("| scenario | intervals | p50 | p99 | max (CPU / wait) | longest tick (CPU / wait) "
                "| main thread CPU "
                "| pictures asked | all pictures on screen after | screens |\n");
    std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|---|\n");
    std::fflush(stdout);
    const std::vector<std::string> names =
        options.scenario.empty() ? allScenarios() : std::vector<std::string>{options.scenario};
    int status = 0;
    for (const std::string& name : names) {
        for (int run = 0; run < options.runs; ++run) {
            std::vector<std::string> arguments = {self,
                                                  BenchSupport::isolatedOption,
                                                  "--scenario-process",
                                                  name,
                                                  "--seconds",
                                                  std::to_string(options.seconds),
                                                  "--interval",
                                                  std::to_string(options.intervalMs),
                                                  "--start-rows",
                                                  options.startRows ? "1" : "0"};
            std::vector<char*> pointers;
            for (std::string& argument : arguments) {
                pointers.push_back(argument.data());
            }
            pointers.push_back(nullptr);
            pid_t child = -1;
            if (posix_spawn(&child, self, nullptr, nullptr, pointers.data(), environ) != 0) {
                std::perror("posix_spawn");
                return 1;
            }
            int childStatus = 0;
            waitpid(child, &childStatus, 0);
            if (!WIFEXITED(childStatus) || WEXITSTATUS(childStatus) != 0) {
                std::fprintf(stderr, "scenario %s ended with status %d\n", name.c_str(),
                             WIFEXITED(childStatus) ? WEXITSTATUS(childStatus) : -1);
                status = 1;
            }
        }
    }
    return status;
}

bool parseOptions(int argc, char* argv[], Options& options, bool& scenarioProcess)
{
    scenarioProcess = false;
    for (int i = 2; i < argc; ++i) {
        const std::string option = argv[i];
        if (i + 1 >= argc) {
            return false;
        }
        const std::string value = argv[++i];
        if (option == "--runs") {
            options.runs = std::stoi(value);
        } else if (option == "--seconds") {
            options.seconds = std::stoi(value);
        } else if (option == "--interval") {
            options.intervalMs = std::stoi(value);
        } else if (option == "--start-rows") {
            options.startRows = value == "1";
        } else if (option == "--scenario") {
            options.scenario = value;
        } else if (option == "--scenario-process") {
            options.scenario = value;
            scenarioProcess = true;
        } else {
            return false;
        }
    }
    bool known = true;
    if (!options.scenario.empty()) {
        scenarioNamed(options.scenario, known);
    }
    return known && options.runs > 0 && options.seconds > 0 && options.intervalMs > 0;
}

} // namespace

int main(int argc, char* argv[])
{
    if (!BenchSupport::isIsolated(argc, argv)) {
        return BenchSupport::runIsolated(argc, argv);
    }
    Options options;
    bool scenarioProcess = false;
    if (!parseOptions(argc, argv, options, scenarioProcess)) {
        std::fprintf(stderr, "usage: bench_station_ticks [--runs N] [--seconds S] [--interval MS] "
                             "[--start-rows 0|1] "
                             "[--scenario idle16|redraw16|stopped16|hungdb16|start48]\n");
        return 2;
    }
    if (!scenarioProcess) {
        return runAll(argv[0], options);
    }
    // As the daemon runs: Qt on the offscreen platform, never a display of its own.
    qputenv("QT_QPA_PLATFORM", "offscreen");
    int qtArgc = 1;
    TickApplication app(qtArgc, argv);
    if (!XvfbServer::isInstalled()) {
        std::fprintf(stderr, "bench_station_ticks cannot run: Xvfb is not installed\n");
        return 77;
    }
    bool known = true;
    return runScenario(app, scenarioNamed(options.scenario, known), options);
}
