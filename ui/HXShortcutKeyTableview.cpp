#include "ui/HXShortcutKeyTableview.h"

#include "system/HXNotificationCenter.h"
#include "ui/HXShortcutKeyTableDelegate.h"

#include <QHeaderView>
#include <QKeyEvent>

HXShortcutKeyTableview::HXShortcutKeyTableview(QWidget *parent) : QTableView(parent)
{
}

void HXShortcutKeyTableview::setModel(QAbstractItemModel *model)
{
    QTableView::setModel(model);
    const qsizetype description = m_columnIdentifiers.indexOf(QString::fromLatin1(kDescriptionColumn));
    if (model != nullptr && description >= 0 && description < model->columnCount())
        horizontalHeader()->setSectionResizeMode(static_cast<int>(description), QHeaderView::Stretch);
}

void HXShortcutKeyTableview::keyPressEvent(QKeyEvent *event)
{
    switch (event->key()) {
    // Forward delete (U+F728), clear (U+F73E), backspace (8) and delete (127),
    // whatever modifiers are held: the keys Qt names Delete, Clear and Backspace.
    case Qt::Key_Delete:
    case Qt::Key_Clear:
    case Qt::Key_Backspace:
        HXNotificationCenter::defaultCenter().postNotification(
            QString::fromLatin1(HXShortcutKeyTableDelegate::kKeyClearedNotification));
        return;
    case Qt::Key_Return:
    case Qt::Key_Enter:
        if (state() != EditingState && edit(currentIndex(), EditKeyPressed, nullptr))
            return;
        break;
    default:
        break;
    }
    QTableView::keyPressEvent(event);
}

bool HXShortcutKeyTableview::edit(const QModelIndex &index, EditTrigger trigger, QEvent *event)
{
    // A row has one editable cell, so a double-click anywhere on it edits the key.
    const qsizetype keyColumn = m_columnIdentifiers.indexOf(QString::fromLatin1(kShortcutKeyColumn));
    if (index.isValid() && keyColumn >= 0 && index.column() != keyColumn)
        return QTableView::edit(index.siblingAtColumn(static_cast<int>(keyColumn)), trigger, event);
    return QTableView::edit(index, trigger, event);
}
