// The windowed application: its two interface files, the start-up guard, the
// main window's controls and menus, and the preferences.

#include "app/HXAboutDialogController.h"
#include "app/HXAppController.h"
#include "app/HXQC.h"

#include "diagnostics/HXException.h"
#include "diagnostics/HXLog.h"
#include "diagnostics/HXBugReporter.h"
#include "platform/Platform.h"
#include "system/HXAuthorization.h"
#include "system/HXBundle.h"
#include "system/HXFormat.h"
#include "system/HXUserDefaults.h"
#include "system/PropertyList.h"
#include "ui/HXAlert.h"
#include "ui/HXInterfaceFile.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QIcon>
#include <QLabel>
#include <QMessageBox>
#include <QScreen>
#include <QTimer>

#include <cstdlib>
#include <exception>
#include <mutex>

namespace {

const QString kShouldTrash = QStringLiteral("shouldTrash");
const QString kShouldTrashWorkspaces = QStringLiteral("shouldTrashWorkspaces");
const QString kRequireAdminPassword = QString::fromLatin1(HXUserDefaults::kRequireAdminPassword);

template <typename Widget> Widget *outlet(const QWidget *root, const char *name)
{
    return root->findChild<Widget *>(QLatin1String(name));
}

void runAlertPanel(QMessageBox::Icon icon, const QString &title, const QString &text)
{
    QMessageBox panel(icon, QApplication::applicationName(), title, QMessageBox::Ok);
    panel.setInformativeText(text);
    panel.exec();
}

// Closing the main window ends the program.
class QuitOnClose : public QObject {
public:
    using QObject::QObject;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (event->type() == QEvent::Close &&
            HXAppController::applicationShouldTerminateAfterLastWindowClosed())
            QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection);
        return QObject::eventFilter(watched, event);
    }
};

void centreOver(QWidget *window, const QWidget *anchor)
{
    if (anchor == nullptr || !anchor->isVisible())
        return;
    const QRect frame = anchor->frameGeometry();
    window->move(frame.center() - QPoint(window->width() / 2, window->height() / 2));
}

void bringToFront(QWidget *window)
{
    window->show();
    window->raise();
    window->activateWindow();
}

}  // namespace

int HXAppController::applicationMain()
{
    std::unique_ptr<HXAppController> controller = init();
    int status = 0;
    if (!controller->isTerminating()) {
        if (!controller->loadMainInterface()) {
            platform::systemLog(QStringLiteral("Unable to load nib file: MainMenu, exiting"));
            status = 1;
        } else {
            controller->awakeFromNib();
            if (!controller->isTerminating()) {
                QTimer::singleShot(0, qApp, [&controller] { controller->applicationDidFinishLaunching(); });
                status = QApplication::exec();
            }
        }
    }
    controller->applicationWillTerminate();
    if (controller->isRepairing()) {
        // The repair's thread still uses the controller and the program's
        // singletons: end here, as the platform's terminate does, instead of
        // tearing them down under it.
        HXLog::finishWriting();
        std::_Exit(status);
    }
    return status;
}

void HXAppController::loadAppInfrastructure()
{
    QWidget *window = HXInterfaceFile::load(HXBundle::mainBundle(), QStringLiteral("AppInfrastructure"));
    if (window == nullptr) {
        const QString title = QStringLiteral("Critical error: unable to load application infrastructure.");
        const QString text = QStringLiteral("You must reinstall the application.");
        HXLog::appendLog(u"%@ %@", title, text);
        platform::systemLog(title + QLatin1Char(' ') + text);
        runAlertPanel(QMessageBox::Critical, title, text);
        terminate();
        return;
    }
    m_ownedPrefsWindow.reset(window);
    m_prefsWindow = window;
    m_prefsAdminPass = outlet<QAbstractButton>(window, "prefsAdminPass");
    m_qcLoggingCheck = outlet<QAbstractButton>(window, "qcLoggingCheck");
    connectPreferences();
    awakeFromNib();
}

bool HXAppController::loadMainInterface()
{
    const HXBundle &bundle = HXBundle::mainBundle();
    QWidget *window = HXInterfaceFile::load(bundle, QStringLiteral("MainMenu"));
    if (window == nullptr)
        return false;
    m_ownedMainWindow.reset(window);
    m_controls = {window,
                  outlet<QAbstractButton>(window, "repairButton"),
                  outlet<QProgressBar>(window, "spinner"),
                  outlet<QAbstractButton>(window, "trashPrefs"),
                  outlet<QAbstractButton>(window, "resetLayoutCheck"),
                  outlet<QAbstractButton>(window, "mediaCacheCheck")};
    m_errorText = outlet<QTextEdit>(window, "errorText");
    m_logoImageView = outlet<QLabel>(window, "logoImageView");

    const QIcon icon(bundle.iconPath());
    QApplication::setWindowIcon(icon);
    if (m_logoImageView)
        m_logoImageView->setPixmap(icon.pixmap(m_logoImageView->maximumSize(), window->devicePixelRatioF()));
    window->installEventFilter(new QuitOnClose(window));
    connectMainWindow();
    // The updater's start-up check belongs to the main interface file.
    m_softwareUpdate.startup();
    return true;
}

void HXAppController::connectMainWindow()
{
    QWidget *window = m_controls.windowMain;
    if (QAbstractButton *button = m_controls.repairButton)
        QObject::connect(button, &QAbstractButton::clicked, button, [this] { repair(); });
    rememberOption(m_controls.trashPrefs, kShouldTrash);
    rememberOption(m_controls.resetLayoutCheck, kShouldTrashWorkspaces);
    rememberOption(m_controls.mediaCacheCheck, QStringLiteral("shouldTrashMediaCache"));

    const std::pair<const char *, void (HXAppController::*)()> commands[] = {
        {"actionAbout", &HXAppController::showAboutDialog},
        {"actionCheckForUpdates", &HXAppController::manualUpdateCheck},
        {"actionPreferences", &HXAppController::showPreferences},
        {"actionTrashPreferences", &HXAppController::menuTrashPremierePrefs},
        {"actionTrashWindowLayouts", &HXAppController::menuTrashWindowLayout},
        {"actionPreviewRepair", &HXAppController::menuPreviewRepair},
        {"actionUndoLastRepair", &HXAppController::menuUndoLastRepair},
        {"actionUserManual", &HXAppController::helpUserManual},
        {"actionHome", &HXAppController::helpHome},
        {"actionProductPage", &HXAppController::helpMarlin},
        {"actionSupport", &HXAppController::helpSupport},
        {"actionReportBug", &HXAppController::helpReportBug},
        {"actionSuggestFeature", &HXAppController::helpSuggestFeature},
        {"actionViewLog", &HXAppController::viewLog},
        {"actionViewTaskLog", &HXAppController::viewTaskLog},
        {"actionGatherLogs", &HXAppController::gatherLogs},
        {"actionMakerHome", &HXAppController::helpHXHome},
    };
    for (const auto &[name, command] : commands)
        if (QAction *action = outlet<QAction>(window, name))
            QObject::connect(action, &QAction::triggered, window,
                             [this, command = command] { (this->*command)(); });
    if (QAction *quit = outlet<QAction>(window, "actionQuit"))
        QObject::connect(quit, &QAction::triggered, qApp, &QCoreApplication::quit, Qt::QueuedConnection);
    // The menu's repair is the button's: unavailable while a repair runs.
    if (QAction *repairAction = outlet<QAction>(window, "actionRepair"))
        QObject::connect(repairAction, &QAction::triggered, window, [this] {
            if (QAbstractButton *button = m_controls.repairButton; button && button->isEnabled())
                button->click();
        });
}

void HXAppController::rememberOption(QAbstractButton *box, const QString &key)
{
    if (box == nullptr)
        return;
    box->setChecked(HXUserDefaults::standardUserDefaults().integerForKey(key) != 0);
    QObject::connect(box, &QAbstractButton::toggled, box,
                     [key](bool on) { HXUserDefaults::standardUserDefaults().setInteger(on ? 1 : 0, key); });
}

void HXAppController::connectPreferences()
{
    for (QAbstractButton *box : {m_prefsAdminPass.data(), m_qcLoggingCheck.data()}) {
        if (box == nullptr)
            continue;
        const bool adminPass = box == m_prefsAdminPass;
        QObject::connect(box, &QAbstractButton::clicked, box, [this, box, adminPass] {
            adminPass ? prefsToggleAdminPass(box) : prefsToggleQCLogging(box);
        });
    }
}

void HXAppController::awakeFromNib()
{
    ++m_awakeCount;
    // Only once both interface files are loaded is every outlet connected.
    if (m_awakeCount != 2)
        return;
    if (HXUserDefaults::isNumberEqualTo(
            HXUserDefaults::standardUserDefaults().objectForKey(kRequireAdminPassword), 1)) {
        if (m_prefsAdminPass)
            m_prefsAdminPass->setChecked(true);
        if (!HXAuthorization::sharedController().authStart()) {
            terminate();
            return;
        }
    }
    if (QWidget *window = m_controls.windowMain)
        bringToFront(window);
    const QVariant logQC =
        PropertyList::readDictionary(HXQC::consentFilePath()).value(QStringLiteral("logQC"));
    if (m_qcLoggingCheck)
        m_qcLoggingCheck->setChecked(logQC.toLongLong() != 0);
}

void HXAppController::applicationDidFinishLaunching()
{
    HXQC::sharedController().loadQC(m_controls.windowMain);
}

void HXAppController::applicationWillTerminate()
{
    if (m_detectsCrashes) {
        HXBugReporter::stopBugReporter();
        m_detectsCrashes = false;
    }
}

void HXAppController::terminate()
{
    m_terminating = true;
    QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection);
}

void HXAppController::prefsToggleAdminPass(QAbstractButton *sender)
{
    // A lock of this call alone: it excludes nothing.
    std::mutex lock;
    std::lock_guard guard(lock);
    try {
        if (sender == nullptr || !sender->isCheckable())
            return;
        const bool required = sender->isChecked();
        HXAuthorization &authorization = HXAuthorization::sharedController();
        // Removing the requirement takes an administrator; adding it does not.
        if (!required && !authorization.authStart()) {
            sender->setChecked(true);
            return;
        }
        // A setting of every user: the administrators' group may write it as
        // itself; with the right, the administrator's runner writes it.
        const QString path = HXUserDefaults::anyUserPath();
        bool saved = !authorization.isAuthorized() &&
                     HXUserDefaults::setValueForAnyUser(qint64{required ? 1 : 0}, kRequireAdminPassword);
        if (!saved) {
            if (!authorization.isAuthorized())
                HXLog::appendLog(u"Unable to save the administrator password setting to %@. Authorizing...",
                                 path);
            saved = authorization.authSetRequireAdminPassword(required);
            HXUserDefaults::standardUserDefaults().synchronize();
        }
        if (!saved) {
            HXLog::appendLog(u"Unable to save the administrator password setting to %@", path);
            sender->setChecked(!required);
            HXAlert::alertSheetWithMessageText(
                QStringLiteral("Unable to save the administrator password setting."),
                HXFormat(u"%@ could not be written. Changing this setting for every user of this computer "
                         u"takes an administrator's password.",
                         path),
                sender->window());
        }
    } catch (const std::exception &exception) {
        HXException::logException(exception, "-[HXAppController prefsToggleAdminPass:]");
    }
}

void HXAppController::prefsToggleQCLogging(QAbstractButton *sender)
{
    HXQC::sharedController().toggleQCLogging(sender);
}

void HXAppController::showPreferences()
{
    QWidget *window = m_prefsWindow;
    if (window == nullptr)
        return;
    if (!window->isVisible())
        centreOver(window, m_controls.windowMain);
    bringToFront(window);
}

void HXAppController::showAboutDialog()
{
    m_aboutDialog = HXAboutDialogController::load(HXBundle::mainBundle());
    if (!m_aboutDialog) {
        HXLog::appendLog(u"Error: unable to load About dialog. Please report this error to Lanternfish.");
        runAlertPanel(QMessageBox::Warning, QStringLiteral("Error: unable to load About dialog."),
                      QStringLiteral("Please report this error to Lanternfish."));
        return;
    }
    QWidget *window = m_aboutDialog->aboutWindow();
    centreOver(window, m_controls.windowMain);
    bringToFront(window);
}
