#pragma once

// The bindings file every suite application shares with the shortcut key manager
// ("com.lanternfish.shortcutkeys.plist" in the user's Preferences): under
// "watchlist", one dictionary per binding ("bundleid", "keycode", "modifiers",
// "commandid" and/or "commandparams"). Other top-level keys and the bindings of
// other applications are kept as they are; the file is written whole and
// atomically, and each change is announced with "HXShortcutKeysReload".

#include <QList>
#include <QString>
#include <QVariantList>

#include <cstdint>
#include <optional>

namespace HXShortcutKeyBindings {

inline constexpr const char *kReloadNotification = "HXShortcutKeysReload";

QString bindingsFilePath();
// The manager program, installed once per machine.
QString managerPath();

struct Binding {
    QString commandId;
    unsigned keyCode = 0;
    std::uint16_t modifiers = 0;
};

// BUNDLEID's bindings that name a command, in the file's order; none when the
// file is missing or unreadable.
QList<Binding> commandBindings(const QString &bundleId);

// Replaces BUNDLEID's binding of the command (by COMMANDID when given, else by
// PARAMS) with a new one at the end of the list.
void setBinding(const QString &bundleId, const std::optional<QString> &commandId,
                const std::optional<QVariantList> &params, unsigned keyCode, std::uint16_t modifiers);

// Removes BUNDLEID's first binding of COMMANDID; writes nothing when the file
// cannot be read.
void removeBinding(const QString &bundleId, const QString &commandId);

// Has the manager set itself up again ("-setup", up to 10 seconds), or says on the
// system console that it is missing.
void setUpManager();

}  // namespace HXShortcutKeyBindings
