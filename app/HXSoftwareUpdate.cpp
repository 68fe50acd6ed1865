#include "app/HXSoftwareUpdate.h"

#include "diagnostics/HXLog.h"
#include "fs/HXFileOperations.h"
#include "system/HXBundle.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXTaskEx.h"
#include "system/HXUserDefaults.h"
#include "system/HXWorkspace.h"

#include <QFileInfo>

#include <thread>

namespace {

const QString kUpdaterName = QStringLiteral("Lanternfish Software Update.app");

// Only an explicit NO turns the check off; a number 0 equals NO as well.
bool checkAtStartup()
{
    const QVariant value = HXUserDefaults::valueForKey(QStringLiteral("SUCheckAtStartup"),
                                                       QStringLiteral("com.lanternfish.global"))
                               .value_or(QVariant());
    return !HXUserDefaults::isNumberEqualTo(value, 0);
}

}  // namespace

void HXSoftwareUpdate::startup()
{
    if (checkAtStartup())
        std::thread(&HXSoftwareUpdate::automaticallyCheckForUpdates).detach();
}

void HXSoftwareUpdate::manualUpdateCheck()
{
    launchSoftwareUpdate();
}

QString HXSoftwareUpdate::installedUpdaterPath()
{
    return HXPath::appendingComponent(HXLocalPaths::applicationDirectory(false),
                                      QStringLiteral("Lanternfish/") + kUpdaterName);
}

QString HXSoftwareUpdate::embeddedUpdaterPath()
{
    return HXPath::appendingComponent(HXBundle::mainBundle().bundlePath(),
                                      QStringLiteral("Contents/Resources/") + kUpdaterName);
}

QString HXSoftwareUpdate::temporaryUpdaterPath()
{
    return HXPath::appendingComponent(HXLocalPaths::tempDirectory(), kUpdaterName);
}

long HXSoftwareUpdate::updaterVersion(const QString &bundlePath)
{
    if (!QFileInfo(bundlePath).isDir())
        return 0;
    return HXBundle(bundlePath)
        .objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion"))
        .toString()
        .toLong();
}

QString HXSoftwareUpdate::updaterPath()
{
    const QString installed = installedUpdaterPath();
    const QString embedded = embeddedUpdaterPath();
    if (updaterVersion(installed) >= updaterVersion(embedded))
        return installed;
    // The carried copy runs from the temporary folder, never in place, and the
    // installed one is left as it is.
    const QString temporary = temporaryUpdaterPath();
    if (HXFileManager::fileExistsAtPath(temporary))
        HXFileManager::removeFile(temporary, false);
    HXFileManager::copyFile(embedded, temporary, false);
    return temporary;
}

void HXSoftwareUpdate::launchSoftwareUpdate()
{
    const QString path = updaterPath();
    if (path.isEmpty()) {
        HXLog::appendLogAndPrint(u"Unable to launch Software Update - path doesn't exist");
        return;
    }
    HXWorkspace::launchApplication(path);
}

void HXSoftwareUpdate::automaticallyCheckForUpdates()
{
    const QString path = updaterPath();
    if (path.isEmpty()) {
        HXLog::appendLogAndPrint(u"Unable to launch Software Update - path doesn't exist");
        return;
    }
    if (!QFileInfo(path).isDir()) {
        HXLog::appendLogAndPrint(u"Unable to launch Software Update - updater bundle not found.");
        return;
    }
    const QString executable = HXBundle(path).executablePath();
    if (executable.isEmpty() || !QFileInfo(executable).isFile()) {
        HXLog::appendLogAndPrint(u"Unable to launch Software Update - executable path doesn't exist");
        return;
    }
    // Its outcome is the updater's business.
    HXTaskEx::runTask(executable, {QStringLiteral("-checkpath"), HXBundle::mainBundle().bundlePath()});
}
