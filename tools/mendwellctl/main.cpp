// mendwellctl: the repair for scripts and fleet tools. It previews what a repair
// would do, lists and reports the recorded repairs (also as JSON) and takes a
// repair back. Run it as the user, or as root for the console user as Mendwell
// -repair runs.

#include "app/HXCommandLine.h"
#include "app/HXMediaCache.h"
#include "app/HXPremiereFiles.h"
#include "app/HXRepairPreview.h"
#include "app/HXRunRecord.h"
#include "app/HXRunRecordText.h"
#include "app/HXRunRestore.h"
#include "app/audit/HXMendwellUtils.h"
#include "system/HXFormat.h"
#include "system/HXWorkspace.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <cstdio>
#include <unistd.h>

namespace {

enum Status : int {
    kDone = 0,
    kFailed = 1,
    kBadArguments = 2,
    kNothingToRestore = 3,
    kPartlyRestored = 4,
};

const char *const kUsage =
    "usage: mendwellctl COMMAND [ARGUMENTS] [--json]\n"
    "\n"
    "  preview [-trash|-trashprefs|-trashworkspace|-mediacache]\n"
    "      What 'Mendwell -repair' with the same switches would do now: the items it\n"
    "      would move to the Trash in order, the processes it would end, the wrong\n"
    "      permissions it would correct, the 32-bit setting. Changes nothing.\n"
    "      -mediacache adds the media cache files 'mediacache' would move, with sizes.\n"
    "  mediacache [--older-than DAYS]\n"
    "      Moves Premiere Pro's media cache files (only those older than DAYS days)\n"
    "      to the Trash and records it like a repair; refused while it runs.\n"
    "  history\n"
    "      The recorded repairs, newest first.\n"
    "  report [RUN]\n"
    "      One recorded repair, the last by default.\n"
    "  restore [RUN]\n"
    "      Puts back what that repair (the last by default) moved to the Trash. An\n"
    "      item whose place is taken again is put beside it; nothing is overwritten.\n"
    "\n"
    "RUN is an identifier that 'history' lists. --json prints the result as JSON.\n"
    "Run as root to act for the user at the console, as 'Mendwell -repair' does.\n"
    "\n"
    "Exit status: 0 done, 1 failed (the message says why), 2 bad arguments or an\n"
    "unknown RUN, 3 nothing to restore, 4 partly restored.\n";

// Our results only: anything the libraries print goes to standard error, so the
// output (JSON above all) stays whole. Flushed at once, so nothing waits in a
// buffer that a child process could write out a second time.
FILE *g_out = stdout;

void print(const QString &text)
{
    std::fputs(text.toUtf8().constData(), g_out);
    std::fputc('\n', g_out);
    std::fflush(g_out);
}

int fail(int status, const QString &message)
{
    std::fprintf(stderr, "mendwellctl: %s\n", message.toUtf8().constData());
    return status;
}

void printJson(const QVariant &value)
{
    std::fputs(HXRunRecordText::json(value).constData(), g_out);
    std::fflush(g_out);
}

int preview(const QStringList &switches, bool json)
{
    bool mediaCache = false;
    for (const QString &option : switches) {
        if (option.toLower() == QLatin1String("-mediacache"))
            mediaCache = true;
        else if (!QStringList{"-trash", "-trashprefs", "-trashworkspace"}.contains(option.toLower()))
            return fail(kBadArguments,
                        HXFormat(u"preview takes -trash, -trashprefs, -trashworkspace or -mediacache, not %@",
                                 option));
    }
    const HXCommandLine options = HXCommandLine::parse(switches);
    const HXRepairPreview preview =
        HXRepairPreview::gather(options.trashPreferences, options.trashWorkspaces, mediaCache);
    if (json) {
        printJson(preview.toVariant());
        return kDone;
    }
    print(preview.premiereRunning
              ? QStringLiteral("Premiere Pro is running: it would be asked to quit first.")
              : QStringLiteral("Premiere Pro is not running."));
    print(HXFormat(u"Would move to the Trash (%i):", static_cast<int>(preview.trash.size())));
    for (const QString &path : preview.trash)
        print(QStringLiteral("  ") + path);
    print(HXFormat(u"Would end (%i):", static_cast<int>(preview.processes.size())));
    for (const HXRepairPreview::Process &process : preview.processes)
        print(HXFormat(u"  %@ (pid %i) %@", process.name, static_cast<int>(process.pid), process.path));
    print(HXFormat(u"Wrong permissions (%i):", static_cast<int>(preview.permissionFindings.size())));
    for (const HXPermissionFinding &finding : preview.permissionFindings)
        print(HXFormat(u"  %@: %@", finding.path, HXMendwellUtils::describe(finding.problem)));
    print(HXFormat(u"Would change (%i):", static_cast<int>(preview.permissionChanges.size())));
    for (const QVariant &change : preview.permissionChanges) {
        const QVariantMap map = change.toMap();
        print(HXFormat(u"  %@: owner %@ -> %@, mode %@ -> %@%@", map.value("path").toString(),
                       map.value("ownerBefore").toString(), map.value("ownerAfter").toString(),
                       map.value("modeBefore").toString(), map.value("modeAfter").toString(),
                       map.value("lockedBefore").toBool() ? QStringLiteral(", unlocked") : QString()));
    }
    if (preview.mediaCache) {
        print(HXFormat(u"Would move from the media cache (%i files, %@):", preview.mediaCache->clearedFiles(),
                       HXMediaCache::describeSize(preview.mediaCache->clearedBytes())));
        for (const HXMediaCache::Folder &folder : preview.mediaCache->folders) {
            for (const HXMediaCache::Item &item : folder.cleared)
                print(
                    HXFormat(u"  %@ (%lli bytes)", folder.pathOf(item), static_cast<long long>(item.bytes)));
            for (const HXMediaCache::Item &item : folder.kept)
                print(HXFormat(u"  kept, newer: %@", folder.pathOf(item)));
            for (const HXMediaCache::Item &item : folder.others)
                print(HXFormat(u"  left, not a cache file: %@", folder.pathOf(item)));
        }
    }
    print(preview.thirtyTwoBitApplication
              ? HXFormat(u"%@ is set to run in 32-bit mode.", *preview.thirtyTwoBitApplication)
              : QStringLiteral("Not set to run in 32-bit mode."));
    return kDone;
}

int history(bool json)
{
    QVariantList runs;
    for (const QString &identifier : HXRunRecord::runIdentifiers())
        if (const std::optional<QVariantMap> record = HXRunRecord::load(identifier))
            runs.append(*record);
    if (json) {
        printJson(runs);
        return kDone;
    }
    if (runs.isEmpty())
        print(QStringLiteral("No repair has been recorded."));
    for (const QVariant &run : runs)
        print(HXRunRecordText::historyLine(run.toMap()));
    return kDone;
}

std::optional<QVariantMap> loadRun(const QStringList &arguments, int &status)
{
    if (arguments.size() > 1) {
        status =
            fail(kBadArguments, QStringLiteral("give one RUN at most; 'mendwellctl history' lists them"));
        return std::nullopt;
    }
    const QString identifier = arguments.value(0);
    std::optional<QVariantMap> record = HXRunRecord::load(identifier);
    if (!record)
        status = identifier.isEmpty()
                     ? fail(kNothingToRestore, QStringLiteral("no repair has been recorded yet"))
                     : fail(kBadArguments,
                            HXFormat(u"no recorded repair %@; 'mendwellctl history' lists them", identifier));
    return record;
}

int report(const QStringList &arguments, bool json)
{
    int status = kDone;
    const std::optional<QVariantMap> record = loadRun(arguments, status);
    if (!record)
        return status;
    if (json) {
        printJson(*record);
        return kDone;
    }
    for (const QString &line : HXRunRecordText::reportLines(*record))
        print(line);
    return kDone;
}

int restore(const QStringList &arguments, bool json)
{
    int status = kDone;
    std::optional<QVariantMap> record = loadRun(arguments, status);
    if (!record)
        return status;
    const QString identifier = record->value("identifier").toString();
    const HXRunRestore::Outcome outcome = HXRunRestore::restore(*record);
    const int cacheFiles = outcome.mediaCacheRestored + outcome.mediaCacheFailed;
    const bool nothing = outcome.items.empty() && cacheFiles == 0;
    if (!nothing && !HXRunRecord::store(*record))
        std::fprintf(stderr, "mendwellctl: the restore could not be written into the record of %s\n",
                     identifier.toUtf8().constData());
    if (json) {
        QVariantList items;
        for (const HXRunRestore::Item &item : outcome.items)
            items.append(item.toVariant());
        printJson(QVariantMap{{"run", identifier},
                              {"items", items},
                              {"mediaCacheRestored", outcome.mediaCacheRestored},
                              {"mediaCacheFailed", outcome.mediaCacheFailed}});
    } else if (nothing) {
        print(HXFormat(u"Nothing to restore from repair %@.", identifier));
    } else {
        if (cacheFiles > 0)
            print(HXFormat(u"Restored %i of %i media cache files%@", outcome.mediaCacheRestored, cacheFiles,
                           outcome.mediaCacheFailed > 0
                               ? QStringLiteral("; the record lists those not restored.")
                               : QStringLiteral(".")));
        for (const HXRunRestore::Item &item : outcome.items) {
            if (item.restoredTo.isEmpty())
                print(HXFormat(u"Not restored: %@: %@", item.path, item.problem));
            else if (item.restoredTo != item.path)
                print(HXFormat(u"Restored %@ as %@: %@", item.path, item.restoredTo, item.problem));
            else
                print(HXFormat(u"Restored %@", item.path));
        }
    }
    if (nothing)
        return kNothingToRestore;
    return outcome.failed() == 0 ? kDone : outcome.restored() == 0 ? kFailed : kPartlyRestored;
}

int mediaCache(const QStringList &arguments, bool json)
{
    HXMediaCache::Rule rule;
    if (!arguments.isEmpty()) {
        bool number = false;
        const int days = arguments.value(1).toInt(&number);
        if (arguments.size() != 2 || arguments[0] != QLatin1String("--older-than") || !number || days < 0)
            return fail(kBadArguments,
                        QStringLiteral("mediacache takes only --older-than DAYS (a whole number)"));
        rule.olderThanDays = days;
    }
    if (HXWorkspace::runningBundleIdentifiers().contains(HXPremiereFiles::kBundleIdentifier))
        return fail(kFailed,
                    QStringLiteral("Premiere Pro is running; quit it before its media cache is cleared."));
    HXRunRecord::begin(HXRunRecord::kModeMediaCache,
                       rule.olderThanDays ? QVariantMap{{"olderThanDays", *rule.olderThanDays}}
                                          : QVariantMap(),
                       QStringList{QStringLiteral("mediacache")} + arguments);
    HXRunRecord::beginStep(QStringLiteral("Trashing media cache"));
    const HXMediaCache::Outcome outcome = HXMediaCache::clear(rule);
    HXRunRecord::noteMediaCache(HXMediaCache::toVariant(outcome, HXMediaCache::Detail::TrashedPlaces));
    int failed = 0;
    for (const HXMediaCache::Folder &folder : outcome.folders)
        failed += static_cast<int>(folder.failed.size());
    const QStringList lines = HXMediaCache::summaryLines(outcome);
    const std::optional<QString> recorded = HXRunRecord::finish(failed > 0, lines.join(QLatin1Char('\n')));
    if (json) {
        QVariantMap map = HXMediaCache::toVariant(outcome, HXMediaCache::Detail::Totals);
        map.insert(QStringLiteral("run"), recorded ? QFileInfo(*recorded).completeBaseName() : QString());
        map.insert(QStringLiteral("note"), lines.constLast());
        printJson(map);
    } else {
        for (const QString &line : lines)
            print(line);
    }
    return failed > 0 ? kFailed : kDone;
}

}  // namespace

int main(int argc, char **argv)
{
    const int output = ::dup(STDOUT_FILENO);
    if (output >= 0 && ::dup2(STDERR_FILENO, STDOUT_FILENO) >= 0)
        if (FILE *stream = ::fdopen(output, "w"))
            g_out = stream;
    QCoreApplication app(argc, argv);
    QStringList arguments = app.arguments().mid(1);
    const bool json = arguments.removeAll(QStringLiteral("--json")) > 0;
    if (arguments.isEmpty() || arguments.contains(QStringLiteral("--help")) ||
        arguments.contains(QStringLiteral("-h"))) {
        std::fputs(kUsage, arguments.isEmpty() ? stderr : g_out);
        return arguments.isEmpty() ? kBadArguments : kDone;
    }
    const QString command = arguments.takeFirst();
    if (command == QLatin1String("preview"))
        return preview(arguments, json);
    if (command == QLatin1String("history"))
        return arguments.isEmpty() ? history(json)
                                   : fail(kBadArguments, QStringLiteral("history takes no arguments"));
    if (command == QLatin1String("report"))
        return report(arguments, json);
    if (command == QLatin1String("restore"))
        return restore(arguments, json);
    if (command == QLatin1String("mediacache"))
        return mediaCache(arguments, json);
    return fail(kBadArguments, HXFormat(u"unknown command %@; try 'mendwellctl --help'", command));
}
