// What the daemon costs while nothing happens (not a test: it prints figures).
// The built orvanta-selvane (or the one named with --daemon) runs through the
// test suite's StationBlackbox: a private mount namespace, a private bus with
// the platform simulator, emulated keyboards and one 1024x768 Xvfb station.
// It is left alone for --seconds in each of these states, in this order:
//   idle      nothing assigned, no overlay
//   assigned  one keyboard assigned to a station (the usual state of a room)
//   overlay   the same, and one overlay up (configureKeyboard, its picture on
//             the screen)
//   after     the overlay's configuration complete again
//   blinking  the same, and an unassigned keyboard whose LEDs blink
// Per state: the processor time of all the daemon's threads and of its main
// thread, per 10 s (schedstat), and the main thread's wake-ups per second
// (its voluntary context switches). With --runs N each run starts a new
// daemon; the medians over the runs are printed at the end.
//
// usage: bench_idle [--daemon PATH] [--seconds S] [--runs N]
// Needs root (mount namespace, Xvfb, dbus-daemon), like the blackbox tests.

#include "BenchSupport.h"
#include "OverlayTestBed.h"
#include "StationBlackbox.h"

#include <QDir>
#include <QGuiApplication>
#include <QTest>

#include <linux/input-event-codes.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

struct Options
{
    QString daemon = DaemonRunner::builtExecutable();
    int seconds = 10;
    int runs = 1;
};

bool parse(const QStringList& arguments, Options& options)
{
    return BenchSupport::parseDaemonOptions(arguments, options.daemon, options.seconds,
                                            QStringLiteral("--runs"), options.runs) &&
           options.seconds > 0 && options.runs > 0;
}

struct Figures
{
    double cpuMsPer10s = 0;
    double mainCpuMsPer10s = 0;
    double wakeupsPerSecond = 0;
};

// The processor time of each thread the daemon has now, by thread id.
std::map<pid_t, double> threadTimes(pid_t daemon)
{
    std::map<pid_t, double> times;
    const QDir tasks(QStringLiteral("/proc/%1/task").arg(daemon));
    for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        times[task.toInt()] = DaemonRunner::threadCpuMs(daemon, task.toInt());
    }
    return times;
}

// The daemon left alone for `seconds`. The time of a thread that ends meanwhile (a thread of
// Qt's pool ends after 30 s without work) is left out, not taken off.
Figures measure(pid_t daemon, int seconds)
{
    const std::map<pid_t, double> before = threadTimes(daemon);
    const qint64 sleeps = DaemonRunner::mainThreadSleeps(daemon);
    QTest::qWait(seconds * 1000);
    const std::map<pid_t, double> after = threadTimes(daemon);
    double cpu = 0;
    for (const auto& [thread, ms] : after) {
        const auto start = before.find(thread);
        cpu += ms - (start == before.end() ? 0 : start->second);
    }
    const auto mainThread = [&](const std::map<pid_t, double>& times) {
        const auto found = times.find(daemon);
        return found == times.end() ? 0 : found->second;
    };
    const double per10s = 10.0 / seconds;
    return {cpu * per10s, (mainThread(after) - mainThread(before)) * per10s,
            static_cast<double>(DaemonRunner::mainThreadSleeps(daemon) - sleeps) / seconds};
}

void print(const char* state, const Figures& figures)
{
    std::printf("%-9s %10.2f %14.2f %16.1f\n", state, figures.cpuMsPer10s, figures.mainCpuMsPer10s,
                figures.wakeupsPerSecond);
    std::fflush(stdout);
}

bool call(StationBlackbox& blackbox, const QString& method, const QVariantList& arguments)
{
    const QString error = blackbox.call(method, arguments);
    if (!error.isEmpty()) {
        std::fprintf(stderr, "%s\n", qPrintable(error));
    }
    return error.isEmpty();
}

// One daemon through every state; false when a state could not be reached.
bool runOnce(const Options& options, std::map<std::string, std::vector<Figures>>& results,
             std::vector<std::string>& order)
{
    StoppableStation screen;
    if (!screen.start()) {
        std::fprintf(stderr, "no Xvfb: %s\n", qPrintable(screen.startError()));
        return false;
    }
    StationBlackbox blackbox;
    blackbox.getRunner().setExecutable(options.daemon);
    const QString typing = blackbox.addKeyboard({LED_NUML});
    const QString free = blackbox.addKeyboard({LED_CAPSL});
    if (typing.isEmpty() || free.isEmpty() ||
        !blackbox.startPlatform(StationPictures::platformOfRound(1)) ||
        !blackbox.startDaemon(QStringLiteral(SELVANE_BUILT_DATA_DIR))) {
        std::fprintf(stderr, "the daemon did not start:\n%s\n", qPrintable(blackbox.logTail()));
        return false;
    }
    const pid_t daemon = blackbox.getDaemon();
    const auto record = [&](const char* state) {
        if (!blackbox.passTick()) {
            return false;
        }
        const Figures figures = measure(daemon, options.seconds);
        print(state, figures);
        if (!results.count(state)) {
            order.push_back(state);
        }
        results[state].push_back(figures);
        return true;
    };

    if (!record("idle") ||
        !call(blackbox, QStringLiteral("deviceAddedToStation"),
              {typing, StationBlackbox::typingStation}) ||
        !blackbox.waitForLog("Adding assigned device " + typing) || !record("assigned") ||
        !call(blackbox, QStringLiteral("configureKeyboard"), {screen.number(), 2}) ||
        !DaemonRunner::waitUntil([&] { return StationPictures::showsAPicture(screen.screen()); }) ||
        !record("overlay") ||
        !call(blackbox, QStringLiteral("configurationComplete"), {screen.number()}) ||
        !DaemonRunner::waitUntil([&] { return screen.overlayWindows() == 0; }) ||
        !record("after") || !call(blackbox, QStringLiteral("unassignedDeviceAdded"), {free}) ||
        !blackbox.waitForLog("Adding unassigned device " + free) || !record("blinking")) {
        std::fprintf(stderr, "a state was not reached; the log ends:\n%s\n",
                     qPrintable(blackbox.logTail()));
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication application(argc, argv);
    Options options;
    if (!parse(application.arguments(), options)) {
        std::fprintf(stderr, "usage: bench_idle [--daemon PATH] [--seconds S] [--runs N]\n");
        return 2;
    }
    const QString reason = OverlayTestBed::stationBlackboxUnavailableReason();
    if (!reason.isEmpty()) {
        std::fprintf(stderr, "cannot run here: %s\n", qPrintable(reason));
        return 3;
    }
    std::printf("daemon: %s, %d s per state, load %s\n", qPrintable(options.daemon),
                options.seconds, BenchSupport::loadAverage().constData());
    std::printf("%-9s %10s %14s %16s\n", "state", "CPU ms/10s", "main ms/10s", "main wakeups/s");
    std::map<std::string, std::vector<Figures>> results;
    std::vector<std::string> order;
    for (int run = 0; run < options.runs; ++run) {
        if (!runOnce(options, results, order)) {
            return 1;
        }
    }
    if (options.runs > 1) {
        std::printf("medians of %d runs:\n", options.runs);
        for (const std::string& state : order) {
            std::vector<double> cpu, mainCpu, wakeups;
            for (const Figures& figures : results[state]) {
                cpu.push_back(figures.cpuMsPer10s);
                mainCpu.push_back(figures.mainCpuMsPer10s);
                wakeups.push_back(figures.wakeupsPerSecond);
            }
            print(state.c_str(), {BenchSupport::median(cpu), BenchSupport::median(mainCpu),
                                  BenchSupport::median(wakeups)});
        }
    }
    return 0;
}
