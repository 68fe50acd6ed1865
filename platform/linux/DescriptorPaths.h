#pragma once

// Reaching an item again through a descriptor already held, never by its name:
// shared by the Linux implementations of the folder services.

#include <QByteArray>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace platform::linux_detail {

inline int fail(int *error, int value)
{
    if (error)
        *error = value;
    return -1;
}

// The path under which the kernel hands out the very item FD holds.
inline QByteArray descriptorPath(int fd)
{
    return QByteArrayLiteral("/proc/self/fd/") + QByteArray::number(fd);
}

// FD (an O_PATH descriptor of a file or folder of type MODE) opened for the flag
// ioctls; -1 with errno. Devices and pipes are the caller's to keep out: opening
// them could have effects of their own.
inline int reopenForFlags(int fd, mode_t mode)
{
    return ::open(descriptorPath(fd).constData(),
                  O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (S_ISDIR(mode) ? O_DIRECTORY : 0));
}

}  // namespace platform::linux_detail
