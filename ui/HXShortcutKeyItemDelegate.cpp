#include "ui/HXShortcutKeyItemDelegate.h"

#include "ui/HXShortcutKeyFieldEditor.h"
#include "ui/HXShortcutKeyTableDelegate.h"

#include <QEvent>

HXShortcutKeyItemDelegate::HXShortcutKeyItemDelegate(HXShortcutKeyTableDelegate &controller, QObject *parent)
    : QStyledItemDelegate(parent), m_controller(controller)
{
}

QWidget *HXShortcutKeyItemDelegate::createEditor(QWidget *parent, const QStyleOptionViewItem &,
                                                 const QModelIndex &) const
{
    return m_controller.windowWillReturnFieldEditor(parent);
}

void HXShortcutKeyItemDelegate::setEditorData(QWidget *, const QModelIndex &) const
{
}

void HXShortcutKeyItemDelegate::setModelData(QWidget *, QAbstractItemModel *, const QModelIndex &) const
{
}

// The one capture field serves every edit, so it is put away, not deleted.
void HXShortcutKeyItemDelegate::destroyEditor(QWidget *editor, const QModelIndex &) const
{
    editor->hide();
}

void HXShortcutKeyItemDelegate::endEditing(QWidget *editor)
{
    Q_EMIT closeEditor(editor, NoHint);
}

// Rows are selected whole; a focus frame round one of their cells is noise.
void HXShortcutKeyItemDelegate::initStyleOption(QStyleOptionViewItem *option, const QModelIndex &index) const
{
    QStyledItemDelegate::initStyleOption(option, index);
    option->state &= ~QStyle::State_HasFocus;
}

bool HXShortcutKeyItemDelegate::eventFilter(QObject *object, QEvent *event)
{
    if (qobject_cast<HXShortcutKeyFieldEditor *>(object) != nullptr &&
        (event->type() == QEvent::KeyPress || event->type() == QEvent::ShortcutOverride))
        return false;
    return QStyledItemDelegate::eventFilter(object, event);
}
