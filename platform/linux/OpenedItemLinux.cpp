#include "platform/OpenedItem.h"

#include "platform/Identity.h"
#include "platform/linux/DescriptorPaths.h"

#include <QByteArray>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

using linux_detail::descriptorPath;
using linux_detail::fail;

std::optional<OpenedItem> OpenedItem::open(const Folder &folder, const char *name, int *error)
{
    if (*name == '\0' || std::strchr(name, '/') != nullptr || std::strcmp(name, "..") == 0) {
        fail(error, EINVAL);
        return std::nullopt;
    }
    const int fd = ::openat(folder.descriptor(), name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        fail(error, errno);
        return std::nullopt;
    }
    return OpenedItem(fd);
}

std::optional<OpenedItem> OpenedItem::of(const Folder &folder, int *error)
{
    const int fd = ::fcntl(folder.descriptor(), F_DUPFD_CLOEXEC, 0);
    if (fd < 0) {
        fail(error, errno);
        return std::nullopt;
    }
    return OpenedItem(fd);
}

std::optional<ItemAttributes> OpenedItem::attributes() const
{
    return attributesOfDescriptor(m_fd.get());
}

int OpenedItem::refusal() const
{
    struct stat info {};
    if (::fstat(m_fd.get(), &info) != 0)
        return errno;
    if (S_ISLNK(info.st_mode))
        return EOPNOTSUPP;
    if (hasRootRights() && !S_ISDIR(info.st_mode) && info.st_nlink > 1)
        return EMLINK;
    return 0;
}

int OpenedItem::setOwner(uid_t owner, gid_t group) const
{
    if (const int refused = refusal())
        return refused;
    return ::fchownat(m_fd.get(), "", owner, group, AT_EMPTY_PATH) == 0 ? 0 : errno;
}

int OpenedItem::setMode(mode_t mode) const
{
    if (const int refused = refusal())
        return refused;
    return ::chmod(descriptorPath(m_fd.get()).constData(), mode & 07777) == 0 ? 0 : errno;
}

int OpenedItem::clearImmutable() const
{
    if (const int refused = refusal())
        return refused;
    struct stat info {};
    if (::fstat(m_fd.get(), &info) != 0)
        return errno;
    // Files and folders only: opening a device or a pipe could have effects of its own.
    if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode))
        return 0;
    Descriptor fd(
        ::open(descriptorPath(m_fd.get()).constData(),
               O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (S_ISDIR(info.st_mode) ? O_DIRECTORY : 0)));
    if (fd.get() < 0)
        return errno;
    int flags = 0;
    if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0)
        return errno == ENOTTY || errno == EOPNOTSUPP ? 0 : errno;
    if ((flags & FS_IMMUTABLE_FL) == 0)
        return 0;
    flags &= ~FS_IMMUTABLE_FL;
    return ::ioctl(fd.get(), FS_IOC_SETFLAGS, &flags) == 0 ? 0 : errno;
}

}  // namespace platform
