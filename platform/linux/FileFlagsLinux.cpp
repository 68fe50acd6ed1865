#include "platform/FileFlags.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

namespace {

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

// The file system keeps no flags for this item, or none at all.
bool flagsUnsupported(int error)
{
    return error == ENOTTY || error == EOPNOTSUPP || error == EINVAL;
}

int lookAt(const QByteArray &path, struct statx *info)
{
    return ::statx(AT_FDCWD, path.constData(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, info) == 0 ? 0 : errno;
}

bool reportsImmutable(const struct statx &info)
{
    return (info.stx_attributes_mask & STATX_ATTR_IMMUTABLE) != 0;
}

// Only files and folders are opened for their flags: opening a device or a pipe
// could have effects of its own, and a link is never followed.
bool canCarryFlags(const struct statx &info)
{
    return S_ISREG(info.stx_mode) || S_ISDIR(info.stx_mode);
}

int openForFlags(const QByteArray &path, const struct statx &info)
{
    int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC;
    if (S_ISDIR(info.stx_mode))
        flags |= O_DIRECTORY;
    return ::open(path.constData(), flags);
}

}  // namespace

std::optional<bool> isImmutable(const QString &path)
{
    const QByteArray name = QFile::encodeName(path);
    struct statx info {};
    if (lookAt(name, &info) != 0)
        return std::nullopt;
    if (reportsImmutable(info))
        return (info.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
    if (!canCarryFlags(info))
        return false;
    const Descriptor fd(openForFlags(name, info));
    if (fd.get() < 0)
        return std::nullopt;
    int flags = 0;
    if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0)
        return flagsUnsupported(errno) ? std::optional<bool>(false) : std::nullopt;
    return (flags & FS_IMMUTABLE_FL) != 0;
}

int setImmutable(const QString &path, bool immutable)
{
    const QByteArray name = QFile::encodeName(path);
    struct statx info {};
    if (const int error = lookAt(name, &info))
        return error;
    // Nothing to change needs no rights: clearing an unlocked item must work for
    // items the user does not own.
    if (reportsImmutable(info) && ((info.stx_attributes & STATX_ATTR_IMMUTABLE) != 0) == immutable)
        return 0;
    if (!canCarryFlags(info))
        return immutable ? EOPNOTSUPP : 0;

    const Descriptor fd(openForFlags(name, info));
    if (fd.get() < 0)
        return errno;
    int flags = 0;
    if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0) {
        const int error = errno;
        return flagsUnsupported(error) && !immutable ? 0 : error;
    }
    if (((flags & FS_IMMUTABLE_FL) != 0) == immutable)
        return 0;
    flags = immutable ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    return ::ioctl(fd.get(), FS_IOC_SETFLAGS, &flags) == 0 ? 0 : errno;
}

}  // namespace platform
