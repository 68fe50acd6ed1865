#include "ui/HXShortcutKeyFieldEditor.h"

#include "platform/KeyboardLayout.h"
#include "system/HXNotificationCenter.h"
#include "ui/HXShortcutKeyTableDelegate.h"

#include <QKeyEvent>

namespace {

// A modifier on its own is no shortcut; it only changes the key pressed with it.
bool isModifierKey(int key)
{
    switch (key) {
    case Qt::Key_Shift:
    case Qt::Key_Control:
    case Qt::Key_Meta:
    case Qt::Key_Alt:
    case Qt::Key_AltGr:
    case Qt::Key_Super_L:
    case Qt::Key_Super_R:
    case Qt::Key_Hyper_L:
    case Qt::Key_Hyper_R:
    case Qt::Key_CapsLock:
    case Qt::Key_NumLock:
        return true;
    default:
        return false;
    }
}

}  // namespace

HXShortcutKeyFieldEditor::HXShortcutKeyFieldEditor(QWidget *parent) : QLineEdit(parent)
{
    setFrame(false);
    // Keys arrive as pressed, not composed by an input method; nothing is pasted in.
    setAttribute(Qt::WA_InputMethodEnabled, false);
    setContextMenuPolicy(Qt::NoContextMenu);
    setAcceptDrops(false);
}

bool HXShortcutKeyFieldEditor::event(QEvent *event)
{
    if (event->type() == QEvent::ShortcutOverride) {
        event->accept();
        return true;
    }
    // Straight to keyPressEvent, so that Tab is recorded instead of moving the focus.
    if (event->type() == QEvent::KeyPress) {
        keyPressEvent(static_cast<QKeyEvent *>(event));
        return true;
    }
    return QLineEdit::event(event);
}

void HXShortcutKeyFieldEditor::keyPressEvent(QKeyEvent *event)
{
    event->accept();
    if (isModifierKey(event->key()))
        return;
    const std::uint16_t modifiers = platform::keyModifierBits(event->modifiers());
    bool shift = (modifiers & platform::kShiftKeyModifier) != 0;
    const bool ctrl = (modifiers & platform::kControlKeyModifier) != 0;
    const bool opt = (modifiers & platform::kOptionKeyModifier) != 0;
    bool cmd = (modifiers & platform::kCommandKeyModifier) != 0;
    // A bare key bound system-wide would be lost to typing everywhere.
    if (modifiers == 0)
        shift = cmd = true;
    HXNotificationCenter::defaultCenter().postNotification(
        QString::fromLatin1(HXShortcutKeyTableDelegate::kKeyChangedNotification),
        {{QStringLiteral("keycode"), static_cast<int>(static_cast<std::uint16_t>(event->nativeScanCode()))},
         {QStringLiteral("shift"), shift},
         {QStringLiteral("ctrl"), ctrl},
         {QStringLiteral("opt"), opt},
         {QStringLiteral("cmd"), cmd}});
}
