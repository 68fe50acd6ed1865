#pragma once

// Corrects, under one root, everything the permission audit would report there,
// for ACCOUNT (the console user): owner of home-class items, read (and search)
// access, write access in the home class, the 0644 and 0777 minimums, the locked
// flag. Each item is changed through the descriptor it was checked on; a file
// with more than one hard link is never changed, nor anything behind a link.
// permissiontool runs it; the repair preview runs it with DRYRUN, which decides
// and reports every change the same way and makes none.

#include "app/audit/HXMendwellUtils.h"
#include "app/audit/HXPermissionRules.h"
#include "platform/Accounts.h"

#include <QStringList>

#include <vector>

struct PermissionRepairResult {
    int corrected = 0;
    // One line per item left wrong, for standard error.
    QStringList failures;
    // One report line per item changed (or, in a dry run, to change), for the
    // caller (app/audit/HXToolReport.h).
    QByteArray changes;
};

PermissionRepairResult repairPermissions(const QString &root, const HXPermissionRules &rules,
                                         const platform::Account &account, bool dryRun = false);

// What the audit under AUDITRULES finds below ROOT and what the correction under
// CORRECTIONRULES would change there, from one walk (the same two results as
// checkPermissionsForDirectory and a dry repairPermissions).
struct PermissionPreview {
    std::vector<HXPermissionFinding> findings;
    QByteArray changes;
};
PermissionPreview previewPermissions(const QString &root, const HXPermissionRules &auditRules,
                                     const HXPermissionRules &correctionRules,
                                     const platform::Account &account);

// The rules permissiontool corrects by: those of ACCOUNT in HOME.
HXPermissionRules correctionRules(const QString &home, const platform::Account &account);
