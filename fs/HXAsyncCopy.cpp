#include "fs/HXAsyncCopy.h"

#include "diagnostics/HXException.h"
#include "fs/HXCopyPreamble.h"
#include "fs/HXFileAttributes.h"
#include "platform/Folder.h"
#include "platform/SignalStack.h"
#include "system/HXMainThread.h"

#include <QCoreApplication>
#include <QDirIterator>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <thread>

namespace HXFileManager {

using namespace std::chrono_literals;

class HXFileOperation : public std::enable_shared_from_this<HXFileOperation> {
public:
    HXFileOperation(QVariantMap context, std::shared_ptr<HXFileOperationDelegate> delegate)
        : m_context(std::move(context)), m_delegate(std::move(delegate))
    {
    }

    void cancel() { m_cancelled = true; }
    void run(platform::Item from, platform::Item to);

private:
    void countSource();
    bool copied(std::uint64_t bytes, int objects);
    void report(int stage);

    const QVariantMap m_context;
    const std::shared_ptr<HXFileOperationDelegate> m_delegate;
    std::atomic<bool> m_cancelled{false};
    std::uint64_t m_totalBytes = 0;
    std::uint64_t m_totalObjects = 0;
    std::uint64_t m_bytes = 0;
    std::uint64_t m_objects = 0;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_lastReport;
};

namespace {

// How often a running copy reports at most.
constexpr auto kStatusInterval = 1s;

}  // namespace

void HXFileOperation::countSource()
{
    const QString source = m_context.value(QStringLiteral("source")).toString();
    m_totalBytes = fileSize(source);
    m_totalObjects = 1;
    QDirIterator below(source, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                       QDirIterator::Subdirectories);
    while (below.hasNext()) {
        below.next();
        ++m_totalObjects;
    }
}

void HXFileOperation::run(platform::Item from, platform::Item to)
{
    countSource();
    m_start = m_lastReport = std::chrono::steady_clock::now();
    report(kHXFileOperationStageRunning);
    const int error =
        from.folder.copyTree(from.name, to.folder, to.name,
                             [this](std::uint64_t bytes, int objects) { return copied(bytes, objects); });
    // Someone else's item that appeared meanwhile stays.
    if (error != 0 && error != EEXIST)
        to.folder.removeTree(to.name);
    report(kHXFileOperationStageComplete);
}

bool HXFileOperation::copied(std::uint64_t bytes, int objects)
{
    m_bytes += bytes;
    m_objects += static_cast<std::uint64_t>(objects);
    const auto now = std::chrono::steady_clock::now();
    if (now - m_lastReport >= kStatusInterval) {
        m_lastReport = now;
        report(kHXFileOperationStageRunning);
    }
    return !m_cancelled;
}

void HXFileOperation::report(int stage)
{
    QVariantMap status{{QStringLiteral("stage"), stage}};
    status.insert(m_context);
    if (stage == kHXFileOperationStageRunning) {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
        const auto remaining = [](std::uint64_t total, std::uint64_t done) {
            return static_cast<qulonglong>(total > done ? total - done : 0);
        };
        status.insert(QString::fromLatin1(kHXOperationTotalBytesKey), static_cast<qulonglong>(m_totalBytes));
        status.insert(QString::fromLatin1(kHXOperationBytesCompleteKey), static_cast<qulonglong>(m_bytes));
        status.insert(QString::fromLatin1(kHXOperationBytesRemainingKey), remaining(m_totalBytes, m_bytes));
        status.insert(QString::fromLatin1(kHXOperationTotalObjectsKey),
                      static_cast<qulonglong>(m_totalObjects));
        status.insert(QString::fromLatin1(kHXOperationObjectsCompleteKey),
                      static_cast<qulonglong>(m_objects));
        status.insert(QString::fromLatin1(kHXOperationObjectsRemainingKey),
                      remaining(m_totalObjects, m_objects));
        status.insert(QString::fromLatin1(kHXOperationThroughputKey),
                      seconds > 0 ? static_cast<double>(m_bytes) / seconds : 0.0);
    }
    HXPerformOnMainThread(
        [operation = shared_from_this(), status, stage] {
            const HXFileOperationDelegate *delegate = operation->m_delegate.get();
            if (delegate == nullptr)
                return;
            const bool running = stage == kHXFileOperationStageRunning;
            const auto &withOperation = running ? delegate->fileOperationProgressFileOperation
                                                : delegate->fileOperationFinishedFileOperation;
            const auto &plain = running ? delegate->fileOperationProgress : delegate->fileOperationFinished;
            if (withOperation)
                withOperation(status, operation);
            else if (plain)
                plain(status);
        },
        false);
}

bool copyFileWithProgressOld(const QString &source, const QString &destination,
                             const std::shared_ptr<HXFileOperationDelegate> &delegate, const QVariant &object,
                             const QVariant &object2)
{
    try {
        if (!copySourceExists(source) || !copyDestinationFolderMade(source, destination))
            return false;
        // The reports go to the main thread's event loop; without one they could not.
        if (QCoreApplication::instance() == nullptr) {
            copyConsole(u"Failed to schedule operation with run loop: %d", -1);
            return false;
        }
        QVariantMap context =
            copySettings({{QStringLiteral("source"), source}, {QStringLiteral("destination"), destination}},
                         delegate ? QVariant::fromValue(delegate.get()) : QVariant(), object, object2);

        int error = 0;
        std::optional<platform::Item> from = platform::Item::open(source, &error);
        std::optional<platform::Item> to = from ? platform::Item::open(destination, &error) : std::nullopt;
        if (to && to->exists())
            error = EEXIST;
        if (error != 0 || !to) {
            copyConsole(u"Failed to begin asynchronous object copy: %d", error);
            return false;
        }
        auto operation = std::make_shared<HXFileOperation>(std::move(context), delegate);
        std::thread([operation, from = std::move(*from), to = std::move(*to)]() mutable {
            const platform::ThreadSignalStack signalStack;
            operation->run(std::move(from), std::move(to));
            // Let go of it on the main thread, where its delegate is used and released.
            HXPerformOnMainThread([released = std::move(operation)] {}, false);
        }).detach();
        return true;
    } catch (const std::exception &e) {
        HXException::logException(
            e, "+[HXFileManager copyFileWithProgressOld:destination:delegate:object:object:]");
        return false;
    }
}

void cancelFileOperation(const HXFileOperationRef &operation)
{
    if (operation)
        operation->cancel();
}

}  // namespace HXFileManager
