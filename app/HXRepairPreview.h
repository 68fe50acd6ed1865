#pragma once

// What a repair with the given options would do now, gathered by the same code
// the repair runs, and changing nothing: the items it would move to the Trash in
// order, the processes killtool would end, the permission audit's findings, the
// 32-bit setting and whether Premiere Pro runs (and would be asked to quit).

#include "app/HXMediaCache.h"
#include "app/audit/HXMendwellUtils.h"

#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

#include <optional>
#include <sys/types.h>
#include <vector>

struct HXRepairPreview {
    struct Process {
        QString name;
        pid_t pid = 0;
        QString path;
    };

    bool premiereRunning = false;
    QStringList trash;
    std::vector<Process> processes;
    std::vector<HXPermissionFinding> permissionFindings;
    // What permissiontool would change for the console user, as the run record
    // keeps what it did change (app/audit/HXToolReport.h).
    QVariantList permissionChanges;
    // The application's name when it is set to start in 32-bit mode.
    std::optional<QString> thirtyTwoBitApplication;
    // What clearing the media cache would move, when asked for.
    std::optional<HXMediaCache::Outcome> mediaCache;

    static HXRepairPreview gather(bool trashPreferences, bool trashWorkspaces, bool clearMediaCache = false);
    // As a dictionary with the run record's key names.
    QVariantMap toVariant() const;
};
