// What a fast mouse costs the daemon: the built orvanta-selvane (or the one
// named with --daemon) runs in a private mount namespace on a private bus and
// reads an emulated mouse that moves at a fixed rate (1000 frames a second by
// default, each REL_X, REL_Y and SYN_REPORT), first assigned to a station,
// then unassigned. Before that it sits idle with the mouse assigned but still.
// Prints the daemon's processor time (all its threads, from schedstat) per
// second idle and per 1000 frames and 1000 records while the mouse moves.
//
// usage: bench_mouse [--daemon PATH] [--seconds S] [--rate HZ]

#include "BenchSupport.h"
#include "DaemonRunner.h"
#include "DeviceDescription.h"
#include "UmockdevTestbed.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>

#include <linux/input-event-codes.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace {

struct Options
{
    QString daemon = DaemonRunner::builtExecutable();
    int seconds = 10;
    int rate = 1000;
};

bool parse(const QStringList& arguments, Options& options)
{
    return BenchSupport::parseDaemonOptions(arguments, options.daemon, options.seconds,
                                            QStringLiteral("--rate"), options.rate) &&
           options.seconds > 0 && options.rate > 0 && options.rate <= 10000;
}

// Moves the mouse for `seconds` at `rate` frames a second; returns the frames sent.
int moveMouse(UmockdevTestbed& testbed, const QString& node, int rate, int seconds)
{
    const auto period = std::chrono::nanoseconds(1000000000LL / rate);
    auto next = std::chrono::steady_clock::now();
    const auto end = next + std::chrono::seconds(seconds);
    int frames = 0;
    int direction = 1;
    while (next < end) {
        const QByteArray frame = UmockdevTestbed::eventRecord(EV_REL, REL_X, direction) +
                                 UmockdevTestbed::eventRecord(EV_REL, REL_Y, direction) +
                                 UmockdevTestbed::eventRecord(EV_SYN, SYN_REPORT, 0);
        if (!testbed.writeBytes(node, frame)) {
            break;
        }
        direction = -direction;
        ++frames;
        next += period;
        std::this_thread::sleep_until(next);
    }
    return frames;
}

bool callDaemon(QDBusConnection& bus, const QString& method, const QVariantList& arguments)
{
    const QDBusMessage reply = bus.call(DaemonRunner::daemonCall(method, arguments));
    if (reply.type() != QDBusMessage::ReplyMessage) {
        std::fprintf(stderr, "bench_mouse: %s: %s\n", qPrintable(method),
                     qPrintable(reply.errorMessage()));
        return false;
    }
    return true;
}

struct Phase
{
    const char* name;
    int frames = 0;
    double cpuMs = 0;
};

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    Options options;
    if (!parse(application.arguments(), options)) {
        std::fprintf(stderr, "usage: bench_mouse [--daemon PATH] [--seconds S] [--rate HZ]\n");
        return 2;
    }
    const QString unavailable = DaemonRunner::unavailableReasonWithEmulatedInput();
    if (!unavailable.isEmpty()) {
        std::fprintf(stderr, "bench_mouse: %s\n", qPrintable(unavailable));
        return 1;
    }

    UmockdevTestbed testbed;
    const QString mouse = testbed.addDevice(DeviceDescription::mouse());
    DaemonRunner runner;
    if (mouse.isEmpty() || !runner.isBusRunning()) {
        std::fprintf(stderr, "bench_mouse: no emulated mouse or no private bus\n");
        return 1;
    }
    runner.setExecutable(options.daemon);
    runner.setExtraEnvironment({{QStringLiteral("UMOCKDEV_DIR"), testbed.rootDir()},
                                {QStringLiteral("LD_PRELOAD"), UmockdevTestbed::preloadLibrary()}});
    const QString config = runner.path(QStringLiteral("keys.conf"));
    QFile configFile(config);
    if (!configFile.open(QIODevice::WriteOnly) ||
        configFile.write("BTN_RIGHT:BTN_LEFT:true\n") < 0) {
        return 1;
    }
    configFile.close();
    if (runner.run({QStringLiteral("-c"), config}).status != 0) {
        std::fprintf(stderr, "bench_mouse: the daemon did not start\n");
        return 1;
    }
    const pid_t daemon = runner.waitForDaemon();
    QDBusConnection bus =
        QDBusConnection::connectToBus(runner.busAddress(), QStringLiteral("bench"));
    const auto opened = [&](int times) {
        const QRegularExpression line =
            DaemonRunner::logMessage(QStringLiteral("Opened %1 for reading ").arg(mouse));
        return DaemonRunner::waitUntil([&] {
            int count = 0;
            for (const QString& text : DaemonRunner::readLines(runner.defaultLogFile())) {
                count += line.match(text).hasMatch() ? 1 : 0;
            }
            return count >= times;
        });
    };
    const bool serving =
        daemon > 0 && DaemonRunner::waitForLine(
                          runner.defaultLogFile(),
                          DaemonRunner::logMessage(QStringLiteral("Connection established")));
    if (!serving || !callDaemon(bus, QStringLiteral("deviceAddedToStation"), {mouse, 4}) ||
        !opened(1)) {
        std::fprintf(stderr, "bench_mouse: the daemon did not open the mouse\n");
        return 1;
    }

    std::printf("bench_mouse: %s, a mouse moving %d frames a second, %d s a phase\n",
                qPrintable(options.daemon), options.rate, options.seconds);
    // Idle: the start-up is over and nothing moves.
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Phase idle{"idle"};
    const double idleStart = DaemonRunner::cpuMs(daemon);
    std::this_thread::sleep_for(std::chrono::seconds(options.seconds));
    idle.cpuMs = DaemonRunner::cpuMs(daemon) - idleStart;

    const auto measure = [&](Phase& phase) {
        const double start = DaemonRunner::cpuMs(daemon);
        phase.frames = moveMouse(testbed, mouse, options.rate, options.seconds);
        // What is still queued is read within a tick.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        phase.cpuMs = DaemonRunner::cpuMs(daemon) - start;
    };
    Phase assigned{"assigned"};
    measure(assigned);
    Phase unassigned{"unassigned"};
    if (!callDaemon(bus, QStringLiteral("deviceRemovedFromStation"), {mouse}) ||
        !callDaemon(bus, QStringLiteral("unassignedDeviceAdded"), {mouse}) || !opened(2)) {
        std::fprintf(stderr, "bench_mouse: the daemon did not take the mouse as unassigned\n");
        return 1;
    }
    measure(unassigned);
    DaemonRunner::stopDaemon(daemon);

    const double idleMsPerSecond = idle.cpuMs / options.seconds;
    std::printf("  %-12s %10s %12s %16s %18s\n", "phase", "frames", "CPU ms", "ms/1000 frames",
                "ms/1000 records");
    std::printf("  %-12s %10s %12.1f %16s %18s   (%.2f ms a second)\n", idle.name, "-", idle.cpuMs,
                "-", "-", idleMsPerSecond);
    for (const Phase& phase : {assigned, unassigned}) {
        const double perFrame = phase.frames ? phase.cpuMs * 1000 / phase.frames : 0;
        std::printf("  %-12s %10d %12.1f %16.2f %18.2f\n", phase.name, phase.frames, phase.cpuMs,
                    perFrame, perFrame / 3);
    }
    std::printf("{\"bench\":\"bench_mouse\",\"rate\":%d,\"seconds\":%d,\"idle_ms_per_s\":%.3f,"
                "\"assigned_ms_per_1000_records\":%.3f,\"unassigned_ms_per_1000_records\":%.3f}\n",
                options.rate, options.seconds, idleMsPerSecond,
                assigned.frames ? assigned.cpuMs * 1000 / assigned.frames / 3 : 0,
                unassigned.frames ? unassigned.cpuMs * 1000 / unassigned.frames / 3 : 0);
    return 0;
}
