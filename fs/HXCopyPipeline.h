#pragma once

// One source copied into several destinations chunk by chunk, with reading,
// writing, reading back and hashing overlapped on threads of their own: one
// reader, one hasher of the source, and per destination a writer, a reader-back
// and a hasher. The caller sees the chunks in order, each once every destination
// has written it, and may hold the writers at a point of the file until it lets
// them on, so that what the destinations hold at that point is exactly what was
// read up to it.

#include "platform/CopyFiles.h"

#include <QString>

#include <openssl/evp.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace HXFileManager {

class HXCopyPipeline {
public:
    // Bytes per chunk: a divisor of the 40 MiB progress interval and a multiple of
    // the storage alignment.
    static constexpr std::size_t kChunkSize = 8 * 1024 * 1024;

    struct Chunk {
        std::size_t length = 0;
        // Per destination: bytes of this chunk written.
        std::vector<std::size_t> written;
    };

    struct Digests {
        QString source;
        std::vector<QString> destinations;
    };

    // Reads SOURCE into DESTINATIONS (all owned by the caller and kept open until
    // this object is gone). With DIGEST every destination is read back and hashed,
    // and so is the source. Writers write no chunk that starts at or beyond
    // WRITELIMIT until setWriteLimit moves it.
    HXCopyPipeline(int source, std::vector<platform::CopyDestination *> destinations, const EVP_MD *digest,
                   std::uint64_t writeLimit);
    ~HXCopyPipeline();
    HXCopyPipeline(const HXCopyPipeline &) = delete;
    HXCopyPipeline &operator=(const HXCopyPipeline &) = delete;

    // The next chunk once every destination has written it; none when the source
    // has ended (or stop was called).
    std::optional<Chunk> nextWrittenChunk();
    // Whether the source ended on a read error rather than at its end.
    bool sourceFailed() const;
    void setWriteLimit(std::uint64_t offset);
    // Ends every thread at the next step; nothing further is written.
    void stop();
    // After the last chunk: waits for the reading back and hashing, and returns
    // the digests as hex (empty without a digest).
    Digests finish();

private:
    struct Slot;
    template <typename T> class WorkQueue;
    struct Destination;

    void readSource();
    void hashSource();
    void writeDestination(std::size_t index);
    void readBackDestination(std::size_t index);
    void hashDestination(std::size_t index);
    void release(Slot *slot);
    Slot *acquireSlot();
    bool mayWrite(std::uint64_t offset);
    void joinAll();

    int m_source;
    const EVP_MD *m_digest;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stopped = false;
    std::uint64_t m_writeLimit = 0;
    std::vector<std::unique_ptr<Slot>> m_slots;
    std::vector<Slot *> m_freeSlots;
    // Chunks read and not yet handed to the caller, in order, each with the
    // number of writers still to finish it.
    struct QueuedChunk {
        Chunk chunk;
        std::size_t pendingWrites = 0;
    };
    std::deque<QueuedChunk> m_chunks;
    std::uint64_t m_firstChunk = 0;  // index of m_chunks.front()
    bool m_sourceEnded = false;
    bool m_sourceFailed = false;

    std::unique_ptr<WorkQueue<Slot *>> m_sourceHashQueue;
    EVP_MD_CTX *m_sourceContext = nullptr;
    std::vector<std::unique_ptr<Destination>> m_destinations;
    std::vector<std::thread> m_threads;
};

}  // namespace HXFileManager
