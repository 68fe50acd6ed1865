#include "platform/CopyFiles.h"

#include "platform/Folder.h"
#include "platform/Identity.h"
#include "platform/linux/DescriptorPaths.h"

#include <QFile>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace platform {

using linux_detail::descriptorPath;
using linux_detail::fail;

namespace {

constexpr int kOpenFlags = O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// PATH opened with FLAGS: as root through the folder walk and never through a
// link at the end; otherwise as the kernel resolves it, as any program would.
int openPath(const QString &path, int flags, int *error)
{
    if (!hasRootRights()) {
        const int fd = ::open(QFile::encodeName(path).constData(), flags | kOpenFlags, 0666);
        return fd >= 0 ? fd : fail(error, errno);
    }
    const std::optional<Item> item = Item::open(path, error);
    if (!item)
        return -1;
    const int fd = ::openat(item->folder.descriptor(), QFile::encodeName(item->name).constData(),
                            flags | kOpenFlags | O_NOFOLLOW, 0666);
    return fd >= 0 ? fd : fail(error, errno);
}

// Only regular files, and as root none with other names elsewhere; blocking I/O
// from here on (the descriptor was opened without blocking so that a pipe could
// not hold us up).
int checkedRegularFile(Descriptor &fd, bool refuseHardLinks, int *error)
{
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0)
        return fail(error, errno);
    if (!S_ISREG(info.st_mode))
        return fail(error, S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
    if (refuseHardLinks && hasRootRights() && info.st_nlink > 1)
        return fail(error, EMLINK);
    ::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
    return fd.release();
}

bool setDirect(int fd, bool direct)
{
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, direct ? (flags | O_DIRECT) : (flags & ~O_DIRECT)) == 0;
}

// Writes all of LENGTH bytes at OFFSET unless the system refuses; the count written.
std::size_t writeFully(int fd, const char *data, std::size_t length, std::uint64_t offset, int *error)
{
    std::size_t done = 0;
    while (done < length) {
        const ssize_t written = ::pwrite(fd, data + done, length - done, static_cast<off_t>(offset + done));
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            fail(error, written < 0 ? errno : ENOSPC);
            break;
        }
        done += static_cast<std::size_t>(written);
    }
    return done;
}

}  // namespace

int openFileForCopying(const QString &path, int *error)
{
    Descriptor fd(openPath(path, O_RDONLY, error));
    if (fd.get() < 0)
        return -1;
    const int checked = checkedRegularFile(fd, false, error);
    if (checked >= 0)
        ::posix_fadvise(checked, 0, 0, POSIX_FADV_SEQUENTIAL);
    return checked;
}

std::optional<CopyDestination> CopyDestination::open(const QString &path, bool readBack, int *error)
{
    Descriptor fd(openPath(path, O_RDWR | O_CREAT, error));
    if (fd.get() < 0)
        return std::nullopt;
    // Emptied only once we know what it is.
    const int checked = checkedRegularFile(fd, true, error);
    if (checked < 0)
        return std::nullopt;
    CopyDestination destination;
    destination.m_write.reset(checked);
    if (::ftruncate(checked, 0) != 0) {
        fail(error, errno);
        return std::nullopt;
    }
    if (!readBack)
        return destination;
    destination.m_writesDirect = setDirect(checked, true);
    // A descriptor of its own for reading, so that the writer's switch to cached
    // writes for an unaligned tail leaves reads direct.
    const QByteArray reopened = descriptorPath(checked);
    destination.m_read.reset(::open(reopened.constData(), O_RDONLY | O_CLOEXEC | O_DIRECT));
    destination.m_direct = destination.m_read.get() >= 0;
    if (!destination.m_direct)
        destination.m_read.reset(::open(reopened.constData(), O_RDONLY | O_CLOEXEC));
    if (destination.m_read.get() < 0) {
        fail(error, errno);
        return std::nullopt;
    }
    return destination;
}

std::size_t CopyDestination::writeAt(const char *data, std::size_t length, std::uint64_t offset, int *error)
{
    const std::size_t done = writeRange(data, length, offset, error);
    m_writtenThrough->store(offset + done);
    return done;
}

std::size_t CopyDestination::writeRange(const char *data, std::size_t length, std::uint64_t offset,
                                        int *error)
{
    const int fd = m_write.get();
    int failure = 0;
    std::size_t done = 0;
    if (m_writesDirect && offset % kStorageAlignment == 0) {
        const std::size_t aligned = length - length % kStorageAlignment;
        done = writeFully(fd, data, aligned, offset, &failure);
        if (done == length)
            return done;
        if (done != aligned && failure != EINVAL) {
            fail(error, failure);
            return done;
        }
    }
    // An unaligned tail, or a file system that refuses direct writes after all:
    // cached writes from here on (reads stay direct on their own descriptor).
    if (m_writesDirect && setDirect(fd, false))
        m_writesDirect = false;
    done += writeFully(fd, data + done, length - done, offset + done, &failure);
    if (done < length)
        fail(error, failure);
    return done;
}

std::ptrdiff_t CopyDestination::readBackAt(char *buffer, std::size_t length, std::uint64_t offset, int *error)
{
    // Down to stable storage first, so that what comes back is what stays. One
    // flush covers everything written before it, often several ranges ahead.
    if (offset + length > m_syncedThrough) {
        const std::uint64_t written = m_writtenThrough->load();
        if (::fdatasync(m_write.get()) != 0)
            return fail(error, errno);
        m_syncedThrough = written;
    }
    const int fd = m_read.get();
    if (!m_direct)
        ::posix_fadvise(fd, static_cast<off_t>(offset), static_cast<off_t>(length), POSIX_FADV_DONTNEED);
    const std::size_t wanted =
        m_direct ? (length + kStorageAlignment - 1) / kStorageAlignment * kStorageAlignment : length;
    std::size_t done = 0;
    while (done < wanted) {
        const ssize_t count = ::pread(fd, buffer + done, wanted - done, static_cast<off_t>(offset + done));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return fail(error, errno);
        if (count == 0)
            break;
        done += static_cast<std::size_t>(count);
        // A direct read ends short only at the end of the file.
        if (m_direct && done % kStorageAlignment != 0)
            break;
    }
    // Nor does the copy stay in memory afterwards, pushing out what the user works with.
    if (!m_direct)
        ::posix_fadvise(fd, static_cast<off_t>(offset), static_cast<off_t>(length), POSIX_FADV_DONTNEED);
    return static_cast<std::ptrdiff_t>(std::min(done, length));
}

std::optional<FileMetadata> metadataOfDescriptor(int fd, int *error)
{
    FileMetadata metadata;
    if (::fstat(fd, &metadata.info) != 0) {
        fail(error, errno);
        return std::nullopt;
    }
    int flags = 0;
    if (S_ISREG(metadata.info.st_mode) && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0) {
        metadata.immutable = (flags & FS_IMMUTABLE_FL) != 0;
        metadata.appendOnly = (flags & FS_APPEND_FL) != 0;
    }
    return metadata;
}

int applyMetadata(int fd, const FileMetadata &metadata)
{
    struct stat current {};
    if (::fstat(fd, &current) != 0)
        return errno;
    if (hasRootRights() && current.st_nlink > 1)
        return EMLINK;
    const struct stat &source = metadata.info;
    if ((current.st_uid != source.st_uid || current.st_gid != source.st_gid) &&
        ::fchown(fd, source.st_uid, source.st_gid) != 0)
        return errno;
    if (::fchmod(fd, source.st_mode & 07777) != 0)
        return errno;
    const struct timespec times[2] = {source.st_atim, source.st_mtim};
    if (::futimens(fd, times) != 0)
        return errno;
    if (!metadata.immutable && !metadata.appendOnly)
        return 0;
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0)
        return errno;
    flags |= (metadata.immutable ? FS_IMMUTABLE_FL : 0) | (metadata.appendOnly ? FS_APPEND_FL : 0);
    return ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0 ? 0 : errno;
}

}  // namespace platform
