#include "fs/HXCopyPipeline.h"

#include "fs/HXDigests.h"
#include "platform/SignalStack.h"

#include <openssl/obj_mac.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

#include <unistd.h>

namespace HXFileManager {

namespace {

// Chunks in flight between the reader and the slowest writer, and read-back
// buffers per destination.
constexpr std::size_t kSlots = 6;
constexpr std::size_t kReadBackBuffers = 2;

struct FreeDeleter {
    void operator()(char *data) const { std::free(data); }
};
using AlignedBuffer = std::unique_ptr<char, FreeDeleter>;

AlignedBuffer alignedBuffer()
{
    char *data =
        static_cast<char *>(std::aligned_alloc(platform::kStorageAlignment, HXCopyPipeline::kChunkSize));
    if (data == nullptr)
        throw std::bad_alloc();
    return AlignedBuffer(data);
}

EVP_MD_CTX *newContext(const EVP_MD *digest)
{
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    if (context == nullptr || EVP_DigestInit_ex(context, digest, nullptr) != 1) {
        EVP_MD_CTX_free(context);
        throw std::bad_alloc();
    }
    return context;
}

}  // namespace

// A first-in first-out hand-over between two threads. pop waits for an item and
// gives none once the queue is closed and empty, or aborted.
template <typename T> class HXCopyPipeline::WorkQueue {
public:
    void push(T item)
    {
        {
            std::lock_guard lock(m_mutex);
            m_items.push_back(std::move(item));
        }
        m_changed.notify_one();
    }
    std::optional<T> pop()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_aborted || m_closed || !m_items.empty(); });
        if (m_aborted || m_items.empty())
            return std::nullopt;
        T item = std::move(m_items.front());
        m_items.pop_front();
        return item;
    }
    void close() { finish(false); }
    void abort() { finish(true); }

private:
    void finish(bool abort)
    {
        {
            std::lock_guard lock(m_mutex);
            m_closed = true;
            m_aborted = m_aborted || abort;
        }
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<T> m_items;
    bool m_closed = false;
    bool m_aborted = false;
};

struct HXCopyPipeline::Slot {
    AlignedBuffer data = alignedBuffer();
    std::uint64_t index = 0;
    std::uint64_t offset = 0;
    std::size_t length = 0;
    std::atomic<int> users{0};
};

struct HXCopyPipeline::Destination {
    struct ReadBack {
        std::uint64_t offset;
        std::size_t length;
    };
    struct ReadData {
        char *data;
        std::size_t length;
    };

    platform::CopyDestination *file = nullptr;
    WorkQueue<Slot *> writes;
    WorkQueue<ReadBack> readBacks;
    WorkQueue<ReadData> readData;
    WorkQueue<char *> freeBuffers;
    std::vector<AlignedBuffer> buffers;
    EVP_MD_CTX *context = nullptr;
};

HXCopyPipeline::HXCopyPipeline(int source, std::vector<platform::CopyDestination *> destinations,
                               const EVP_MD *digest, std::uint64_t writeLimit)
    : m_source(source), m_digest(digest), m_writeLimit(writeLimit),
      m_sourceHashQueue(std::make_unique<WorkQueue<Slot *>>())
{
    try {
        for (std::size_t i = 0; i < kSlots; ++i) {
            m_slots.push_back(std::make_unique<Slot>());
            m_freeSlots.push_back(m_slots.back().get());
        }
        for (platform::CopyDestination *file : destinations) {
            auto destination = std::make_unique<Destination>();
            destination->file = file;
            if (m_digest != nullptr) {
                destination->context = newContext(m_digest);
                for (std::size_t i = 0; i < kReadBackBuffers; ++i) {
                    destination->buffers.push_back(alignedBuffer());
                    destination->freeBuffers.push(destination->buffers.back().get());
                }
            }
            m_destinations.push_back(std::move(destination));
        }
        if (m_digest != nullptr)
            m_sourceContext = newContext(m_digest);

        m_threads.emplace_back(&HXCopyPipeline::readSource, this);
        if (m_digest != nullptr)
            m_threads.emplace_back(&HXCopyPipeline::hashSource, this);
        for (std::size_t i = 0; i < m_destinations.size(); ++i) {
            m_threads.emplace_back(&HXCopyPipeline::writeDestination, this, i);
            if (m_digest != nullptr) {
                m_threads.emplace_back(&HXCopyPipeline::readBackDestination, this, i);
                m_threads.emplace_back(&HXCopyPipeline::hashDestination, this, i);
            }
        }
    } catch (...) {
        stop();
        joinAll();
        throw;
    }
}

HXCopyPipeline::~HXCopyPipeline()
{
    stop();
    joinAll();
    EVP_MD_CTX_free(m_sourceContext);
    for (const auto &destination : m_destinations)
        EVP_MD_CTX_free(destination->context);
}

void HXCopyPipeline::joinAll()
{
    for (std::thread &thread : m_threads)
        if (thread.joinable())
            thread.join();
}

void HXCopyPipeline::stop()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopped = true;
    }
    m_changed.notify_all();
    m_sourceHashQueue->abort();
    for (const auto &destination : m_destinations) {
        destination->writes.abort();
        destination->readBacks.abort();
        destination->readData.abort();
        destination->freeBuffers.abort();
    }
}

HXCopyPipeline::Slot *HXCopyPipeline::acquireSlot()
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_stopped || !m_freeSlots.empty(); });
    if (m_stopped)
        return nullptr;
    Slot *slot = m_freeSlots.back();
    m_freeSlots.pop_back();
    return slot;
}

void HXCopyPipeline::release(Slot *slot)
{
    if (slot->users.fetch_sub(1) != 1)
        return;
    {
        std::lock_guard lock(m_mutex);
        m_freeSlots.push_back(slot);
    }
    m_changed.notify_all();
}

void HXCopyPipeline::readSource()
{
    const platform::ThreadSignalStack signalStack;
    std::uint64_t index = 0;
    std::uint64_t offset = 0;
    bool failed = false;
    while (Slot *slot = acquireSlot()) {
        std::size_t length = 0;
        while (length < kChunkSize) {
            const ssize_t count = ::read(m_source, slot->data.get() + length, kChunkSize - length);
            if (count < 0 && errno == EINTR)
                continue;
            failed = count < 0;
            if (count <= 0)
                break;
            length += static_cast<std::size_t>(count);
        }
        if (length == 0) {
            slot->users = 1;
            release(slot);
            break;
        }
        slot->index = index++;
        slot->offset = offset;
        slot->length = length;
        slot->users = static_cast<int>(m_destinations.size()) + (m_digest != nullptr ? 1 : 0);
        {
            std::lock_guard lock(m_mutex);
            const std::size_t count = m_destinations.size();
            m_chunks.push_back({Chunk{length, std::vector<std::size_t>(count)}, count});
        }
        offset += length;
        if (m_digest != nullptr)
            m_sourceHashQueue->push(slot);
        for (const auto &destination : m_destinations)
            destination->writes.push(slot);
        if (failed)
            break;
    }
    {
        std::lock_guard lock(m_mutex);
        m_sourceEnded = true;
        m_sourceFailed = failed;
    }
    m_changed.notify_all();
    m_sourceHashQueue->close();
    for (const auto &destination : m_destinations)
        destination->writes.close();
}

void HXCopyPipeline::hashSource()
{
    const platform::ThreadSignalStack signalStack;
    while (const std::optional<Slot *> slot = m_sourceHashQueue->pop()) {
        EVP_DigestUpdate(m_sourceContext, (*slot)->data.get(), (*slot)->length);
        release(*slot);
    }
}

bool HXCopyPipeline::mayWrite(std::uint64_t offset)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_stopped || offset < m_writeLimit; });
    return !m_stopped;
}

void HXCopyPipeline::writeDestination(std::size_t index)
{
    const platform::ThreadSignalStack signalStack;
    Destination &destination = *m_destinations[index];
    while (const std::optional<Slot *> popped = destination.writes.pop()) {
        Slot *slot = *popped;
        if (!mayWrite(slot->offset))
            break;
        int error = 0;
        const std::size_t written =
            destination.file->writeAt(slot->data.get(), slot->length, slot->offset, &error);
        if (m_digest != nullptr)
            destination.readBacks.push({slot->offset, slot->length});
        {
            std::lock_guard lock(m_mutex);
            QueuedChunk &queued = m_chunks[static_cast<std::size_t>(slot->index - m_firstChunk)];
            queued.chunk.written[index] = written;
            --queued.pendingWrites;
        }
        m_changed.notify_all();
        release(slot);
    }
    destination.readBacks.close();
}

void HXCopyPipeline::readBackDestination(std::size_t index)
{
    const platform::ThreadSignalStack signalStack;
    Destination &destination = *m_destinations[index];
    while (const std::optional<Destination::ReadBack> request = destination.readBacks.pop()) {
        const std::optional<char *> buffer = destination.freeBuffers.pop();
        if (!buffer)
            break;
        int error = 0;
        const std::ptrdiff_t count =
            destination.file->readBackAt(*buffer, request->length, request->offset, &error);
        destination.readData.push({*buffer, count > 0 ? static_cast<std::size_t>(count) : 0});
    }
    destination.readData.close();
}

void HXCopyPipeline::hashDestination(std::size_t index)
{
    const platform::ThreadSignalStack signalStack;
    Destination &destination = *m_destinations[index];
    while (const std::optional<Destination::ReadData> read = destination.readData.pop()) {
        EVP_DigestUpdate(destination.context, read->data, read->length);
        destination.freeBuffers.push(read->data);
    }
}

std::optional<HXCopyPipeline::Chunk> HXCopyPipeline::nextWrittenChunk()
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] {
        return m_stopped || (m_chunks.empty() ? m_sourceEnded : m_chunks.front().pendingWrites == 0);
    });
    if (m_stopped || m_chunks.empty())
        return std::nullopt;
    Chunk chunk = std::move(m_chunks.front().chunk);
    m_chunks.pop_front();
    ++m_firstChunk;
    return chunk;
}

bool HXCopyPipeline::sourceFailed() const
{
    std::lock_guard lock(m_mutex);
    return m_sourceFailed;
}

void HXCopyPipeline::setWriteLimit(std::uint64_t offset)
{
    {
        std::lock_guard lock(m_mutex);
        m_writeLimit = offset;
    }
    m_changed.notify_all();
}

HXCopyPipeline::Digests HXCopyPipeline::finish()
{
    joinAll();
    Digests digests;
    if (m_digest == nullptr)
        return digests;
    const bool md5 = EVP_MD_type(m_digest) == NID_md5;
    const auto hex = [md5](EVP_MD_CTX *context) {
        return md5 ? md5HashWithContext(context) : sha1HashWithContext(context);
    };
    digests.source = hex(m_sourceContext);
    for (const auto &destination : m_destinations)
        digests.destinations.push_back(hex(destination->context));
    return digests;
}

}  // namespace HXFileManager
