#pragma once

// The shortcut-key table's rows as Qt's views ask for them, from the panel's
// controller (its data source). Columns are named by identifier (header data
// under Qt::UserRole); only the "shortcutkey" column can be edited.

#include <QAbstractTableModel>
#include <QStringList>

class HXShortcutKeyTableDelegate;

class HXShortcutKeyTableModel : public QAbstractTableModel {
public:
    HXShortcutKeyTableModel(HXShortcutKeyTableDelegate &dataSource, QStringList identifiers,
                            QStringList titles, QObject *parent = nullptr);

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;

    // Asks the data source again: for every row, or for one.
    void reloadData();
    void reloadRow(int row);

private:
    HXShortcutKeyTableDelegate &m_dataSource;
    QStringList m_identifiers;
    QStringList m_titles;
};
