#include "platform/Folder.h"

#include "platform/Accounts.h"
#include "platform/Descriptor.h"
#include "platform/FolderScan.h"
#include "platform/Identity.h"
#include "platform/OpenedItem.h"
#include "platform/linux/DescriptorPaths.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

using linux_detail::descriptorPath;
using linux_detail::fail;
using linux_detail::reopenForFlags;

namespace {

constexpr int kMaxLinks = 40;
constexpr int kPathFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

QByteArray encoded(const QString &name)
{
    return QFile::encodeName(name);
}

// A usable single component: not empty, no "/", not "." or "..".
bool isPlainName(const QByteArray &name)
{
    return !name.isEmpty() && !name.contains('/') && name != "." && name != "..";
}

bool isTrustedOwner(uid_t owner)
{
    return owner == 0 || owner == ::geteuid();
}

// Only root or we can have made or changed the link LINK inside the folder FOLDER.
bool mayFollow(int folder, const struct stat &link)
{
    struct stat folderInfo {};
    if (::fstat(folder, &folderInfo) != 0)
        return false;
    const bool guarded =
        (folderInfo.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (folderInfo.st_mode & S_ISVTX) != 0;
    return isTrustedOwner(link.st_uid) && isTrustedOwner(folderInfo.st_uid) && guarded;
}

struct Step {
    QByteArray name;
    bool fromLink = false;  // part of a followed link's target: may climb
};

QList<Step> stepsOf(const QByteArray &path, bool fromLink)
{
    QList<Step> steps;
    for (const QByteArray &name : path.split('/'))
        if (!name.isEmpty() && name != ".")
            steps.append({name, fromLink});
    return steps;
}

int openRoot(int *error)
{
    const int fd = ::open("/", kPathFlags & ~O_NOFOLLOW);
    return fd >= 0 ? fd : fail(error, errno);
}

struct MakeMissing {
    bool enabled = false;
    mode_t mode = 0755;
    std::optional<uid_t> owner;
};

// Walks STEPS from the folder START (consumed) and returns the descriptor of the
// folder they name, making missing ones when asked.
int walk(int start, QList<Step> steps, const MakeMissing &make, int *error)
{
    Descriptor current(start);
    int links = 0;
    while (!steps.isEmpty()) {
        const Step step = steps.takeFirst();
        if (step.name == "..") {
            // Only a trusted link's own target may climb; the caller's path may not.
            if (!step.fromLink)
                return fail(error, ELOOP);
            const int up = ::openat(current.get(), "..", kPathFlags & ~O_NOFOLLOW);
            if (up < 0)
                return fail(error, errno);
            Descriptor next(up);
            current.reset(next.release());
            continue;
        }
        struct stat info {};
        if (::fstatat(current.get(), step.name.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT || !make.enabled)
                return fail(error, errno);
            if (::mkdirat(current.get(), step.name.constData(), make.mode) != 0 && errno != EEXIST)
                return fail(error, errno);
            Descriptor made(::openat(current.get(), step.name.constData(), kPathFlags));
            if (made.get() < 0)
                return fail(error, errno == ELOOP ? ENOTDIR : errno);
            if (hasRootRights() && make.owner && *make.owner != 0 &&
                ::fchownat(made.get(), "", *make.owner, primaryGroupOf(*make.owner), AT_EMPTY_PATH) != 0)
                return fail(error, errno);
            current.reset(made.release());
            continue;
        }
        if (S_ISLNK(info.st_mode)) {
            if (!mayFollow(current.get(), info) || ++links > kMaxLinks)
                return fail(error, ELOOP);
            char target[4096];
            const ssize_t length = ::readlinkat(current.get(), step.name.constData(), target, sizeof target);
            if (length <= 0 || length == static_cast<ssize_t>(sizeof target))
                return fail(error, ELOOP);
            const QByteArray text(target, length);
            if (text.startsWith('/')) {
                Descriptor root(openRoot(error));
                if (root.get() < 0)
                    return -1;
                current.reset(root.release());
            }
            steps = stepsOf(text, true) + steps;
            continue;
        }
        if (!S_ISDIR(info.st_mode))
            return fail(error, ENOTDIR);
        // O_NOFOLLOW with O_DIRECTORY: a link put in place since the look fails here.
        Descriptor next(::openat(current.get(), step.name.constData(), kPathFlags));
        if (next.get() < 0)
            return fail(error, errno == ELOOP ? ENOTDIR : errno);
        current.reset(next.release());
    }
    return current.release();
}

// The whole path in one call when no link and no ".." lies on it, which is the
// common case; -1 otherwise (or on an old kernel), and the walk decides.
int openWithoutLinks(const QByteArray &path)
{
    open_how how{};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    const long fd = ::syscall(SYS_openat2, AT_FDCWD, path.constData(), &how, sizeof how);
    return fd >= 0 ? static_cast<int>(fd) : -1;
}

// PATH as the kernel resolves it for this thread's identity, every link and ".."
// followed: a process acting as itself, or root acting as a user, whose every
// step the kernel checks.
int walkAsTheSystemDoes(const QByteArray &absolute, const MakeMissing &make, int *error)
{
    constexpr int kFollowing = kPathFlags & ~O_NOFOLLOW;
    if (!make.enabled) {
        const int fd = ::open(absolute.constData(), kFollowing);
        return fd >= 0 ? fd : fail(error, errno);
    }
    Descriptor current(openRoot(error));
    if (current.get() < 0)
        return -1;
    for (const QByteArray &name : absolute.split('/')) {
        if (name.isEmpty())
            continue;
        int next = ::openat(current.get(), name.constData(), kFollowing);
        if (next < 0 && errno == ENOENT) {
            if (::mkdirat(current.get(), name.constData(), make.mode) != 0 && errno != EEXIST)
                return fail(error, errno);
            next = ::openat(current.get(), name.constData(), kFollowing);
        }
        if (next < 0)
            return fail(error, errno);
        current.reset(next);
    }
    return current.release();
}

int walkPath(const QString &path, const MakeMissing &make, int *error)
{
    const QByteArray absolute = encoded(absoluteItemPath(path));
    if (!hasRootRights())
        return walkAsTheSystemDoes(absolute, make, error);
    QList<Step> steps = stepsOf(absolute, false);
    const bool climbs =
        std::any_of(steps.begin(), steps.end(), [](const Step &step) { return step.name == ".."; });
    if (!climbs)
        if (const int fd = openWithoutLinks(absolute); fd >= 0)
            return fd;
    const int root = openRoot(error);
    if (root < 0)
        return -1;
    return walk(root, std::move(steps), make, error);
}

// NAME opened for changing its attributes: O_PATH, never through a link.
int openEntry(int folder, const QByteArray &name, struct stat &info, int *error)
{
    if (!isPlainName(name))
        return fail(error, EINVAL);
    const int fd = ::openat(folder, name.constData(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return fail(error, errno);
    if (::fstat(fd, &info) != 0) {
        const int saved = errno;
        ::close(fd);
        return fail(error, saved);
    }
    return fd;
}

// Files and folders only: opening a device or a pipe could have effects of its own.
int openForFlags(int folder, const QByteArray &name, int *error)
{
    struct stat info {};
    Descriptor entry(openEntry(folder, name, info, error));
    if (entry.get() < 0)
        return -1;
    if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode))
        return fail(error, EOPNOTSUPP);
    // Reopened through the descriptor, so it is the very item looked at.
    const int fd = reopenForFlags(entry.get(), info.st_mode);
    return fd >= 0 ? fd : fail(error, errno);
}

bool flagsUnsupported(int error)
{
    return error == ENOTTY || error == EOPNOTSUPP || error == EINVAL;
}

int removeAt(int parent, const char *name)
{
    struct stat info {};
    if (::fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return errno;
    if (!S_ISDIR(info.st_mode))
        return ::unlinkat(parent, name, 0) == 0 ? 0 : errno;
    const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return errno == ELOOP ? ENOTDIR : errno;
    DIR *dir = ::fdopendir(fd);
    if (dir == nullptr) {
        const int error = errno;
        ::close(fd);
        return error;
    }
    int error = 0;
    while (const dirent *entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        if (const int failed = removeAt(fd, entry->d_name); failed != 0 && error == 0)
            error = failed;
    }
    ::closedir(dir);
    if (error != 0)
        return error;
    return ::unlinkat(parent, name, AT_REMOVEDIR) == 0 ? 0 : errno;
}

int copyData(int in, int out, const CopyProgress &progress)
{
    char buffer[128 * 1024];
    for (;;) {
        const ssize_t count = ::read(in, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return errno;
        if (count == 0)
            return 0;
        for (ssize_t done = 0; done < count;) {
            const ssize_t written = ::write(out, buffer + done, static_cast<size_t>(count - done));
            if (written < 0 && errno == EINTR)
                continue;
            if (written < 0)
                return errno;
            done += written;
        }
        if (progress && !progress(static_cast<std::uint64_t>(count), 0))
            return ECANCELED;
    }
}

// Owner (as root) and permission bits of an item we made, on its descriptor.
int finish(int fd, const struct stat &source)
{
    if (hasRootRights() && ::fchownat(fd, "", source.st_uid, source.st_gid, AT_EMPTY_PATH) != 0)
        return errno;
    return ::chmod(descriptorPath(fd).constData(), source.st_mode & 07777) == 0 ? 0 : errno;
}

int copyItemAt(int from, const char *name, int to, const char *toName, const CopyProgress &progress);

// One item and what lies below it, counted as one item more when complete.
int copyAt(int from, const char *name, int to, const char *toName, const CopyProgress &progress)
{
    const int error = copyItemAt(from, name, to, toName, progress);
    return error == 0 && progress && !progress(0, 1) ? ECANCELED : error;
}

int copyItemAt(int from, const char *name, int to, const char *toName, const CopyProgress &progress)
{
    struct stat info {};
    if (::fstatat(from, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return errno;
    if (S_ISLNK(info.st_mode)) {
        char target[4096];
        const ssize_t length = ::readlinkat(from, name, target, sizeof target - 1);
        if (length < 0)
            return errno;
        target[length] = '\0';
        if (::symlinkat(target, to, toName) != 0)
            return errno;
        if (!hasRootRights())
            return 0;
        // Owned through a descriptor of the very link made: the name may have been
        // swapped for a hard link to anything since.
        Descriptor link(::openat(to, toName, O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat made {};
        if (link.get() < 0 || ::fstat(link.get(), &made) != 0)
            return errno;
        if (!S_ISLNK(made.st_mode))
            return EAGAIN;
        return ::fchownat(link.get(), "", info.st_uid, info.st_gid, AT_EMPTY_PATH) == 0 ? 0 : errno;
    }
    if (S_ISREG(info.st_mode)) {
        Descriptor in(::openat(from, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (in.get() < 0)
            return errno;
        struct stat opened {};
        if (::fstat(in.get(), &opened) != 0 || !S_ISREG(opened.st_mode))
            return EAGAIN;
        Descriptor out(::openat(to, toName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (out.get() < 0)
            return errno;
        if (const int error = copyData(in.get(), out.get(), progress))
            return error;
        return finish(out.get(), opened);
    }
    if (!S_ISDIR(info.st_mode))
        return ENOTSUP;
    Descriptor source(::openat(from, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (source.get() < 0)
        return errno == ELOOP ? ENOTDIR : errno;
    struct stat opened {};
    if (::fstat(source.get(), &opened) != 0)
        return errno;
    // Root's alone (0700) until complete: nobody can swap anything inside it meanwhile.
    if (::mkdirat(to, toName, 0700) != 0)
        return errno;
    Descriptor made(::openat(to, toName, kPathFlags));
    if (made.get() < 0)
        return errno;
    DIR *dir = ::fdopendir(::dup(source.get()));
    if (dir == nullptr)
        return errno;
    int error = 0;
    while (const dirent *entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        if ((error = copyAt(source.get(), entry->d_name, made.get(), entry->d_name, progress)) != 0)
            break;
    }
    ::closedir(dir);
    return error != 0 ? error : finish(made.get(), opened);
}

}  // namespace

QString absoluteItemPath(const QString &path)
{
    QString absolute =
        path.startsWith(QLatin1Char('/')) ? path : QDir::currentPath() + QLatin1Char('/') + path;
    QStringList kept;
    for (const QString &component : absolute.split(QLatin1Char('/'), Qt::SkipEmptyParts))
        if (component != QLatin1String("."))
            kept.append(component);
    return QLatin1Char('/') + kept.join(QLatin1Char('/'));
}

Folder::Folder(Folder &&other) noexcept : m_fd(other.m_fd)
{
    other.m_fd = -1;
}

Folder &Folder::operator=(Folder &&other) noexcept
{
    if (this != &other) {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = other.m_fd;
        other.m_fd = -1;
    }
    return *this;
}

Folder::~Folder()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

std::optional<Folder> Folder::open(const QString &path, int *error)
{
    const int fd = walkPath(path, MakeMissing{}, error);
    return fd >= 0 ? std::optional<Folder>(Folder(fd)) : std::nullopt;
}

std::optional<Folder> Folder::openMakingPath(const QString &path, mode_t mode, std::optional<uid_t> owner,
                                             int *error)
{
    const int fd = walkPath(path, MakeMissing{true, mode, owner}, error);
    return fd >= 0 ? std::optional<Folder>(Folder(fd)) : std::nullopt;
}

std::optional<Folder> Folder::openAs(const Account &account, const QString &path,
                                     std::optional<mode_t> makeMode, int *error)
{
    int fd = -1;
    {
        const ActingAs acting(account);
        fd = walkPath(path, MakeMissing{makeMode.has_value(), makeMode.value_or(0755), std::nullopt}, error);
    }
    if (fd < 0)
        return std::nullopt;
    Folder folder(fd);
    const std::optional<struct stat> info = folder.info();
    if (!info || info->st_uid != account.uid) {
        fail(error, EPERM);
        return std::nullopt;
    }
    return folder;
}

std::optional<Folder> Folder::duplicate() const
{
    const int fd = ::fcntl(m_fd, F_DUPFD_CLOEXEC, 0);
    return fd >= 0 ? std::optional<Folder>(Folder(fd)) : std::nullopt;
}

std::optional<struct stat> Folder::info() const
{
    struct stat info {};
    if (::fstat(m_fd, &info) != 0)
        return std::nullopt;
    return info;
}

std::optional<struct stat> Folder::infoOf(const QString &name) const
{
    return infoOf(encoded(name).constData());
}

std::optional<struct stat> Folder::infoOf(const char *name) const
{
    struct stat info {};
    if (!isPlainName(QByteArray::fromRawData(name, qsizetype(std::strlen(name)))) ||
        ::fstatat(m_fd, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    return info;
}

QStringList Folder::entries(int *error) const
{
    QStringList names;
    forEachEntry(
        *this, [&names](const char *name, EntryKind) { names.append(QFile::decodeName(name)); }, error);
    return names;
}

std::optional<Folder> Folder::folder(const QString &name, int *error) const
{
    const QByteArray entry = encoded(name);
    if (!isPlainName(entry)) {
        fail(error, EINVAL);
        return std::nullopt;
    }
    if (!hasRootRights()) {
        const int fd = ::openat(m_fd, entry.constData(), kPathFlags & ~O_NOFOLLOW);
        if (fd < 0) {
            fail(error, errno);
            return std::nullopt;
        }
        return Folder(fd);
    }
    const int start = ::dup(m_fd);
    if (start < 0) {
        fail(error, errno);
        return std::nullopt;
    }
    const int fd = walk(start, {Step{entry, false}}, MakeMissing{}, error);
    return fd >= 0 ? std::optional<Folder>(Folder(fd)) : std::nullopt;
}

std::optional<Folder> Folder::realFolder(const QString &name, int *error) const
{
    const QByteArray entry = encoded(name);
    if (!isPlainName(entry)) {
        fail(error, EINVAL);
        return std::nullopt;
    }
    const int fd = ::openat(m_fd, entry.constData(), kPathFlags);
    if (fd < 0) {
        fail(error, errno == ELOOP ? ENOTDIR : errno);
        return std::nullopt;
    }
    return Folder(fd);
}

std::optional<Folder> Folder::makeFolder(const QString &name, mode_t mode, int *error) const
{
    const QByteArray entry = encoded(name);
    if (!isPlainName(entry)) {
        fail(error, EINVAL);
        return std::nullopt;
    }
    if (::mkdirat(m_fd, entry.constData(), mode) != 0) {
        fail(error, errno);
        return std::nullopt;
    }
    return realFolder(name, error);
}

std::optional<Folder> Folder::parent(int *error) const
{
    const int fd = ::openat(m_fd, "..", kPathFlags & ~O_NOFOLLOW);
    if (fd < 0) {
        fail(error, errno);
        return std::nullopt;
    }
    return Folder(fd);
}

int Folder::createFile(const QString &name, mode_t mode, int *error) const
{
    const QByteArray entry = encoded(name);
    if (!isPlainName(entry))
        return fail(error, EINVAL);
    const int fd =
        ::openat(m_fd, entry.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    return fd >= 0 ? fd : fail(error, errno);
}

namespace {

bool writeAll(int fd, const QByteArray &contents)
{
    for (qsizetype done = 0; done < contents.size();) {
        const ssize_t count =
            ::write(fd, contents.constData() + done, static_cast<size_t>(contents.size() - done));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        done += count;
    }
    return true;
}

}  // namespace

int Folder::writeWholeFile(const QString &name, const QByteArray &contents, mode_t mode,
                           std::optional<std::pair<uid_t, gid_t>> owner, bool replace) const
{
    const QByteArray entry = encoded(name);
    if (!isPlainName(entry))
        return EINVAL;
    auto prepare = [&](int fd) {
        errno = 0;
        if (!writeAll(fd, contents) || (owner && ::fchown(fd, owner->first, owner->second) != 0))
            return errno ? errno : EIO;
        return 0;
    };
    // A replacement is linked under a hidden name first and renamed over NAME; a
    // new file is linked under NAME itself, which claims it as O_EXCL would.
    const QByteArray temporary = "." + entry + "." + QByteArray::number(::getpid()) + ".tmp";
    const QByteArray &linkName = replace ? temporary : entry;
    auto publish = [&](int error) {
        if (!replace)
            return error;
        error = ::renameat(m_fd, temporary.constData(), m_fd, entry.constData()) == 0 ? 0 : errno;
        if (error != 0)
            ::unlinkat(m_fd, temporary.constData(), 0);
        return error;
    };
    ::unlinkat(m_fd, temporary.constData(), 0);  // a killed writer's, of the same number
    // Written as a file without a name, then linked: a kill while writing leaves
    // nothing behind.
    const Descriptor unnamed(::openat(m_fd, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode));
    if (unnamed.get() >= 0) {
        if (const int error = prepare(unnamed.get()))
            return error;
        const QByteArray self = "/proc/self/fd/" + QByteArray::number(unnamed.get());
        if (::linkat(AT_FDCWD, self.constData(), m_fd, linkName.constData(), AT_SYMLINK_FOLLOW) == 0 ||
            ::linkat(unnamed.get(), "", m_fd, linkName.constData(), AT_EMPTY_PATH) == 0)
            return publish(0);
        if (errno == EEXIST)
            return EEXIST;
    }
    // Without unnamed files (or /proc): the hidden file is written in place.
    const Descriptor named(
        ::openat(m_fd, temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (named.get() < 0)
        return errno;
    int error = prepare(named.get());
    if (error == 0 && replace)
        return publish(0);
    if (error == 0 && ::linkat(m_fd, temporary.constData(), m_fd, entry.constData(), 0) != 0)
        error = errno;
    ::unlinkat(m_fd, temporary.constData(), 0);
    return error;
}

int Folder::openFileForReading(const QString &name, int *error) const
{
    const QByteArray entry = encoded(name);
    if (!isPlainName(entry))
        return fail(error, EINVAL);
    Descriptor fd(
        ::openat(m_fd, entry.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd.get() < 0)
        return fail(error, errno);
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0)
        return fail(error, errno);
    if (!S_ISREG(info.st_mode))
        return fail(error, S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
    // Blocking reads from here on.
    ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
    return fd.release();
}

std::optional<QByteArray> Folder::linkTarget(const QString &name) const
{
    const QByteArray entry = encoded(name);
    char target[4096];
    const ssize_t length =
        isPlainName(entry) ? ::readlinkat(m_fd, entry.constData(), target, sizeof target) : -1;
    if (length < 0 || length == static_cast<ssize_t>(sizeof target))
        return std::nullopt;
    return QByteArray(target, length);
}

int Folder::makeLink(const QByteArray &target, const QString &name) const
{
    const QByteArray entry = encoded(name);
    if (!isPlainName(entry))
        return EINVAL;
    return ::symlinkat(target.constData(), m_fd, entry.constData()) == 0 ? 0 : errno;
}

int Folder::rename(const QString &name, const Folder &destination, const QString &toName, bool replace) const
{
    const QByteArray from = encoded(name);
    const QByteArray to = encoded(toName);
    if (!isPlainName(from) || !isPlainName(to))
        return EINVAL;
    return ::renameat2(m_fd, from.constData(), destination.m_fd, to.constData(),
                       replace ? 0 : RENAME_NOREPLACE) == 0
               ? 0
               : errno;
}

int Folder::removeEntry(const QString &name) const
{
    const QByteArray entry = encoded(name);
    struct stat info {};
    if (!isPlainName(entry))
        return EINVAL;
    if (::fstatat(m_fd, entry.constData(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return errno;
    return ::unlinkat(m_fd, entry.constData(), S_ISDIR(info.st_mode) ? AT_REMOVEDIR : 0) == 0 ? 0 : errno;
}

int Folder::removeTree(const QString &name) const
{
    const QByteArray entry = encoded(name);
    if (!isPlainName(entry))
        return EINVAL;
    return removeAt(m_fd, entry.constData());
}

int Folder::copyTree(const QString &name, const Folder &destination, const QString &toName,
                     const CopyProgress &progress) const
{
    const QByteArray from = encoded(name);
    const QByteArray to = encoded(toName);
    if (!isPlainName(from) || !isPlainName(to))
        return EINVAL;
    return copyAt(m_fd, from.constData(), destination.m_fd, to.constData(), progress);
}

int Folder::setOwner(const QString &name, uid_t owner, gid_t group) const
{
    int error = 0;
    const std::optional<OpenedItem> item = OpenedItem::open(*this, encoded(name).constData(), &error);
    return item ? item->setOwner(owner, group) : error;
}

int Folder::setMode(const QString &name, mode_t mode) const
{
    int error = 0;
    const std::optional<OpenedItem> item = OpenedItem::open(*this, encoded(name).constData(), &error);
    return item ? item->setMode(mode) : error;
}

std::optional<bool> Folder::isImmutable(const QString &name) const
{
    const QByteArray entry = encoded(name);
    struct statx info {};
    if (!isPlainName(entry) || ::statx(m_fd, entry.constData(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &info) != 0)
        return std::nullopt;
    if ((info.stx_attributes_mask & STATX_ATTR_IMMUTABLE) != 0)
        return (info.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
    if (!S_ISREG(info.stx_mode) && !S_ISDIR(info.stx_mode))
        return false;
    int error = 0;
    Descriptor fd(openForFlags(m_fd, entry, &error));
    if (fd.get() < 0)
        return std::nullopt;
    int flags = 0;
    if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0)
        return flagsUnsupported(errno) ? std::optional<bool>(false) : std::nullopt;
    return (flags & FS_IMMUTABLE_FL) != 0;
}

int Folder::setImmutable(const QString &name, bool immutable) const
{
    const QByteArray entry = encoded(name);
    struct statx info {};
    if (!isPlainName(entry))
        return EINVAL;
    if (::statx(m_fd, entry.constData(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &info) != 0)
        return errno;
    // Nothing to change needs no rights: clearing an unlocked item must work for
    // items the user does not own.
    if ((info.stx_attributes_mask & STATX_ATTR_IMMUTABLE) != 0 &&
        ((info.stx_attributes & STATX_ATTR_IMMUTABLE) != 0) == immutable)
        return 0;
    if (!S_ISREG(info.stx_mode) && !S_ISDIR(info.stx_mode))
        return immutable ? EOPNOTSUPP : 0;
    int error = 0;
    Descriptor fd(openForFlags(m_fd, entry, &error));
    if (fd.get() < 0)
        return error == EOPNOTSUPP && !immutable ? 0 : error;
    int flags = 0;
    if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0) {
        const int failed = errno;
        return flagsUnsupported(failed) && !immutable ? 0 : failed;
    }
    if (((flags & FS_IMMUTABLE_FL) != 0) == immutable)
        return 0;
    flags = immutable ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    if (::ioctl(fd.get(), FS_IOC_SETFLAGS, &flags) == 0)
        return 0;
    const int failed = errno;
    // The Mac lets an owner lock and unlock her own items; Linux wants a
    // capability for it. Root acting as her lends it for her items alone, on
    // the descriptor she opened.
    struct stat owner {};
    const std::optional<uid_t> acting = actingUser();
    if (failed != EPERM || !acting || ::fstat(fd.get(), &owner) != 0 || owner.st_uid != *acting)
        return failed;
    const WithRootRights root;
    return ::ioctl(fd.get(), FS_IOC_SETFLAGS, &flags) == 0 ? 0 : errno;
}

int Folder::touch(const QString &name) const
{
    const QByteArray entry = encoded(name);
    if (!isPlainName(entry))
        return EINVAL;
    return ::utimensat(m_fd, entry.constData(), nullptr, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

std::optional<Item> Item::open(const QString &path, int *error)
{
    if (path.isEmpty()) {
        fail(error, ENOENT);
        return std::nullopt;
    }
    const QString absolute = absoluteItemPath(path);
    const qsizetype slash = absolute.lastIndexOf(QLatin1Char('/'));
    const QString name = absolute.mid(slash + 1);
    if (name.isEmpty() || name == QLatin1String("..")) {
        fail(error, EINVAL);
        return std::nullopt;
    }
    std::optional<Folder> folder =
        Folder::open(slash == 0 ? QStringLiteral("/") : absolute.left(slash), error);
    if (!folder)
        return std::nullopt;
    return Item{std::move(*folder), name};
}

}  // namespace platform
