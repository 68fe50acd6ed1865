#pragma once

// Corrects, under one root, everything the permission audit would report there,
// for ACCOUNT (the console user): owner of home-class items, read (and search)
// access, write access in the home class, the 0644 and 0777 minimums, the locked
// flag. Each item is changed through the descriptor it was checked on; a file
// with more than one hard link is never changed, nor anything behind a link.

#include "app/audit/HXPermissionRules.h"

#include <QStringList>

struct PermissionRepairResult {
    int corrected = 0;
    // One line per item left wrong, for standard error.
    QStringList failures;
    // One report line per item changed, for the caller (app/audit/HXToolReport.h).
    QByteArray changes;
};

PermissionRepairResult repairPermissions(const QString &root, const HXPermissionRules &rules,
                                         const platform::Account &account);
