#pragma once

// The permission audit of the Adobe folders.

#include "app/audit/HXPermissionRules.h"

#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

// One wrong item of the audit and the first rule it breaks.
struct HXPermissionFinding {
    QString path;
    HXPermissionProblem problem = HXPermissionProblem::None;
};

class HXMendwellUtils {
public:
    // Every wrong item under FOLDER, depth-first in listing order; a wrong folder
    // stands alone for itself and its contents. None when FOLDER is left out.
    // Reads only.
    static std::optional<QStringList> checkPermissionsForDirectory(const QString &folder);
    // The same under explicit RULES.
    static std::optional<QStringList> checkPermissionsForDirectory(const QString &folder,
                                                                   const HXPermissionRules &rules);

    // The audit's findings with the rule each breaks, from the very same walk.
    static std::optional<std::vector<HXPermissionFinding>>
    findingsForDirectory(const QString &folder, const HXPermissionRules &rules);
    // The rule PROBLEM names, for people: "owned by someone else", ...
    static QString describe(HXPermissionProblem problem);

    // The three folders a repair audits, in order: the user's and the machine's
    // application-support Adobe folders, then the user's documents Adobe folder.
    static QStringList auditedFolders();
};
