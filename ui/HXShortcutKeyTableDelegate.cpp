#include "ui/HXShortcutKeyTableDelegate.h"

#include "platform/KeyboardLayout.h"
#include "system/HXBundle.h"
#include "system/HXNotificationCenter.h"
#include "system/HXPath.h"
#include "system/PropertyList.h"
#include "ui/HXShortcutKeyBindings.h"
#include "ui/HXShortcutKeyFieldEditor.h"
#include "ui/HXShortcutKeyItemDelegate.h"
#include "ui/HXShortcutKeyTableModel.h"
#include "ui/HXShortcutKeyTableview.h"

#include <QFileInfo>
#include <QItemSelectionModel>
#include <QLabel>

namespace {

const QString kId = QStringLiteral("id");
const QString kDescription = QStringLiteral("description");
const QString kKeyName = QStringLiteral("keyname");

QString orUnknown(const QString &name)
{
    return name.isNull() ? QStringLiteral("Unknown") : name;
}

std::uint16_t modifierSum(bool shift, bool cmd, bool opt, bool ctrl)
{
    return (ctrl ? platform::kControlKeyModifier : 0) | (opt ? platform::kOptionKeyModifier : 0) |
           (shift ? platform::kShiftKeyModifier : 0) | (cmd ? platform::kCommandKeyModifier : 0);
}

}  // namespace

HXShortcutKeyTableDelegate &HXShortcutKeyTableDelegate::sharedController()
{
    static HXShortcutKeyTableDelegate *controller = new HXShortcutKeyTableDelegate;
    return *controller;
}

void HXShortcutKeyTableDelegate::awakeFromNib(QWidget *parentView)
{
    m_parentView = parentView;
    m_shortcutKeyTableView =
        parentView ? parentView->findChild<HXShortcutKeyTableview *>(QStringLiteral("shortcutKeyTableView"))
                   : nullptr;
    m_versionAlertText =
        parentView ? parentView->findChild<QLabel *>(QStringLiteral("versionAlertText")) : nullptr;

    if (HXShortcutKeyTableview *table = m_shortcutKeyTableView) {
        m_model =
            new HXShortcutKeyTableModel(*this, table->columnIdentifiers(), table->columnTitles(), table);
        table->setModel(m_model);
        m_itemDelegate = new HXShortcutKeyItemDelegate(*this, table);
        table->setItemDelegate(m_itemDelegate);
        // The application's icon shows at 16 by 16, drawn from the full image so
        // that it stays sharp on a high-density screen.
        table->setIconSize(QSize(16, 16));
    }
    if (!m_applicationIcon) {
        const QString path = HXBundle::mainBundle().iconPath();
        QIcon icon;
        // A selected row shows the icon as it is, not tinted.
        if (!path.isEmpty())
            for (QIcon::Mode mode : {QIcon::Normal, QIcon::Selected})
                icon.addFile(path, QSize(), mode);
        m_applicationIcon = icon;
    }
    if (!m_hxFieldEditor) {
        m_hxFieldEditor = new HXShortcutKeyFieldEditor(
            m_shortcutKeyTableView ? m_shortcutKeyTableView->viewport() : parentView);
        m_hxFieldEditor->hide();
    }
    if (!m_observing) {
        HXNotificationCenter &center = HXNotificationCenter::defaultCenter();
        center.addObserver(QString::fromLatin1(kKeyChangedNotification),
                           [this](const HXNotification &notification) { keyChanged(notification); });
        center.addObserver(QString::fromLatin1(kKeyClearedNotification),
                           [this](const HXNotification &notification) { keyCleared(notification); });
        m_observing = true;
    }
    populateKeyData();
}

void HXShortcutKeyTableDelegate::populateKeyData()
{
    if (!QFileInfo::exists(HXShortcutKeyBindings::managerPath())) {
        if (m_versionAlertText)
            m_versionAlertText->show();
        if (m_shortcutKeyTableView)
            m_shortcutKeyTableView->setEnabled(false);
    }

    const HXBundle &bundle = HXBundle::mainBundle();
    QList<QVariantMap> rows;
    const QVariantMap keys = PropertyList::readDictionary(
        HXPath::appendingComponent(bundle.resourcePath(), QStringLiteral("HXKeys.plist")));
    for (const QVariant &entry : keys.value(QStringLiteral("HXKeys")).toList())
        rows.append(entry.toMap());

    for (const HXShortcutKeyBindings::Binding &binding :
         HXShortcutKeyBindings::commandBindings(bundle.bundleIdentifier())) {
        for (QVariantMap &row : rows) {
            if (row.contains(kId) && row.value(kId).toString() == binding.commandId) {
                row.insert(kKeyName, orUnknown(nameForKeyCode(binding.keyCode, binding.modifiers)));
                break;
            }
        }
    }
    m_dataArray = rows;
    reloadTable();
}

int HXShortcutKeyTableDelegate::numberOfRowsInTableView() const
{
    return static_cast<int>(m_dataArray.size());
}

QVariant HXShortcutKeyTableDelegate::objectValueForTableColumn(const QString &identifier, int row) const
{
    if (row < 0 || row >= m_dataArray.size())
        return QVariant();
    if (identifier == QLatin1String(HXShortcutKeyTableview::kDescriptionColumn))
        return m_dataArray.at(row).value(kDescription);
    if (identifier == QLatin1String(HXShortcutKeyTableview::kShortcutKeyColumn))
        return m_dataArray.at(row).value(kKeyName);
    return QVariant();
}

QIcon HXShortcutKeyTableDelegate::willDisplayCell(const QString &identifier, int) const
{
    if (identifier != QLatin1String(HXShortcutKeyTableview::kDescriptionColumn))
        return QIcon();
    return m_applicationIcon.value_or(QIcon());
}

HXShortcutKeyFieldEditor *HXShortcutKeyTableDelegate::windowWillReturnFieldEditor(QWidget *parent)
{
    if (!m_hxFieldEditor)
        m_hxFieldEditor = new HXShortcutKeyFieldEditor(parent);
    else if (m_hxFieldEditor->parentWidget() != parent)
        m_hxFieldEditor->setParent(parent);
    m_hxFieldEditor->clear();
    return m_hxFieldEditor;
}

void HXShortcutKeyTableDelegate::clearShortcutKey()
{
    const int row = selectedRow();
    if (row >= 0) {
        QVariantMap &entry = m_dataArray[row];
        entry.remove(kKeyName);
        HXShortcutKeyBindings::removeBinding(HXBundle::mainBundle().bundleIdentifier(),
                                             entry.value(kId).toString());
    }
    reloadTable();
    HXShortcutKeyBindings::setUpManager();
}

void HXShortcutKeyTableDelegate::keyChanged(const HXNotification &notification)
{
    const QVariantMap &info = notification.userInfo;
    const int row = selectedRow();
    if (!info.isEmpty() && row >= 0) {
        const unsigned keycode = info.value(QStringLiteral("keycode")).toUInt();
        const bool shift = info.value(QStringLiteral("shift")).toBool();
        const bool ctrl = info.value(QStringLiteral("ctrl")).toBool();
        const bool opt = info.value(QStringLiteral("opt")).toBool();
        const bool cmd = info.value(QStringLiteral("cmd")).toBool();
        QVariantMap &entry = m_dataArray[row];
        entry.insert(kKeyName, orUnknown(nameForKeyCode(keycode, modifierSum(shift, cmd, opt, ctrl))));
        const std::optional<QString> commandId =
            entry.contains(kId) ? std::optional<QString>(entry.value(kId).toString()) : std::nullopt;
        setKeyboardShortcutWithID(commandId, std::nullopt, keycode, shift, cmd, opt, ctrl);
        if (m_model)
            m_model->reloadRow(row);
    }
    // One key press completes the edit.
    if (m_itemDelegate && m_hxFieldEditor)
        m_itemDelegate->endEditing(m_hxFieldEditor);
}

void HXShortcutKeyTableDelegate::keyCleared(const HXNotification &)
{
    clearShortcutKey();
}

void HXShortcutKeyTableDelegate::setKeyboardShortcutWithID(const std::optional<QString> &commandId,
                                                           const std::optional<QVariantList> &params,
                                                           unsigned keycode, bool shift, bool cmd, bool opt,
                                                           bool ctrl)
{
    HXShortcutKeyBindings::setBinding(HXBundle::mainBundle().bundleIdentifier(), commandId, params, keycode,
                                      modifierSum(shift, cmd, opt, ctrl));
    HXShortcutKeyBindings::setUpManager();
}

QWidget *HXShortcutKeyTableDelegate::parentView() const
{
    return m_parentView;
}

HXShortcutKeyTableview *HXShortcutKeyTableDelegate::shortcutKeyTableView() const
{
    return m_shortcutKeyTableView;
}

QLabel *HXShortcutKeyTableDelegate::versionAlertText() const
{
    return m_versionAlertText;
}

int HXShortcutKeyTableDelegate::selectedRow() const
{
    if (!m_shortcutKeyTableView || !m_shortcutKeyTableView->selectionModel())
        return -1;
    const QModelIndexList selected = m_shortcutKeyTableView->selectionModel()->selectedIndexes();
    const int row = selected.isEmpty() ? -1 : selected.constFirst().row();
    return row < m_dataArray.size() ? row : -1;
}

// Like a reload of the table on the Mac, the selected row stays selected.
void HXShortcutKeyTableDelegate::reloadTable()
{
    if (!m_model)
        return;
    const int row = selectedRow();
    m_model->reloadData();
    if (row >= 0 && row < m_dataArray.size())
        m_shortcutKeyTableView->selectRow(row);
}
