#include "platform/KeyboardLayout.h"

#include <QFile>

#include <xcb/xcb.h>
// xcb's XKB header names a field "explicit", which C++ reserves.
#define explicit explicit_
#include <xcb/xkb.h>
#undef explicit
#include <xkbcommon/xkbcommon-x11.h>
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

// The layout a new session starts with, for a process without a display.
// XKB_DEFAULT_* (as every xkbcommon client honours them) win over the system's
// keyboard configuration, as a whole:
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

xkb_context *sharedContext()
{
    static xkb_context *const context = xkb_context_new(XKB_CONTEXT_NO_ENVIRONMENT_NAMES);  // never freed
    return context;
}

// The keymap of the default layout, compiled again only when the layout's names
// change. Guarded by the caller's lock.
xkb_keymap *defaultKeymap(xkb_context *context)
{
    static LayoutNames cachedNames;
    static Keymap cached;
    const LayoutNames names = currentLayoutNames();
    if (cached && names == cachedNames)
        return cached.get();
    const xkb_rule_names rules{orNull(names.rules), orNull(names.model), orNull(names.layout),
                               orNull(names.variant), orNull(names.options)};
    cached.reset(xkb_keymap_new_from_names(context, &rules, XKB_KEYMAP_COMPILE_NO_FLAGS));
    cachedNames = names;
    return cached.get();
}

struct LiveLayout {
    xkb_keymap *keymap;
    xkb_layout_index_t group;
};

// The display's keyboard as the X server has it now: the session's own layout,
// which the desktop or setxkbmap may have set to anything. The keymap is fetched
// again when the server reports a new one; the group in use is asked each time.
// Guarded by the caller's lock.
class DisplayKeyboard {
public:
    // None without a display that speaks XKB.
    std::optional<LiveLayout> current(xkb_context *context)
    {
        const char *display = std::getenv("DISPLAY");
        if (display == nullptr || *display == '\0') {
            disconnect();
            return std::nullopt;
        }
        if (m_connection != nullptr && (xcb_connection_has_error(m_connection) != 0 || m_display != display))
            disconnect();
        if (m_connection == nullptr && !connect(context, display))
            return std::nullopt;
        State state(xkb_x11_state_new_from_device(m_keymap.get(), m_connection, m_device));
        // Its answer came after every event the server sent before it, so a change
        // of layout made before this call is seen here. Only keymap changes are
        // selected.
        bool changed = false;
        while (xcb_generic_event_t *event = xcb_poll_for_queued_event(m_connection)) {
            changed = true;
            std::free(event);
        }
        if (changed || !state) {
            m_keymap.reset(
                xkb_x11_keymap_new_from_device(context, m_connection, m_device, XKB_KEYMAP_COMPILE_NO_FLAGS));
            if (m_keymap)
                state.reset(xkb_x11_state_new_from_device(m_keymap.get(), m_connection, m_device));
        }
        if (!m_keymap || !state) {
            disconnect();
            return std::nullopt;
        }
        return LiveLayout{m_keymap.get(),
                          xkb_state_serialize_layout(state.get(), XKB_STATE_LAYOUT_EFFECTIVE)};
    }

private:
    bool connect(xkb_context *context, const char *display)
    {
        m_connection = xcb_connect(display, nullptr);
        if (xcb_connection_has_error(m_connection) == 0 &&
            xkb_x11_setup_xkb_extension(m_connection, XKB_X11_MIN_MAJOR_XKB_VERSION,
                                        XKB_X11_MIN_MINOR_XKB_VERSION, XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS,
                                        nullptr, nullptr, nullptr, nullptr) != 0) {
            m_device = xkb_x11_get_core_keyboard_device_id(m_connection);
            if (m_device != -1) {
                // Before the keymap is fetched, so that no change slips between.
                constexpr std::uint16_t kChanges =
                    XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY;
                constexpr std::uint16_t kAllMapParts = 0xFF;
                const xcb_xkb_select_events_details_t details{};
                xcb_xkb_select_events_aux(m_connection, static_cast<xcb_xkb_device_spec_t>(m_device),
                                          kChanges, 0, kChanges, kAllMapParts, kAllMapParts, &details);
                m_keymap.reset(xkb_x11_keymap_new_from_device(context, m_connection, m_device,
                                                              XKB_KEYMAP_COMPILE_NO_FLAGS));
            }
        }
        if (!m_keymap) {
            disconnect();
            return false;
        }
        m_display = display;
        return true;
    }

    void disconnect()
    {
        m_keymap.reset();
        if (m_connection != nullptr)
            xcb_disconnect(m_connection);
        m_connection = nullptr;
        m_display.clear();
    }

    xcb_connection_t *m_connection = nullptr;
    std::string m_display;
    std::int32_t m_device = -1;
    Keymap m_keymap;
};

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
    xkb_context *context = sharedContext();
    if (context == nullptr)
        return std::nullopt;
    // The display's layout, in the group in use; without a display the default one.
    static auto *const display = new DisplayKeyboard();  // never freed
    LiveLayout layout{nullptr, 0};
    if (const std::optional<LiveLayout> live = display->current(context))
        layout = *live;
    else
        layout.keymap = defaultKeymap(context);
    xkb_keymap *keymap = layout.keymap;
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
    xkb_state_update_mask(state.get(), modifierMask(keymap, modifiers), 0, 0, 0, 0, layout.group);
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
