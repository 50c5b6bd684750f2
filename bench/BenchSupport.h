#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>
#include <QStringList>

#include <chrono>
#include <vector>

// What the benchmark programs share: clocks, order statistics, the screen's
// checksum and the private mount namespace they run in.
namespace BenchSupport {

using Clock = std::chrono::steady_clock;

// The option a program gives itself when it runs again inside the namespace.
constexpr char isolatedOption[] = "--isolated";

// Processor time in milliseconds: of the calling thread, and of the whole
// process (all its threads).
double threadCpuMs();
double processCpuMs();
double msSince(Clock::time_point start);
// How long the calling thread has been runnable but not running (waiting for
// a core), in milliseconds, from /proc/thread-self/schedstat; 0 without it.
double threadRunQueueWaitMs();

// The median of the values; 0 when there are none.
double median(std::vector<double> values);
// The value at `fraction` (0.99 for p99) by nearest rank; 0 when there are none.
double percentile(std::vector<double> values, double fraction);

// The MD5 sum (hex) of the picture's pixels as R, G, B bytes, row by row.
QByteArray rgbMd5(const QImage& picture);
// "1.00 0.50 0.25": the load averages over 1, 5 and 15 minutes.
QByteArray loadAverage();

// The options of a benchmark of the built daemon: "--daemon PATH",
// "--seconds S" and one whole-number option of its own (`extraName`), each
// given with its value; the numbers keep their defaults unless given. False
// for anything else, a missing value or a number that is not one.
bool parseDaemonOptions(const QStringList& arguments, QString& daemon, int& seconds,
                        const QString& extraName, int& extra);

// True when argv[1] is isolatedOption: the program already runs in the namespace.
bool isIsolated(int argc, char* argv[]);
// Runs this program again through run-isolated.sh with the build tree's data
// directory as the daemon's, with isolatedOption and the other arguments;
// returns only when that cannot be done.
int runIsolated(int argc, char* argv[]);

} // namespace BenchSupport
