#pragma once

// The block copy of one file to one or more destinations, with read-back
// verification by MD5 or SHA-1, progress and cancellation every 40 MiB, and the
// source's attributes carried to every copy. It runs in the caller's thread and
// calls the delegate there. Its messages go to the system console.
//
// The settings dictionary handed to the delegate holds "source", "destinations",
// "operationtype" ("copy"), and "delegate", "object", "object2" when given; after
// a verified copy also "sourceChecksum" and "destChecksums" (and "destChecksum"
// before each verification-failure report).

#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

#include <cstdint>
#include <functional>

namespace HXFileManager {

enum HXVerificationType : int {
    kHXVerificationNone = 0,
    kHXVerificationMD5 = 1,
    kHXVerificationSHA1 = 2,
};

// Each callback is called only when it is set.
struct HXFileCopyDelegate {
    // Bytes copied so far: at every 40 MiB and once more at the end.
    std::function<void(std::uint64_t bytesWritten, QVariantMap &settings)> fileCopyBytesWritten;
    // Asked after each 40 MiB report; false stops the copy there.
    std::function<bool(QVariantMap &settings)> fileCopyShouldContinue;
    // A destination whose digest differs from the source's.
    std::function<void(QVariantMap &settings, const QString &file)> fileCopyVerificationFailed;
    std::function<void(QVariantMap &settings)> fileCopyFinished;
};

// Copies SOURCE to every path of DESTINATIONS (created or emptied; missing parent
// folders are made first). With a VERIFICATIONTYPE every destination is read back
// from the storage and its digest compared with the source's; a difference is
// reported to the delegate and does not change the result. A destination that
// is the source itself (a hard link or a link to it included) is refused and
// left alone; the others are still copied and the settings list only them.
// False when the copy could not be made, a destination was refused, or the
// delegate stopped it (the partial copies stay).
bool copyFileWithProgress(const QString &source, const QStringList &destinations, int verificationType,
                          HXFileCopyDelegate *delegate, const QVariant &object = {},
                          const QVariant &object2 = {});
bool copyFileWithProgress(const QString &source, const QString &destination, HXFileCopyDelegate *delegate,
                          const QVariant &object, const QVariant &object2);
bool copyFileWithProgress(const QString &source, const QString &destination, HXFileCopyDelegate *delegate,
                          const QVariant &object);

}  // namespace HXFileManager

Q_DECLARE_METATYPE(HXFileManager::HXFileCopyDelegate *)
