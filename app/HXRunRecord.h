#pragma once

// The record of each repair, kept so that a run can be read back as data and
// taken back: a property list per run in the console user's
// Library/Logs/Lanternfish/Repairs/, named by its start, owned by that user,
// written atomically, the newest 50 kept. docs/RUN_RECORDS.md lists its keys.
//
// A process records one run at a time: begin, then the steps and what they did,
// then finish, which writes the file.

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

#include <optional>
#include <sys/types.h>

namespace HXRunRecord {

inline constexpr int kVersion = 1;
inline constexpr int kKeptRuns = 50;

inline const QString kModeWindow = QStringLiteral("window");
inline const QString kModeCommandLine = QStringLiteral("command line");
inline const QString kModeMediaCache = QStringLiteral("media cache");

// Starts the record of a run in MODE with its OPTIONS ("trashPreferences",
// "trashWorkspaces", "silent") and the process's switches; items trashed from now
// on are recorded.
void begin(const QString &mode, const QVariantMap &options, const QStringList &switches);
// Ends the step under way (if any) and starts the one named NAME.
void beginStep(const QString &name);
void noteTrashed(const QString &originalPath, const QString &trashedPath, const QString &infoPath);
// What killtool and permissiontool reported (app/audit/HXToolReport.h).
void noteEndedProcesses(const QVariantList &processes);
void notePermissionChanges(const QVariantList &changes);
void notePremiereWasRunning(bool running);
void note32BitMode(bool on);
// What the media cache's clean-up did (app/HXMediaCache.h, with where each file went).
void noteMediaCache(const QVariantMap &mediaCache);
// Ends the last step, stores the verdict and writes the record; its path, none
// when there was no run or it could not be written.
std::optional<QString> finish(bool errorsFound, const QString &verdict);

// Whom what root writes or makes in the console user's folders is handed to:
// that user as root, none (stays ours) otherwise.
std::optional<uid_t> consoleOwner();
// The folder of the records (the console user's when root).
QString repairsFolder();
// The records' identifiers (file names without ".plist"), newest first.
QStringList runIdentifiers();
// The record IDENTIFIER, or the newest when IDENTIFIER is empty; none when there is no such record.
std::optional<QVariantMap> load(const QString &identifier = {});
// Writes RECORD back under its identifier (after a restore).
bool store(const QVariantMap &record);

}  // namespace HXRunRecord
