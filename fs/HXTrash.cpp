#include "fs/HXTrash.h"

#include "fs/HXFileTree.h"
#include "system/HXPath.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include <cerrno>
#include <memory>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A directory descriptor closed on scope exit.
class DirFd {
public:
    DirFd() = default;
    explicit DirFd(int fd) : m_fd(fd) {}
    DirFd(const DirFd &) = delete;
    DirFd &operator=(const DirFd &) = delete;
    DirFd(DirFd &&other) noexcept : m_fd(other.release()) {}
    DirFd &operator=(DirFd &&other) noexcept
    {
        if (this != &other) {
            reset();
            m_fd = other.release();
        }
        return *this;
    }
    ~DirFd() { reset(); }

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    int release()
    {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void reset()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
};

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr int kMaxAttempts = 100000;

// Opens NAME inside PARENT, creating it (mode 0700, handed to OWNER when we are
// root) when missing. A symbolic link is followed only when both the link and
// the folder holding it belong to root, so a user cannot point a folder that root
// writes into somewhere else.
DirFd openOrCreateDir(int parent, const QByteArray &name, uid_t owner, bool create, int &error)
{
    struct stat parentInfo {};
    struct stat info {};
    if (::fstat(parent, &parentInfo) != 0) {
        error = errno;
        return DirFd();
    }
    if (::fstatat(parent, name.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT || !create) {
            error = errno;
            return DirFd();
        }
        if (::mkdirat(parent, name.constData(), 0700) != 0 && errno != EEXIST) {
            error = errno;
            return DirFd();
        }
        DirFd fd(::openat(parent, name.constData(), kDirFlags | O_NOFOLLOW));
        if (!fd.valid()) {
            error = errno;
            return fd;
        }
        if (::geteuid() == 0 && owner != 0 && ::fchown(fd.get(), owner, static_cast<gid_t>(-1)) != 0) {
            error = errno;
            return DirFd();
        }
        return fd;
    }
    const bool trustedLink = S_ISLNK(info.st_mode) && info.st_uid == 0 && parentInfo.st_uid == 0;
    DirFd fd(::openat(parent, name.constData(), kDirFlags | (trustedLink ? 0 : O_NOFOLLOW)));
    if (!fd.valid())
        error = errno == ELOOP ? ENOTDIR : errno;
    return fd;
}

// Opens the absolute folder PATH component by component (see openOrCreateDir),
// creating missing folders when CREATE is set.
DirFd openPath(const QString &path, uid_t owner, bool create, int &error)
{
    DirFd current(::open("/", kDirFlags));
    if (!current.valid()) {
        error = errno;
        return current;
    }
    for (const QString &component : QDir::cleanPath(path).split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        DirFd next = openOrCreateDir(current.get(), QFile::encodeName(component), owner, create, error);
        if (!next.valid())
            return next;
        current = std::move(next);
    }
    return current;
}

// The user a trash belongs to: ourselves, or as root the owner of the deepest
// existing folder on the way to the trash (the user's home).
uid_t trashOwner(const QString &trashRoot)
{
    if (::geteuid() != 0)
        return ::geteuid();
    QString folder = trashRoot;
    struct stat info {};
    while (::stat(QFile::encodeName(folder).constData(), &info) != 0 && folder != QLatin1String("/"))
        folder = HXPath::deletingLastComponent(folder);
    return info.st_uid;
}

// The mount point of the file system holding the folder PARENT (device DEVICE).
QString mountPointOf(QString parent, dev_t device)
{
    while (parent != QLatin1String("/")) {
        const QString up = HXPath::deletingLastComponent(parent);
        struct stat info {};
        if (::stat(QFile::encodeName(up).constData(), &info) != 0 || info.st_dev != device)
            break;
        parent = up;
    }
    return parent;
}

struct TrashFolders {
    QString root;
    uid_t owner = 0;
    DirFd files;
    DirFd info;
};

bool openFilesAndInfo(TrashFolders &trash, DirFd &root, uid_t owner, int &error)
{
    trash.files = openOrCreateDir(root.get(), "files", owner, true, error);
    if (!trash.files.valid())
        return false;
    trash.info = openOrCreateDir(root.get(), "info", owner, true, error);
    return trash.info.valid();
}

// The volume trash for an item on another file system: $topdir/.Trash/$uid when
// the administrator made a sticky, real $topdir/.Trash, else $topdir/.Trash-$uid.
bool openVolumeTrash(TrashFolders &trash, const QString &topdir, uid_t owner, int &error)
{
    DirFd top = openPath(topdir, owner, false, error);
    if (!top.valid())
        return false;
    const QByteArray uid = QByteArray::number(owner);
    struct stat shared {};
    if (::fstatat(top.get(), ".Trash", &shared, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(shared.st_mode) &&
        (shared.st_mode & S_ISVTX)) {
        int ignored = 0;
        DirFd sharedFd = openOrCreateDir(top.get(), ".Trash", owner, false, ignored);
        DirFd mine = sharedFd.valid() ? openOrCreateDir(sharedFd.get(), uid, owner, true, ignored) : DirFd();
        struct stat info {};
        if (mine.valid() && ::fstat(mine.get(), &info) == 0 && info.st_uid == owner) {
            trash.root = topdir + QStringLiteral("/.Trash/") + QString::fromLatin1(uid);
            if (openFilesAndInfo(trash, mine, owner, error))
                return true;
        }
    }
    DirFd own = openOrCreateDir(top.get(), ".Trash-" + uid, owner, true, error);
    struct stat info {};
    if (!own.valid() || ::fstat(own.get(), &info) != 0)
        return false;
    if (info.st_uid != owner) {
        error = EPERM;
        return false;
    }
    trash.root = HXPath::appendingComponent(topdir, QStringLiteral(".Trash-") + QString::fromLatin1(uid));
    return openFilesAndInfo(trash, own, owner, error);
}

// The home trash's folders, opened once and kept while the path still leads to
// them: trashing many items then costs a rename and a record each.
std::shared_ptr<TrashFolders> homeTrash(const QString &root, int &error)
{
    static std::mutex mutex;
    static std::shared_ptr<TrashFolders> cached;
    const QByteArray files = QFile::encodeName(root + QStringLiteral("/files"));
    const QByteArray info = QFile::encodeName(root + QStringLiteral("/info"));
    auto same = [](const DirFd &fd, const QByteArray &path) {
        struct stat opened {};
        struct stat named {};
        return ::fstat(fd.get(), &opened) == 0 && opened.st_nlink > 0 &&
               ::stat(path.constData(), &named) == 0 && opened.st_dev == named.st_dev &&
               opened.st_ino == named.st_ino;
    };
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (cached && cached->root == root && cached->owner == trashOwner(root) &&
            same(cached->files, files) && same(cached->info, info))
            return cached;
    }
    auto trash = std::make_shared<TrashFolders>();
    trash->root = root;
    trash->owner = trashOwner(root);
    DirFd rootFd = openPath(root, trash->owner, true, error);
    if (!rootFd.valid() || !openFilesAndInfo(*trash, rootFd, trash->owner, error))
        return nullptr;
    const std::lock_guard<std::mutex> lock(mutex);
    cached = trash;
    return trash;
}

// Across mounts a rename is refused: the item is copied into the trash and then
// removed. A failed copy leaves nothing in the trash; a folder removed only in
// part keeps its complete copy there, so nothing is lost either way.
int copyThenRemove(const QString &original, const QString &trashed, bool &keepRecord)
{
    keepRecord = false;
    if (const int error = HXFileTree::copy(original, trashed); error != 0) {
        HXFileTree::remove(trashed);
        return error;
    }
    const int error = HXFileTree::remove(original);
    if (error == 0)
        return 0;
    keepRecord = QFileInfo(original).isDir() && !QFileInfo(original).isSymLink();
    if (!keepRecord)
        HXFileTree::remove(trashed);
    return error;
}

}  // namespace

namespace HXTrash {

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
    Outcome outcome;
    const QString original = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    const QString name = HXPath::lastComponent(original);
    const QByteArray originalName = QFile::encodeName(original);
    struct stat item {};
    if (path.isEmpty() || trashFilesFolder.isEmpty() || original == QLatin1String("/")) {
        outcome.error = EINVAL;
        return outcome;
    }
    if (::lstat(originalName.constData(), &item) != 0) {
        outcome.error = errno;
        return outcome;
    }

    int error = 0;
    const std::shared_ptr<TrashFolders> home =
        homeTrash(HXPath::deletingLastComponent(QDir::cleanPath(trashFilesFolder)), error);
    if (!home) {
        outcome.error = error;
        return outcome;
    }
    const uid_t owner = home->owner;
    TrashFolders *trashFolders = home.get();
    TrashFolders volume;
    struct stat filesInfo {};
    if (::fstat(home->files.get(), &filesInfo) != 0) {
        outcome.error = errno;
        return outcome;
    }
    if (filesInfo.st_dev != item.st_dev) {
        // Moving between file systems would copy; the volume's own trash keeps it a
        // rename. Without one the item is copied into the home trash below.
        const QString topdir = mountPointOf(HXPath::deletingLastComponent(original), item.st_dev);
        if (openVolumeTrash(volume, topdir, owner, error))
            trashFolders = &volume;
    }
    const TrashFolders &trash = *trashFolders;

    const QByteArray record = trashInfo(original, QDateTime::currentDateTime());
    for (int attempt = 1; attempt <= kMaxAttempts; ++attempt) {
        const QString candidate = candidateName(name, attempt);
        const QByteArray trashName = QFile::encodeName(candidate);
        const QByteArray infoName = trashName + ".trashinfo";
        const int fd = ::openat(trash.info.get(), infoName.constData(),
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST)
                continue;
            outcome.error = errno;
            return outcome;
        }
        // The record reserves the name; a stray item under it in files/ still takes it.
        struct stat stray {};
        const bool taken =
            ::fstatat(trash.files.get(), trashName.constData(), &stray, AT_SYMLINK_NOFOLLOW) == 0;
        bool written =
            !taken && ::write(fd, record.constData(), static_cast<size_t>(record.size())) == record.size();
        const int writeError = errno;
        if (written && ::geteuid() == 0 && owner != 0)
            written = ::fchown(fd, owner, static_cast<gid_t>(-1)) == 0;
        ::close(fd);
        if (!written) {
            ::unlinkat(trash.info.get(), infoName.constData(), 0);
            if (taken)
                continue;
            outcome.error = writeError ? writeError : EIO;
            return outcome;
        }
        if (::renameat(AT_FDCWD, originalName.constData(), trash.files.get(), trashName.constData()) != 0) {
            bool keepRecord = false;
            outcome.error =
                errno == EXDEV
                    ? copyThenRemove(original, trash.root + QStringLiteral("/files/") + candidate, keepRecord)
                    : errno;
            if (outcome.error != 0) {
                if (!keepRecord)
                    ::unlinkat(trash.info.get(), infoName.constData(), 0);
                return outcome;
            }
        }
        // The directorysizes cache is keyed by trash name and checked against the
        // record's time, so a new entry never makes it wrong: it stays untouched.
        outcome.trashed = true;
        outcome.trashedPath = trash.root + QStringLiteral("/files/") + candidate;
        outcome.infoPath = trash.root + QStringLiteral("/info/") + candidate + QStringLiteral(".trashinfo");
        return outcome;
    }
    outcome.error = EEXIST;
    return outcome;
}

}  // namespace HXTrash
