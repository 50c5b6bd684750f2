// Benchmark of the assigned device handler and the key engine (not a test: it
// prints figures).
//
//   idle update   one AssignedDeviceHandler::update() when no device has input
//                 queued, with 1, 10, 100 and 500 open devices
//   match         KeyEngine::feed() of one press and release (two key records,
//                 each in its frame) against 10, 100 and 1000 command
//                 combinations; every combination's hold key is down and its
//                 press key is not the key pressed, so each one is tested in
//                 full on both records
//   command       the daemon's own CPU (user and system, children excluded)
//                 per command submitted to the CommandScheduler until the
//                 command's process has ended, and the wall time from submit
//                 to that end, with 9 MB resident, about what the daemon holds.
//                 The command is a bash builtin that holds a named pipe open
//                 while it lives; the pipe's hang-up, watched from the event
//                 loop, is the command's end, whether the scheduler waits for
//                 its commands or lets them end on their own
//   flood         a 1000 Hz mouse moving for 3 s (REL_X, REL_Y, SYN_REPORT a
//                 millisecond, a click every 100 frames) with the daemon's
//                 100 ms tick running, which takes the device's records and
//                 feeds them to a key engine: the main thread's CPU per 1000
//                 records written, its share of one core, its wakeups per
//                 second, and the BTN_LEFT presses among the records taken
//
// The devices are named pipes opened read-write with nothing written to them:
// each is polled and found not readable, which is exactly the idle cost. The
// evdev probe ioctls EventDevice makes when it opens a device are answered by
// this program for pipes (a keyboard with EV_KEY and no key held); umockdev
// cannot emulate 500 open devices at once.
//
// Run: bench_sequences [minimum milliseconds per figure, default 500]

#include "common/OwnedFd.h"
#include "input/EventDevice.h"
#include "input/InputKeyCode.h"
#include "keys/KeyEngine.h"
#include "sequences/AssignedDeviceHandler.h"
#include "sequences/CommandScheduler.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QSocketNotifier>
#include <QTemporaryDir>
#include <QTimer>

#include <linux/input.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <functional>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// Answers an evdev query on a pipe as a keyboard without keys held would; false for
// anything else.
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

bool benchIdleUpdate(int devices, Clock::duration minimum)
{
    QTemporaryDir dir;
    AssignedDeviceHandler handler(QString{});
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

bool benchMatch(int combinations, Clock::duration minimum)
{
    // Ctrl with another key of the table, round and round; the key pressed is none of them.
    constexpr std::uint16_t pressedKey = KEY_SPACE;
    std::vector<KeyEngine::Combination> list;
    for (int k = 0; static_cast<int>(list.size()) < combinations; ++k) {
        const int key = InputKeyCode::keyCodes.at(k % InputKeyCode::keyCodes.size())->getCode();
        if (key != KEY_LEFTCTRL && key != pressedKey) {
            list.push_back({{KEY_LEFTCTRL}, {key}});
        }
    }
    KeyEngine engine;
    engine.setCommandCombinations(std::move(list));
    KeyState ctrlHeld;
    ctrlHeld.apply(KEY_LEFTCTRL, true);
    ctrlHeld.settle();
    constexpr KeyEngine::DeviceId device = 1;
    engine.addDevice(device, ctrlHeld);
    const std::vector<KeyRecord> records{KeyRecord::press(pressedKey), KeyRecord::frameEnd(),
                                         KeyRecord::release(pressedKey), KeyRecord::frameEnd()};
    // Nothing may match, or the figure would include the work of a match.
    if (!engine.feed(device, records).empty() || !engine.waitingCommands(device).empty() ||
        !engine.keyState(device)->isPressed(KEY_LEFTCTRL)) {
        std::fprintf(stderr, "the press and release of the benchmark key matched\n");
        return false;
    }
    std::size_t decisions = 0;
    const double ns =
        nanosecondsPerCall([&] { decisions += engine.feed(device, records).size(); }, minimum);
    if (decisions != 0) {
        std::fprintf(stderr, "the press and release of the benchmark key matched\n");
        return false;
    }
    std::printf("match       %5d combinations %9.0f ns/op %10.1f ns/combination\n", combinations,
                ns, ns / combinations);
    return true;
}

// A named pipe that a command holds open while it lives: the read end, opened before the
// command starts, reports the hang-up once the command's process has ended.
class CommandEndPipe
{
public:
    explicit CommandEndPipe(QString pipePath) : path(std::move(pipePath)) {}

    bool create() { return mkfifo(QFile::encodeName(path).constData(), 0600) == 0; }
    // The command that holds the pipe open until it ends; bash runs it without a fork.
    QString command() const { return "exec 3>'" + path + "'"; }
    // Opens a fresh read end for the next command: a read end reports a hang-up only after
    // a writer that came after it has gone.
    bool arm()
    {
        reader = Orvanta::OwnedFd(
            open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        return reader.isValid();
    }
    // Runs the event loop until the command has ended; false when it did not within the
    // time given.
    bool waitForEnd(int timeoutMs)
    {
        QEventLoop loop;
        QSocketNotifier notifier(reader.get(), QSocketNotifier::Read);
        bool ended = false;
        QObject::connect(&notifier, &QSocketNotifier::activated, &loop, [&] {
            char byte = 0;
            // The command writes nothing: a read of 0 bytes is the hang-up.
            if (read(reader.get(), &byte, 1) == 0) {
                ended = true;
                loop.quit();
            }
        });
        QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
        loop.exec();
        return ended;
    }

private:
    QString path;
    Orvanta::OwnedFd reader;
};

bool benchCommand()
{
    constexpr int commands = 200;
    constexpr int timeoutMs = 10000;
    constexpr std::size_t residentBytes = 9 << 20;
    // Touched, so that it is resident and a fork has to copy its page tables.
    std::vector<char> resident(residentBytes, 1);
    QTemporaryDir dir;
    CommandEndPipe end(dir.filePath(QStringLiteral("command-ended")));
    if (!end.create()) {
        std::fprintf(stderr, "could not make the command's pipe\n");
        return false;
    }
    CommandScheduler scheduler;
    const CommandScheduler::Command command{QStringLiteral("3"),
                                            end.command(),
                                            {{QStringLiteral("station_id"), QStringLiteral("3")}},
                                            end.command()};
    // The first command starts the launcher, which a daemon has from its start.
    if (!end.arm()) {
        std::fprintf(stderr, "could not open the command's pipe\n");
        return false;
    }
    scheduler.submit(command);
    if (!end.waitForEnd(timeoutMs)) {
        std::fprintf(stderr, "the first command did not end\n");
        return false;
    }
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < commands; ++i) {
        if (!end.arm()) {
            std::fprintf(stderr, "could not open the command's pipe\n");
            return false;
        }
        scheduler.submit(command);
        if (!end.waitForEnd(timeoutMs)) {
            std::fprintf(stderr, "command %d did not end within %d ms\n", i + 1, timeoutMs);
            return false;
        }
    }
    const double wall = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    // The pages must stay allocated and touched until the forks are done.
    asm volatile("" : : "g"(resident.data()) : "memory");
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    const auto micros = [](const timeval& t) { return t.tv_sec * 1e6 + t.tv_usec; };
    const double cpu = micros(after.ru_utime) + micros(after.ru_stime) - micros(before.ru_utime) -
                       micros(before.ru_stime);
    std::printf("command     builtin, %zu MB resident %8.1f us daemon CPU/command %8.0f us wall "
                "submit to end\n",
                residentBytes >> 20, cpu / commands, wall / commands);
    return true;
}

struct ThreadUsage
{
    double cpuSeconds;
    long wakeups;
};

ThreadUsage mainThreadUsage()
{
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return {seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_nvcsw};
}

bool benchFlood()
{
    constexpr int framesPerSecond = 1000;
    constexpr int seconds = 3;
    constexpr int recordsPerFrame = 3;
    QTemporaryDir dir;
    const QString path = makeDevice(dir, 0);
    if (path.isEmpty()) {
        std::fprintf(stderr, "could not make the flooding device\n");
        return false;
    }
    EventDevice device(path);
    if (device.getFd() == -1) {
        std::fprintf(stderr, "could not open the flooding device\n");
        return false;
    }
    const int writer = open(QFile::encodeName(path).constData(), O_WRONLY | O_CLOEXEC);
    if (writer == -1) {
        std::fprintf(stderr, "could not open the flooding device for writing\n");
        return false;
    }
    // The daemon's work on the records: take them, then let the key engine examine them.
    KeyEngine engine;
    engine.addDevice(device.getId(), device.getKeysAtOpen());
    int presses = 0;
    const auto update = [&] {
        const EventDevice::Records taken = device.takeRecords();
        for (const KeyRecord& record : taken.records) {
            presses += record == KeyRecord::press(BTN_LEFT) ? 1 : 0;
        }
        engine.feed(device.getId(), taken.records);
        device.reportReadError(taken.readError);
    };

    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, update);
    tick.start(100);
    std::atomic<long> records{0};
    std::thread mouse([&] {
        const auto period = std::chrono::microseconds(1000000 / framesPerSecond);
        auto next = Clock::now();
        for (int frame = 0; frame < framesPerSecond * seconds; ++frame) {
            input_event events[recordsPerFrame] = {};
            events[0].type = EV_REL;
            events[0].code = REL_X;
            events[0].value = frame % 2 ? 1 : -1;
            events[1].type = EV_REL;
            events[1].code = REL_Y;
            events[1].value = events[0].value;
            events[2].type = EV_SYN;
            events[2].code = SYN_REPORT;
            if (frame % 100 == 50) {
                events[1].type = EV_KEY;
                events[1].code = BTN_LEFT;
                events[1].value = (frame / 100) % 2 ? 0 : 1;
            }
            if (write(writer, events, sizeof events) == static_cast<ssize_t>(sizeof events)) {
                records += recordsPerFrame;
            }
            next += period;
            std::this_thread::sleep_until(next);
        }
        QMetaObject::invokeMethod(QCoreApplication::instance(), "quit", Qt::QueuedConnection);
    });
    const ThreadUsage before = mainThreadUsage();
    const Clock::time_point start = Clock::now();
    QCoreApplication::exec();
    update();
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    const ThreadUsage after = mainThreadUsage();
    mouse.join();
    close(writer);

    const double cpu = after.cpuSeconds - before.cpuSeconds;
    std::printf("flood 1000 Hz mouse  %ld records, %d of %d presses taken: %8.1f us CPU/1000 "
                "records, %5.2f %% of a core, %6.0f wakeups/s\n",
                records.load(), presses, framesPerSecond * seconds / 200,
                cpu * 1e6 / (records.load() / 1000.0), 100.0 * cpu / wall,
                (after.wakeups - before.wakeups) / wall);
    return presses == framesPerSecond * seconds / 200;
}

} // namespace

int main(int argc, char* argv[])
{
    // Devices take their records through socket notifiers, which need an application.
    QCoreApplication application(argc, argv);
    const int milliseconds = argc > 1 ? std::atoi(argv[1]) : 500;
    const Clock::duration minimum =
        std::chrono::milliseconds(milliseconds > 0 ? milliseconds : 500);

    InputKeyCode::buildTable();
    bool ok = true;
    for (int devices : {1, 10, 100, 500}) {
        ok = benchIdleUpdate(devices, minimum) && ok;
    }
    for (int combinations : {10, 100, 1000}) {
        ok = benchMatch(combinations, minimum) && ok;
    }
    ok = benchCommand() && ok;
    ok = benchFlood() && ok;
    InputKeyCode::cleanupTable();
    return ok ? 0 : 1;
}
