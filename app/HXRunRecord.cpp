#include "app/HXRunRecord.h"

#include "app/HXRunLedger.h"

#include "diagnostics/HXLog.h"
#include "fs/HXFileOperations.h"
#include "platform/Accounts.h"
#include "platform/Folder.h"
#include "platform/Platform.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXUsersTree.h"
#include "system/PropertyList.h"

#include <QElapsedTimer>

#include <algorithm>
#include <mutex>

#include <unistd.h>

namespace HXRunRecord {

namespace {

const QString kExtension = QStringLiteral(".plist");

struct Run {
    bool active = false;
    QVariantMap record;
    QVariantList steps;
    QVariantList trashed;
    QVariantList machineItems;  // for root's own ledger
    QString step;
    QElapsedTimer stepTimer;
};

std::mutex g_mutex;
Run g_run;

void endStep(Run &run)
{
    if (run.step.isEmpty())
        return;
    run.steps.append(QVariantMap{{QStringLiteral("name"), run.step},
                                 {QStringLiteral("seconds"), run.stepTimer.nsecsElapsed() / 1e9}});
    run.step.clear();
}

QString pathOf(const QString &identifier)
{
    return HXPath::appendingComponent(repairsFolder(), identifier + kExtension);
}

// KEY of the run under way set to VALUE, or extended by ITEMS.
void note(const QString &key, const QVariant &value)
{
    std::lock_guard lock(g_mutex);
    if (g_run.active)
        g_run.record.insert(key, value);
}

void appendTo(const QString &key, const QVariantList &items)
{
    std::lock_guard lock(g_mutex);
    if (g_run.active)
        g_run.record.insert(key, g_run.record.value(key).toList() + items);
}

void pruneOldRuns()
{
    const QStringList identifiers = runIdentifiers();
    const HXActingForUser acting(repairsFolder());
    const std::optional<platform::Folder> folder = platform::Folder::open(repairsFolder());
    if (!folder)
        return;
    for (qsizetype i = kKeptRuns; i < identifiers.size(); ++i)
        folder->removeEntry(identifiers[i] + kExtension);
}

}  // namespace

void begin(const QString &mode, const QVariantMap &options, const QStringList &switches)
{
    const QDateTime start = QDateTime::currentDateTimeUtc();
    {
        std::lock_guard lock(g_mutex);
        g_run = Run();
        g_run.active = true;
        g_run.record = {
            {QStringLiteral("version"), kVersion},
            {QStringLiteral("identifier"), start.toString(QStringLiteral("yyyyMMdd-HHmmss-zzz")) +
                                               QStringLiteral("-") + QString::number(::getpid())},
            {QStringLiteral("start"), start},
            {QStringLiteral("mode"), mode},
            {QStringLiteral("options"), options},
            {QStringLiteral("switches"), switches},
            {QStringLiteral("user"), HXLocalPaths::currentConsoleUser().value_or(HXLocalPaths::username())},
            {QStringLiteral("processes"), QVariantList()},
            {QStringLiteral("permissionChanges"), QVariantList()},
        };
    }
    HXFileManager::setTrashObserver(&noteTrashed);
}

void beginStep(const QString &name)
{
    std::lock_guard lock(g_mutex);
    if (!g_run.active)
        return;
    endStep(g_run);
    g_run.step = name;
    g_run.stepTimer.start();
}

void noteTrashed(const QString &originalPath, const QString &trashedPath, const QString &infoPath)
{
    const std::optional<QVariantMap> machineItem = HXRunLedger::entryFor(originalPath, trashedPath);
    std::lock_guard lock(g_mutex);
    if (!g_run.active)
        return;
    if (machineItem)
        g_run.machineItems.append(*machineItem);
    g_run.trashed.append(QVariantMap{{QStringLiteral("path"), originalPath},
                                     {QStringLiteral("trashPath"), trashedPath},
                                     {QStringLiteral("infoPath"), infoPath},
                                     {QStringLiteral("step"), g_run.step}});
}

void noteEndedProcesses(const QVariantList &processes)
{
    appendTo(QStringLiteral("processes"), processes);
}

void notePermissionChanges(const QVariantList &changes)
{
    appendTo(QStringLiteral("permissionChanges"), changes);
}

void notePremiereWasRunning(bool running)
{
    note(QStringLiteral("premiereWasRunning"), running);
}

void note32BitMode(bool on)
{
    note(QStringLiteral("32BitMode"), on);
}

void noteMediaCache(const QVariantMap &mediaCache)
{
    note(QStringLiteral("mediaCache"), mediaCache);
}

std::optional<QString> finish(bool errorsFound, const QString &verdict)
{
    HXFileManager::setTrashObserver({});
    QVariantMap record;
    QVariantList machineItems;
    {
        std::lock_guard lock(g_mutex);
        if (!g_run.active)
            return std::nullopt;
        endStep(g_run);
        g_run.active = false;
        record = g_run.record;
        record.insert(QStringLiteral("steps"), g_run.steps);
        record.insert(QStringLiteral("trashed"), g_run.trashed);
        machineItems = g_run.machineItems;
    }
    if (!machineItems.isEmpty() &&
        !HXRunLedger::store(record.value(QStringLiteral("identifier")).toString(), machineItems))
        HXLog::appendLog(u"Unable to keep root's ledger of the run in %@", HXLocalPaths::logDirectory(false));
    // A user who turned logging off gets no record either: it lies among the logs.
    if (HXLog::sharedController().loggingDisabled())
        return std::nullopt;
    record.insert(QStringLiteral("end"), QDateTime::currentDateTimeUtc());
    record.insert(QStringLiteral("errorsFound"), errorsFound);
    record.insert(QStringLiteral("verdict"), verdict);
    if (!store(record)) {
        HXLog::appendLog(u"Unable to write the run record in %@", repairsFolder());
        return std::nullopt;
    }
    pruneOldRuns();
    return pathOf(record.value(QStringLiteral("identifier")).toString());
}

std::optional<uid_t> consoleOwner()
{
    if (!platform::isRoot())
        return std::nullopt;
    const std::optional<QString> user = HXLocalPaths::currentConsoleUser();
    const std::optional<platform::Account> account = user ? platform::accountNamed(*user) : std::nullopt;
    return account ? std::optional<uid_t>(account->uid) : std::nullopt;
}

QString repairsFolder()
{
    return HXPath::appendingComponent(HXLocalPaths::logDirectory(true),
                                      QStringLiteral("Lanternfish/Repairs"));
}

QStringList runIdentifiers()
{
    QStringList identifiers;
    const HXActingForUser acting(repairsFolder());
    if (const std::optional<platform::Folder> folder = platform::Folder::open(repairsFolder()))
        for (const QString &name : folder->entries())
            if (name.endsWith(kExtension) && !name.startsWith(QLatin1Char('.')))
                identifiers.append(name.chopped(kExtension.size()));
    // Named by their start, so the newest sorts last by name: reversed, it comes first.
    std::sort(identifiers.begin(), identifiers.end(), std::greater<>());
    return identifiers;
}

std::optional<QVariantMap> load(const QString &identifier)
{
    const QString wanted = identifier.isEmpty() ? runIdentifiers().value(0) : identifier;
    // A record's name only: nothing elsewhere is read through it.
    if (wanted.isEmpty() || wanted.startsWith(QLatin1Char('.')) || wanted.contains(QLatin1Char('/')))
        return std::nullopt;
    const HXActingForUser acting(repairsFolder());
    QVariantMap record = PropertyList::readDictionaryInUsersTree(pathOf(wanted));
    if (record.isEmpty())
        return std::nullopt;
    return record;
}

bool store(const QVariantMap &record)
{
    const QString identifier = record.value(QStringLiteral("identifier")).toString();
    const HXActingForUser acting(repairsFolder());
    return !identifier.isEmpty() &&
           PropertyList::writeXmlFileInUsersTree(pathOf(identifier), record, consoleOwner());
}

}  // namespace HXRunRecord
