#include "app/HXRunRestore.h"

#include "app/HXPremiereFiles.h"
#include "app/HXRunLedger.h"
#include "app/HXRunRecord.h"

#include "fs/HXFileNames.h"
#include "platform/Folder.h"
#include "platform/Trash.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"

#include <QDateTime>
#include <QUrl>
#include <QVariantList>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <unistd.h>

namespace HXRunRestore {

namespace {

const QString kTrashed = QStringLiteral("trashed");
const QString kRestoredTo = QStringLiteral("restoredTo");
const QString kMediaCache = QStringLiteral("mediaCache");
const QString kFolders = QStringLiteral("folders");
// A restore lists this many of the media cache files it could not restore.
constexpr int kListedFailures = 100;

QString reasonOf(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// PATH as written, with nothing that could lead elsewhere: absolute, no "." or
// ".." components, no doubled or trailing slash.
bool isPlainPath(const QString &path)
{
    return path.startsWith(QLatin1Char('/')) && platform::absoluteItemPath(path) == path &&
           !HXPath::components(path).contains(QStringLiteral(".."));
}

bool liesBelow(const QString &path, const QString &folder)
{
    return !folder.isEmpty() && path.startsWith(folder + QLatin1Char('/'));
}

// Whom a restore is for, and what it may use, looked up once: a restore may
// put back a hundred thousand files.
struct Whose {
    uid_t user = 0;
    QString homeTrash;
    QStringList places;  // the folders a repair trashes from
};

// The Trash folders a run may have used: the home trash, or the user's trash on
// another volume ($topdir/.Trash/UID, $topdir/.Trash-UID).
bool isUsersTrash(const QString &root, const Whose &whose)
{
    const QString uid = QString::number(whose.user);
    return (!whose.homeTrash.isEmpty() && root == whose.homeTrash) ||
           root.endsWith(QStringLiteral("/.Trash-") + uid) || root.endsWith(QStringLiteral("/.Trash/") + uid);
}

// Where a trashed path lies: the user's trash it is in, and the item of that
// trash's files folder that is it or, for a collection's file, holds it.
struct TrashPlace {
    QString root;
    QString item;
    bool inside = false;
};

std::optional<TrashPlace> trashPlaceOf(const QString &trashPath, const Whose &whose)
{
    if (!isPlainPath(trashPath))
        return std::nullopt;
    const QString files = QStringLiteral("/files/");
    for (qsizetype at = trashPath.indexOf(files); at > 0; at = trashPath.indexOf(files, at + 1)) {
        const QString root = trashPath.left(at);
        if (!isUsersTrash(root, whose))
            continue;
        const QString rest = trashPath.mid(at + files.size());
        const qsizetype slash = rest.indexOf(QLatin1Char('/'));
        return TrashPlace{root, slash < 0 ? rest : rest.left(slash), slash >= 0};
    }
    return std::nullopt;
}

QString infoPathOf(const TrashPlace &place)
{
    return place.root + QStringLiteral("/info/") + place.item + QStringLiteral(".trashinfo");
}

// Why the record's entry cannot be restored as it stands; empty when it can. An
// entry naming its record (INFOPATH) must be an item of the Trash itself; one
// without, a media cache file, may lie inside one (its clean-up's collection),
// whose record is then the item's own.
QString refusalOf(const QString &path, const std::optional<TrashPlace> &place,
                  const std::optional<QString> &infoPath, const Whose &whose)
{
    if (!place || (infoPath && (place->inside || *infoPath != infoPathOf(*place))))
        return QStringLiteral("the record does not name an item of your Trash; nothing was moved");
    const QStringList &places = whose.places;
    if (!isPlainPath(path) || std::none_of(places.begin(), places.end(),
                                           [&path](const QString &place) { return liesBelow(path, place); }))
        return QStringLiteral("it was not trashed from a folder a repair cleans, so it is not put there");
    return QString();
}

// The record of the trashed item, removed by its name in the trash's info folder.
void removeTrashRecord(const TrashPlace &place)
{
    if (const std::optional<platform::Folder> info =
            platform::Folder::open(place.root + QStringLiteral("/info")))
        info->removeEntry(place.item + QStringLiteral(".trashinfo"));
}

// The folders items go back into, opened once while they last: a media cache's
// hundred thousand files share a few hundred.
class OpenedFolders {
public:
    const platform::Folder *open(const QString &path, mode_t mode, int &error)
    {
        if (const auto found = m_folders.find(path); found != m_folders.end()) {
            const std::optional<struct stat> info = found->second.info();
            if (info && info->st_nlink > 0)
                return &found->second;
            m_folders.erase(found);
        }
        std::optional<platform::Folder> folder =
            platform::Folder::openMakingPath(path, mode, std::nullopt, &error);
        if (!folder)
            return nullptr;
        if (m_folders.size() >= kKept)
            m_folders.clear();
        return &m_folders.insert_or_assign(path, std::move(*folder)).first->second;
    }

private:
    static constexpr std::size_t kKept = 256;
    std::map<QString, platform::Folder> m_folders;
};

// Moves the trashed item back to PATH, or beside it when PATH is taken again.
// An item root trashed from the machine's folders goes back, by root, only as
// root's own ledger of run IDENTIFIER says.
Item restoreOne(const QString &identifier, const QString &path, const QString &trashPath,
                const std::optional<QString> &infoPath, const Whose &whose, OpenedFolders &folders,
                bool machineItem)
{
    Item item{path, {}, {}};
    const std::optional<TrashPlace> place = trashPlaceOf(trashPath, whose);
    item.problem = refusalOf(path, place, infoPath, whose);
    if (!item.problem.isEmpty())
        return item;
    if (machineItem) {
        if (const std::optional<QString> restored = HXRunLedger::restore(identifier, path, item.problem)) {
            item.restoredTo = *restored;
            removeTrashRecord(*place);
        }
        return item;
    }
    int error = 0;
    const std::optional<platform::Item> trashed = platform::Item::open(trashPath, &error);
    if (!trashed || !trashed->exists()) {
        item.problem = QStringLiteral("no longer in the Trash (was the Trash emptied?)");
        return item;
    }
    // A folder the clean-up moved whole is made again as it was, as its copy in the Trash is.
    const std::optional<struct stat> trashedFolder = place->inside ? trashed->folder.info() : std::nullopt;
    const platform::Folder *parent = folders.open(
        HXPath::deletingLastComponent(path), trashedFolder ? trashedFolder->st_mode & 07777 : 0755, error);
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
    // A collection's record goes with its last file (removeEmptyCollections).
    if (!place->inside)
        removeTrashRecord(*place);
    return item;
}

// The media cache files a run moved from one cache folder, one percent-encoded
// line each (app/HXMediaCache.cpp): the file's path below the folder, where it
// lies at the same path below the clean-up's Trash folder, or "TRASHEDPATH
// ORIGINALPATH". LINE, a view of LINES, is kept as it stands for the files not
// restored.
struct MovedFile {
    QString trashPath;
    QString path;
    QStringView line;
};

std::vector<MovedFile> movedFiles(const QVariantMap &folder, const QString &lines)
{
    const QString path = folder.value(QStringLiteral("path")).toString();
    const QString trashFolder = folder.value(QStringLiteral("trashFolder")).toString();
    std::vector<MovedFile> files;
    for (const QStringView line : QStringView(lines).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const qsizetype space = line.indexOf(QLatin1Char(' '));
        if (space > 0) {
            files.push_back({QUrl::fromPercentEncoding(line.left(space).toLatin1()),
                             QUrl::fromPercentEncoding(line.mid(space + 1).toLatin1()), line});
        } else if (space < 0) {
            // Joined as written; the restore's checks refuse what climbs or leads elsewhere.
            const QString relative = QUrl::fromPercentEncoding(line.toLatin1());
            files.push_back(
                {trashFolder + QLatin1Char('/') + relative, path + QLatin1Char('/') + relative, line});
        }
    }
    return files;
}

// The collections media cache files were restored from, removed with their
// records once every file has gone back.
void removeEmptyCollections(const std::vector<MovedFile> &files, const Whose &whose)
{
    std::vector<std::pair<QString, QString>> collections;
    for (const MovedFile &file : files)
        if (const std::optional<TrashPlace> place = trashPlaceOf(file.trashPath, whose);
            place && place->inside)
            if (std::find(collections.begin(), collections.end(), std::pair(place->root, place->item)) ==
                collections.end())
                collections.emplace_back(place->root, place->item);
    for (const auto &[root, item] : collections)
        if (const std::optional<platform::Folder> files =
                platform::Folder::open(root + QStringLiteral("/files")))
            platform::trash::removeIfOnlyEmptyFolders(*files, item);
}

}  // namespace

QVariantMap Item::toVariant() const
{
    return {{QStringLiteral("path"), path}, {kRestoredTo, restoredTo}, {QStringLiteral("problem"), problem}};
}

int Outcome::restored() const
{
    int count = mediaCacheRestored;
    for (const Item &item : items)
        count += item.restoredTo.isEmpty() ? 0 : 1;
    return count;
}

int Outcome::failed() const
{
    int count = mediaCacheFailed;
    for (const Item &item : items)
        count += item.restoredTo.isEmpty() ? 1 : 0;
    return count;
}

int pendingItems(const QVariantMap &record)
{
    int pending = 0;
    for (const QVariant &entry : record.value(kTrashed).toList())
        pending += entry.toMap().contains(kRestoredTo) ? 0 : 1;
    for (const QVariant &folder : record.value(kMediaCache).toMap().value(kFolders).toList())
        pending +=
            static_cast<int>(movedFiles(folder.toMap(), folder.toMap().value(kTrashed).toString()).size());
    return pending;
}

Outcome restore(QVariantMap &record)
{
    Outcome outcome;
    QVariantList trashed = record.value(kTrashed).toList();
    QVariantList restoreItems;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    // Root restores as the console user; with nobody there, as nobody at all.
    const std::optional<platform::Account> console = HXUsersTree::consoleAccount();
    const bool asRoot = platform::hasRootRights();
    const bool nobody = asRoot && !console;
    const QString home = HXLocalPaths::userDirectory();
    const QString identifier = record.value(QStringLiteral("identifier")).toString();
    const HXActingForUser acting(console);
    const Whose whose{console ? console->uid : ::geteuid(),
                      HXPath::deletingLastComponent(HXLocalPaths::trashDirectory()),
                      HXPremiereFiles::trashedFromFolders()};
    OpenedFolders folders;
    for (QVariant &entry : trashed) {
        QVariantMap map = entry.toMap();
        if (map.contains(kRestoredTo))
            continue;
        const QString path = map.value(QStringLiteral("path")).toString();
        const Item item =
            nobody ? Item{path, {}, QStringLiteral("nobody is at the console to restore it for")}
                   : restoreOne(identifier, path, map.value(QStringLiteral("trashPath")).toString(),
                                map.value(QStringLiteral("infoPath")).toString(), whose, folders,
                                asRoot && !liesBelow(path, home));
        if (!item.restoredTo.isEmpty()) {
            map.insert(kRestoredTo, item.restoredTo);
            map.insert(QStringLiteral("restoredAt"), now);
            entry = map;
        }
        restoreItems.append(item.toVariant());
        outcome.items.push_back(item);
    }
    // The media cache's files, counted rather than listed one by one; those
    // restored leave the folder's list.
    QVariantMap mediaCache = record.value(kMediaCache).toMap();
    QVariantList cacheFolders = mediaCache.value(kFolders).toList();
    QVariantList cacheFailures;
    for (QVariant &folder : cacheFolders) {
        QVariantMap map = folder.toMap();
        QString left;
        const QString lines = map.value(kTrashed).toString();
        const std::vector<MovedFile> files = movedFiles(map, lines);
        for (const MovedFile &file : files) {
            const Item item =
                nobody
                    ? Item{file.path, {}, QStringLiteral("nobody is at the console to restore it for")}
                    : restoreOne(identifier, file.path, file.trashPath, std::nullopt, whose, folders, false);
            if (!item.restoredTo.isEmpty()) {
                ++outcome.mediaCacheRestored;
                continue;
            }
            ++outcome.mediaCacheFailed;
            if (cacheFailures.size() < kListedFailures)
                cacheFailures.append(item.toVariant());
            left += file.line;
            left += QLatin1Char('\n');
        }
        if (!nobody)
            removeEmptyCollections(files, whose);
        map.insert(kTrashed, left);
        folder = map;
    }
    if (outcome.items.empty() && outcome.mediaCacheRestored + outcome.mediaCacheFailed == 0)
        return outcome;
    record.insert(kTrashed, trashed);
    QVariantMap restoreEntry{{QStringLiteral("date"), now}, {QStringLiteral("items"), restoreItems}};
    if (outcome.mediaCacheRestored + outcome.mediaCacheFailed > 0) {
        mediaCache.insert(kFolders, cacheFolders);
        record.insert(kMediaCache, mediaCache);
        restoreEntry.insert(QStringLiteral("mediaCacheRestored"), outcome.mediaCacheRestored);
        restoreEntry.insert(QStringLiteral("mediaCacheFailed"), cacheFailures);
    }
    QVariantList restores = record.value(QStringLiteral("restores")).toList();
    restores.append(restoreEntry);
    record.insert(QStringLiteral("restores"), restores);
    return outcome;
}

}  // namespace HXRunRestore
