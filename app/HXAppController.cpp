#include "app/HXAppController.h"

#include "diagnostics/HXLog.h"
#include "system/HXBundle.h"

std::unique_ptr<HXAppController> HXAppController::initWithoutGUI()
{
    std::unique_ptr<HXAppController> controller(new HXAppController());
    // Crash detection with the program's own settings file and the no-window
    // authorization object join here as those services are built.
    HXLog::createNewLog(QStringLiteral("Mendwell.task"));
    controller->m_hasGUI = false;
    return controller;
}

void HXAppController::setHasGUI(bool hasGUI)
{
    m_hasGUI = hasGUI;
}

void HXAppController::startRepair(bool trashPreferences, bool trashWorkspaces, bool silent)
{
    (void)trashPreferences;
    (void)trashWorkspaces;
    (void)silent;
    HXLog::appendLog(u"Starting repair...");
}

QString HXAppController::currentBundlePath()
{
    // Only the main bundle is ever loaded, so the bundle named MENDWELL_BUNDLE_ID
    // is the main bundle when it is loaded at all.
    return HXBundle::mainBundle().bundlePath();
}

QString HXAppController::currentExePath()
{
    return currentBundlePath() + QStringLiteral("/Contents/MacOS/Mendwell");
}
