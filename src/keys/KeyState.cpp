#include "keys/KeyState.h"

#include <algorithm>

KeyState KeyState::fromKernelBits(const unsigned char* bits, std::size_t size)
{
    KeyState state;
    const std::size_t bytes = std::min(size, static_cast<std::size_t>(lastKeyCode / 8 + 1));
    for (std::size_t byte = 0; byte < bytes; ++byte) {
        for (int bit = 0; bit < 8; ++bit) {
            if ((bits[byte] >> bit) & 1) {
                state.now.set(byte * 8 + static_cast<std::size_t>(bit));
            }
        }
    }
    state.before = state.now;
    return state;
}

bool KeyState::isPressed(int key) const
{
    return isValid(key) && now.test(static_cast<std::size_t>(key));
}

bool KeyState::isPressed() const
{
    // The last code is left out of the scan: holding only that key counts as no key held.
    for (int key = 0; key < lastKeyCode; ++key) {
        if (now.test(static_cast<std::size_t>(key))) {
            return true;
        }
    }
    return false;
}

bool KeyState::isPressedOnce(int key) const
{
    return isValid(key) && now.test(static_cast<std::size_t>(key)) &&
           !before.test(static_cast<std::size_t>(key));
}

void KeyState::apply(int key, bool down)
{
    if (isValid(key)) {
        now.set(static_cast<std::size_t>(key), down);
    }
}
