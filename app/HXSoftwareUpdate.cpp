#include "app/HXSoftwareUpdate.h"

#include "diagnostics/HXLog.h"
#include "fs/HXFileOperations.h"
#include "platform/SignalStack.h"
#include "system/HXBundle.h"
#include "system/HXLocalPaths.h"
#include "system/HXPath.h"
#include "system/HXPrivateFolder.h"
#include "system/HXTaskEx.h"
#include "system/HXUserDefaults.h"
#include "system/HXWorkspace.h"

#include <QFileInfo>

#include <cstdlib>
#include <mutex>
#include <optional>
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

// The integer value the Mac gives an entry: its leading integer (blanks, a sign,
// digits up to the first other character, so "15.1" is 15), saturated at the
// range of long.
long integerValue(const QVariant &value)
{
    const QByteArray text = value.toString().toUtf8();
    return std::strtol(text.constData(), nullptr, 10);
}

// The updater chosen, and the private folder of its copy when it is the carried one.
struct Updater {
    QString path;
    std::optional<HXPrivateFolder> copy;
};

// The newer of the two. The carried one runs from a copy in a private folder of
// this run, never in place and never from a name others can make first; the
// installed one is left as it is. Empty when no such folder can be made.
Updater chooseUpdater()
{
    const QString installed = HXSoftwareUpdate::installedUpdaterPath();
    const QString embedded = HXSoftwareUpdate::embeddedUpdaterPath();
    if (HXSoftwareUpdate::updaterVersion(installed) >= HXSoftwareUpdate::updaterVersion(embedded))
        return {installed, std::nullopt};
    std::optional<HXPrivateFolder> folder = HXPrivateFolder::make(QStringLiteral("Mendwell-update"));
    if (!folder)
        return {};
    const QString copy = folder->pathOf(kUpdaterName);
    // A failed copy shows where the path is used, as a missing updater.
    HXFileManager::copyFile(embedded, copy, false);
    return {copy, std::move(folder)};
}

// The copy the menu started: it may run past our own end, so it stays until the
// next one replaces it (never freed).
std::mutex g_launchedCopyLock;
std::optional<HXPrivateFolder> &launchedCopy()
{
    static auto *const copy = new std::optional<HXPrivateFolder>();
    return *copy;
}

}  // namespace

void HXSoftwareUpdate::startup()
{
    if (checkAtStartup())
        std::thread([] {
            const platform::ThreadSignalStack signalStack;
            automaticallyCheckForUpdates();
        }).detach();
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

long HXSoftwareUpdate::updaterVersion(const QString &bundlePath)
{
    if (!QFileInfo(bundlePath).isDir())
        return 0;
    return integerValue(HXBundle(bundlePath).objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion")));
}

QString HXSoftwareUpdate::updaterPath()
{
    Updater updater = chooseUpdater();
    // As root the console user runs it (HXWorkspace::launchApplication).
    if (updater.copy)
        updater.copy->shareWithConsoleUser();
    if (updater.copy) {
        const std::lock_guard guard(g_launchedCopyLock);
        launchedCopy() = std::move(updater.copy);
    }
    return updater.path;
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
    // Its copy, if any, goes once the check has ended.
    const Updater updater = chooseUpdater();
    const QString &path = updater.path;
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
