#include "app/HXTroubleshootingUtils.h"

#include "fs/HXFileOperations.h"
#include "platform/Platform.h"
#include "system/HXFormat.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXPrivateFolder.h"
#include "system/HXWorkspace.h"
#include "ui/HXAlert.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <filesystem>
#include <system_error>

namespace {

const QString kStagingName = QStringLiteral("HX_App_Logs");

QString mirrorOf(const QString &staging, const QString &folder)
{
    return HXPath::appendingComponent(staging, folder);
}

// Gathers into the staging folder and counts what it copied; none when a copy
// failed and the whole gathering ends.
class Gathering {
public:
    Gathering(QString staging, QStringList names) : m_staging(std::move(staging)), m_names(std::move(names))
    {
    }

    int count() const { return m_count; }

    // Names of FOLDER that begin with an application name (followed by
    // NAMESUFFIX) and end in EXTENSION.
    bool copyMatching(const QString &folder, const QString &nameSuffix, const QString &extension)
    {
        const QStringList entries = QDir(folder).entryList(
            QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System, QDir::Unsorted);
        for (const QString &entry : entries)
            for (const QString &name : m_names)
                if (entry.startsWith(name + nameSuffix) && entry.endsWith(extension) &&
                    !copyLog(folder, entry))
                    return false;
        return true;
    }

    bool copyPreferences(const QString &folder)
    {
        for (const QString &name : m_names) {
            QString compact = name;
            compact.remove(QLatin1Char(' '));
            QString file = HXFormat(u"com.lanternfish.%@.plist", compact);
            if (!QFileInfo::exists(HXPath::appendingComponent(folder, file)))
                file = HXFormat(u"com.lanternfish.%@.plist", compact.toLower());
            if (QFileInfo::exists(HXPath::appendingComponent(folder, file)) && !copyLog(folder, file))
                return false;
        }
        return true;
    }

    bool copyAdditional(const QString &path)
    {
        const QString mirror = mirrorOf(m_staging, HXPath::deletingLastComponent(path));
        if (!HXFileManager::fileExistsAtPath(mirror))
            HXFileManager::createDirectory(mirror, false);
        QFile source(path);
        if (!source.copy(HXPath::appendingComponent(mirror, HXPath::lastComponent(path)))) {
            platform::systemLog(HXFormat(u"Unable to copy file: %@", source.errorString()));
            return false;
        }
        ++m_count;
        return true;
    }

private:
    bool copyLog(const QString &folder, const QString &entry)
    {
        const QString mirror = mirrorOf(m_staging, folder);
        const QString destination = HXPath::appendingComponent(mirror, entry);
        if (QFileInfo::exists(destination) || QFileInfo(destination).isSymLink())
            return true;  // the same entry matched another name
        QDir().mkpath(mirror);
        // A link is archived as what it points to (relative targets resolve against
        // its folder), under its own name.
        const QFileInfo item(HXPath::appendingComponent(folder, entry));
        const QString source = item.isSymLink() && QFileInfo::exists(item.symLinkTarget())
                                   ? item.symLinkTarget()
                                   : item.filePath();
        QFile file(source);
        if (!file.copy(destination)) {
            platform::systemLog(HXFormat(u"Unable to copy log: %@", file.errorString()));
            return false;
        }
        ++m_count;
        return true;
    }

    QString m_staging;
    QStringList m_names;
    int m_count = 0;
};

QString archivePathFor(const QString &name)
{
    const QString path = HXLocalPaths::desktopDirectory() + HXFormat(u"/%@ Logs.zip", name);
    if (!QFileInfo::exists(path))
        return path;
    return path.chopped(4) +
           HXFormat(u"_%@.zip", QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMddHHmmss")));
}

void tell(bool silent, const QString &title, const QString &text)
{
    if (!silent)
        HXAlert::alertSheetWithMessageText(title, text, nullptr);
}

bool viewLog(const QString &path, const QString &missingText)
{
    if (QFileInfo::exists(path))
        return HXWorkspace::openFile(path);
    HXAlert::alertSheetWithMessageText(QStringLiteral("No log found"), missingText, nullptr);
    return false;
}

}  // namespace

bool HXTroubleshootingUtils::gatherLogsForAppWithName(const std::optional<QString> &name)
{
    return name && gatherLogsForAppsWithNames(QStringList{*name});
}

bool HXTroubleshootingUtils::gatherLogsForAppsWithNames(const QStringList &names)
{
    return gatherLogsForAppsWithNames(names, false);
}

bool HXTroubleshootingUtils::gatherLogsForAppsWithNames(const QStringList &names, bool silent)
{
    return gatherLogsForAppsWithNames(names, silent, std::nullopt);
}

bool HXTroubleshootingUtils::gatherLogsForAppsWithNames(const QStringList &names, bool silent,
                                                        const std::optional<QStringList> &additionalFiles)
{
    if (names.isEmpty())
        return false;
    // The staging folder keeps its name, the archive's top folder, inside a
    // private folder of this run: nobody else can make it first or link it away.
    int failure = 0;
    std::optional<HXPrivateFolder> privateFolder =
        HXPrivateFolder::make(QStringLiteral("Mendwell-logs"), &failure);
    std::error_code error(failure, std::generic_category());
    const QString staging = privateFolder ? privateFolder->pathOf(kStagingName) : QString();
    if (privateFolder)
        std::filesystem::create_directory(QFile::encodeName(staging).toStdString(), error);
    if (!privateFolder || error) {
        platform::systemLog(
            HXFormat(u"Error creating temp folder: %@", QString::fromLocal8Bit(error.message().c_str())));
        return false;
    }

    Gathering gathering(staging, names);
    for (bool userDomain : {true, false}) {
        const QString logs = HXLocalPaths::logDirectory(userDomain);
        if (!gathering.copyMatching(HXPath::appendingComponent(logs, QStringLiteral("Lanternfish")),
                                    QString(), QStringLiteral(".log")) ||
            !gathering.copyMatching(HXPath::appendingComponent(logs, QStringLiteral("CrashReporter")),
                                    QStringLiteral("_"), QStringLiteral(".crash")) ||
            !gathering.copyMatching(HXPath::appendingComponent(logs, QStringLiteral("DiagnosticReports")),
                                    QStringLiteral("_"), QStringLiteral(".crash")) ||
            !gathering.copyPreferences(HXLocalPaths::prefsDirectory(userDomain)))
            return false;
    }
    for (const QString &path : additionalFiles.value_or(QStringList()))
        if (!gathering.copyAdditional(path))
            return false;

    if (gathering.count() == 0) {
        tell(silent, QStringLiteral("No logs found"),
             QStringLiteral("There were no logs available to gather."));
        return false;
    }
    // The archive on her Desktop may be written with her identity.
    privateFolder->shareWithConsoleUser();
    const bool written = HXFileManager::compressFile(staging, archivePathFor(names.first()));
    privateFolder.reset();
    if (written)
        tell(silent, QStringLiteral("Logs gathered successfully"),
             QStringLiteral("The gathered logs were placed on your desktop."));
    else
        tell(silent, QStringLiteral("Logs could not be gathered"),
             QStringLiteral("Please check your file permissions."));
    return written;
}

bool HXTroubleshootingUtils::viewLogForApp(const QString &name)
{
    return viewLog(HXLocalPaths::libraryDirectory(true) + HXFormat(u"/Logs/Lanternfish/%@.1.log", name),
                   QStringLiteral("You must perform a task before viewing the log."));
}

bool HXTroubleshootingUtils::viewTaskLogForApp(const QString &name)
{
    return viewLog(
        HXLocalPaths::libraryDirectory(true) + HXFormat(u"/Logs/Lanternfish/%@.1.task.log", name),
        QStringLiteral("You must run the application as a task (e.g. through Task Scheduler) before "
                       "viewing a log."));
}
