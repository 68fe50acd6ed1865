#include "app/HXRunLedger.h"

#include "fs/HXFileNames.h"
#include "platform/Folder.h"
#include "platform/Identity.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"
#include "system/PropertyList.h"

#include <QVariantMap>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace HXRunLedger {

namespace {

const QString kPath = QStringLiteral("path");
const QString kTrashFolder = QStringLiteral("trashFolder");
const QString kTrashName = QStringLiteral("trashName");
const QString kDevice = QStringLiteral("device");
const QString kInode = QStringLiteral("inode");

QString ledgerFolder()
{
    return HXPath::appendingComponent(HXLocalPaths::logDirectory(false),
                                      QStringLiteral("Lanternfish/Repairs"));
}

bool isPlainName(const QString &name)
{
    return !name.isEmpty() && !name.contains(QLatin1Char('/')) && name != u"." && name != u"..";
}

// The ledger folder as only root can have made it: root's, writable by nobody else.
std::optional<platform::Folder> openLedgerFolder(bool make)
{
    std::optional<platform::Folder> folder =
        make ? platform::Folder::openMakingPath(ledgerFolder(), 0700, std::nullopt)
             : platform::Folder::open(ledgerFolder());
    const std::optional<struct stat> info = folder ? folder->info() : std::nullopt;
    if (!info || info->st_uid != 0 || (info->st_mode & 022) != 0)
        return std::nullopt;
    return folder;
}

QVariantMap ledgerOf(const QString &identifier)
{
    const std::optional<platform::Folder> folder = openLedgerFolder(false);
    const QString name = identifier + QStringLiteral(".plist");
    const std::optional<struct stat> info = folder ? folder->infoOf(name) : std::nullopt;
    if (!isPlainName(name) || !info || !S_ISREG(info->st_mode) || info->st_uid != 0)
        return {};
    return PropertyList::readDictionaryInUsersTree(HXPath::appendingComponent(ledgerFolder(), name));
}

QString reasonOf(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

}  // namespace

std::optional<QVariantMap> entryFor(const QString &originalPath, const QString &trashedPath)
{
    if (!platform::hasRootRights() || HXUsersTree::ownerFor(originalPath))
        return std::nullopt;
    const std::optional<platform::Account> console = HXUsersTree::consoleAccount();
    const QString trashFolder = HXPath::deletingLastComponent(trashedPath);
    const std::optional<platform::Folder> files =
        console ? platform::Folder::openAs(*console, trashFolder, std::nullopt) : std::nullopt;
    const std::optional<struct stat> info =
        files ? files->infoOf(HXPath::lastComponent(trashedPath)) : std::nullopt;
    if (!info)
        return std::nullopt;
    return QVariantMap{{kPath, originalPath},
                       {kTrashFolder, trashFolder},
                       {kTrashName, HXPath::lastComponent(trashedPath)},
                       {kDevice, static_cast<qint64>(info->st_dev)},
                       {kInode, static_cast<qint64>(info->st_ino)}};
}

bool store(const QString &identifier, const QVariantList &entries)
{
    if (entries.isEmpty() || !isPlainName(identifier) || !openLedgerFolder(true))
        return false;
    return PropertyList::writeXmlFileInUsersTree(
        HXPath::appendingComponent(ledgerFolder(), identifier + QStringLiteral(".plist")),
        QVariantMap{{QStringLiteral("version"), 1}, {QStringLiteral("entries"), entries}}, std::nullopt);
}

std::optional<QString> restore(const QString &identifier, const QString &path, QString &problem)
{
    const platform::WithRootRights root;
    const std::optional<platform::Account> console = HXUsersTree::consoleAccount();
    QVariantMap entry;
    for (const QVariant &candidate : ledgerOf(identifier).value(QStringLiteral("entries")).toList())
        if (candidate.toMap().value(kPath).toString() == path)
            entry = candidate.toMap();
    const QString name = entry.value(kTrashName).toString();
    if (!platform::hasRootRights() || !console || entry.isEmpty() || !isPlainName(name)) {
        problem = QStringLiteral("only root may put back what it trashed from the machine's folders");
        return std::nullopt;
    }
    // Her trash, as she reaches it; the item in it must be the very file root put there.
    int error = 0;
    const std::optional<platform::Folder> files =
        platform::Folder::openAs(*console, entry.value(kTrashFolder).toString(), std::nullopt, &error);
    const std::optional<struct stat> info = files ? files->infoOf(name) : std::nullopt;
    if (!info || static_cast<qint64>(info->st_dev) != entry.value(kDevice).toLongLong() ||
        static_cast<qint64>(info->st_ino) != entry.value(kInode).toLongLong() || info->st_uid != 0 ||
        (!S_ISDIR(info->st_mode) && info->st_nlink != 1)) {
        problem = QStringLiteral("no longer in the Trash (was the Trash emptied?)");
        return std::nullopt;
    }
    // Back with root's walk, which follows no link of hers.
    const std::optional<platform::Folder> parent =
        platform::Folder::open(HXPath::deletingLastComponent(path), &error);
    if (!parent) {
        problem = QStringLiteral("its folder cannot be opened: ") + reasonOf(error);
        return std::nullopt;
    }
    QString destination = path;
    if (parent->contains(HXPath::lastComponent(path))) {
        destination = HXFileManager::uniqueFilename(path);
        problem = QStringLiteral("an item is in its place again; both are kept");
    }
    const QString toName = HXPath::lastComponent(destination);
    error = files->rename(name, *parent, toName, false);
    if (error == EXDEV && (error = files->copyTree(name, *parent, toName)) == 0)
        files->removeTree(name);
    if (error != 0) {
        problem = reasonOf(error);
        return std::nullopt;
    }
    return destination;
}

}  // namespace HXRunLedger
