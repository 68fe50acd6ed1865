#pragma once

// The shortcut-key panel's controller, one per process: a table of the
// application's commands ("HXKeys.plist" in the bundle's Resources) with the keys
// bound to them in the suite's bindings file. A key pressed in the table's capture
// field binds the selected command; a delete key clears its binding. The suite's
// shortcut key manager (a program of its own) watches the keys and is told to
// reload after each change.
//
// HXShortcutKeyContainerView loads the panel and hands it to awakeFromNib; nothing
// else is needed from the window that holds it.

#include <QIcon>
#include <QList>
#include <QPointer>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

#include <cstdint>
#include <optional>

class QLabel;
class QWidget;
class HXShortcutKeyFieldEditor;
class HXShortcutKeyItemDelegate;
class HXShortcutKeyTableModel;
class HXShortcutKeyTableview;
struct HXNotification;

class HXShortcutKeyTableDelegate {
public:
    static constexpr const char *kKeyChangedNotification = "HXShortcutKeyChanged";
    static constexpr const char *kKeyClearedNotification = "HXShortcutKeyCleared";

    static HXShortcutKeyTableDelegate &sharedController();

    HXShortcutKeyTableDelegate(const HXShortcutKeyTableDelegate &) = delete;
    HXShortcutKeyTableDelegate &operator=(const HXShortcutKeyTableDelegate &) = delete;

    // Takes PARENTVIEW, the panel loaded from "HXShortcutKeyConfig.ui" (its table
    // "shortcutKeyTableView", its warning "versionAlertText"), sets up the capture
    // field and the table, starts observing the key notifications and fills the
    // table. A panel loaded later replaces this one.
    void awakeFromNib(QWidget *parentView);
    void populateKeyData();

    // The table's data source: rows, and the value and image of a cell by its
    // column's identifier ("description" or "shortcutkey").
    int numberOfRowsInTableView() const;
    QVariant objectValueForTableColumn(const QString &identifier, int row) const;
    QIcon willDisplayCell(const QString &identifier, int row) const;

    // The capture field for editing in the table (PARENT: the table's viewport),
    // its text cleared.
    HXShortcutKeyFieldEditor *windowWillReturnFieldEditor(QWidget *parent);

    void clearShortcutKey();
    void keyChanged(const HXNotification &notification);
    void keyCleared(const HXNotification &notification);

    QWidget *parentView() const;
    HXShortcutKeyTableview *shortcutKeyTableView() const;
    QLabel *versionAlertText() const;
    const QList<QVariantMap> &dataArray() const { return m_dataArray; }

    // Binds the command COMMANDID (or, without one, the command PARAMS identify)
    // of this application to KEYCODE with the modifiers, and runs the manager's set-up.
    void setKeyboardShortcutWithID(const std::optional<QString> &commandId,
                                   const std::optional<QVariantList> &params, unsigned keycode, bool shift,
                                   bool cmd, bool opt, bool ctrl);

    // "Ctrl+Shift+Alt+Cmd+" (those held, in that order) and the key's name.
    static QString nameForKeyCode(unsigned keycode, unsigned modifiers);
    // What KEYCODE types on the current keyboard layout, special keys by name;
    // none (and a line on the system console) when it cannot be translated.
    static std::optional<QString> stringForKeyCode(std::uint16_t keyCode, std::uint32_t modifierFlags);

private:
    HXShortcutKeyTableDelegate() = default;

    int selectedRow() const;
    void reloadTable();

    QList<QVariantMap> m_dataArray;
    QPointer<HXShortcutKeyFieldEditor> m_hxFieldEditor;
    QPointer<HXShortcutKeyTableview> m_shortcutKeyTableView;
    QPointer<QWidget> m_parentView;
    QPointer<QLabel> m_versionAlertText;
    QPointer<HXShortcutKeyTableModel> m_model;
    QPointer<HXShortcutKeyItemDelegate> m_itemDelegate;
    bool m_observing = false;
    std::optional<QIcon> m_applicationIcon;
};
