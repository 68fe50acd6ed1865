#pragma once

// What support needs about the suite's applications, in one zip archive on the
// Desktop: their logs, crash reports and preference files (and any further files
// a caller names), each under its full source path. Also opens an application's
// current log for reading.

#include <QString>
#include <QStringList>

#include <optional>

class HXTroubleshootingUtils {
public:
    static bool gatherLogsForAppWithName(const std::optional<QString> &name);
    static bool gatherLogsForAppsWithNames(const QStringList &names);
    static bool gatherLogsForAppsWithNames(const QStringList &names, bool silent);
    // True when an archive was written. Panels tell the user unless SILENT.
    static bool gatherLogsForAppsWithNames(const QStringList &names, bool silent,
                                           const std::optional<QStringList> &additionalFiles);

    static bool viewLogForApp(const QString &name);
    // Looks for "NAME.1.task.log", a name the task log never had; kept so.
    static bool viewTaskLogForApp(const QString &name);
};
