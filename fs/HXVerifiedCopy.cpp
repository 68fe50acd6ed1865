#include "fs/HXVerifiedCopy.h"

#include "diagnostics/HXException.h"
#include "fs/HXCopyPipeline.h"
#include "fs/HXCopyPreamble.h"
#include "platform/CopyFiles.h"

#include <QFile>

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <vector>

#include <sys/stat.h>

namespace HXFileManager {

namespace {

// Progress is reported (and the delegate asked) each time this much more is copied.
constexpr std::uint64_t kReportInterval = 41943040;
// The copy's unit as its messages count it: one "Error writing file" line per
// block that could not be written whole.
constexpr std::size_t kBlockSize = 32768;

const EVP_MD *digestOf(int verificationType)
{
    switch (verificationType) {
    case kHXVerificationMD5:
        return EVP_md5();
    case kHXVerificationSHA1:
        return EVP_sha1();
    default:
        return nullptr;
    }
}

// One line per destination for every block of CHUNK it could not write whole, in
// block order and, within a block, destination order.
void reportWriteErrors(const HXCopyPipeline::Chunk &chunk, const QStringList &destinations)
{
    const bool clean = std::all_of(chunk.written.begin(), chunk.written.end(),
                                   [&](std::size_t written) { return written == chunk.length; });
    if (clean)
        return;
    const std::size_t blocks = (chunk.length + kBlockSize - 1) / kBlockSize;
    for (std::size_t block = 0; block < blocks; ++block)
        for (qsizetype i = 0; i < destinations.size(); ++i)
            if (block >= chunk.written[static_cast<std::size_t>(i)] / kBlockSize)
                // The stream's error indicator, as the stream would have set it.
                copyConsole(u"Error writing file %@: %i", destinations[i], 1);
}

// DESTINATIONS without those that are the source itself (its device and inode:
// the same name, a hard link, a link to it). Opening one would empty the source
// before a byte of it is read; each is refused with its message.
QStringList destinationsApartFromSource(const QString &source, const struct stat &sourceInfo,
                                        const QStringList &destinations)
{
    QStringList kept;
    for (const QString &destination : destinations) {
        struct stat info {};
        if (::stat(QFile::encodeName(destination).constData(), &info) == 0 &&
            info.st_dev == sourceInfo.st_dev && info.st_ino == sourceInfo.st_ino)
            copyConsole(u"Error: Destination file %@ is the source file %@ itself. Skipping it...",
                        destination, source);
        else
            kept.append(destination);
    }
    return kept;
}

bool missingParentsMade(const QString &source, const QStringList &destinations)
{
    return std::all_of(destinations.begin(), destinations.end(), [&](const QString &destination) {
        return copyDestinationFolderMade(source, destination);
    });
}

// Runs the chunks through, reporting every 40 MiB; false when the delegate stopped it.
bool copyChunks(HXCopyPipeline &pipeline, bool gated, const QStringList &destinations,
                HXFileCopyDelegate *delegate, QVariantMap &settings, std::uint64_t &total)
{
    std::uint64_t reported = 0;
    while (const std::optional<HXCopyPipeline::Chunk> chunk = pipeline.nextWrittenChunk()) {
        reportWriteErrors(*chunk, destinations);
        total += chunk->length;
        if (total - reported < kReportInterval)
            continue;
        reported = total;
        if (delegate != nullptr) {
            if (delegate->fileCopyBytesWritten)
                delegate->fileCopyBytesWritten(total, settings);
            if (delegate->fileCopyShouldContinue && !delegate->fileCopyShouldContinue(settings)) {
                pipeline.stop();
                return false;
            }
        }
        if (gated)
            pipeline.setWriteLimit(total + kReportInterval);
    }
    return true;
}

void storeChecksums(const HXCopyPipeline::Digests &digests, const QStringList &destinations,
                    HXFileCopyDelegate *delegate, QVariantMap &settings)
{
    if (!digests.source.isEmpty())
        settings.insert(QStringLiteral("sourceChecksum"), digests.source);
    QStringList checksums;
    for (qsizetype i = 0; i < destinations.size(); ++i) {
        const QString &checksum = digests.destinations[static_cast<std::size_t>(i)];
        checksums.append(checksum);
        if (checksum == digests.source || delegate == nullptr)
            continue;
        settings.insert(QStringLiteral("destChecksum"), checksum);
        if (delegate->fileCopyVerificationFailed)
            delegate->fileCopyVerificationFailed(settings, destinations[i]);
    }
    settings.insert(QStringLiteral("destChecksums"), checksums);
}

// The source's attributes onto every destination. Once one step has failed, every
// later destination is reported too: the failure is kept, not cleared per file.
void carryAttributes(int source, const QString &sourcePath,
                     const std::vector<platform::CopyDestination> &files, const QStringList &destinations)
{
    int failure = 0;
    const std::optional<platform::FileMetadata> metadata = platform::metadataOfDescriptor(source, &failure);
    if (!metadata)
        copyConsole(u"Error getting metadata for file %@", sourcePath);
    for (std::size_t i = 0; i < files.size(); ++i) {
        if (metadata)
            if (const int error = platform::applyMetadata(files[i].descriptor(), *metadata))
                failure = error;
        if (failure != 0)
            copyConsole(u"Error setting metadata for file %@", destinations[static_cast<qsizetype>(i)]);
    }
}

}  // namespace

bool copyFileWithProgress(const QString &source, const QStringList &requested, int verificationType,
                          HXFileCopyDelegate *delegate, const QVariant &object, const QVariant &object2)
{
    try {
        if (!copySourceExists(source))
            return false;
        if (requested.isEmpty()) {
            copyConsole(u"Error: You must have at least one destination. Aborting copy process...");
            return false;
        }
        const EVP_MD *digest = digestOf(verificationType);
        if (verificationType != kHXVerificationNone && digest == nullptr) {
            copyConsole(u"Error: Unknown verification type %i. Aborting copy process...", verificationType);
            return false;
        }
        if (!missingParentsMade(source, requested))
            return false;

        platform::Descriptor sourceFile(platform::openFileForCopying(source));
        struct stat sourceInfo {};
        if (sourceFile.get() < 0 || ::fstat(sourceFile.get(), &sourceInfo) != 0) {
            copyConsole(u"Error: Unable to read source file %@. Aborting copy process...", source);
            return false;
        }
        // Checked before any destination is opened, since opening empties it.
        const QStringList destinations = destinationsApartFromSource(source, sourceInfo, requested);
        if (destinations.isEmpty())
            return false;
        QVariantMap settings =
            copySettings({{QStringLiteral("source"), source}, {QStringLiteral("destinations"), destinations}},
                         delegate != nullptr ? QVariant::fromValue(delegate) : QVariant(), object, object2);
        std::vector<platform::CopyDestination> files;
        for (const QString &destination : destinations) {
            std::optional<platform::CopyDestination> file =
                platform::CopyDestination::open(destination, digest != nullptr);
            if (!file) {
                copyConsole(u"Error: Unable to open destination file %@. Aborting copy process...",
                            destination);
                return false;
            }
            files.push_back(std::move(*file));
        }
        std::vector<platform::CopyDestination *> targets;
        for (platform::CopyDestination &file : files)
            targets.push_back(&file);

        // Writers wait at each report point until the delegate has answered, so a
        // stopped copy holds exactly what was reported.
        const bool gated =
            delegate != nullptr && (delegate->fileCopyBytesWritten || delegate->fileCopyShouldContinue);
        std::uint64_t total = 0;
        std::unique_ptr<HXCopyPipeline> pipeline;
        try {
            pipeline = std::make_unique<HXCopyPipeline>(sourceFile.get(), targets, digest,
                                                        gated ? kReportInterval
                                                              : std::numeric_limits<std::uint64_t>::max());
        } catch (const std::bad_alloc &) {
            copyConsole(u"Error copying file %@ - out of memory", source);
            return false;
        }
        if (!copyChunks(*pipeline, gated, destinations, delegate, settings, total))
            return false;
        // The read that finds the end: empty when the file ends on a block boundary.
        if (pipeline->sourceFailed() || total % kBlockSize == 0)
            copyConsole(u"%@ returned 0 bytes", source);
        const HXCopyPipeline::Digests digests = pipeline->finish();

        if (total < static_cast<std::uint64_t>(sourceInfo.st_size)) {
            copyConsole(u"Error: copied file size does not match original source %@", source);
            return false;
        }
        if (delegate != nullptr && delegate->fileCopyBytesWritten)
            delegate->fileCopyBytesWritten(total, settings);
        if (digest != nullptr)
            storeChecksums(digests, destinations, delegate, settings);
        carryAttributes(sourceFile.get(), source, files, destinations);
        files.clear();
        if (delegate != nullptr && delegate->fileCopyFinished)
            delegate->fileCopyFinished(settings);
        return destinations.size() == requested.size();
    } catch (const std::exception &e) {
        HXException::logException(
            e, "+[HXFileManager copyFileWithProgress:destinations:verificationType:delegate:object:object:]");
        return false;
    }
}

bool copyFileWithProgress(const QString &source, const QString &destination, HXFileCopyDelegate *delegate,
                          const QVariant &object, const QVariant &object2)
{
    return copyFileWithProgress(source, QStringList{destination}, kHXVerificationNone, delegate, object,
                                object2);
}

bool copyFileWithProgress(const QString &source, const QString &destination, HXFileCopyDelegate *delegate,
                          const QVariant &object)
{
    return copyFileWithProgress(source, destination, delegate, object, QVariant());
}

}  // namespace HXFileManager
