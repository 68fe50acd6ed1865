#pragma once

// The files of a verified copy. The source is read as its path names it. A
// destination is written so that reading it back returns what the storage holds,
// not what the system still keeps in memory: with direct I/O where the file
// system offers it, otherwise by flushing each range and dropping it from the
// page cache before it is read. As root no path is followed through a link at its
// last component, and the folders on the way are opened as platform/Folder.h
// opens them.

#include "platform/Descriptor.h"

#include <QString>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <sys/types.h>

namespace platform {

// Alignment (address and length) of the buffers a destination reads and writes.
inline constexpr std::size_t kStorageAlignment = 4096;

// A regular file opened for reading; -1 with ERROR (EINVAL for anything else).
int openFileForCopying(const QString &path, int *error = nullptr);

class CopyDestination {
public:
    // PATH created (mode 0666 less the umask) or emptied. With READBACK its reads
    // come from the storage. As root a file with more than one hard link is
    // refused (EMLINK).
    static std::optional<CopyDestination> open(const QString &path, bool readBack, int *error = nullptr);

    // Writes LENGTH bytes of DATA (aligned) at OFFSET and returns how many were
    // written; on a short count ERROR holds the reason. One thread writes, in
    // order of offset, while another may read back.
    std::size_t writeAt(const char *data, std::size_t length, std::uint64_t offset, int *error);
    // Reads up to LENGTH bytes at OFFSET into BUFFER (aligned, with room for LENGTH
    // rounded up to the alignment) as the storage holds them: the range is first
    // flushed to stable storage. Returns the count read, -1 with ERROR.
    std::ptrdiff_t readBackAt(char *buffer, std::size_t length, std::uint64_t offset, int *error);
    // True when reads bypass the page cache altogether (direct I/O).
    bool readsAreDirect() const { return m_direct; }
    int descriptor() const { return m_write.get(); }

private:
    CopyDestination() = default;
    std::size_t writeRange(const char *data, std::size_t length, std::uint64_t offset, int *error);

    Descriptor m_write;
    Descriptor m_read;
    bool m_direct = false;
    bool m_writesDirect = false;
    // How far the writer has written, and how far a flush has made that durable.
    std::unique_ptr<std::atomic<std::uint64_t>> m_writtenThrough =
        std::make_unique<std::atomic<std::uint64_t>>(0);
    std::uint64_t m_syncedThrough = 0;
};

// What a copy carries over from its source: owner, group, permission bits,
// access and modification times, the locked and append-only flags.
struct FileMetadata {
    struct stat info {};
    bool immutable = false;
    bool appendOnly = false;
};

// Read from the descriptor FD; none with ERROR.
std::optional<FileMetadata> metadataOfDescriptor(int fd, int *error = nullptr);
// Applies METADATA to the file held by FD (flags last, since a locked file takes
// no further change). 0 or the first errno; as root a file with more than one hard
// link is refused with EMLINK.
int applyMetadata(int fd, const FileMetadata &metadata);

}  // namespace platform
