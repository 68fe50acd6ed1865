// The readable names of shortcut keys, from the current keyboard layout.

#include "ui/HXShortcutKeyTableDelegate.h"

#include "platform/KeyboardLayout.h"
#include "platform/Platform.h"
#include "system/HXFormat.h"

namespace {

struct SpecialKey {
    char16_t character;
    const char16_t *name;
};

// First match wins: the function-key characters, then the control characters
// that the same keys (and a few others) type.
constexpr SpecialKey kSpecialKeys[] = {
    {0xF700, u"Up Arrow"},  {0xF701, u"Down Arrow"}, {0xF702, u"Left Arrow"}, {0xF703, u"Right Arrow"},
    {0xF729, u"Home"},      {0xF72B, u"End"},        {0xF72C, u"Page Up"},    {0xF72D, u"Page Down"},
    {0x001E, u"Up Arrow"},  {0x001F, u"Down Arrow"}, {0x001C, u"Left Arrow"}, {0x001D, u"Right Arrow"},
    {0x0001, u"Home"},      {0x0004, u"End"},        {0x000B, u"Page Up"},    {0x000C, u"Page Down"},
    {0x0003, u"Return"},    {0x0009, u"Tab"},        {0x0019, u"Backtab"},    {0x000D, u"Enter"},
    {0x0008, u"Backspace"}, {0x007F, u"Delete"},     {0x001B, u"Escape"},     {0x0020, u"Space"},
};

// The names double as keys into the localisation tables; this build ships none.
QString localizedKeyName(const char16_t *name)
{
    return QString::fromUtf16(name);
}

}  // namespace

QString HXShortcutKeyTableDelegate::nameForKeyCode(unsigned keycode, unsigned modifiers)
{
    QString name;
    if (modifiers & platform::kControlKeyModifier)
        name += QStringLiteral("Ctrl+");
    if (modifiers & platform::kShiftKeyModifier)
        name += QStringLiteral("Shift+");
    if (modifiers & platform::kOptionKeyModifier)
        name += QStringLiteral("Alt+");
    if (modifiers & platform::kCommandKeyModifier)
        name += QStringLiteral("Cmd+");
    std::optional<QString> key = stringForKeyCode(static_cast<std::uint16_t>(keycode), 0);
    if (key && key->size() == 1)
        *key = key->toUpper();
    // Appended as an object is formatted: a failed translation reads "(null)", as
    // Foundation prints a missing object.
    return name + HXFormat(u"%@", key);
}

std::optional<QString> HXShortcutKeyTableDelegate::stringForKeyCode(std::uint16_t keyCode,
                                                                    std::uint32_t modifierFlags)
{
    const std::optional<platform::KeyTranslation> translation =
        platform::translateKeyCode(keyCode, modifierFlags);
    if (!translation) {
        platform::systemLog(
            QStringLiteral("Couldn't find a suitable keyboard layout from which to translate"));
        return std::nullopt;
    }
    if (translation->status != 0) {
        // The status itself stands where the key code was meant to be.
        platform::systemLog(HXFormat(
            u"There was an %s error translating from the '%ld' key code to a human readable string: %s",
            translation->statusName, translation->status, translation->statusComment));
        return std::nullopt;
    }
    if (translation->characters.isEmpty()) {
        platform::systemLog(HXFormat(u"Couldn't find a translation for the '%d' key code", keyCode));
        return std::nullopt;
    }
    const char16_t first = translation->characters.front().unicode();
    for (const SpecialKey &special : kSpecialKeys)
        if (special.character == first)
            return localizedKeyName(special.name);
    return translation->characters;
}
