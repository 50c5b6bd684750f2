#pragma once

#include <bitset>
#include <cstddef>

// Which keys and buttons of one device are down, and which were down before the key record
// being examined: enough to tell a key that is held from one that has just gone down.
class KeyState
{
public:
    // Highest key code tracked (KEY_MAX); one bit per code 0..lastKeyCode.
    static constexpr int lastKeyCode = 0x2ff;

    KeyState() = default;
    // The state the kernel reports with EVIOCGKEY: bit code % 8 of byte code / 8. Keys held now
    // count as down before and after, so none of them looks freshly pressed.
    static KeyState fromKernelBits(const unsigned char* bits, std::size_t size);

    // Codes outside 0..lastKeyCode are never down.
    bool isPressed(int key) const;
    // Whether any key 0..lastKeyCode-1 is down: a device that holds only the last code counts
    // as one with every key up.
    bool isPressed() const;
    // Whether `key` went down in the key record being examined.
    bool isPressedOnce(int key) const;

    // A key goes down or up; the state before it is kept for isPressedOnce().
    void apply(int key, bool down);
    // The record has been examined: before and now agree again.
    void settle() { before = now; }

private:
    static bool isValid(int key) { return key >= 0 && key <= lastKeyCode; }

    std::bitset<lastKeyCode + 1> now;
    std::bitset<lastKeyCode + 1> before;
};
