// The clean-up steps of a repair that act on Premiere Pro and its companions, on
// HXAppController.

#include "app/HXAppController.h"
#include "app/HXPremiereFiles.h"
#include "app/HXRunRecord.h"
#include "app/audit/HXToolReport.h"

#include "diagnostics/HXException.h"
#include "diagnostics/HXLog.h"
#include "fs/HXFileOperations.h"
#include "system/HXAuthorization.h"
#include "system/HXFormat.h"
#include "system/HXLocalPaths.h"
#include "system/HXMainThread.h"
#include "system/HXPath.h"
#include "system/HXTaskNotification.h"
#include "system/HXWorkspace.h"
#include "system/PropertyList.h"
#include "ui/HXAlert.h"

#include <QDateTime>

#include <chrono>
#include <exception>
#include <thread>

namespace {

const QString kKilltool = QStringLiteral("Contents/MacOS/killtool");
const QString kTrashtool = QStringLiteral("Contents/MacOS/trashtool");

// At most 21 looks two seconds apart: about 42 seconds for Premiere Pro to quit.
constexpr int kLastQuitCheck = 20;

QString helperTool(const QString &relativePath)
{
    return HXPath::appendingComponent(HXAppController::currentBundlePath(), relativePath);
}

void trashEach(const QStringList &paths)
{
    // What went wrong is in the log already; the repair goes on either way.
    for (const QString &path : paths)
        HXFileManager::trashFile(path);
}

void showTrashedAlert(QWidget *window)
{
    // The layout command announces preferences too, as it always has.
    HXAlert::alertSheetWithMessageText(QStringLiteral("Premiere Pro preferences successfully trashed"),
                                       QStringLiteral("Please relaunch Premiere Pro."), window);
}

}  // namespace

bool HXAppController::closePremiere()
{
    HXPerformOnMainThread([this] { sendQuitEventToApp(HXPremiereFiles::kApplicationName); }, true);
    for (int check = 0; check <= kLastQuitCheck; ++check) {
        const qint64 started = QDateTime::currentMSecsSinceEpoch();
        while (QDateTime::currentMSecsSinceEpoch() - started < 2000)
            std::this_thread::sleep_for(std::chrono::seconds(1));
        if (!HXWorkspace::runningBundleIdentifiers().contains(HXPremiereFiles::kBundleIdentifier))
            return true;
    }
    return false;
}

void HXAppController::sendQuitEventToApp(const QString &applicationName)
{
    const std::optional<QString> error = HXWorkspace::quitApplication(applicationName);
    if (!error)
        return;
    // The log's text has two blanks before the dash, the client's one.
    HXLog::appendLog(u"Unable to quit %@ application  - %@", applicationName, *error);
    HXTaskNotification::postTaskErrorString(
        HXFormat(u"Unable to quit %@ application - %@", applicationName, *error));
}

void HXAppController::trashPremierePrefs(bool showAlert)
{
    trashEach(HXPremiereFiles::preferencePaths());
    if (showAlert)
        showTrashedAlert(windowMain());
}

void HXAppController::trashWorkspaces(bool showAlert)
{
    trashEach(HXPremiereFiles::windowLayoutPaths());
    if (showAlert)
        showTrashedAlert(windowMain());
}

void HXAppController::stopAll()
{
    try {
        HXLog::appendLog(u"Stopping processes...");
        // Waited for, so the caches below are trashed once their processes are gone.
        QByteArray report;
        const int status =
            HXAuthorization::sharedController().authExecTask(helperTool(kKilltool), {}, &report);
        if (status != 0)
            HXLog::appendLog(u"Error stopping processes: %i", status);
        HXRunRecord::noteEndedProcesses(HXToolReport::endedProcessesIn(report));
        // The processes' own clean-up on the way out takes a moment.
        std::this_thread::sleep_for(std::chrono::seconds(2));
    } catch (const std::exception &exception) {
        HXException::logException(exception, "-[HXAppController stopAll]");
    }
}

void HXAppController::trashDynamicLinkCaches()
{
    trashEach(HXPremiereFiles::dynamicLinkCachePaths());
}

void HXAppController::resetMemoryBalancer()
{
    trashEach(HXPremiereFiles::memoryBalancerPaths());
}

bool HXAppController::checkForActive32BitMode(const QString &bundleIdentifier)
{
    const std::optional<QString> name = HXPremiereFiles::applicationIn32BitMode(bundleIdentifier);
    if (!name)
        return false;
    // Said even in a silent repair, so a caller of the command line learns it too.
    insertErrorText(
        HXFormat(u"%@ is set to run in 32-bit mode. This may cause problems. To fix this, "
                 u"ctrl-click the application, click Get Info and deselect \"Open in 32-bit mode\".",
                 *name));
    return true;
}

void HXAppController::authTrashFile(const QString &path)
{
    try {
        HXLog::appendLog(u"Trashing file %@...", path);
        const int status =
            HXAuthorization::sharedController().authExecTask(helperTool(kTrashtool), {path}, false);
        if (status != 0)
            HXLog::appendLog(u"Error trashing file: %i", status);
    } catch (const std::exception &exception) {
        HXException::logException(exception, "-[HXAppController authTrashFile:]");
    }
}

void HXAppController::authTrashFolderContents(const QString &folder)
{
    try {
        HXLog::appendLog(u"Trashing contents of folder %@...", folder);
        const int status = HXAuthorization::sharedController().authExecTask(
            helperTool(kTrashtool), {QStringLiteral("-dircontents"), folder}, false);
        if (status != 0)
            HXLog::appendLog(u"Error trashing contents of folder: %i", status);
    } catch (const std::exception &exception) {
        HXException::logException(exception, "-[HXAppController authTrashFolderContents:]");
    }
}

void HXAppController::menuTrashPremierePrefs()
{
    trashPremierePrefs(true);
}

void HXAppController::menuTrashWindowLayout()
{
    trashWorkspaces(true);
}
