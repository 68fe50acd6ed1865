#pragma once

// The user's current keyboard layout: which characters a key types. Key codes are
// the system's hardware key codes (on Linux X11 key codes, the kernel's code + 8,
// as a key event's native scan code gives them). On Linux the current layout is
// the display's, in the group in use; a process without a display gets the
// system's default layout.

#include <QString>
#include <QtCore/qnamespace.h>

#include <cstdint>
#include <optional>

namespace platform {

// Modifier bits of a translation state and of a shortcut binding.
inline constexpr std::uint16_t kCommandKeyModifier = 0x100;
inline constexpr std::uint16_t kShiftKeyModifier = 0x200;
inline constexpr std::uint16_t kOptionKeyModifier = 0x800;
inline constexpr std::uint16_t kControlKeyModifier = 0x1000;

struct KeyTranslation {
    // 0, or why the translation failed, with the status's name and description.
    long status = 0;
    QString statusName;
    QString statusComment;
    // UTF-16 text; keys that type nothing give the function-key characters
    // (Up Arrow U+F700, F1 U+F704, Home U+F729, ...).
    QString characters;
};

// What KEYCODE types with MODIFIERS (the bits above) held, on the current layout;
// none when there is no current layout.
std::optional<KeyTranslation> translateKeyCode(std::uint16_t keyCode, std::uint32_t modifiers);

// The modifier bits of the keys a key event reports held.
std::uint16_t keyModifierBits(Qt::KeyboardModifiers modifiers);

}  // namespace platform
