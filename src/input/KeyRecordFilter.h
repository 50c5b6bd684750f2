#pragma once

#include "keys/KeyRecord.h"

#include <linux/input.h>

#include <array>
#include <vector>

// Turns one device's kernel records into the records its key state needs, and keeps the key
// state they lead to: key presses and releases and the frame ends after them pass, everything
// else (movement, auto-repeat, frames without keys) is left out. After the kernel's SYN_DROPPED
// the records up to the next SYN_REPORT are discarded and a frame that turns the key state into
// the kernel's (EVIOCGKEY) takes their place.
//
// Used by the input reader's thread only.
class KeyRecordFilter
{
public:
    // Highest key code tracked; the key state has one bit per code 0..lastKeyCode.
    static constexpr int lastKeyCode = KEY_MAX;
    // A key state in the layout that EVIOCGKEY fills: bit `code % 8` of byte `code / 8`.
    using KeyBits = std::array<unsigned char, KEY_MAX / 8 + 1>;

    explicit KeyRecordFilter(const KeyBits& keys) : queuedKeyState(keys) {}

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
