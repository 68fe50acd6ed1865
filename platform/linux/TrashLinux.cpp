#include "platform/Trash.h"

#include "platform/Accounts.h"
#include "platform/Identity.h"

#include <QFile>
#include <QUrl>

#include <cerrno>
#include <map>
#include <memory>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform::trash {

namespace {

constexpr int kMaxAttempts = 100000;
using StatInfo = struct stat;

QString lastComponent(const QString &path)
{
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

QString withoutLastComponent(const QString &path)
{
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    return slash <= 0 ? QStringLiteral("/") : path.left(slash);
}

// Opens folder NAME in PARENT, making it (0700, handed to OWNER when we have root's
// rights) when missing. Links are followed only as platform::Folder allows.
std::optional<Folder> openOrMake(const Folder &parent, const QString &name, uid_t owner, int &error)
{
    if (std::optional<Folder> folder = parent.folder(name, &error))
        return folder;
    if (error != ENOENT)
        return std::nullopt;
    std::optional<Folder> made = parent.makeFolder(name, 0700, &error);
    if (!made)
        return error == EEXIST ? parent.folder(name, &error) : std::nullopt;
    if (hasRootRights() && owner != 0 &&
        ::fchownat(made->descriptor(), "", owner, primaryGroupOf(owner), AT_EMPTY_PATH) != 0) {
        error = errno;
        return std::nullopt;
    }
    return made;
}

// The user a trash belongs to: ourselves, the user root acts as, or with root's
// rights the owner of the deepest existing folder on the way to the trash (the
// user's home).
uid_t trashOwner(const QString &trashRoot)
{
    if (const std::optional<uid_t> acting = actingUser())
        return *acting;
    if (!hasRootRights())
        return ::geteuid();
    std::optional<Folder> current = Folder::open(QStringLiteral("/"));
    uid_t owner = 0;
    for (const QString &name : trashRoot.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (!current)
            break;
        current = current->folder(name);
        if (current)
            owner = current->info().value_or(StatInfo{}).st_uid;
    }
    return owner;
}

}  // namespace

// Outside the anonymous namespace: Collection's state holds it.
struct TrashFolders {
    QString root;
    uid_t owner = 0;
    Folder files;
    Folder info;
};

namespace {

// The trash's two folders, which must be its owner's: root puts items and records
// there for her, so they may not lead anywhere else.
bool openFilesAndInfo(TrashFolders &trash, const Folder &root, int &error)
{
    std::optional<Folder> files = openOrMake(root, QStringLiteral("files"), trash.owner, error);
    std::optional<Folder> info =
        files ? openOrMake(root, QStringLiteral("info"), trash.owner, error) : std::nullopt;
    if (!info)
        return false;
    if (files->info().value_or(StatInfo{}).st_uid != trash.owner ||
        info->info().value_or(StatInfo{}).st_uid != trash.owner) {
        error = EPERM;
        return false;
    }
    trash.files = std::move(*files);
    trash.info = std::move(*info);
    return true;
}

// The top of the file system holding FOLDER (device DEVICE), reached through
// ".."; PATH is FOLDER's path, shortened on the way for the names reported.
std::optional<Folder> topOfVolume(const Folder &folder, dev_t device, QString &path)
{
    std::optional<Folder> current = folder.duplicate();
    while (current && path != QLatin1String("/")) {
        std::optional<Folder> up = current->parent();
        const std::optional<struct stat> upInfo = up ? up->info() : std::nullopt;
        if (!upInfo || upInfo->st_dev != device)
            break;
        current = std::move(up);
        path = withoutLastComponent(path);
    }
    return current;
}

// The volume trash for an item on another file system: $topdir/.Trash/$uid when
// the administrator made a sticky, real $topdir/.Trash, else $topdir/.Trash-$uid.
bool openVolumeTrash(TrashFolders &trash, const Folder &top, const QString &topdir, int &error)
{
    const QString uid = QString::number(trash.owner);
    const std::optional<struct stat> shared = top.infoOf(QStringLiteral(".Trash"));
    if (shared && S_ISDIR(shared->st_mode) && (shared->st_mode & S_ISVTX)) {
        int ignored = 0;
        std::optional<Folder> sharedFolder = top.realFolder(QStringLiteral(".Trash"));
        std::optional<Folder> mine =
            sharedFolder ? openOrMake(*sharedFolder, uid, trash.owner, ignored) : std::nullopt;
        if (mine && mine->info().value_or(StatInfo{}).st_uid == trash.owner) {
            trash.root = topdir + QStringLiteral("/.Trash/") + uid;
            if (openFilesAndInfo(trash, *mine, error))
                return true;
        }
    }
    std::optional<Folder> own = openOrMake(top, QStringLiteral(".Trash-") + uid, trash.owner, error);
    if (!own)
        return false;
    if (own->info().value_or(StatInfo{}).st_uid != trash.owner) {
        error = EPERM;
        return false;
    }
    trash.root = (topdir == QLatin1String("/") ? QString() : topdir) + QStringLiteral("/.Trash-") + uid;
    return openFilesAndInfo(trash, *own, error);
}

// The home trash's folders, opened once and kept while the path still leads to
// them: trashing many items then costs a rename and a record each.
std::shared_ptr<TrashFolders> homeTrash(const QString &root, int &error)
{
    static std::mutex mutex;
    static std::shared_ptr<TrashFolders> cached;
    const QByteArray files = QFile::encodeName(root + QStringLiteral("/files"));
    const QByteArray info = QFile::encodeName(root + QStringLiteral("/info"));
    auto same = [](const Folder &folder, const QByteArray &path) {
        const std::optional<struct stat> opened = folder.info();
        struct stat named {};
        return opened && opened->st_nlink > 0 && ::lstat(path.constData(), &named) == 0 &&
               opened->st_dev == named.st_dev && opened->st_ino == named.st_ino;
    };
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (cached && cached->root == root && same(cached->files, files) && same(cached->info, info))
            return cached;
    }
    auto trash = std::make_shared<TrashFolders>();
    trash->root = root;
    trash->owner = trashOwner(root);
    const uid_t owner = trash->owner;
    // Opened as its owner would open it, so her own links lead where they lead her;
    // the folders reached must be hers. Where she cannot reach it herself, root's
    // walk, which follows none of her links.
    const std::optional<Account> account =
        owner != ::geteuid() ? accountOf(owner) : std::optional<Account>(processAccount());
    std::optional<Folder> rootFolder = account ? Folder::openAs(*account, root, 0700, &error) : std::nullopt;
    if (!rootFolder && error != EPERM)
        rootFolder = Folder::openMakingPath(root, 0700, owner, &error);
    bool opened = false;
    if (rootFolder) {
        std::optional<ActingAs> acting;
        if (account)
            acting.emplace(*account);
        opened = openFilesAndInfo(*trash, *rootFolder, error);
    }
    if (!opened)
        return nullptr;
    const std::lock_guard<std::mutex> lock(mutex);
    cached = trash;
    return trash;
}

// Writes the record NAME.trashinfo into the trash, whole or not at all; false
// with ERROR when the name is taken there or the write fails.
bool writeRecord(const TrashFolders &trash, const QString &name, const QByteArray &record, int &error)
{
    std::optional<std::pair<uid_t, gid_t>> owner;
    if (hasRootRights() && trash.owner != 0)
        owner.emplace(trash.owner, primaryGroupOf(trash.owner));
    error = trash.info.writeWholeFile(name + QStringLiteral(".trashinfo"), record, 0600, owner, false);
    return error == 0;
}

// Moves ITEM to NAME in the trash's files folder: a rename, or across mounts a
// copy and a removal. A failed copy leaves nothing in the trash; a folder removed
// only in part keeps its complete copy there (KEEPRECORD), so nothing is lost.
int moveInto(const Folder &folder, const QString &itemName, const TrashFolders &trash, const QString &name,
             bool &keepRecord)
{
    keepRecord = false;
    const int error = folder.rename(itemName, trash.files, name, false);
    if (error != EXDEV)
        return error;
    if (const int copyError = folder.copyTree(itemName, trash.files, name); copyError != 0) {
        trash.files.removeTree(name);
        return copyError;
    }
    const std::optional<struct stat> original = folder.infoOf(itemName);
    const int removeError = folder.removeTree(itemName);
    if (removeError == 0)
        return 0;
    keepRecord = original && S_ISDIR(original->st_mode);
    if (!keepRecord)
        trash.files.removeTree(name);
    return removeError;
}

Outcome trashedAs(const TrashFolders &trash, const QString &name)
{
    Outcome outcome;
    outcome.trashed = true;
    outcome.trashedPath = trash.root + QStringLiteral("/files/") + name;
    outcome.infoPath = trash.root + QStringLiteral("/info/") + name + QStringLiteral(".trashinfo");
    return outcome;
}

Outcome failed(int error)
{
    Outcome outcome;
    outcome.error = error;
    return outcome;
}

}  // namespace

struct Collection::State {
    std::shared_ptr<TrashFolders> trash;
    QString name;
    Folder folder;
    // Sub-folders made or opened so far, by their path below the collection.
    std::map<QString, Folder> subfolders;
    int added = 0;
};

std::optional<Collection> Collection::make(const QString &originalFolder, const QString &trashFilesFolder,
                                           int *error)
{
    int failure = EINVAL;
    auto fail = [&]() -> std::optional<Collection> {
        if (error)
            *error = failure;
        return std::nullopt;
    };
    if (originalFolder.isEmpty() || trashFilesFolder.isEmpty())
        return fail();
    auto state = std::make_shared<State>();
    state->trash = homeTrash(withoutLastComponent(absoluteItemPath(trashFilesFolder)), failure);
    if (!state->trash)
        return fail();
    const QString original = absoluteItemPath(originalFolder);
    const QByteArray record = trashInfo(original, QDateTime::currentDateTime());
    const QString name = lastComponent(original);
    const uid_t owner = state->trash->owner;
    for (int attempt = 1; attempt <= kMaxAttempts; ++attempt) {
        const QString candidate = candidateName(name, attempt);
        if (!writeRecord(*state->trash, candidate, record, failure)) {
            if (failure == EEXIST)
                continue;
            return fail();
        }
        std::optional<Folder> made = state->trash->files.makeFolder(candidate, 0700, &failure);
        if (made && hasRootRights() && owner != 0 &&
            ::fchownat(made->descriptor(), "", owner, primaryGroupOf(owner), AT_EMPTY_PATH) != 0) {
            failure = errno;
            state->trash->files.removeEntry(candidate);
            made.reset();
        }
        if (made) {
            state->name = candidate;
            state->folder = std::move(*made);
            return Collection(std::move(state));
        }
        state->trash->info.removeEntry(candidate + QStringLiteral(".trashinfo"));
        if (failure != EEXIST)
            return fail();
    }
    failure = EEXIST;
    return fail();
}

Outcome Collection::add(const Folder &folder, const QString &name, const QString &relativePath)
{
    State &state = *m_state;
    const qsizetype slash = relativePath.lastIndexOf(QLatin1Char('/'));
    const QString leaf = relativePath.mid(slash + 1);
    if (leaf.isEmpty() || leaf == QLatin1String(".") || leaf == QLatin1String(".."))
        return failed(EINVAL);
    const Folder *destination = &state.folder;
    if (slash > 0) {
        const QString subpath = relativePath.left(slash);
        auto found = state.subfolders.find(subpath);
        if (found == state.subfolders.end()) {
            // Made one level at a time below the collection; none of the names
            // may climb out of it.
            std::optional<Folder> current = state.folder.duplicate();
            int error = 0;
            for (const QString &component : subpath.split(QLatin1Char('/'))) {
                if (component.isEmpty() || component == QLatin1String(".") ||
                    component == QLatin1String(".."))
                    return failed(EINVAL);
                current = current ? openOrMake(*current, component, state.trash->owner, error) : std::nullopt;
            }
            if (!current)
                return failed(error ? error : ENOENT);
            found = state.subfolders.emplace(subpath, std::move(*current)).first;
        }
        destination = &found->second;
    }
    if (const int error = folder.rename(name, *destination, leaf, false); error != 0)
        return failed(error);
    ++state.added;
    Outcome outcome = trashedAs(*state.trash, state.name);
    outcome.trashedPath += QLatin1Char('/') + relativePath;
    return outcome;
}

QString Collection::path() const
{
    return m_state->trash->root + QStringLiteral("/files/") + m_state->name;
}

QString Collection::infoPath() const
{
    return trashedAs(*m_state->trash, m_state->name).infoPath;
}

bool Collection::isEmpty() const
{
    return m_state->added == 0;
}

void Collection::discardIfEmpty()
{
    if (isEmpty())
        removeIfOnlyEmptyFolders(m_state->trash->files, m_state->name);
}

namespace {

// Removes the folder NAME of PARENT when it holds nothing but empty folders.
bool removeEmptyFolders(const Folder &parent, const QString &name, int depth)
{
    const std::optional<Folder> folder = depth < 64 ? parent.realFolder(name) : std::nullopt;
    if (!folder)
        return false;
    bool empty = true;
    for (const QString &entry : folder->entries())
        empty = removeEmptyFolders(*folder, entry, depth + 1) && empty;
    return empty && parent.removeEntry(name) == 0;
}

}  // namespace

bool removeIfOnlyEmptyFolders(const Folder &trashFiles, const QString &name)
{
    if (name.isEmpty() || name.contains(QLatin1Char('/')) || !removeEmptyFolders(trashFiles, name, 0))
        return false;
    if (const std::optional<Folder> root = trashFiles.parent())
        if (const std::optional<Folder> info = root->realFolder(QStringLiteral("info")))
            info->removeEntry(name + QStringLiteral(".trashinfo"));
    return true;
}

QString candidateName(const QString &name, int attempt)
{
    if (attempt <= 1)
        return name;
    const qsizetype dot = name.indexOf(QLatin1Char('.'));
    const QString number = QLatin1Char('.') + QString::number(attempt);
    if (dot < 0)
        return name + number;
    return name.left(dot) + number + name.mid(dot);
}

QByteArray encodedPath(const QString &path)
{
    return QUrl::toPercentEncoding(path, "/");
}

QByteArray trashInfo(const QString &originalPath, const QDateTime &deletionDate)
{
    QByteArray record("[Trash Info]\nPath=");
    record += encodedPath(originalPath);
    record += "\nDeletionDate=";
    record += deletionDate.toLocalTime().toString(QStringLiteral("yyyy-MM-dd'T'HH:mm:ss")).toLatin1();
    record += '\n';
    return record;
}

Outcome moveToTrash(const QString &path, const QString &trashFilesFolder)
{
    int error = 0;
    if (path.isEmpty())
        return failed(EINVAL);
    const QString original = absoluteItemPath(path);
    const std::optional<Item> item = Item::open(original, &error);
    if (!item)
        return failed(error);
    return moveToTrash(item->folder, item->name, original, trashFilesFolder);
}

Outcome moveToTrash(const Folder &folder, const QString &itemName, const QString &originalPath,
                    const QString &trashFilesFolder)
{
    const std::optional<struct stat> itemInfo = folder.infoOf(itemName);
    if (!itemInfo)
        return failed(errno ? errno : ENOENT);
    if (trashFilesFolder.isEmpty())
        return failed(EINVAL);
    int error = 0;
    const std::shared_ptr<TrashFolders> home =
        homeTrash(withoutLastComponent(absoluteItemPath(trashFilesFolder)), error);
    if (!home)
        return failed(error);
    const TrashFolders *trash = home.get();
    TrashFolders volume;
    const std::optional<struct stat> filesInfo = home->files.info();
    if (!filesInfo)
        return failed(errno);
    if (filesInfo->st_dev != itemInfo->st_dev) {
        // Moving between file systems would copy; the volume's own trash keeps it a
        // rename. Without one the item is copied into the home trash below.
        QString topdir = withoutLastComponent(originalPath);
        const std::optional<Folder> top = topOfVolume(folder, itemInfo->st_dev, topdir);
        volume.owner = home->owner;
        if (top && openVolumeTrash(volume, *top, topdir, error))
            trash = &volume;
    }

    const QByteArray record = trashInfo(originalPath, QDateTime::currentDateTime());
    const QString name = lastComponent(originalPath);
    for (int attempt = 1; attempt <= kMaxAttempts; ++attempt) {
        const QString candidate = candidateName(name, attempt);
        // The record reserves the name; a stray item under it in files/ still takes it.
        if (!writeRecord(*trash, candidate, record, error)) {
            if (error == EEXIST)
                continue;
            return failed(error);
        }
        bool keepRecord = false;
        error = moveInto(folder, itemName, *trash, candidate, keepRecord);
        if (error == 0)
            return trashedAs(*trash, candidate);
        if (!keepRecord)
            trash->info.removeEntry(candidate + QStringLiteral(".trashinfo"));
        if (error != EEXIST)
            return failed(error);
    }
    return failed(EEXIST);
}

Outcome moveToTrashAs(const QString &path, const QString &trashFilesFolder, const QString &name)
{
    int error = 0;
    if (path.isEmpty() || trashFilesFolder.isEmpty())
        return failed(EINVAL);
    const QString original = absoluteItemPath(path);
    const std::optional<Item> item = Item::open(original, &error);
    if (!item)
        return failed(error);
    if (!item->exists())
        return failed(ENOENT);
    const std::shared_ptr<TrashFolders> trash =
        homeTrash(withoutLastComponent(absoluteItemPath(trashFilesFolder)), error);
    if (!trash)
        return failed(error);
    // A record left without its item holds the name for nothing.
    if (!trash->files.contains(name))
        trash->info.removeEntry(name + QStringLiteral(".trashinfo"));
    if (!writeRecord(*trash, name, trashInfo(original, QDateTime::currentDateTime()), error))
        return failed(error);
    bool keepRecord = false;
    error = moveInto(item->folder, item->name, *trash, name, keepRecord);
    if (error == 0)
        return trashedAs(*trash, name);
    if (!keepRecord)
        trash->info.removeEntry(name + QStringLiteral(".trashinfo"));
    return failed(error);
}

}  // namespace platform::trash
