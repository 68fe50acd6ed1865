#include "diagnostics/HXBugReporter.h"

#include "diagnostics/HXLog.h"
#include "platform/Accounts.h"
#include "platform/Folder.h"
#include "platform/Platform.h"
#include "system/HXBundle.h"
#include "system/HXLocalPaths.h"
#include "system/HXMainThread.h"
#include "system/HXPath.h"
#include "system/HXUserDefaults.h"
#include "system/HXUsersTree.h"
#include "system/HXWorkspace.h"
#include "system/PropertyList.h"

#include <QDateTime>
#include <QFileInfo>
#include <QRegularExpression>

#include <tuple>

namespace {

const QString kLaunch = QStringLiteral("launch");
const QString kExit = QStringLiteral("exit");
const QString kBugReporterIdentifier = QStringLiteral("com.lanternfish.BugReporter");

// The user whose home holds PATH: the one named by the component after the first
// "Users", as homes are on the Mac; else the console user, when PATH lies in that
// user's home (homes elsewhere, as on Linux).
std::optional<platform::Account> ownerOfHomeHolding(const QString &path)
{
    const QStringList components = HXPath::components(path);
    const qsizetype users = components.indexOf(QStringLiteral("Users"));
    if (users >= 0 && users + 1 < components.size())
        return platform::accountNamed(components.at(users + 1));
    const QString home = HXLocalPaths::userDirectory();
    if (!home.isEmpty() && path.startsWith(home + QLatin1Char('/')))
        return platform::accountNamed(HXLocalPaths::username());
    return std::nullopt;
}

void recordDate(const QString &key, const std::optional<QString> &plistPath)
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    if (!plistPath) {
        HXUserDefaults &defaults = HXUserDefaults::standardUserDefaults();
        defaults.setObject(now, key);
        defaults.synchronize();
        return;
    }
    {
        const HXActingForUser acting(*plistPath);
        QVariantMap stamps = PropertyList::readDictionaryInUsersTree(*plistPath);
        stamps.insert(key, now);
        const std::optional<platform::Account> owner = ownerOfHomeHolding(*plistPath);
        PropertyList::writeXmlFileInUsersTree(*plistPath, stamps,
                                              owner ? std::optional<uid_t>(owner->uid) : std::nullopt);
    }
    HXBugReporter::chownPlist(*plistPath);
}

// The date a report's name carries after "NAME_" ("yyyy-MM-dd-HHmmss", which
// sorts as it counts); empty when there is none.
QString dateInName(const QString &entry, qsizetype start)
{
    static const QRegularExpression date(QStringLiteral("\\d{4}-\\d\\d-\\d\\d-\\d{6}"));
    const QRegularExpressionMatch match = date.match(entry, start, QRegularExpression::NormalMatch,
                                                     QRegularExpression::AnchorAtOffsetMatchOption);
    return match.captured();
}

// The newest report of NAME in FOLDER, if it is newer than LAUNCH: of the names
// that start with NAME and "_", in any case, the one with the latest date in it,
// the last name of those with the same date (a name without one is the oldest).
std::optional<QString> reportIn(const QString &folderPath, const QString &name, const QDateTime &launch)
{
    const HXActingForUser acting(folderPath);
    const std::optional<platform::Folder> folder = platform::Folder::open(folderPath);
    if (!folder)
        return std::nullopt;
    const QString prefix = name + QLatin1Char('_');
    QString newest;
    QString newestDate;
    for (const QString &entry : folder->entries()) {
        if (!entry.startsWith(prefix, Qt::CaseInsensitive))
            continue;
        const QString date = dateInName(entry, prefix.size());
        if (std::tie(date, entry) > std::tie(newestDate, newest)) {
            newest = entry;
            newestDate = date;
        }
    }
    if (newest.isEmpty())
        return std::nullopt;
    const std::optional<struct stat> info = folder->infoOf(newest);
    if (!info)
        return std::nullopt;
    const qint64 modified = qint64(info->st_mtim.tv_sec) * 1000 + info->st_mtim.tv_nsec / 1000000;
    if (modified <= launch.toMSecsSinceEpoch())
        return std::nullopt;
    return HXPath::appendingComponent(folderPath, newest);
}

void openWithBugReporter(const QString &report)
{
    const QString bundled =
        HXPath::appendingComponent(HXBundle::mainBundle().resourcePath(), QStringLiteral("Bug Reporter.app"));
    if (QFileInfo(bundled).isDir()) {
        HXWorkspace::launchApplication(bundled, {report});
        return;
    }
    if (const std::optional<QString> installed =
            HXWorkspace::absolutePathForAppBundleWithIdentifier(kBugReporterIdentifier))
        HXWorkspace::launchApplication(*installed, {report});
}

}  // namespace

void HXBugReporter::startBugReporter()
{
    startBugReporter(std::nullopt, std::nullopt, nullptr);
}

void HXBugReporter::startBugReporterWithDelegate(const CrashDelegate &delegate)
{
    startBugReporter(std::nullopt, std::nullopt, delegate);
}

void HXBugReporter::startBugReporter(const std::optional<QString> &name,
                                     const std::optional<QString> &plistPath)
{
    startBugReporter(name, plistPath, nullptr);
}

void HXBugReporter::startBugReporter(const std::optional<QString> &name,
                                     const std::optional<QString> &plistPath, const CrashDelegate &delegate)
{
    const std::optional<QString> report = checkForCrashes(name, plistPath);
    if (report && delegate)
        HXPerformOnMainThread([delegate, path = *report] { delegate(path); }, false);
    recordDate(kLaunch, plistPath);
}

void HXBugReporter::stopBugReporter()
{
    stopBugReporter(std::nullopt);
}

void HXBugReporter::stopBugReporter(const std::optional<QString> &plistPath)
{
    recordDate(kExit, plistPath);
}

std::optional<QString> HXBugReporter::checkForCrashes()
{
    return checkForCrashes(std::nullopt, std::nullopt);
}

std::optional<QString> HXBugReporter::checkForCrashes(const std::optional<QString> &name,
                                                      const std::optional<QString> &plistPath)
{
    QVariantMap stamps;
    if (plistPath) {
        const HXActingForUser acting(*plistPath);
        stamps = PropertyList::readDictionaryInUsersTree(*plistPath);
    }
    const auto stamp = [&](const QString &key) {
        const QVariant value =
            plistPath ? stamps.value(key) : HXUserDefaults::standardUserDefaults().objectForKey(key);
        return value.typeId() == QMetaType::QDateTime ? value.toDateTime() : QDateTime();
    };
    const QDateTime launch = stamp(kLaunch);
    if (!launch.isValid())
        return std::nullopt;  // the first run
    const QString applicationName = name.value_or(
        HXBundle::mainBundle().objectForInfoDictionaryKey(QStringLiteral("CFBundleName")).toString());
    const QDateTime exit = stamp(kExit);
    if (exit.isValid() && launch.msecsTo(exit) >= 0)
        return std::nullopt;  // it ended cleanly

    std::optional<QString> report;
    for (bool userDomain : {true, false}) {
        const QString logs = HXLocalPaths::logDirectory(userDomain);
        for (const char *folder : {"CrashReporter", "DiagnosticReports"}) {
            if (!report && !logs.isEmpty())
                report = reportIn(HXPath::appendingComponent(logs, QLatin1String(folder)), applicationName,
                                  launch);
        }
    }
    if (!report)
        return std::nullopt;
    HXLog::appendLog(u"Application crashed on last launch");
    if (HXUserDefaults::isSuiteSwitchSet(QStringLiteral("disable-crash-reporter"))) {
        platform::systemLog(QStringLiteral("Crash reporter disabled"));
        HXLog::appendLog(u"Crash reporter disabled");
        return report;
    }
    openWithBugReporter(*report);
    return report;
}

void HXBugReporter::chownPlist(const QString &path)
{
    // Only root writes files that belong to someone else. The owner changes through
    // the opened folder: a link planted in place of the file is never followed.
    const std::optional<platform::Account> owner = ownerOfHomeHolding(path);
    if (!owner || !platform::isRoot())
        return;
    if (const std::optional<platform::Item> item = platform::Item::open(path))
        item->folder.setOwner(item->name, owner->uid, owner->gid);
}
