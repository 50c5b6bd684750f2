// Benchmark of the assigned device handler (not a test: it prints figures).
//
//   idle update   one AssignedDeviceHandler::update() when no device has input
//                 queued, with 1, 10, 100 and 500 open devices
//   match         one key change checked against 10, 100 and 1000 configured
//                 sequences; every sequence's hold key is down and its press key
//                 is not the key just pressed, so each one is tested in full
//
// The devices are named pipes opened read-write with nothing written to them:
// each is polled and found not readable, which is exactly the idle cost. The
// evdev probe ioctls EventDevice makes when it opens a device are answered by
// this program for pipes (a keyboard with EV_KEY and the chosen keys held);
// umockdev cannot emulate 500 open devices at once.
//
// Run: bench_sequences [minimum milliseconds per figure, default 500]

#include "input/EventDevice.h"
#include "input/InputKeyCode.h"
#include "sequences/AssignedDeviceHandler.h"

#include <QByteArray>
#include <QFile>
#include <QTemporaryDir>

#include <linux/input.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <vector>

namespace {

// Keys a pipe reports as held when it is probed.
std::vector<int> keysHeldAtOpen;

// Answers an evdev query on a pipe as a keyboard would; false for anything else.
bool answerEvdevQuery(int fd, unsigned long request, void* argument, int* result)
{
    struct stat status
    {
    };
    if (_IOC_TYPE(request) != 'E' || _IOC_DIR(request) != _IOC_READ || !argument ||
        fstat(fd, &status) != 0 || !S_ISFIFO(status.st_mode)) {
        return false;
    }
    const unsigned size = _IOC_SIZE(request);
    auto* bytes = static_cast<unsigned char*>(argument);
    std::memset(bytes, 0, size);
    const auto setBit = [&](int bit) {
        if (static_cast<unsigned>(bit / 8) < size) {
            bytes[bit / 8] |= static_cast<unsigned char>(1u << (bit % 8));
        }
    };
    const unsigned number = _IOC_NR(request);
    if (number == _IOC_NR(EVIOCGNAME(0))) {
        std::strncpy(static_cast<char*>(argument), "Benchmark Keyboard", size);
    } else if (number == _IOC_NR(EVIOCGBIT(0, 0))) {
        setBit(EV_KEY);
    } else if (number == _IOC_NR(EVIOCGKEY(0))) {
        for (int key : keysHeldAtOpen) {
            setBit(key);
        }
    }
    *result = static_cast<int>(size);
    return true;
}

} // namespace

// Takes the place of the C library's ioctl() in this program; everything that
// is not an evdev query on a pipe goes on to the real one.
extern "C" int ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    int result = 0;
    if (answerEvdevQuery(fd, request, argument, &result)) {
        return result;
    }
    using Ioctl = int (*)(int, unsigned long, ...);
    static const auto next = reinterpret_cast<Ioctl>(dlsym(RTLD_NEXT, "ioctl"));
    return next(fd, request, argument);
}

namespace {

using Clock = std::chrono::steady_clock;

// Calls `operation` in doubling batches until `minimum` has passed and answers
// the mean time of one call in nanoseconds.
double nanosecondsPerCall(const std::function<void()>& operation, Clock::duration minimum)
{
    for (int i = 0; i < 100; ++i) {
        operation(); // warm up
    }
    long long calls = 0;
    long long batch = 16;
    const Clock::time_point start = Clock::now();
    Clock::duration elapsed{};
    while (elapsed < minimum) {
        for (long long i = 0; i < batch; ++i) {
            operation();
        }
        calls += batch;
        batch *= 2;
        elapsed = Clock::now() - start;
    }
    return std::chrono::duration<double, std::nano>(elapsed).count() / static_cast<double>(calls);
}

// A named pipe that stands for one idle input device.
QString makeDevice(const QTemporaryDir& dir, int number)
{
    const QString path = dir.filePath(QStringLiteral("event%1").arg(number));
    return mkfifo(QFile::encodeName(path).constData(), 0600) == 0 ? path : QString();
}

bool writeFile(const QString& name, const QByteArray& content)
{
    QFile file(name);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

bool benchIdleUpdate(int devices, Clock::duration minimum)
{
    QTemporaryDir dir;
    AssignedDeviceHandler handler(QString{});
    keysHeldAtOpen.clear();
    for (int i = 0; i < devices; ++i) {
        const QString path = makeDevice(dir, i);
        if (path.isEmpty() || !handler.addAssignedDevice(path, i + 1)) {
            std::fprintf(stderr, "could not open device %d of %d\n", i + 1, devices);
            return false;
        }
    }
    const double ns = nanosecondsPerCall([&] { handler.update(); }, minimum);
    std::printf("idle update %5d devices   %12.0f ns/op %10.0f ns/device\n", devices, ns,
                ns / devices);
    return true;
}

bool benchMatch(int sequences, Clock::duration minimum)
{
    // "KEY_LEFTCTRL:<key>:true" over the other keys of the table, round and round.
    QByteArray config;
    const InputKeyCode* ctrl = InputKeyCode::keyCodeFindByName(QStringLiteral("KEY_LEFTCTRL"));
    for (int written = 0, k = 0; written < sequences; ++k) {
        const InputKeyCode* key = InputKeyCode::keyCodes.at(k % InputKeyCode::keyCodes.size());
        if (key != ctrl) {
            config += "KEY_LEFTCTRL:" + key->getName().toLatin1() + ":true\n";
            ++written;
        }
    }
    QTemporaryDir dir;
    const QString configName = dir.filePath(QStringLiteral("keys.conf"));
    if (!writeFile(configName, config)) {
        std::fprintf(stderr, "could not write the key configuration\n");
        return false;
    }
    AssignedDeviceHandler handler(configName);
    keysHeldAtOpen = {KEY_LEFTCTRL};
    const QString path = makeDevice(dir, 0);
    if (path.isEmpty() || !handler.addAssignedDevice(path, 1)) {
        std::fprintf(stderr, "could not open the device\n");
        return false;
    }
    const EventDevice* device = handler.getEventDevice(path);
    if (!device->isKeyPressed(KEY_LEFTCTRL)) {
        std::fprintf(stderr, "the device does not hold Ctrl\n");
        return false;
    }
    const double ns = nanosecondsPerCall([&] { handler.keymapChanged(device); }, minimum);
    std::printf("match       %5d sequences %12.0f ns/op %10.1f ns/sequence\n", sequences, ns,
                ns / sequences);
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    const int milliseconds = argc > 1 ? std::atoi(argv[1]) : 500;
    const Clock::duration minimum =
        std::chrono::milliseconds(milliseconds > 0 ? milliseconds : 500);

    InputKeyCode::buildTable();
    bool ok = true;
    for (int devices : {1, 10, 100, 500}) {
        ok = benchIdleUpdate(devices, minimum) && ok;
    }
    for (int sequences : {10, 100, 1000}) {
        ok = benchMatch(sequences, minimum) && ok;
    }
    InputKeyCode::cleanupTable();
    return ok ? 0 : 1;
}
