#include "app/audit/HXPermissionWalk.h"

#include "platform/FolderScan.h"
#include "platform/Workspace.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"

#include <QFile>

#include <cerrno>

namespace {

constexpr qsizetype kMaximumPath = 4096;

class Walk {
public:
    Walk(const HXPermissionRules &rules, HXPermissionVisitor &visitor) : m_rules(rules), m_visitor(visitor) {}

    // PATH, which is not left out.
    void folder(const QString &path, const platform::Folder *opened,
                const std::optional<platform::ItemAttributes> &attributes)
    {
        const HXWalkedFolder walked{path, m_rules.rulesFor(path), opened, attributes};
        // Past the longest path a system call takes, a folder cannot be listed:
        // that also bounds how deep a planted tree can make the walk recurse.
        if (!m_visitor.visitFolder(walked) || opened == nullptr ||
            platform::hasPackageName(HXPath::lastComponent(path)) ||
            QFile::encodeName(path).size() >= kMaximumPath)
            return;
        platform::forEachEntry(*opened, [&](const char *name, platform::EntryKind kind) {
            if (kind == platform::EntryKind::Link || HXPermissionRules::isSkippedName(name))
                return;
            const std::optional<platform::ItemAttributes> entry = platform::attributesOf(*opened, name);
            if (entry && entry->isLink())
                return;
            if (entry && entry->isFolder()) {
                const QString subPath = HXPath::appendingComponent(path, QFile::decodeName(name));
                if (m_rules.isExcluded(subPath))
                    return;
                const std::optional<platform::Folder> sub = platform::openSubfolder(*opened, name);
                folder(subPath, sub ? &*sub : nullptr, entry);
                return;
            }
            m_visitor.visitItem(walked, name, entry);
        });
    }

private:
    const HXPermissionRules &m_rules;
    HXPermissionVisitor &m_visitor;
};

// ROOT opened for the walk. With root's rights no link of the user's is followed
// on the way, except where the root lies in the console user's home and her own
// links lead her to a folder of hers (a second disk, a synced folder): that
// folder is hers to have corrected, and no other is reached.
std::optional<platform::Folder> openRoot(const QString &root)
{
    int error = 0;
    std::optional<platform::Folder> opened = platform::Folder::open(root, &error);
    if (opened || error != ELOOP)
        return opened;
    const std::optional<platform::Account> owner = HXUsersTree::ownerFor(root);
    return owner ? platform::Folder::openAs(*owner, root, std::nullopt) : std::nullopt;
}

}  // namespace

bool HXWalkPermissions(const QString &root, const HXPermissionRules &rules, HXPermissionVisitor &visitor)
{
    if (rules.isExcluded(root))
        return false;
    std::optional<platform::Folder> opened = openRoot(root);
    std::optional<platform::ItemAttributes> attributes;
    if (opened)
        attributes = platform::attributesOf(*opened);
    Walk(rules, visitor).folder(root, opened ? &*opened : nullptr, attributes);
    return true;
}
