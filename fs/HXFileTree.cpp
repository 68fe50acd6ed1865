#include "fs/HXFileTree.h"

#include <QFile>

#include <cerrno>
#include <climits>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Removes NAME inside the folder PARENT and everything under it, never following
// a symbolic link. Returns 0 or the errno of the first failure.
int removeAt(int parent, const char *name)
{
    struct stat info {};
    if (::fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return errno;
    if (!S_ISDIR(info.st_mode))
        return ::unlinkat(parent, name, 0) == 0 ? 0 : errno;
    const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return errno;
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

int copyRegularFile(const QByteArray &from, const QByteArray &to, mode_t mode)
{
    const int in = ::open(from.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (in < 0)
        return errno;
    const int out =
        ::open(to.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode & 07777);
    if (out < 0) {
        const int error = errno;
        ::close(in);
        return error;
    }
    int error = 0;
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t count = ::read(in, buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR)
                continue;
            error = errno;
            break;
        }
        if (count == 0)
            break;
        for (ssize_t done = 0; done < count;) {
            const ssize_t written = ::write(out, buffer + done, static_cast<size_t>(count - done));
            if (written < 0) {
                if (errno == EINTR)
                    continue;
                error = errno;
                break;
            }
            done += written;
        }
        if (error != 0)
            break;
    }
    ::fchmod(out, mode & 07777);
    ::close(in);
    if (::close(out) != 0 && error == 0)
        error = errno;
    return error;
}

}  // namespace

namespace HXFileTree {

QStringList entries(const QString &folder)
{
    QStringList names;
    DIR *dir = ::opendir(QFile::encodeName(folder).constData());
    if (dir == nullptr)
        return names;
    while (const dirent *entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        names.append(QFile::decodeName(entry->d_name));
    }
    ::closedir(dir);
    return names;
}

static int copyItem(const QString &from, const QString &to)
{
    const QByteArray source = QFile::encodeName(from);
    const QByteArray destination = QFile::encodeName(to);
    struct stat info {};
    if (::lstat(source.constData(), &info) != 0)
        return errno;
    if (S_ISLNK(info.st_mode)) {
        QByteArray target(PATH_MAX, '\0');
        const ssize_t length =
            ::readlink(source.constData(), target.data(), static_cast<size_t>(target.size()));
        if (length < 0)
            return errno;
        target.truncate(length);
        return ::symlink(target.constData(), destination.constData()) == 0 ? 0 : errno;
    }
    if (S_ISDIR(info.st_mode)) {
        if (::mkdir(destination.constData(), 0700) != 0)
            return errno;
        for (const QString &name : entries(from))
            if (const int error =
                    HXFileTree::copy(from + QLatin1Char('/') + name, to + QLatin1Char('/') + name);
                error != 0)
                return error;
        return ::chmod(destination.constData(), info.st_mode & 07777) == 0 ? 0 : errno;
    }
    if (S_ISREG(info.st_mode))
        return copyRegularFile(source, destination, info.st_mode);
    return ENOTSUP;
}

int remove(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    return removeAt(AT_FDCWD, name.constData());
}

int copy(const QString &from, const QString &to)
{
    const int error = copyItem(from, to);
    if (error == 0 && ::geteuid() == 0) {
        // Root copies keep their owners, so a user's item stays the user's.
        struct stat info {};
        if (::lstat(QFile::encodeName(from).constData(), &info) == 0) [[maybe_unused]]
            const int ignored = ::lchown(QFile::encodeName(to).constData(), info.st_uid, info.st_gid);
    }
    return error;
}

}  // namespace HXFileTree
