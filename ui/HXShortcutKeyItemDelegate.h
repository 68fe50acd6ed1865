#pragma once

// Editing in the shortcut-key table: the editor is the controller's capture
// field, which records a key and ends the edit itself; nothing is written back
// through the model. Every key goes to the field, Tab, Return and Escape included.

#include <QStyledItemDelegate>

class HXShortcutKeyTableDelegate;

class HXShortcutKeyItemDelegate : public QStyledItemDelegate {
    Q_OBJECT
public:
    explicit HXShortcutKeyItemDelegate(HXShortcutKeyTableDelegate &controller, QObject *parent = nullptr);

    QWidget *createEditor(QWidget *parent, const QStyleOptionViewItem &option,
                          const QModelIndex &index) const override;
    void setEditorData(QWidget *editor, const QModelIndex &index) const override;
    void setModelData(QWidget *editor, QAbstractItemModel *model, const QModelIndex &index) const override;
    void destroyEditor(QWidget *editor, const QModelIndex &index) const override;

    // Closes EDITOR's edit, as when it loses the focus.
    void endEditing(QWidget *editor);

protected:
    void initStyleOption(QStyleOptionViewItem *option, const QModelIndex &index) const override;
    bool eventFilter(QObject *object, QEvent *event) override;

private:
    HXShortcutKeyTableDelegate &m_controller;
};
