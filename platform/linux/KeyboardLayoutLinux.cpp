#include "platform/KeyboardLayout.h"

#include <QFile>

#include <xkbcommon/xkbcommon.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace platform {

namespace {

// The status of a key code the layout has no key for, with the system's own
// name and description of that status.
constexpr long kParamErr = -50;

struct LayoutNames {
    std::string rules, model, layout, variant, options;
    bool operator==(const LayoutNames &) const = default;
};

// The layout the desktop session would set up. XKB_DEFAULT_* (as every xkbcommon
// client honours them) win over the system's keyboard configuration, as a whole:
// a variant of one layout must never be mixed with another layout. Empty names
// leave xkbcommon's own defaults (evdev rules, pc105, us).
LayoutNames currentLayoutNames()
{
    const std::array<std::pair<const char *, std::string LayoutNames::*>, 5> environment{{
        {"XKB_DEFAULT_RULES", &LayoutNames::rules},
        {"XKB_DEFAULT_MODEL", &LayoutNames::model},
        {"XKB_DEFAULT_LAYOUT", &LayoutNames::layout},
        {"XKB_DEFAULT_VARIANT", &LayoutNames::variant},
        {"XKB_DEFAULT_OPTIONS", &LayoutNames::options},
    }};
    LayoutNames names;
    bool fromEnvironment = false;
    for (const auto &[variable, field] : environment) {
        const char *value = std::getenv(variable);
        if (value != nullptr && *value != '\0') {
            names.*field = value;
            fromEnvironment = true;
        }
    }
    if (fromEnvironment)
        return names;

    // Debian's console and X11 share /etc/default/keyboard: KEY="value" lines.
    QFile file(QStringLiteral("/etc/default/keyboard"));
    if (!file.open(QIODevice::ReadOnly))
        return names;
    const std::array<std::pair<QByteArray, std::string LayoutNames::*>, 4> keys{{
        {"XKBMODEL", &LayoutNames::model},
        {"XKBLAYOUT", &LayoutNames::layout},
        {"XKBVARIANT", &LayoutNames::variant},
        {"XKBOPTIONS", &LayoutNames::options},
    }};
    while (!file.atEnd()) {
        const QByteArray line = file.readLine().trimmed();
        const qsizetype equals = line.indexOf('=');
        if (line.startsWith('#') || equals <= 0)
            continue;
        QByteArray value = line.mid(equals + 1).trimmed();
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
            value.back() == value.front())
            value = value.mid(1, value.size() - 2);
        for (const auto &[key, field] : keys)
            if (line.left(equals).trimmed() == key)
                names.*field = value.toStdString();
    }
    return names;
}

const char *orNull(const std::string &name)
{
    return name.empty() ? nullptr : name.c_str();
}

struct KeymapDeleter {
    void operator()(xkb_keymap *keymap) const { xkb_keymap_unref(keymap); }
};
struct StateDeleter {
    void operator()(xkb_state *state) const { xkb_state_unref(state); }
};
using Keymap = std::unique_ptr<xkb_keymap, KeymapDeleter>;
using State = std::unique_ptr<xkb_state, StateDeleter>;

// The keymap of the current layout, compiled again only when the layout's names
// change. Guarded by the caller's lock.
xkb_keymap *currentKeymap()
{
    static xkb_context *context = xkb_context_new(XKB_CONTEXT_NO_ENVIRONMENT_NAMES);  // never freed
    static LayoutNames cachedNames;
    static Keymap cached;
    if (context == nullptr)
        return nullptr;
    const LayoutNames names = currentLayoutNames();
    if (cached && names == cachedNames)
        return cached.get();
    const xkb_rule_names rules{orNull(names.rules), orNull(names.model), orNull(names.layout),
                               orNull(names.variant), orNull(names.options)};
    cached.reset(xkb_keymap_new_from_names(context, &rules, XKB_KEYMAP_COMPILE_NO_FLAGS));
    cachedNames = names;
    return cached.get();
}

// Shift and Control as they are. Option types a key's third-level characters, as
// AltGr does, which xkeyboard-config puts on Mod5. Command chooses no characters
// on either system.
xkb_mod_mask_t modifierMask(xkb_keymap *keymap, std::uint32_t modifiers)
{
    const std::array<std::pair<std::uint16_t, const char *>, 3> mapping{{
        {kShiftKeyModifier, XKB_MOD_NAME_SHIFT},
        {kControlKeyModifier, XKB_MOD_NAME_CTRL},
        {kOptionKeyModifier, "Mod5"},
    }};
    xkb_mod_mask_t mask = 0;
    for (const auto &[bit, name] : mapping) {
        const xkb_mod_index_t index = xkb_keymap_mod_get_index(keymap, name);
        if ((modifiers & bit) != 0 && index != XKB_MOD_INVALID)
            mask |= 1u << index;
    }
    return mask;
}

// Keys that type no text, as the function-key characters the Mac gives them, and
// the keys whose text is decided here: Return types U+0003 so that it reads
// "Return" as labelled, the keypad's Enter U+000D ("Enter"), Shift+Tab U+0019
// ("Backtab"), and the keypad's Delete the text of Delete. Clear is the clear-line
// key, not xkbcommon's vertical tab.
std::optional<char16_t> characterOfKey(xkb_keysym_t keysym)
{
    if (keysym >= XKB_KEY_F1 && keysym <= XKB_KEY_F35)
        return static_cast<char16_t>(0xF704 + (keysym - XKB_KEY_F1));
    static constexpr std::pair<xkb_keysym_t, char16_t> kTable[] = {
        {XKB_KEY_Up, 0xF700},          {XKB_KEY_KP_Up, 0xF700},        {XKB_KEY_Down, 0xF701},
        {XKB_KEY_KP_Down, 0xF701},     {XKB_KEY_Left, 0xF702},         {XKB_KEY_KP_Left, 0xF702},
        {XKB_KEY_Right, 0xF703},       {XKB_KEY_KP_Right, 0xF703},     {XKB_KEY_Insert, 0xF727},
        {XKB_KEY_KP_Insert, 0xF727},   {XKB_KEY_Home, 0xF729},         {XKB_KEY_KP_Home, 0xF729},
        {XKB_KEY_Begin, 0xF72A},       {XKB_KEY_KP_Begin, 0xF72A},     {XKB_KEY_End, 0xF72B},
        {XKB_KEY_KP_End, 0xF72B},      {XKB_KEY_Prior, 0xF72C},        {XKB_KEY_KP_Prior, 0xF72C},
        {XKB_KEY_Next, 0xF72D},        {XKB_KEY_KP_Next, 0xF72D},      {XKB_KEY_Print, 0xF72E},
        {XKB_KEY_Scroll_Lock, 0xF72F}, {XKB_KEY_Pause, 0xF730},        {XKB_KEY_Sys_Req, 0xF731},
        {XKB_KEY_Break, 0xF732},       {XKB_KEY_Menu, 0xF735},         {XKB_KEY_Clear, 0xF739},
        {XKB_KEY_Select, 0xF741},      {XKB_KEY_Execute, 0xF742},      {XKB_KEY_Undo, 0xF743},
        {XKB_KEY_Redo, 0xF744},        {XKB_KEY_Find, 0xF745},         {XKB_KEY_Help, 0xF746},
        {XKB_KEY_Mode_switch, 0xF747}, {XKB_KEY_Return, 0x0003},       {XKB_KEY_ISO_Enter, 0x0003},
        {XKB_KEY_KP_Enter, 0x000D},    {XKB_KEY_ISO_Left_Tab, 0x0019}, {XKB_KEY_KP_Delete, 0x007F},
    };
    for (const auto &[key, character] : kTable)
        if (key == keysym)
            return character;
    return std::nullopt;
}

}  // namespace

std::optional<KeyTranslation> translateKeyCode(std::uint16_t keyCode, std::uint32_t modifiers)
{
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    xkb_keymap *keymap = currentKeymap();
    if (keymap == nullptr)
        return std::nullopt;
    KeyTranslation translation;
    if (keyCode < xkb_keymap_min_keycode(keymap) || keyCode > xkb_keymap_max_keycode(keymap)) {
        translation.status = kParamErr;
        translation.statusName = QStringLiteral("paramErr");
        translation.statusComment = QStringLiteral("error in user parameter list");
        return translation;
    }
    const State state(xkb_state_new(keymap));
    if (!state)
        return std::nullopt;
    xkb_state_update_mask(state.get(), modifierMask(keymap, modifiers), 0, 0, 0, 0, 0);
    if (const auto character = characterOfKey(xkb_state_key_get_one_sym(state.get(), keyCode))) {
        translation.characters = QString(QChar(*character));
        return translation;
    }
    const int size = xkb_state_key_get_utf8(state.get(), keyCode, nullptr, 0);
    if (size > 0) {
        std::string text(static_cast<std::size_t>(size) + 1, '\0');
        xkb_state_key_get_utf8(state.get(), keyCode, text.data(), text.size());
        translation.characters = QString::fromUtf8(text.data(), size);
    }
    return translation;
}

// Qt names the Ctrl key Control and the logo key Meta here. The logo key is the
// desktop's own modifier, the part Command plays on the Mac.
std::uint16_t keyModifierBits(Qt::KeyboardModifiers modifiers)
{
    std::uint16_t bits = 0;
    if (modifiers & Qt::ShiftModifier)
        bits |= kShiftKeyModifier;
    if (modifiers & Qt::ControlModifier)
        bits |= kControlKeyModifier;
    if (modifiers & Qt::AltModifier)
        bits |= kOptionKeyModifier;
    if (modifiers & Qt::MetaModifier)
        bits |= kCommandKeyModifier;
    return bits;
}

}  // namespace platform
