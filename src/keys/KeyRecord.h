#pragma once

#include <cstdint>

// One input record as the key engine sees it, a plain value: a key going down or up, or the
// end of a frame (the kernel's SYN_REPORT), which carries the kernel's mark. Everything else the
// kernel reports (movement, auto-repeat, other event types) never reaches the engine.
struct KeyRecord
{
    enum class Type : std::uint8_t
    {
        KEY,
        FRAME_END,
    };

    Type type = Type::KEY;
    // The key or button code (KEY_* / BTN_*); 0 for a frame end.
    std::uint16_t code = 0;
    // For a key: 1 pressed, 0 released. For a frame end: the SYN_REPORT's value, which is 1 when
    // the kernel made the frame up itself (it releases every held key when the device goes
    // away), 0 for a frame the device sent.
    std::int32_t value = 0;

    static constexpr KeyRecord press(std::uint16_t key) { return {Type::KEY, key, 1}; }
    static constexpr KeyRecord release(std::uint16_t key) { return {Type::KEY, key, 0}; }
    static constexpr KeyRecord frameEnd(std::int32_t mark = 0)
    {
        return {Type::FRAME_END, 0, mark};
    }

    friend constexpr bool operator==(const KeyRecord& a, const KeyRecord& b)
    {
        return a.type == b.type && a.code == b.code && a.value == b.value;
    }
};
