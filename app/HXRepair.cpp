// The repair: one fixed sequence of steps, the same in the window (on a thread
// of its own) and on the command line (on the main thread).

#include "app/HXAppController.h"
#include "app/HXMediaCache.h"
#include "app/HXPremiereFiles.h"
#include "app/HXRunRecord.h"

#include "app/audit/HXMendwellUtils.h"
#include "diagnostics/HXException.h"
#include "diagnostics/HXLog.h"
#include "platform/Platform.h"
#include "platform/SignalStack.h"
#include "system/HXAuthorization.h"
#include "system/HXDistributedNotificationCenter.h"
#include "system/HXFormat.h"
#include "system/HXMainThread.h"
#include "system/HXWorkspace.h"
#include "ui/HXAlert.h"
#include "ui/HXGrowl.h"

#include <exception>
#include <thread>

namespace {

const QString kScanFinished = QStringLiteral("hxMendwellScanFinished");
const QString kOutputKey = QStringLiteral("output");
const QString kShouldTrash = QStringLiteral("shouldTrash");
const QString kShouldTrashWorkspaces = QStringLiteral("shouldTrashWorkspaces");
const QString kShouldTrashMediaCache = QStringLiteral("shouldTrashMediaCache");
const QString kNoticeTitle = QStringLiteral("Mendwell");
const QString kErrorsFound = QStringLiteral("Errors were found during processing.");
const QString kNoErrorsFound = QStringLiteral("No errors were found.");

// Only so many wrong paths are listed; a count stands for the rest.
constexpr qsizetype kListedPaths = 20;
// From this many on, the permission step warns that it takes a while.
constexpr qsizetype kManyPaths = 50;

QString wrongPathsListing(const QStringList &paths)
{
    if (paths.size() <= kListedPaths)
        return paths.join(QLatin1Char('\n'));
    return HXFormat(u"%@\n(plus %i more)", paths.mid(0, kListedPaths).join(QLatin1Char('\n')),
                    static_cast<int>(paths.size() - kListedPaths));
}

QString settingPermissionsLine(qsizetype count)
{
    if (count < kManyPaths)
        return HXFormat(u"Setting correct permissions on %i file%@...", static_cast<int>(count),
                        count == 1 ? QString() : QStringLiteral("s"));
    return HXFormat(u"Setting correct permissions on %i files. This could take a while...",
                    static_cast<int>(count));
}

QStringList auditAdobeFolders()
{
    QStringList badPaths;
    for (const QString &root : HXMendwellUtils::auditedFolders())
        if (const std::optional<QStringList> found = HXMendwellUtils::checkPermissionsForDirectory(root))
            badPaths += *found;
    return badPaths;
}

// Console lines of a run: none at all in a silent one.
class Console {
public:
    Console(HXAppController &controller, bool silent) : m_controller(controller), m_silent(silent) {}
    void say(void (HXAppController::*insert)(const QString &), const QString &text) const
    {
        if (!m_silent)
            (m_controller.*insert)(text);
    }
    // A line that starts a step of the run record, named by the line without its dots.
    void step(void (HXAppController::*insert)(const QString &), const QString &text) const
    {
        HXRunRecord::beginStep(text.endsWith(QLatin1String("...")) ? text.chopped(3) : text);
        say(insert, text);
    }

private:
    HXAppController &m_controller;
    bool m_silent;
};

// The audit of the Adobe folders and, when it finds anything, the privileged
// correction. True when something was wrong, even though it is corrected now.
bool correctFilePermissions(HXAppController &controller, const Console &console)
{
    console.step(&HXAppController::insertText, QStringLiteral("Checking file permissions..."));
    const QStringList badPaths = auditAdobeFolders();
    if (badPaths.isEmpty()) {
        console.say(&HXAppController::insertText, QStringLiteral("No file permission errors found."));
        return false;
    }
    HXLog::appendLog(u"Incorrect file permissions on: %@", badPaths);
    console.say(
        &HXAppController::insertErrorText,
        HXFormat(u"The following files have incorrect permissions:\n%@", wrongPathsListing(badPaths)));
    console.say(&HXAppController::insertText, settingPermissionsLine(badPaths.size()));
    controller.setFilePermissions();
    return true;
}

// The media cache goes only once the editor has quit: the wait above may have
// ended with it still running.
void clearPremiereMediaCache(const Console &console)
{
    console.step(&HXAppController::insertText, QStringLiteral("Clearing media cache..."));
    if (HXWorkspace::runningBundleIdentifiers().contains(HXPremiereFiles::kBundleIdentifier)) {
        HXLog::appendLog(u"Premiere Pro is still running; its media cache was left alone.");
        console.say(&HXAppController::insertErrorText,
                    QStringLiteral("Premiere Pro is still running; its media cache was left alone."));
        return;
    }
    const HXMediaCache::Outcome outcome = HXMediaCache::clear({});
    HXRunRecord::noteMediaCache(HXMediaCache::toVariant(outcome, HXMediaCache::Detail::TrashedPlaces));
    const QStringList lines = HXMediaCache::summaryLines(outcome);
    HXLog::appendLog(u"%@", lines.join(QLatin1Char('\n')));
    for (const QString &line : lines)
        console.say(&HXAppController::insertText, line);
}

// The verdict: on the console, then as a sheet in the window or as the closing
// signal and a notice on the command line.
void reportVerdict(HXAppController &controller, const Console &console, bool errorsFound, bool silent)
{
    // A silent run always reports errors: its caller looks at the log.
    QString summary = silent || errorsFound ? kErrorsFound : kNoErrorsFound;
    console.say(errorsFound ? &HXAppController::insertBoldErrorText : &HXAppController::insertBoldText,
                HXFormat(u"Processing complete. %@", summary));
    if (controller.hasGUI()) {
        if (errorsFound)
            summary += QStringLiteral("\n\nScroll up to see the relevant error messages.");
        HXAlert::alertSheetWithMessageText(QStringLiteral("Processing complete"), summary,
                                           controller.windowMain());
        return;
    }
    const std::optional<QString> output = controller.outputString();
    QVariantMap userInfo;
    if (output && !output->isEmpty())
        userInfo.insert(kOutputKey, *output);
    HXDistributedNotificationCenter::defaultCenter().postNotification(kScanFinished, userInfo);
    if (!silent)
        HXGrowl::postGrowlNotification(kNoticeTitle, QStringLiteral("Repair complete."));
}

}  // namespace

void HXAppController::repair()
{
    const auto isOn = [](const QPointer<QAbstractButton> &box) { return box && box->isChecked(); };
    const QVariantMap parameters{{kShouldTrash, isOn(m_controls.trashPrefs)},
                                 {kShouldTrashWorkspaces, isOn(m_controls.resetLayoutCheck)},
                                 {kShouldTrashMediaCache, isOn(m_controls.mediaCacheCheck)}};
    // One repair at a time, also when a second click arrives before the thread
    // has disabled the button.
    if (m_repairing.exchange(true))
        return;
    if (m_controls.repairButton)
        m_controls.repairButton->setEnabled(false);
    std::thread([this, parameters] {
        const platform::ThreadSignalStack signalStack;
        threadedRepair(parameters);
        m_repairing = false;
    }).detach();
}

void HXAppController::threadedRepair(const QVariantMap &parameters)
{
    const bool shouldTrash = parameters.value(kShouldTrash).toBool();
    const bool shouldTrashWorkspaces = parameters.value(kShouldTrashWorkspaces).toBool();
    HXPerformOnMainThread([this] { repairStart(); }, true);
    startRepair(shouldTrash, shouldTrashWorkspaces, false, parameters.value(kShouldTrashMediaCache).toBool());
    HXPerformOnMainThread([this] { repairEnd(); }, true);
}

void HXAppController::repairStart()
{
    if (m_controls.repairButton)
        m_controls.repairButton->setEnabled(false);
    if (m_controls.spinner)
        m_controls.spinner->setRange(0, 0);  // busy: the bar runs back and forth
}

void HXAppController::repairEnd()
{
    if (m_controls.repairButton)
        m_controls.repairButton->setEnabled(true);
    if (m_controls.spinner)
        m_controls.spinner->setRange(0, 1);
}

void HXAppController::startRepair(bool trash, bool silent)
{
    startRepair(trash, trash, silent);
}

void HXAppController::startRepair(bool shouldTrash, bool shouldTrashWorkspaces, bool silent)
{
    startRepair(shouldTrash, shouldTrashWorkspaces, silent, false);
}

void HXAppController::startRepair(bool shouldTrash, bool shouldTrashWorkspaces, bool silent,
                                  bool clearMediaCache)
{
    try {
        const Console console(*this, silent);
        if (!m_hasGUI && !silent)
            HXGrowl::postGrowlNotification(kNoticeTitle, QStringLiteral("Repairing Creative Suite..."));
        HXLog::appendLog(u"Starting repair...");
        HXRunRecord::begin(m_hasGUI ? HXRunRecord::kModeWindow : HXRunRecord::kModeCommandLine,
                           {{QStringLiteral("trashPreferences"), shouldTrash},
                            {QStringLiteral("trashWorkspaces"), shouldTrashWorkspaces},
                            {QStringLiteral("silent"), silent},
                            {QStringLiteral("clearMediaCache"), clearMediaCache}},
                           m_hasGUI ? QStringList() : platform::processArguments().mid(1));

        HXAuthorization &authorization = HXAuthorization::sharedController();
        if (!authorization.isAuthorized())
            authorization.authStart();
        if (!authorization.isAuthorized()) {
            HXRunRecord::finish(true, QStringLiteral("Unable to authorize. Repair canceled."));
            // The window says nothing at all: the button simply comes back.
            if (!m_hasGUI) {
                HXDistributedNotificationCenter::defaultCenter().postNotification(
                    kScanFinished, {{kOutputKey, QStringLiteral("Unable to authorize. Repair canceled.")}});
                if (!silent)
                    HXGrowl::postGrowlNotification(kNoticeTitle, QStringLiteral("Repair failed."));
            }
            return;
        }

        if (m_hasGUI)
            clearErrorText();
        console.say(&HXAppController::insertBoldText, QStringLiteral("Starting repair..."));
        bool premiereWasRunning = false;
        if (HXWorkspace::runningBundleIdentifiers().contains(HXPremiereFiles::kBundleIdentifier)) {
            console.step(&HXAppController::insertBoldText,
                         QStringLiteral("Waiting for Premiere Pro to exit..."));
            // Goes on after the time limit even while Premiere Pro still runs.
            closePremiere();
            premiereWasRunning = true;
        }
        HXRunRecord::notePremiereWasRunning(premiereWasRunning);
        if (shouldTrash) {
            console.step(&HXAppController::insertText, QStringLiteral("Trashing preferences..."));
            trashPremierePrefs(false);
        }
        if (shouldTrashWorkspaces) {
            console.step(&HXAppController::insertText, QStringLiteral("Trashing workspaces..."));
            trashWorkspaces(false);
        }
        if (clearMediaCache)
            clearPremiereMediaCache(console);
        console.step(&HXAppController::insertText, QStringLiteral("Terminating processes..."));
        stopAll();
        console.step(&HXAppController::insertText, QStringLiteral("Trashing dynamic link caches..."));
        trashDynamicLinkCaches();
        console.step(&HXAppController::insertText, QStringLiteral("Resetting memory balancer..."));
        resetMemoryBalancer();

        // Only wrong permissions and the 32-bit flag count as errors; what the
        // other steps could not do is in the log.
        bool errorsFound = correctFilePermissions(*this, console);
        console.step(&HXAppController::insertText, QStringLiteral("Checking 32-bit flag..."));
        const bool is32Bit = checkForActive32BitMode(HXPremiereFiles::kBundleIdentifier);
        HXRunRecord::note32BitMode(is32Bit);
        errorsFound = errorsFound || is32Bit;
        console.step(&HXAppController::insertText, QStringLiteral("Finishing..."));
        authorization.authEnd();
        HXRunRecord::finish(errorsFound, errorsFound ? kErrorsFound : kNoErrorsFound);
        reportVerdict(*this, console, errorsFound, silent);

        if (premiereWasRunning) {
            if (const std::optional<QString> premiere =
                    HXWorkspace::absolutePathForAppBundleWithIdentifier(HXPremiereFiles::kBundleIdentifier))
                HXWorkspace::launchApplication(*premiere);
        }
    } catch (const std::exception &exception) {
        HXException::logException(exception,
                                  "-[HXAppController startRepair:shouldTrashWorkspaces:isSilent:]");
    }
}
