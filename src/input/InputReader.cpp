#include "input/InputReader.h"

#include "common/Logger.h"
#include "input/InputReaderState.h"
#include "input/InputReaderThread.h"

#include <QSocketNotifier>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <utility>

namespace {
constexpr char logSource[] = "InputReader";
} // namespace

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
    event.data.u64 = State::commandTag;
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
        InputReaderEventFd::signal(state->commandFd.get());
    }
    if (wait) {
        state->commandDone.wait(lock, [&] { return state->commandsDone >= sequence; });
    }
}

void InputReader::announceWaitingDevices()
{
    // Cleared before the list is taken, so that a device announced meanwhile signals again.
    InputReaderEventFd::clear(state->wakeFd.get());
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
