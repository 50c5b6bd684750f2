#pragma once

#include "input/InputReaderState.h"

#include <cstddef>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

// The reader thread's side: it owns the descriptors and the filters of the devices.
class InputReader::Thread
{
public:
    explicit Thread(State& shared) : state(shared) {}

    void run();

private:
    struct Device
    {
        Device(Orvanta::OwnedFd descriptor, const KeyRecordFilter::KeyBits& keys,
               std::shared_ptr<std::atomic<std::uint64_t>> readSoFar)
            : fd(std::move(descriptor)), filter(keys), bytesRead(std::move(readSoFar))
        {
        }

        Orvanta::OwnedFd fd;
        KeyRecordFilter filter;
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
