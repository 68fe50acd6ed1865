#include "ui/HXShortcutKeyTableModel.h"

#include "ui/HXShortcutKeyTableDelegate.h"
#include "ui/HXShortcutKeyTableview.h"

HXShortcutKeyTableModel::HXShortcutKeyTableModel(HXShortcutKeyTableDelegate &dataSource,
                                                 QStringList identifiers, QStringList titles, QObject *parent)
    : QAbstractTableModel(parent), m_dataSource(dataSource), m_identifiers(std::move(identifiers)),
      m_titles(std::move(titles))
{
}

int HXShortcutKeyTableModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : m_dataSource.numberOfRowsInTableView();
}

int HXShortcutKeyTableModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_identifiers.size());
}

QVariant HXShortcutKeyTableModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid))
        return QVariant();
    const QString &identifier = m_identifiers.at(index.column());
    if (role == Qt::DisplayRole)
        return m_dataSource.objectValueForTableColumn(identifier, index.row());
    if (role == Qt::DecorationRole) {
        const QIcon image = m_dataSource.willDisplayCell(identifier, index.row());
        return image.isNull() ? QVariant() : QVariant(image);
    }
    return QVariant();
}

QVariant HXShortcutKeyTableModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || section < 0 || section >= m_identifiers.size())
        return QAbstractTableModel::headerData(section, orientation, role);
    if (role == Qt::DisplayRole)
        return m_titles.value(section);
    if (role == Qt::UserRole)
        return m_identifiers.at(section);
    if (role == Qt::TextAlignmentRole)
        return QVariant::fromValue(Qt::AlignLeft | Qt::AlignVCenter);
    return QVariant();
}

Qt::ItemFlags HXShortcutKeyTableModel::flags(const QModelIndex &index) const
{
    Qt::ItemFlags flags = QAbstractTableModel::flags(index);
    if (index.isValid() &&
        m_identifiers.at(index.column()) == QLatin1String(HXShortcutKeyTableview::kShortcutKeyColumn))
        flags |= Qt::ItemIsEditable;
    return flags;
}

void HXShortcutKeyTableModel::reloadData()
{
    beginResetModel();
    endResetModel();
}

void HXShortcutKeyTableModel::reloadRow(int row)
{
    if (row >= 0 && row < rowCount() && columnCount() > 0)
        Q_EMIT dataChanged(index(row, 0), index(row, columnCount() - 1));
}
