// Key codes and modifier bits, as a key event or a stored shortcut gives them,
// turned into the names the shortcut editor shows.

#include "fuzz/FuzzSupport.h"
#include "platform/KeyboardLayout.h"
#include "ui/HXShortcutKeyTableDelegate.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Little-endian: the key code, then the modifier bits.
    std::uint8_t bytes[6] = {};
    std::copy_n(data, std::min(size, sizeof bytes), bytes);
    const std::uint16_t keyCode = bytes[0] | bytes[1] << 8;
    const std::uint32_t modifiers = bytes[2] | bytes[3] << 8 | bytes[4] << 16 | std::uint32_t(bytes[5]) << 24;
    platform::translateKeyCode(keyCode, modifiers);
    HXShortcutKeyTableDelegate::stringForKeyCode(keyCode, modifiers);
    HXShortcutKeyTableDelegate::nameForKeyCode(keyCode, modifiers);
    platform::keyModifierBits(Qt::KeyboardModifiers::fromInt(static_cast<int>(modifiers)));
    return 0;
}
