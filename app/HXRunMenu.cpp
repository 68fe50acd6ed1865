// The window's commands around the run records: preview a repair, undo the last.

#include "app/HXAppController.h"
#include "app/HXRepairPreview.h"
#include "app/HXRunRecord.h"
#include "app/HXRunRestore.h"

#include "system/HXFormat.h"
#include "ui/HXAlert.h"

#include <QAbstractButton>

namespace {

// At most this many lines per list in a sheet; a count stands for the rest.
constexpr qsizetype kListedLines = 12;

// HEADING and the first of LINES.
QString listing(const QString &heading, const QStringList &lines, bool countInHeading = true)
{
    QString text = countInHeading ? HXFormat(u"%@ (%i)", heading, static_cast<int>(lines.size())) : heading;
    for (qsizetype i = 0; i < lines.size() && i < kListedLines; ++i)
        text += QStringLiteral("\n  ") + lines[i];
    if (lines.size() > kListedLines)
        text += HXFormat(u"\n  (plus %i more)", static_cast<int>(lines.size() - kListedLines));
    return text;
}

QString previewText(const HXRepairPreview &preview)
{
    QStringList processes;
    for (const HXRepairPreview::Process &process : preview.processes)
        processes.append(HXFormat(u"%@ (pid %i)", process.name, static_cast<int>(process.pid)));
    QStringList permissions;
    for (const HXPermissionFinding &finding : preview.permissionFindings)
        permissions.append(HXFormat(u"%@: %@", finding.path, HXMendwellUtils::describe(finding.problem)));
    QStringList parts;
    if (preview.premiereRunning)
        parts.append(QStringLiteral("Premiere Pro is running and will be asked to quit first."));
    parts.append(listing(QStringLiteral("Moved to the Trash:"), preview.trash));
    parts.append(listing(QStringLiteral("Processes ended:"), processes));
    parts.append(listing(QStringLiteral("Permissions corrected:"), permissions));
    if (preview.mediaCache) {
        QStringList cleared;
        QStringList left;
        for (const HXMediaCache::Folder &folder : preview.mediaCache->folders) {
            for (const HXMediaCache::Item &item : folder.cleared)
                cleared.append(folder.pathOf(item));
            for (const HXMediaCache::Item &item : folder.others)
                left.append(folder.pathOf(item));
        }
        parts.append(listing(HXFormat(u"Media cache moved to the Trash (%i files, %@):",
                                      static_cast<int>(cleared.size()),
                                      HXMediaCache::describeSize(preview.mediaCache->clearedBytes())),
                             cleared, false));
        if (!left.isEmpty())
            parts.append(listing(QStringLiteral("Left in the media cache folders:"), left));
    }
    if (preview.thirtyTwoBitApplication)
        parts.append(HXFormat(u"%@ is set to run in 32-bit mode.", *preview.thirtyTwoBitApplication));
    return parts.join(QStringLiteral("\n\n"));
}

}  // namespace

void HXAppController::menuPreviewRepair()
{
    const auto isOn = [](const QPointer<QAbstractButton> &box) { return box && box->isChecked(); };
    const HXRepairPreview preview = HXRepairPreview::gather(
        isOn(m_controls.trashPrefs), isOn(m_controls.resetLayoutCheck), isOn(m_controls.mediaCacheCheck));
    const qint64 answer = HXAlert::alertSheetWithMessageText(
        QStringLiteral("What the repair will do"), QStringLiteral("Repair"), QStringLiteral("Cancel"),
        std::nullopt, previewText(preview), windowMain(), true);
    if (answer == HXAlert::kDefaultReturn && !m_repairing)
        repair();
}

void HXAppController::menuUndoLastRepair()
{
    std::optional<QVariantMap> record = HXRunRecord::load();
    const int pending = record ? HXRunRestore::pendingItems(*record) : 0;
    if (pending == 0) {
        HXAlert::alertSheetWithMessageText(
            QStringLiteral("Nothing to undo"),
            record ? QStringLiteral("The last repair moved nothing to the Trash that "
                                    "is still there to put back.")
                   : QStringLiteral("No repair has been recorded yet."),
            windowMain());
        return;
    }
    const QString date = record->value(QStringLiteral("start"))
                             .toDateTime()
                             .toLocalTime()
                             .toString(QStringLiteral("yyyy-MM-dd HH:mm"));
    const qint64 answer =
        HXAlert::alertSheetWithMessageText(QStringLiteral("Undo the last repair?"), QStringLiteral("Undo"),
                                           QStringLiteral("Cancel"), std::nullopt,
                                           HXFormat(u"The %i items the repair of %@ moved to the Trash go "
                                                    u"back where they were. An item whose place is "
                                                    u"taken again is put beside it; nothing is overwritten.",
                                                    pending, date),
                                           windowMain(), true);
    if (answer != HXAlert::kDefaultReturn)
        return;
    const HXRunRestore::Outcome outcome = HXRunRestore::restore(*record);
    HXRunRecord::store(*record);
    QStringList problems;
    for (const HXRunRestore::Item &item : outcome.items)
        if (!item.problem.isEmpty())
            problems.append(HXFormat(u"%@: %@", item.path, item.problem));
    HXAlert::alertSheetWithMessageText(
        HXFormat(u"Restored %i of %i items", outcome.restored(), outcome.restored() + outcome.failed()),
        problems.isEmpty() ? QStringLiteral("Everything is back where it was.")
                           : listing(QStringLiteral("Notes:"), problems),
        windowMain());
}
