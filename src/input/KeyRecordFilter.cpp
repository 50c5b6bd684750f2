#include "input/KeyRecordFilter.h"

#include <sys/ioctl.h>

#include <cstdint>

namespace {
constexpr int keyPress = 1;
constexpr int keyRelease = 0;

bool testBit(const KeyRecordFilter::KeyBits& bits, int index)
{
    return (bits[index / 8] >> (index % 8)) & 1;
}

void setBit(KeyRecordFilter::KeyBits& bits, int index, bool value)
{
    const auto mask = static_cast<unsigned char>(1u << (index % 8));
    bits[index / 8] = value ? (bits[index / 8] | mask) : (bits[index / 8] & ~mask);
}
} // namespace

void KeyRecordFilter::filter(const input_event& record, int fd, std::vector<KeyRecord>& out)
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
void KeyRecordFilter::resynchroniseKeys(int fd, std::vector<KeyRecord>& out)
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
