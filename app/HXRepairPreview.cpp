#include "app/HXRepairPreview.h"

#include "app/HXPremiereFiles.h"
#include "app/audit/AdobeProcesses.h"
#include "app/audit/HXPermissionCorrection.h"
#include "app/audit/HXToolReport.h"
#include "fs/HXFileOperations.h"
#include "platform/Processes.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXWorkspace.h"

#include <QSet>

#include <algorithm>

namespace {

void addExisting(QStringList &trash, const QStringList &paths)
{
    // The repair trashes what exists; a missing path is nothing to do.
    for (const QString &path : paths)
        if (HXFileManager::fileExistsAtPath(path) && !trash.contains(path))
            trash.append(path);
}

// The audit runs after the trashing: what is in the Trash by then is not audited.
bool isTrashedBefore(const QString &path, const QStringList &trash)
{
    return std::any_of(trash.begin(), trash.end(), [&](const QString &trashed) {
        return path == trashed || path.startsWith(trashed + QLatin1Char('/'));
    });
}

}  // namespace

HXRepairPreview HXRepairPreview::gather(bool trashPreferences, bool trashWorkspaces, bool clearMediaCache)
{
    HXRepairPreview preview;
    preview.premiereRunning =
        HXWorkspace::runningBundleIdentifiers().contains(HXPremiereFiles::kBundleIdentifier);
    if (trashPreferences)
        addExisting(preview.trash, HXPremiereFiles::preferencePaths());
    if (trashWorkspaces)
        addExisting(preview.trash, HXPremiereFiles::windowLayoutPaths());
    addExisting(preview.trash, HXPremiereFiles::dynamicLinkCachePaths());
    addExisting(preview.trash, HXPremiereFiles::memoryBalancerPaths());
    // Files the clean-up moves are no permission finding of the audit after it.
    QSet<QString> clearedFromCache;
    if (clearMediaCache) {
        preview.mediaCache = HXMediaCache::survey({});
        for (const HXMediaCache::Folder &folder : preview.mediaCache->folders)
            for (const HXMediaCache::Item &item : folder.cleared)
                clearedFromCache.insert(folder.pathOf(item));
    }
    const auto trashedBefore = [&](const QString &path) {
        return isTrashedBefore(path, preview.trash) || clearedFromCache.contains(path);
    };

    for (const platform::PinnedProcess &process : adobeProcessesToEnd())
        preview.processes.push_back(
            {HXPath::lastComponent(process.executablePath()), process.pid(), process.executablePath()});

    // The audit's findings and permissiontool's changes (run dry, for the console
    // user) from one walk per audited folder.
    const HXPermissionRules auditRules = HXPermissionRules::forThisProcess();
    if (const std::optional<platform::Account> account = platform::accountNamed(HXLocalPaths::username())) {
        const HXPermissionRules correction = correctionRules(HXLocalPaths::userDirectory(), *account);
        for (const QString &root : HXMendwellUtils::auditedFolders()) {
            const PermissionPreview found = previewPermissions(root, auditRules, correction, *account);
            for (const HXPermissionFinding &finding : found.findings)
                if (!trashedBefore(finding.path))
                    preview.permissionFindings.push_back(finding);
            for (const QVariant &change : HXToolReport::permissionChangesIn(found.changes))
                if (!trashedBefore(change.toMap().value(QStringLiteral("path")).toString()))
                    preview.permissionChanges.append(change);
        }
    }

    preview.thirtyTwoBitApplication =
        HXPremiereFiles::applicationIn32BitMode(HXPremiereFiles::kBundleIdentifier);
    return preview;
}

QVariantMap HXRepairPreview::toVariant() const
{
    QVariantList processList;
    for (const Process &process : processes)
        processList.append(QVariantMap{{QStringLiteral("name"), process.name},
                                       {QStringLiteral("pid"), static_cast<qint64>(process.pid)},
                                       {QStringLiteral("path"), process.path}});
    QVariantList findings;
    for (const HXPermissionFinding &finding : permissionFindings)
        findings.append(QVariantMap{{QStringLiteral("path"), finding.path},
                                    {QStringLiteral("reason"), HXMendwellUtils::describe(finding.problem)}});
    QVariantMap map{{QStringLiteral("premiereWasRunning"), premiereRunning},
                    {QStringLiteral("trash"), trash},
                    {QStringLiteral("processes"), processList},
                    {QStringLiteral("permissionFindings"), findings},
                    {QStringLiteral("permissionChanges"), permissionChanges},
                    {QStringLiteral("32BitMode"), thirtyTwoBitApplication.has_value()}};
    if (mediaCache)
        map.insert(QStringLiteral("mediaCache"),
                   HXMediaCache::toVariant(*mediaCache, HXMediaCache::Detail::Files));
    return map;
}
