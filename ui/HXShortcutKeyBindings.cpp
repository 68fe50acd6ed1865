#include "ui/HXShortcutKeyBindings.h"

#include "platform/Platform.h"
#include "system/HXDistributedNotificationCenter.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXTaskEx.h"
#include "system/PropertyList.h"

#include <QFileInfo>

#include <chrono>

namespace {

const QString kWatchlist = QStringLiteral("watchlist");
const QString kBundleId = QStringLiteral("bundleid");
const QString kKeyCode = QStringLiteral("keycode");
const QString kModifiers = QStringLiteral("modifiers");
const QString kCommandId = QStringLiteral("commandid");
const QString kCommandParams = QStringLiteral("commandparams");

bool isBindingOf(const QVariantMap &binding, const QString &bundleId)
{
    return binding.value(kBundleId).toString() == bundleId;
}

bool namesCommand(const QVariantMap &binding, const QString &commandId)
{
    return binding.contains(kCommandId) && binding.value(kCommandId).toString() == commandId;
}

// Removes the first of BUNDLEID's bindings that MATCHES.
template <typename Predicate>
void removeFirstBinding(QVariantList &bindings, const QString &bundleId, Predicate matches)
{
    for (qsizetype i = 0; i < bindings.size(); ++i) {
        const QVariantMap binding = bindings.at(i).toMap();
        if (isBindingOf(binding, bundleId) && matches(binding)) {
            bindings.removeAt(i);
            return;
        }
    }
}

void announceChange()
{
    HXDistributedNotificationCenter::defaultCenter().postNotification(
        QString::fromLatin1(HXShortcutKeyBindings::kReloadNotification));
}

}  // namespace

namespace HXShortcutKeyBindings {

QString bindingsFilePath()
{
    return HXPath::appendingComponent(HXLocalPaths::prefsDirectory(true),
                                      QStringLiteral("com.lanternfish.shortcutkeys.plist"));
}

QString managerPath()
{
    return HXLocalPaths::appSupportDirectory(false) +
           QStringLiteral("/Lanternfish/Shared Resources/HXShortcutKeyManager");
}

QList<Binding> commandBindings(const QString &bundleId)
{
    QList<Binding> found;
    for (const QVariant &entry :
         PropertyList::readDictionary(bindingsFilePath()).value(kWatchlist).toList()) {
        const QVariantMap binding = entry.toMap();
        if (isBindingOf(binding, bundleId) && binding.contains(kCommandId))
            found.append({binding.value(kCommandId).toString(), binding.value(kKeyCode).toUInt(),
                          static_cast<std::uint16_t>(binding.value(kModifiers).toUInt())});
    }
    return found;
}

void setBinding(const QString &bundleId, const std::optional<QString> &commandId,
                const std::optional<QVariantList> &params, unsigned keyCode, std::uint16_t modifiers)
{
    QVariantMap file = PropertyList::readDictionary(bindingsFilePath());
    QVariantList bindings = file.value(kWatchlist).toList();
    removeFirstBinding(bindings, bundleId, [&](const QVariantMap &binding) {
        return commandId ? namesCommand(binding, *commandId)
                         : params && binding.contains(kCommandParams) &&
                               binding.value(kCommandParams).toList() == *params;
    });

    QVariantMap binding{{kBundleId, bundleId},
                        {kKeyCode, static_cast<qint64>(keyCode)},
                        {kModifiers, static_cast<qint64>(modifiers)}};
    if (commandId)
        binding.insert(kCommandId, *commandId);
    if (params)
        binding.insert(kCommandParams, *params);
    bindings.append(binding);
    file.insert(kWatchlist, bindings);
    PropertyList::writeXmlFile(bindingsFilePath(), file);
    announceChange();
}

void removeBinding(const QString &bundleId, const QString &commandId)
{
    const QVariant contents = PropertyList::readFile(bindingsFilePath());
    if (contents.typeId() == QMetaType::QVariantMap) {
        QVariantMap file = contents.toMap();
        if (file.contains(kWatchlist)) {
            QVariantList bindings = file.value(kWatchlist).toList();
            removeFirstBinding(bindings, bundleId,
                               [&](const QVariantMap &binding) { return namesCommand(binding, commandId); });
            file.insert(kWatchlist, bindings);
        }
        PropertyList::writeXmlFile(bindingsFilePath(), file);
    }
    announceChange();
}

void setUpManager()
{
    const QString manager = managerPath();
    if (QFileInfo::exists(manager))
        HXTaskEx::runTask(manager, {QStringLiteral("-setup")}, std::chrono::seconds(10));
    else
        platform::systemLog(
            QStringLiteral("Unable to setup shortcut keys - shortcut key manager doesn't exist. "
                           "Please reinstall this software."));
}

}  // namespace HXShortcutKeyBindings
