#pragma once

// The walk of the permission audit, shared by the audit and by permissiontool:
// left-out folders are not visited, skipped entries and links never, packages
// are visited but not entered, and everything else depth-first in listing order.
// Folders are opened one below the other, never through a link, so a user who
// swaps a folder for a link while root walks cannot lead the walk anywhere else.

#include "app/audit/HXPermissionRules.h"
#include "platform/Folder.h"

#include <QString>

#include <optional>

// A folder the walk has reached.
struct HXWalkedFolder {
    QString path;
    HXFolderRules rules;
    // None when it could not be opened: then it has no entries.
    const platform::Folder *folder = nullptr;
    // As its parent's listing showed it (the root: as opened); none when unreadable.
    std::optional<platform::ItemAttributes> attributes;
};

class HXPermissionVisitor {
public:
    virtual ~HXPermissionVisitor() = default;
    // Returns whether to look inside FOLDER.
    virtual bool visitFolder(const HXWalkedFolder &folder) = 0;
    // An entry NAME of FOLDER that is neither a folder, a link nor skipped.
    virtual void visitItem(const HXWalkedFolder &folder, const char *name,
                           const std::optional<platform::ItemAttributes> &attributes) = 0;
};

// Walks ROOT under RULES. False when ROOT is left out (nothing was visited).
bool HXWalkPermissions(const QString &root, const HXPermissionRules &rules, HXPermissionVisitor &visitor);
