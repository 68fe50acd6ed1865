#include "platform/FolderScan.h"

#include "platform/Descriptor.h"
#include "platform/linux/DescriptorPaths.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {

namespace {

constexpr unsigned kWanted = STATX_TYPE | STATX_MODE | STATX_UID | STATX_GID | STATX_NLINK;

// The immutable flag for a file system whose statx does not report it: read
// through a descriptor of the very item (files and folders only). An empty NAME
// means FOLDER itself, reached again through its descriptor.
bool immutableByIoctl(int folder, const char *name, mode_t mode)
{
    if (!S_ISREG(mode) && !S_ISDIR(mode))
        return false;
    Descriptor fd(*name == '\0' ? linux_detail::reopenForFlags(folder, mode)
                                : ::openat(folder, name,
                                           O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC |
                                               (S_ISDIR(mode) ? O_DIRECTORY : 0)));
    int bits = 0;
    return fd.get() >= 0 && ::ioctl(fd.get(), FS_IOC_GETFLAGS, &bits) == 0 && (bits & FS_IMMUTABLE_FL) != 0;
}

std::optional<ItemAttributes> statxAt(int folder, const char *name, int flags)
{
    struct statx info {};
    if (::statx(folder, name, flags | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, kWanted, &info) != 0)
        return std::nullopt;
    ItemAttributes attributes;
    attributes.mode = info.stx_mode;
    attributes.owner = info.stx_uid;
    attributes.group = info.stx_gid;
    attributes.links = info.stx_nlink;
    if ((info.stx_attributes_mask & STATX_ATTR_IMMUTABLE) != 0)
        attributes.immutable = (info.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
    else
        attributes.immutable = immutableByIoctl(folder, name, attributes.mode);
    return attributes;
}

EntryKind kindOf(unsigned char type)
{
    switch (type) {
    case DT_DIR:
        return EntryKind::Folder;
    case DT_LNK:
        return EntryKind::Link;
    case DT_UNKNOWN:
        return EntryKind::Unknown;
    default:
        return EntryKind::Other;
    }
}

struct LinuxDirent64 {
    ino64_t d_ino;
    off64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
    char d_name[];
};

}  // namespace

std::optional<ItemAttributes> attributesOf(const Folder &folder, const char *name)
{
    if (*name == '\0' || std::strchr(name, '/') != nullptr)
        return std::nullopt;
    return statxAt(folder.descriptor(), name, 0);
}

std::optional<ItemAttributes> attributesOf(const Folder &folder)
{
    return attributesOfDescriptor(folder.descriptor());
}

std::optional<ItemAttributes> attributesOfDescriptor(int fd)
{
    return statxAt(fd, "", AT_EMPTY_PATH);
}

bool forEachEntry(const Folder &folder, const std::function<void(const char *name, EntryKind kind)> &visit,
                  int *error)
{
    // A descriptor of our own: the folder's may be O_PATH, and its offset is shared.
    Descriptor fd(::openat(folder.descriptor(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0) {
        linux_detail::fail(error, errno);
        return false;
    }
    // On the heap: callers recurse from inside VISIT.
    constexpr size_t kBufferSize = 32768;
    const std::unique_ptr<char[]> storage(new char[kBufferSize]);
    char *buffer = storage.get();
    for (;;) {
        const long read = ::syscall(SYS_getdents64, fd.get(), buffer, kBufferSize);
        if (read < 0) {
            linux_detail::fail(error, errno);
            return false;
        }
        if (read == 0)
            return true;
        for (long offset = 0; offset < read;) {
            const auto *entry = reinterpret_cast<const LinuxDirent64 *>(buffer + offset);
            offset += entry->d_reclen;
            const char *name = entry->d_name;
            if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
                continue;
            visit(name, kindOf(entry->d_type));
        }
    }
}

std::optional<Folder> openSubfolder(const Folder &folder, const char *name)
{
    if (*name == '\0' || std::strchr(name, '/') != nullptr || std::strcmp(name, "..") == 0 ||
        std::strcmp(name, ".") == 0)
        return std::nullopt;
    const int fd = ::openat(folder.descriptor(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    return Folder(fd);
}

}  // namespace platform
