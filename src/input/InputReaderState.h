#pragma once

#include "input/InputReader.h"
#include "input/KeyRecordFilter.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include <unistd.h>

// What the input reader's main thread and its reader thread share: the devices' queues, the
// commands for the reader thread and the eventfds between the two. Included only by the
// input reader's own files.

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
    KeyRecordFilter::KeyBits keys{};
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

    // What the reader's epoll reports the command eventfd as; device ids start at 1.
    static constexpr std::uint64_t commandTag = 0;

    // Written and read without the mutex; they live as long as the thread.
    Orvanta::OwnedFd epollFd;
    Orvanta::OwnedFd commandFd; // main thread -> reader thread
    Orvanta::OwnedFd wakeFd;    // reader thread -> main thread
};

namespace InputReaderEventFd {

inline void signal(int fd)
{
    const std::uint64_t one = 1;
    // Never blocks: the counter is far from full with one write per batch.
    [[maybe_unused]] const ssize_t written = write(fd, &one, sizeof one);
}

inline void clear(int fd)
{
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t bytes = read(fd, &count, sizeof count);
}

} // namespace InputReaderEventFd
