#pragma once

// The shortcut-key table. Its columns are named in the interface file
// (columnIdentifiers, with their header titles in columnTitles); the description
// takes the width the other columns leave. Editing any cell of a row edits its
// "shortcutkey" cell, and the delete keys ask for the selected binding to be
// cleared ("HXShortcutKeyCleared") instead of reaching the table.

#include <QStringList>
#include <QTableView>

class HXShortcutKeyTableview : public QTableView {
    Q_OBJECT
    Q_PROPERTY(QStringList columnIdentifiers READ columnIdentifiers WRITE setColumnIdentifiers)
    Q_PROPERTY(QStringList columnTitles READ columnTitles WRITE setColumnTitles)
public:
    static constexpr const char *kDescriptionColumn = "description";
    static constexpr const char *kShortcutKeyColumn = "shortcutkey";

    explicit HXShortcutKeyTableview(QWidget *parent = nullptr);

    using QTableView::edit;
    void setModel(QAbstractItemModel *model) override;

    QStringList columnIdentifiers() const { return m_columnIdentifiers; }
    void setColumnIdentifiers(const QStringList &identifiers) { m_columnIdentifiers = identifiers; }
    QStringList columnTitles() const { return m_columnTitles; }
    void setColumnTitles(const QStringList &titles) { m_columnTitles = titles; }

protected:
    void keyPressEvent(QKeyEvent *event) override;
    bool edit(const QModelIndex &index, EditTrigger trigger, QEvent *event) override;

private:
    QStringList m_columnIdentifiers;
    QStringList m_columnTitles;
};
