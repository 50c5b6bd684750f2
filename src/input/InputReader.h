#pragma once

#include "common/OwnedFd.h"
#include "keys/KeyRecord.h"

#include <QObject>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

class QSocketNotifier;

// Takes the kernel's records off every open input device as they arrive, on a thread of its
// own, so that nothing the main thread does keeps them waiting in the kernel: the kernel keeps
// only a short buffer per reader and throws all of it away when it overflows.
//
// Each device has a queue of records for the main thread. Only what the key state needs is
// queued: key presses and releases and the frame ends after them, so a mouse that only moves
// costs reads and nothing else. After the kernel's SYN_DROPPED the records up to the next
// SYN_REPORT are discarded and a frame that turns the queued key state into the kernel's
// (EVIOCGKEY) is queued instead. A queue holding maxQueuedRecords stops the reading of its
// device until the main thread has taken some; the kernel then drops, and the resynchronisation
// repairs the key state.
//
// A failed read (or one shorter than a record) is queued behind the records read before it and
// stops the reading of its device until the main thread has taken it. Reading then goes on,
// except after ENODEV: that device is gone, and its descriptor is closed at once.
//
// The object and every public method belong to the main thread, which must run a Qt event loop
// for recordsWaiting(). The reader thread owns the descriptors; the two share only the queues,
// guarded by one mutex held for short queue operations, and talk through two eventfds (commands
// one way, wake-ups the other), which also order the threads for ThreadSanitizer. The reader
// thread's side is InputReader::Thread (InputReaderThread.h), what they share InputReaderState.h,
// and each device's records pass a KeyRecordFilter.
class InputReader : public QObject
{
    Q_OBJECT

public:
    // Never reused by a reader; 0 is no device.
    using DeviceId = std::uint64_t;

    struct Taken
    {
        std::vector<KeyRecord> records;
        // 0, the errno of a failed read, or shortRead. Given once, with the take that empties
        // the queue of every record read before it.
        int error = 0;
        // Records are still queued after these: no recordsWaiting() comes for them.
        bool more = false;
    };

    // The error of a read that gave less than one record.
    static constexpr int shortRead = -1;
    // Records that may wait for the main thread per device. One resynchronising frame may go
    // past it, by at most one record per key code and its frame end.
    static constexpr std::size_t maxQueuedRecords = 4096;

    // The daemon's reader, made on first use, stopped when the process exits.
    static InputReader& shared();

    InputReader();
    // Stops and joins the thread and closes every descriptor still held.
    ~InputReader() override;
    InputReader(const InputReader&) = delete;
    InputReader& operator=(const InputReader&) = delete;

    // Starts reading `fd`, which the reader owns from now on (the caller keeps a dup() of its
    // own). `keyBits` is the key state the device's records start from, in the layout that
    // EVIOCGKEY fills (bit `code % 8` of byte `code / 8`); `size` bytes of it are used, at most
    // one bit per key code. The first call starts the thread.
    DeviceId add(Orvanta::OwnedFd fd, const unsigned char* keyBits, std::size_t size);
    // Stops reading the device and closes its descriptor before it returns; nothing of the
    // device is delivered afterwards, queued records are dropped. Unknown ids are ignored.
    void remove(DeviceId id);
    // Up to `max` of the device's records, oldest first, and its read error once every record
    // before the error is taken. Nothing for an unknown id.
    Taken take(DeviceId id, std::size_t max);
    // How many of the device's records wait to be taken.
    std::size_t queuedRecords(DeviceId id) const;
    // How many bytes the thread has read off the device so far; whatever records they held are
    // queued by the time they are counted. 0 for an unknown id.
    std::uint64_t bytesRead(DeviceId id) const;

Q_SIGNALS:
    // Emitted on the main thread when a device's queue was empty and records came, or when a
    // read error came. Records that come before a take() has left the queue empty
    // (Taken::more false) are not told of again; at most one emission per device is pending.
    void recordsWaiting(InputReader::DeviceId id);

private:
    struct State;
    struct Queue;
    struct Command;
    class Thread;

    bool start();
    // Hands `command` to the thread; with `wait`, returns once the thread has carried it out.
    void sendCommand(Command command, bool wait);
    void announceWaitingDevices();

    std::unique_ptr<State> state;
    std::unique_ptr<QSocketNotifier> wakeNotifier;
    std::thread readerThread;
};
