#include "input/InputReaderThread.h"

#include "common/AlternateSignalStack.h"

#include <linux/input.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace {
// Records taken per read. The kernel keeps 64 to 128 records per reader, so one read empties its
// buffer; more waits for the next round.
constexpr std::size_t recordsPerRead = 128;
// Ready descriptors taken per wait; more are reported by the next wait.
constexpr int eventsPerWait = 64;
} // namespace

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
            if (tag == State::commandTag) {
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
    InputReaderEventFd::clear(state.commandFd.get());
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
        InputReaderEventFd::signal(state.wakeFd.get());
    }
    if (pause) {
        watch(id, device, false);
    }
    if (error == ENODEV) {
        device.fd.reset();
    }
}
