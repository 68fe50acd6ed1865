#include "app/audit/HXPermissionCorrection.h"

#include "app/audit/HXToolReport.h"

#include "app/audit/HXPermissionWalk.h"
#include "platform/OpenedItem.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"

#include <QFile>

#include <cstring>

namespace {

class Repair final : public HXPermissionVisitor {
public:
    Repair(const HXPermissionRules &rules, const platform::Account &account, bool dryRun,
           PermissionRepairResult &result)
        : m_rules(rules), m_account(account), m_dryRun(dryRun), m_result(result)
    {
    }

    bool visitFolder(const HXWalkedFolder &folder) override
    {
        // Not opened: gone, or swapped for a link since it was listed.
        if (folder.folder == nullptr)
            return false;
        if (std::optional<platform::OpenedItem> item = platform::OpenedItem::of(*folder.folder))
            correct(*item, folder.rules, folder.path);
        return true;
    }

    void visitItem(const HXWalkedFolder &folder, const char *name,
                   const std::optional<platform::ItemAttributes> &attributes) override
    {
        if (attributes && !needsChange(*attributes, folder.rules))
            return;
        const QString path = HXPath::appendingComponent(folder.path, QFile::decodeName(name));
        int error = 0;
        std::optional<platform::OpenedItem> item = platform::OpenedItem::open(*folder.folder, name, &error);
        if (!item) {
            if (error != ENOENT)
                fail(path, QString::fromLocal8Bit(std::strerror(error)));
            return;
        }
        correct(*item, folder.rules, path);
    }

private:
    // What the audit tests, asked for the console user, plus search access to a
    // folder: without it the user's own audit could not look inside.
    bool needsChange(const platform::ItemAttributes &item, const HXFolderRules &rules) const
    {
        if (m_rules.problemOf(item, rules) != HXPermissionProblem::None)
            return true;
        return item.isFolder() && !m_rules.rights().allows(item, 1);
    }

    mode_t correctedMode(const platform::ItemAttributes &item, const HXFolderRules &rules) const
    {
        const HXAccessRights &rights = m_rules.rights();
        mode_t mode = item.permissions();
        mode |= rights.bitFor(item, 4);
        if (item.isFolder())
            mode |= rights.bitFor(item, 1);
        if (rules.folderClass == HXFolderClass::Home)
            mode |= rights.bitFor(item, 2);
        if (rules.folderClass == HXFolderClass::Outside && mode < kHXOutsideMinimumPermissions)
            mode |= item.isFolder() ? 0755 : kHXOutsideMinimumPermissions;
        if (rules.slStore && mode < kHXSLStoreMinimumPermissions)
            mode |= kHXSLStoreMinimumPermissions;
        // No program that others may write keeps running as its owner or group.
        if (!item.isFolder() && (mode & 022) != 0)
            mode &= ~mode_t(S_ISUID | S_ISGID);
        return mode;
    }

    // What ITEM is to become: unlocked, the console user's when it is in the home
    // class and someone else's, and with its mode raised as far as the rules ask.
    platform::ItemAttributes planned(const platform::ItemAttributes &item, const HXFolderRules &rules) const
    {
        platform::ItemAttributes after = item;
        after.immutable = false;
        if (rules.folderClass == HXFolderClass::Home &&
            m_rules.problemOf(item, rules) == HXPermissionProblem::WrongOwner)
            after.owner = m_account.uid;
        after.mode = (after.mode & ~mode_t(07777)) | correctedMode(after, rules);
        return after;
    }

    void correct(const platform::OpenedItem &item, const HXFolderRules &rules, const QString &path)
    {
        std::optional<platform::ItemAttributes> now = item.attributes();
        if (!now) {
            fail(path, QStringLiteral("its attributes cannot be read"));
            return;
        }
        if (now->isLink() || !needsChange(*now, rules))
            return;
        const platform::ItemAttributes before = *now;
        if (!now->isFolder() && now->links > 1) {
            fail(path, QStringLiteral("it has %1 hard links").arg(now->links));
            return;
        }
        const platform::ItemAttributes target = planned(before, rules);
        if (m_dryRun) {
            m_result.changes += HXToolReport::permissionChangeLine(path, before, target);
            return;
        }
        int error = 0;
        if (before.immutable)
            error = item.clearImmutable();
        if (error == 0 && target.owner != before.owner)
            error = item.setOwner(target.owner);
        if (error == 0 && target.permissions() != before.permissions())
            error = item.setMode(target.permissions());
        if (error != 0) {
            fail(path, QString::fromLocal8Bit(std::strerror(error)));
            return;
        }
        const std::optional<platform::ItemAttributes> after = item.attributes();
        if (after)
            m_result.changes += HXToolReport::permissionChangeLine(path, before, *after);
        if (!after || needsChange(*after, rules))
            fail(path, QStringLiteral("it is still wrong after the change"));
        else
            ++m_result.corrected;
    }

    void fail(const QString &path, const QString &why)
    {
        m_result.failures.append(QStringLiteral("left %1 as it is: %2").arg(path, why));
    }

    const HXPermissionRules &m_rules;
    const platform::Account &m_account;
    const bool m_dryRun;
    PermissionRepairResult &m_result;
};

// The audit's findings and a dry run of the correction in one walk: the audit
// (under its own rules) reports a wrong folder alone for itself and its contents,
// while the correction looks at everything below it too.
class Preview final : public HXPermissionVisitor {
public:
    Preview(const HXPermissionRules &auditRules, Repair &correction,
            std::vector<HXPermissionFinding> &findings)
        : m_auditRules(auditRules), m_correction(correction), m_findings(findings)
    {
    }

    bool visitFolder(const HXWalkedFolder &folder) override
    {
        if (!isInsideWrongFolder(folder.path)) {
            const HXPermissionProblem problem = m_auditRules.problemOf(folder.attributes, folder.rules);
            if (problem != HXPermissionProblem::None) {
                m_findings.push_back({folder.path, problem});
                m_wrongFolder = folder.path;
            }
        }
        return m_correction.visitFolder(folder);
    }

    void visitItem(const HXWalkedFolder &folder, const char *name,
                   const std::optional<platform::ItemAttributes> &attributes) override
    {
        // The path is made only for a finding: most items are right.
        if (folder.path != m_wrongFolder && !isInsideWrongFolder(folder.path)) {
            const HXPermissionProblem problem = m_auditRules.problemOf(attributes, folder.rules);
            if (problem != HXPermissionProblem::None)
                m_findings.push_back(
                    {HXPath::appendingComponent(folder.path, QFile::decodeName(name)), problem});
        }
        m_correction.visitItem(folder, name, attributes);
    }

private:
    bool isInsideWrongFolder(const QString &path) const
    {
        return !m_wrongFolder.isEmpty() && path.size() > m_wrongFolder.size() &&
               path[m_wrongFolder.size()] == QLatin1Char('/') && path.startsWith(m_wrongFolder);
    }

    const HXPermissionRules &m_auditRules;
    Repair &m_correction;
    std::vector<HXPermissionFinding> &m_findings;
    QString m_wrongFolder;
};

}  // namespace

PermissionRepairResult repairPermissions(const QString &root, const HXPermissionRules &rules,
                                         const platform::Account &account, bool dryRun)
{
    PermissionRepairResult result;
    Repair repair(rules, account, dryRun, result);
    HXWalkPermissions(root, rules, repair);
    return result;
}

HXPermissionRules correctionRules(const QString &home, const platform::Account &account)
{
    return HXPermissionRules(home, account.name, HXLocalPaths::appSupportDirectory(false),
                             HXAccessRights{false, account.uid, account.groups});
}

PermissionPreview previewPermissions(const QString &root, const HXPermissionRules &auditRules,
                                     const HXPermissionRules &correctionRules,
                                     const platform::Account &account)
{
    PermissionPreview preview;
    PermissionRepairResult correction;
    Repair dryRun(correctionRules, account, true, correction);
    Preview visitor(auditRules, dryRun, preview.findings);
    HXWalkPermissions(root, correctionRules, visitor);
    preview.changes = std::move(correction.changes);
    return preview;
}
