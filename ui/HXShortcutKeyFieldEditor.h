#pragma once

// The capture field: records the next key pressed in it, with the modifiers held,
// as "HXShortcutKeyChanged" on the application's notification centre (user info
// "keycode", "shift", "ctrl", "opt", "cmd"). A key pressed without modifiers is
// recorded as Shift+Cmd plus that key. Nothing is typed into the field, and no
// key is taken away by focus changes or the window's shortcuts.

#include <QLineEdit>

class HXShortcutKeyFieldEditor : public QLineEdit {
    Q_OBJECT
public:
    explicit HXShortcutKeyFieldEditor(QWidget *parent = nullptr);

protected:
    bool event(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
};
