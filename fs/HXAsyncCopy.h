#pragma once

// The older, asynchronous copy: one file or folder copied on a thread of its own
// while the main thread's event loop goes on. Reports reach the delegate on the
// main thread, in order, without the copy waiting for them: stage 2 (running)
// when the copy starts and then at most once a second, each with the settings
// and the counts of bytes and items; stage 3 (complete) at the end, whether the
// copy succeeded, failed or was cancelled. A cancelled or failed copy leaves no
// partial destination behind. Needs a Qt application object on the main thread.
//
// The settings dictionary holds "source", "destination", "operationtype"
// ("copy"), and "delegate", "object", "object2" when given; each report adds
// "stage" and, while running, the status entries below.

#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <functional>
#include <memory>

namespace HXFileManager {

class HXFileOperation;
using HXFileOperationRef = std::shared_ptr<HXFileOperation>;

enum HXFileOperationStage : int {
    kHXFileOperationStageRunning = 2,
    kHXFileOperationStageComplete = 3,
};

// Status entries of a running report.
inline constexpr const char *kHXOperationTotalBytesKey = "kFSOperationTotalBytesKey";
inline constexpr const char *kHXOperationBytesCompleteKey = "kFSOperationBytesCompleteKey";
inline constexpr const char *kHXOperationBytesRemainingKey = "kFSOperationBytesRemainingKey";
inline constexpr const char *kHXOperationTotalObjectsKey = "kFSOperationTotalObjectsKey";
inline constexpr const char *kHXOperationObjectsCompleteKey = "kFSOperationObjectsCompleteKey";
inline constexpr const char *kHXOperationObjectsRemainingKey = "kFSOperationObjectsRemainingKey";
inline constexpr const char *kHXOperationThroughputKey = "kFSOperationThroughputKey";

// Of each pair the form with the operation is called when set, else the other.
struct HXFileOperationDelegate {
    std::function<void(const QVariantMap &status, const HXFileOperationRef &operation)>
        fileOperationProgressFileOperation;
    std::function<void(const QVariantMap &status)> fileOperationProgress;
    std::function<void(const QVariantMap &status, const HXFileOperationRef &operation)>
        fileOperationFinishedFileOperation;
    std::function<void(const QVariantMap &status)> fileOperationFinished;
};

// Starts copying SOURCE to DESTINATION (which must not exist; a missing parent
// folder is made first). True when the copy was started, not finished.
bool copyFileWithProgressOld(const QString &source, const QString &destination,
                             const std::shared_ptr<HXFileOperationDelegate> &delegate,
                             const QVariant &object = {}, const QVariant &object2 = {});

// Stops a running copy at its next piece; its complete report follows.
void cancelFileOperation(const HXFileOperationRef &operation);

}  // namespace HXFileManager

Q_DECLARE_METATYPE(HXFileManager::HXFileOperationDelegate *)
