#include "input/InputReader.h"

#include "common/AlternateSignalStack.h"
#include "common/Logger.h"

#include <QSocketNotifier>
#include <QThread>

#include <linux/input.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace {
constexpr char logSource[] = "InputReader";

// Records taken per read. The kernel keeps 64 to 128 records per reader, so one read empties its
// buffer; more waits for the next round.
constexpr std::size_t recordsPerRead = 128;
// Ready descriptors taken per wait; more are reported by the next wait.
constexpr int eventsPerWait = 64;

constexpr int keyPress = 1;
constexpr int keyRelease = 0;
// Highest key code tracked; the key state has one bit per code 0..lastKeyCode.
constexpr int lastKeyCode = KEY_MAX;
using KeyBits = std::array<unsigned char, KEY_MAX / 8 + 1>;

// What the reader's epoll reports the command eventfd as; device ids start at 1.
constexpr std::uint64_t commandTag = 0;

bool testBit(const KeyBits& bits, int index)
{
    return (bits[index / 8] >> (index % 8)) & 1;
}

void setBit(KeyBits& bits, int index, bool value)
{
    const auto mask = static_cast<unsigned char>(1u << (index % 8));
    bits[index / 8] = value ? (bits[index / 8] | mask) : (bits[index / 8] & ~mask);
}

void signalEventFd(int fd)
{
    const std::uint64_t one = 1;
    // Never blocks: the counter is far from full with one write per batch.
    [[maybe_unused]] const ssize_t written = write(fd, &one, sizeof one);
}

void clearEventFd(int fd)
{
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t bytes = read(fd, &count, sizeof count);
}

// Turns one device's kernel records into the records its key state needs, and keeps the key
// state they lead to.
class RecordFilter
{
public:
    explicit RecordFilter(const KeyBits& keys) : queuedKeyState(keys) {}

    // Appends to `out` what `record` contributes; `fd` answers EVIOCGKEY after a drop.
    void filter(const input_event& record, int fd, std::vector<KeyRecord>& out);

private:
    void resynchroniseKeys(int fd, std::vector<KeyRecord>& out);

    // The key state once everything queued is processed; a resynchronisation queues the
    // difference between this and the kernel's state.
    KeyBits queuedKeyState;
    bool lastQueuedEndsFrame = true;
    bool discardingUntilReport = false;
};

void RecordFilter::filter(const input_event& record, int fd, std::vector<KeyRecord>& out)
{
    // After SYN_DROPPED the kernel's records up to the next SYN_REPORT belong to a frame that
    // lost part of itself; the key state is read afresh instead.
    if (discardingUntilReport) {
        if (record.type == EV_SYN && record.code == SYN_REPORT) {
            discardingUntilReport = false;
            resynchroniseKeys(fd, out);
        }
        return;
    }
    if (record.type == EV_SYN) {
        if (record.code == SYN_DROPPED) {
            discardingUntilReport = true;
        } else if (record.code == SYN_REPORT && !lastQueuedEndsFrame) {
            // Frames without key records (a mouse moving) leave nothing to process.
            out.push_back(KeyRecord::frameEnd(record.value));
            lastQueuedEndsFrame = true;
        }
        return;
    }
    // Auto-repeat (value 2) and every other event type leave the key state alone.
    if (record.type != EV_KEY || (record.value != keyPress && record.value != keyRelease)) {
        return;
    }
    if (record.code <= lastKeyCode) {
        setBit(queuedKeyState, record.code, record.value == keyPress);
    }
    out.push_back({KeyRecord::Type::KEY, record.code, record.value});
    lastQueuedEndsFrame = false;
}

// Queues a frame that turns the queued key state into the kernel's: a press for every key that
// went down meanwhile, a release for every key that came up.
void RecordFilter::resynchroniseKeys(int fd, std::vector<KeyRecord>& out)
{
    KeyBits kernelKeys{};
    if (ioctl(fd, EVIOCGKEY(kernelKeys.size()), kernelKeys.data()) == -1) {
        // The queued state stays; the device's next key records correct it key by key.
        return;
    }
    for (int key = 0; key <= lastKeyCode; ++key) {
        const bool down = testBit(kernelKeys, key);
        if (down == testBit(queuedKeyState, key)) {
            continue;
        }
        setBit(queuedKeyState, key, down);
        const auto code = static_cast<std::uint16_t>(key);
        out.push_back(down ? KeyRecord::press(code) : KeyRecord::release(code));
        lastQueuedEndsFrame = false;
    }
    if (!lastQueuedEndsFrame) {
        out.push_back(KeyRecord::frameEnd());
        lastQueuedEndsFrame = true;
    }
}
} // namespace

// One device's records for the main thread. Guarded by State::mutex.
struct InputReader::Queue
{
    std::deque<KeyRecord> records;
    // The read error behind the records, 0 when none.
    int error = 0;
    // The main thread has been told of the records, and has not emptied the queue since.
    bool announced = false;
    // The device is in State::announcements.
    bool listed = false;
    // The thread stopped reading the device: its queue was full or an error waits.
    bool paused = false;
    // ENODEV came: the device is never read again.
    bool gone = false;
    // Bytes read off the device so far, counted once what they held is queued.
    std::shared_ptr<std::atomic<std::uint64_t>> bytesRead =
        std::make_shared<std::atomic<std::uint64_t>>(0);
};

struct InputReader::Command
{
    enum class Kind
    {
        ADD,
        REMOVE,
        RESUME,
        STOP,
    };

    explicit Command(Kind commandKind, DeviceId device = 0) : kind(commandKind), id(device) {}

    Kind kind;
    DeviceId id;
    Orvanta::OwnedFd fd;
    KeyBits keys{};
    std::shared_ptr<std::atomic<std::uint64_t>> bytesRead;
};

// What the main thread and the reader thread share.
struct InputReader::State
{
    std::mutex mutex;
    std::unordered_map<DeviceId, Queue> queues;
    std::vector<Command> commands;
    // Counts of commands handed to the thread and carried out by it, for the commands the
    // main thread waits for.
    std::uint64_t commandsSent = 0;
    std::uint64_t commandsDone = 0;
    std::condition_variable commandDone;
    // Devices whose queue the main thread is to hear of; the wake-up eventfd is signalled when
    // the first one is added.
    std::vector<DeviceId> announcements;
    DeviceId lastId = 0;

    // Written and read without the mutex; they live as long as the thread.
    Orvanta::OwnedFd epollFd;
    Orvanta::OwnedFd commandFd; // main thread -> reader thread
    Orvanta::OwnedFd wakeFd;    // reader thread -> main thread
};

// The reader thread's side: it owns the descriptors and the filters of the devices.
class InputReader::Thread
{
public:
    explicit Thread(State& shared) : state(shared) {}

    void run();

private:
    struct Device
    {
        Device(Orvanta::OwnedFd descriptor, const KeyBits& keys,
               std::shared_ptr<std::atomic<std::uint64_t>> readSoFar)
            : fd(std::move(descriptor)), filter(keys), bytesRead(std::move(readSoFar))
        {
        }

        Orvanta::OwnedFd fd;
        RecordFilter filter;
        bool watched = false;
        // The queue's length when this thread last looked; the main thread only shortens it.
        std::size_t queuedAtMost = 0;
        std::shared_ptr<std::atomic<std::uint64_t>> bytesRead;
    };

    // Carries out the waiting commands; false once told to stop.
    bool runCommands();
    void watch(DeviceId id, Device& device, bool on);
    // One read of the device, its records filtered and queued.
    void readDevice(DeviceId id, Device& device);
    // How many records the device's queue takes now; 0 marks it paused.
    std::size_t roomInQueue(DeviceId id, Device& device);
    // Queues the batch and the read error, tells the main thread, and stops reading the device
    // when its queue is full or an error came.
    void deliver(DeviceId id, Device& device, int error);

    State& state;
    std::unordered_map<DeviceId, Device> devices;
    // One read's records, kept to spare an allocation per read.
    std::vector<KeyRecord> batch;
};

void InputReader::Thread::run()
{
    // The crash report runs on it, should this thread overflow its stack.
    const Orvanta::AlternateSignalStack signalStack;
    pthread_setname_np(pthread_self(), "input reader");
    std::array<epoll_event, eventsPerWait> events;
    for (;;) {
        const int ready = epoll_wait(state.epollFd.get(), events.data(), eventsPerWait, -1);
        for (int i = 0; i < ready; ++i) {
            const std::uint64_t tag = events[i].data.u64;
            if (tag == commandTag) {
                if (!runCommands()) {
                    return;
                }
                continue;
            }
            // A device removed by a command earlier in this round is no longer here.
            const auto device = devices.find(tag);
            if (device != devices.end()) {
                readDevice(device->first, device->second);
            }
        }
        // epoll_wait() fails only when interrupted by a signal; it is simply called again.
    }
}

bool InputReader::Thread::runCommands()
{
    clearEventFd(state.commandFd.get());
    std::vector<Command> commands;
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        commands.swap(state.commands);
    }
    bool keepRunning = true;
    for (Command& command : commands) {
        switch (command.kind) {
        case Command::Kind::ADD: {
            auto added = devices.emplace(command.id, Device(std::move(command.fd), command.keys,
                                                            std::move(command.bytesRead)));
            watch(command.id, added.first->second, true);
            break;
        }
        case Command::Kind::REMOVE: {
            const auto device = devices.find(command.id);
            if (device != devices.end()) {
                watch(command.id, device->second, false);
                devices.erase(device);
            }
            break;
        }
        case Command::Kind::RESUME: {
            const auto device = devices.find(command.id);
            if (device != devices.end()) {
                watch(command.id, device->second, true);
            }
            break;
        }
        case Command::Kind::STOP:
            keepRunning = false;
            break;
        }
    }
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        state.commandsDone += commands.size();
    }
    state.commandDone.notify_all();
    return keepRunning;
}

void InputReader::Thread::watch(DeviceId id, Device& device, bool on)
{
    if (device.watched == on || !device.fd.isValid()) {
        return;
    }
    // Not watched at all rather than watched for nothing: a hang-up would still be reported.
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = id;
    const int operation = on ? EPOLL_CTL_ADD : EPOLL_CTL_DEL;
    if (epoll_ctl(state.epollFd.get(), operation, device.fd.get(), &event) == 0) {
        device.watched = on;
    }
}

void InputReader::Thread::readDevice(DeviceId id, Device& device)
{
    const std::size_t room = roomInQueue(id, device);
    if (room == 0) {
        watch(id, device, false);
        return;
    }
    // No more than the queue takes, so that it never holds more than its bound.
    std::array<input_event, recordsPerRead> events;
    const std::size_t wanted = std::min(recordsPerRead, room);
    const ssize_t bytes = read(device.fd.get(), events.data(), wanted * sizeof(input_event));
    int error = 0;
    batch.clear();
    if (bytes == -1) {
        if (errno == EAGAIN || errno == EINTR) {
            return;
        }
        error = errno;
    } else if (static_cast<std::size_t>(bytes) < sizeof(input_event)) {
        error = shortRead;
    } else {
        // A trailing partial record is dropped.
        const std::size_t count = static_cast<std::size_t>(bytes) / sizeof(input_event);
        for (std::size_t i = 0; i < count; ++i) {
            device.filter.filter(events[i], device.fd.get(), batch);
        }
    }
    // A mouse that moves ends here, without taking the lock.
    if (!batch.empty() || error != 0) {
        deliver(id, device, error);
    }
    if (bytes > 0) {
        device.bytesRead->fetch_add(static_cast<std::uint64_t>(bytes), std::memory_order_release);
    }
}

std::size_t InputReader::Thread::roomInQueue(DeviceId id, Device& device)
{
    // The main thread only shortens the queue, so the length last seen is enough while it
    // leaves room for a whole read.
    if (maxQueuedRecords - device.queuedAtMost >= recordsPerRead) {
        return maxQueuedRecords - device.queuedAtMost;
    }
    const std::lock_guard<std::mutex> lock(state.mutex);
    const auto found = state.queues.find(id);
    if (found == state.queues.end()) {
        // Removed; the command that says so is on its way.
        return 0;
    }
    Queue& queue = found->second;
    device.queuedAtMost = std::min(queue.records.size(), maxQueuedRecords);
    // Only a resynchronising frame fills a queue past its bound, and that pauses it.
    queue.paused = device.queuedAtMost == maxQueuedRecords;
    return maxQueuedRecords - device.queuedAtMost;
}

void InputReader::Thread::deliver(DeviceId id, Device& device, int error)
{
    bool wake = false;
    bool pause = false;
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        const auto found = state.queues.find(id);
        if (found == state.queues.end()) {
            return;
        }
        Queue& queue = found->second;
        queue.records.insert(queue.records.end(), batch.begin(), batch.end());
        device.queuedAtMost = std::min(queue.records.size(), maxQueuedRecords);
        queue.error = error;
        queue.gone = error == ENODEV;
        pause = error != 0 || queue.records.size() >= maxQueuedRecords;
        queue.paused = pause;
        // An error is told even when records were told of before.
        if ((!queue.announced || error != 0) && !queue.listed) {
            queue.listed = true;
            wake = state.announcements.empty();
            state.announcements.push_back(id);
        }
        queue.announced = true;
    }
    if (wake) {
        signalEventFd(state.wakeFd.get());
    }
    if (pause) {
        watch(id, device, false);
    }
    if (error == ENODEV) {
        device.fd.reset();
    }
}

InputReader& InputReader::shared()
{
    static InputReader reader;
    return reader;
}

InputReader::InputReader() : state(std::make_unique<State>()) {}

InputReader::~InputReader()
{
    if (readerThread.joinable()) {
        sendCommand(Command(Command::Kind::STOP), false);
        readerThread.join();
    }
}

bool InputReader::start()
{
    if (readerThread.joinable()) {
        return true;
    }
    state->epollFd.reset(epoll_create1(EPOLL_CLOEXEC));
    state->commandFd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    state->wakeFd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = commandTag;
    if (!state->epollFd.isValid() || !state->commandFd.isValid() || !state->wakeFd.isValid() ||
        epoll_ctl(state->epollFd.get(), EPOLL_CTL_ADD, state->commandFd.get(), &event) == -1) {
        SELVANE_LOG(LEVEL_ERROR, "Could not set up the reading of input devices: %s",
                    std::strerror(errno));
        return false;
    }
    try {
        readerThread = std::thread([shared = state.get()] { Thread(*shared).run(); });
    } catch (const std::system_error&) {
        // At the process's or the system's limit of tasks.
        SELVANE_LOG(LEVEL_ERROR, "Could not start a thread for reading input devices");
        return false;
    }
    wakeNotifier = std::make_unique<QSocketNotifier>(state->wakeFd.get(), QSocketNotifier::Read);
    connect(wakeNotifier.get(), &QSocketNotifier::activated, this,
            &InputReader::announceWaitingDevices);
    return true;
}

InputReader::DeviceId InputReader::add(Orvanta::OwnedFd fd, const unsigned char* keyBits,
                                       std::size_t size)
{
    Q_ASSERT(QThread::currentThread() == QObject::thread());
    Command command(Command::Kind::ADD);
    std::copy_n(keyBits, std::min(size, command.keys.size()), command.keys.begin());
    command.fd = std::move(fd);
    {
        const std::lock_guard<std::mutex> lock(state->mutex);
        command.id = ++state->lastId;
        command.bytesRead = state->queues.emplace(command.id, Queue{}).first->second.bytesRead;
    }
    const DeviceId id = command.id;
    // Without a thread the device is known and never read; its descriptor is closed here.
    if (start()) {
        sendCommand(std::move(command), false);
    }
    return id;
}

void InputReader::remove(DeviceId id)
{
    Q_ASSERT(QThread::currentThread() == QObject::thread());
    {
        const std::lock_guard<std::mutex> lock(state->mutex);
        if (state->queues.erase(id) == 0) {
            return;
        }
    }
    if (readerThread.joinable()) {
        sendCommand(Command(Command::Kind::REMOVE, id), true);
    }
}

InputReader::Taken InputReader::take(DeviceId id, std::size_t max)
{
    Q_ASSERT(QThread::currentThread() == QObject::thread());
    Taken taken;
    bool resume = false;
    {
        const std::lock_guard<std::mutex> lock(state->mutex);
        const auto found = state->queues.find(id);
        if (found == state->queues.end()) {
            return taken;
        }
        Queue& queue = found->second;
        const std::size_t count = std::min(max, queue.records.size());
        taken.records.assign(queue.records.begin(), queue.records.begin() + count);
        queue.records.erase(queue.records.begin(), queue.records.begin() + count);
        if (queue.records.empty()) {
            taken.error = std::exchange(queue.error, 0);
            queue.announced = false;
        }
        taken.more = !queue.records.empty();
        resume = queue.paused && !queue.gone && queue.error == 0 &&
                 queue.records.size() < maxQueuedRecords;
        if (resume) {
            queue.paused = false;
        }
    }
    if (resume) {
        sendCommand(Command(Command::Kind::RESUME, id), false);
    }
    return taken;
}

std::size_t InputReader::queuedRecords(DeviceId id) const
{
    const std::lock_guard<std::mutex> lock(state->mutex);
    const auto found = state->queues.find(id);
    return found == state->queues.end() ? 0 : found->second.records.size();
}

std::uint64_t InputReader::bytesRead(DeviceId id) const
{
    const std::lock_guard<std::mutex> lock(state->mutex);
    const auto found = state->queues.find(id);
    return found == state->queues.end() ? 0
                                        : found->second.bytesRead->load(std::memory_order_acquire);
}

void InputReader::sendCommand(Command command, bool wait)
{
    std::unique_lock<std::mutex> lock(state->mutex);
    state->commands.push_back(std::move(command));
    const std::uint64_t sequence = ++state->commandsSent;
    const bool first = state->commands.size() == 1;
    if (first) {
        signalEventFd(state->commandFd.get());
    }
    if (wait) {
        state->commandDone.wait(lock, [&] { return state->commandsDone >= sequence; });
    }
}

void InputReader::announceWaitingDevices()
{
    // Cleared before the list is taken, so that a device announced meanwhile signals again.
    clearEventFd(state->wakeFd.get());
    std::vector<DeviceId> ids;
    {
        const std::lock_guard<std::mutex> lock(state->mutex);
        ids.swap(state->announcements);
    }
    for (const DeviceId id : ids) {
        bool waiting = false;
        {
            // A receiver of an earlier emission may have taken or removed it.
            const std::lock_guard<std::mutex> lock(state->mutex);
            const auto found = state->queues.find(id);
            if (found != state->queues.end()) {
                Queue& queue = found->second;
                queue.listed = false;
                waiting = !queue.records.empty() || queue.error != 0;
            }
        }
        if (waiting) {
            Q_EMIT recordsWaiting(id);
        }
    }
}
