#include "BenchSupport.h"

#include <QCryptographicHash>
#include <QFile>
#include <QList>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace BenchSupport {

namespace {
double cpuMs(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}
} // namespace

double threadCpuMs()
{
    return cpuMs(CLOCK_THREAD_CPUTIME_ID);
}

double processCpuMs()
{
    return cpuMs(CLOCK_PROCESS_CPUTIME_ID);
}

double msSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double threadRunQueueWaitMs()
{
    // "<on-cpu ns> <run-queue wait ns> <time slices>"
    const int fd = open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    char text[128] = {};
    const ssize_t length = read(fd, text, sizeof text - 1);
    close(fd);
    if (length <= 0) {
        return 0;
    }
    unsigned long long onCpu = 0;
    unsigned long long waiting = 0;
    if (std::sscanf(text, "%llu %llu", &onCpu, &waiting) != 2) {
        return 0;
    }
    return static_cast<double>(waiting) / 1e6;
}

double median(std::vector<double> values)
{
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double percentile(std::vector<double> values, double fraction)
{
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(values.size())));
    return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
}

QByteArray rgbMd5(const QImage& picture)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    for (int y = 0; y < picture.height(); ++y) {
        for (int x = 0; x < picture.width(); ++x) {
            const QRgb pixel = picture.pixel(x, y);
            const std::array<char, 3> rgb = {static_cast<char>(qRed(pixel)),
                                             static_cast<char>(qGreen(pixel)),
                                             static_cast<char>(qBlue(pixel))};
            hash.addData(QByteArrayView(rgb.data(), rgb.size()));
        }
    }
    return hash.result().toHex();
}

QByteArray loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    // "1.00 0.50 0.25 1/123 4567": the averages come first.
    return file.open(QIODevice::ReadOnly) ? file.readLine().split(' ').mid(0, 3).join(' ')
                                          : QByteArray();
}

bool isIsolated(int argc, char* argv[])
{
    return argc >= 2 && std::strcmp(argv[1], isolatedOption) == 0;
}

int runIsolated(int argc, char* argv[])
{
    char self[PATH_MAX] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) < 0) {
        std::perror("readlink /proc/self/exe");
        return 1;
    }
    std::vector<std::string> arguments = {
        SELVANE_RUN_ISOLATED, "--share-dir", SELVANE_BUILT_DATA_DIR, "--", self, isolatedOption};
    for (int i = 1; i < argc; ++i) {
        arguments.emplace_back(argv[i]);
    }
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    execv(pointers.front(), pointers.data());
    std::fprintf(stderr, "%s: cannot run %s: %s\n", argv[0], SELVANE_RUN_ISOLATED,
                 std::strerror(errno));
    return 1;
}

bool parseDaemonOptions(const QStringList& arguments, QString& daemon, int& seconds,
                        const QString& extraName, int& extra)
{
    for (int i = 1; i < arguments.size(); ++i) {
        const QString& option = arguments.at(i);
        const QString value = arguments.value(i + 1);
        bool number = true;
        if (option == QLatin1String("--daemon")) {
            daemon = value;
        } else if (option == QLatin1String("--seconds")) {
            seconds = value.toInt(&number);
        } else if (option == extraName) {
            extra = value.toInt(&number);
        } else {
            return false;
        }
        if (!number || value.isEmpty()) {
            return false;
        }
        ++i;
    }
    return true;
}

} // namespace BenchSupport
