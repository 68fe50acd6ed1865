#include "app/HXRunRestore.h"

#include "app/HXRunRecord.h"

#include "fs/HXFileNames.h"
#include "platform/Folder.h"
#include "system/HXPath.h"

#include <QDateTime>
#include <QVariantList>

#include <cerrno>
#include <cstring>
#include <optional>

namespace HXRunRestore {

namespace {

const QString kTrashed = QStringLiteral("trashed");
const QString kRestoredTo = QStringLiteral("restoredTo");

QString reasonOf(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Moves the trashed item back to PATH, or beside it when PATH is taken again.
Item restoreOne(const QString &path, const QString &trashPath, const QString &infoPath)
{
    Item item{path, {}, {}};
    int error = 0;
    const std::optional<platform::Item> trashed = platform::Item::open(trashPath, &error);
    if (!trashed || !trashed->exists()) {
        item.problem = QStringLiteral("no longer in the Trash (was the Trash emptied?)");
        return item;
    }
    const std::optional<platform::Folder> parent = platform::Folder::openMakingPath(
        HXPath::deletingLastComponent(path), 0755, HXRunRecord::consoleOwner(), &error);
    if (!parent) {
        item.problem = QStringLiteral("its folder cannot be made: ") + reasonOf(error);
        return item;
    }
    QString destination = path;
    if (parent->contains(HXPath::lastComponent(path))) {
        destination = HXFileManager::uniqueFilename(path);
        item.problem = QStringLiteral("an item is in its place again; both are kept");
    }
    const QString name = HXPath::lastComponent(destination);
    error = trashed->folder.rename(trashed->name, *parent, name, false);
    if (error == EXDEV) {
        error = trashed->folder.copyTree(trashed->name, *parent, name);
        if (error == 0)
            trashed->folder.removeTree(trashed->name);
    }
    if (error != 0) {
        item.problem = reasonOf(error);
        return item;
    }
    item.restoredTo = destination;
    if (const std::optional<platform::Item> info = platform::Item::open(infoPath))
        info->folder.removeEntry(info->name);
    return item;
}

}  // namespace

QVariantMap Item::toVariant() const
{
    return {{QStringLiteral("path"), path}, {kRestoredTo, restoredTo}, {QStringLiteral("problem"), problem}};
}

int Outcome::restored() const
{
    int count = 0;
    for (const Item &item : items)
        count += item.restoredTo.isEmpty() ? 0 : 1;
    return count;
}

int Outcome::failed() const
{
    return static_cast<int>(items.size()) - restored();
}

int pendingItems(const QVariantMap &record)
{
    int pending = 0;
    for (const QVariant &entry : record.value(kTrashed).toList())
        pending += entry.toMap().contains(kRestoredTo) ? 0 : 1;
    return pending;
}

Outcome restore(QVariantMap &record)
{
    Outcome outcome;
    QVariantList trashed = record.value(kTrashed).toList();
    QVariantList restoreItems;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    for (QVariant &entry : trashed) {
        QVariantMap map = entry.toMap();
        if (map.contains(kRestoredTo))
            continue;
        const Item item = restoreOne(map.value(QStringLiteral("path")).toString(),
                                     map.value(QStringLiteral("trashPath")).toString(),
                                     map.value(QStringLiteral("infoPath")).toString());
        if (!item.restoredTo.isEmpty()) {
            map.insert(kRestoredTo, item.restoredTo);
            map.insert(QStringLiteral("restoredAt"), now);
            entry = map;
        }
        restoreItems.append(item.toVariant());
        outcome.items.push_back(item);
    }
    if (outcome.items.empty())
        return outcome;
    record.insert(kTrashed, trashed);
    QVariantList restores = record.value(QStringLiteral("restores")).toList();
    restores.append(QVariantMap{{QStringLiteral("date"), now}, {QStringLiteral("items"), restoreItems}});
    record.insert(QStringLiteral("restores"), restores);
    return outcome;
}

}  // namespace HXRunRestore
