#pragma once

// What makes an item under the Adobe folders wrong: the folder classes, the
// folders left out, the entries skipped, and the tests in their fixed order.
// Shared by the audit and by permissiontool, which corrects exactly what the
// audit would report.

#include "platform/Accounts.h"
#include "platform/FolderScan.h"

#include <QString>

#include <optional>
#include <unordered_map>

enum class HXFolderClass {
    Home,        // under the home folder: owned by the user, readable, writable
    Outside,     // elsewhere: readable, permission value at least 0644
    MediaCache,  // any path with "/MediaCore": readable
};

struct HXFolderRules {
    HXFolderClass folderClass = HXFolderClass::Home;
    // The path contains "/SLStore": the permission value must be at least 0777.
    bool slStore = false;
};

// The least permission values outside the home and under "/SLStore" (420, 511).
constexpr mode_t kHXOutsideMinimumPermissions = 0644;
constexpr mode_t kHXSLStoreMinimumPermissions = 0777;

// Why an item is wrong, in the order the tests run; None when it is right.
enum class HXPermissionProblem {
    None,
    Locked,
    WrongOwner,
    NotReadable,
    NotWritable,
    BelowOutsideMinimum,
    BelowSLStoreMinimum,
};

// Whose rights the readable and writable tests ask about.
struct HXAccessRights {
    // Root may read and write everything.
    bool everything = false;
    uid_t uid = 0;
    std::vector<gid_t> groups;

    static HXAccessRights of(const platform::Account &account);
    bool mayRead(const platform::ItemAttributes &item) const { return allows(item, 4); }
    bool mayWrite(const platform::ItemAttributes &item) const { return allows(item, 2); }
    bool allows(const platform::ItemAttributes &item, mode_t bit) const;
    // The permission bit BIT (4, 2 or 1) of the class of users these rights fall into.
    mode_t bitFor(const platform::ItemAttributes &item, mode_t bit) const;
};

class HXPermissionRules {
public:
    // HOME: the home folder (empty: nothing is in the home class); OWNERNAME: the
    // account that must own items there; LOCALAPPLICATIONSUPPORT: the machine's
    // application-support folder; RIGHTS: whose access is tested.
    HXPermissionRules(QString home, QString ownerName, const QString &localApplicationSupport,
                      HXAccessRights rights);

    // The current user's rules, as the audit of this process applies them.
    static HXPermissionRules forThisProcess();

    // The folder is left out entirely: plain prefixes of the machine's Adobe
    // folders, then the last component "Linguistics" or "legal" in any case.
    bool isExcluded(const QString &folderPath) const;
    HXFolderRules rulesFor(const QString &folderPath) const;
    // Entries never reported and never entered (links are skipped by kind).
    static bool isSkippedName(const char *name);

    // The first test ITEM fails under RULES; ATTRIBUTES none: they could not be
    // read (owned by nobody, permission value 0).
    HXPermissionProblem problemOf(const std::optional<platform::ItemAttributes> &attributes,
                                  const HXFolderRules &rules) const;

    const HXAccessRights &rights() const { return m_rights; }
    const QString &home() const { return m_home; }

private:
    bool isOwnedByUser(uid_t owner) const;

    QString m_home;
    QString m_ownerName;
    QStringList m_excludedPrefixes;
    HXAccessRights m_rights;
    mutable std::unordered_map<uid_t, bool> m_ownerCache;
};
