#pragma once

// The application controller: the main window and its menus, the repair, its
// clean-up steps and the output console. The windowed application builds its
// windows from two interface files ("AppInfrastructure", then "MainMenu"); test
// programs may instead hand over parts of a window of their own.

#include "app/HXSoftwareUpdate.h"

#include <QAbstractButton>
#include <QColor>
#include <QPointer>
#include <QProgressBar>
#include <QString>
#include <QStringList>
#include <QTextEdit>
#include <QVariantMap>
#include <QWidget>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

class HXAboutDialogController;
class QLabel;

class HXAppController {
public:
    // A controller without window, text view or log of its own; initWithoutGUI
    // (and the windowed construction) set those up.
    HXAppController();
    // Records a clean exit when this controller started crash detection.
    ~HXAppController();

    // The controller of the command-line repair: task log "Mendwell.task", no window.
    static std::unique_ptr<HXAppController> initWithoutGUI();
    // The windowed controller: crash detection in the user's own settings, log
    // "Mendwell", the defaults of the window's options registered.
    static std::unique_ptr<HXAppController> init();

    // --- The windowed application

    // The whole windowed run: the controller with "AppInfrastructure", the main
    // interface file "MainMenu", the start-up guard and the event loop. Returns
    // the exit status.
    static int applicationMain();
    // Loads "AppInfrastructure" with this controller as owner; on failure the
    // critical-error texts and termination.
    void loadAppInfrastructure();
    // Loads "MainMenu" (the main window and its menus); false when it is missing.
    bool loadMainInterface();
    // Counted: only the second call, once both files are loaded, does the work.
    void awakeFromNib();
    void applicationDidFinishLaunching();
    static bool applicationShouldTerminateAfterLastWindowClosed() { return true; }
    void applicationWillTerminate();
    // Asks the application to end; nothing of the start-up continues after it.
    void terminate();
    bool isTerminating() const { return m_terminating; }

    // --- Menu commands and preferences

    void prefsToggleAdminPass(QAbstractButton *sender);
    void prefsToggleQCLogging(QAbstractButton *sender);
    void showPreferences();
    void helpUserManual();
    void helpHome();
    void helpMarlin();
    void helpReportBug();
    void helpSuggestFeature();
    void helpSupport();
    void helpHXHome();
    void showAboutDialog();
    void viewLog();
    void viewTaskLog();
    void gatherLogs();
    void manualUpdateCheck();

    // Runs TOOL unprivileged and waits: none when it exits with 0, otherwise what
    // it wrote to its standard error (UTF-8).
    static std::optional<QString> returnTaskOutputWithTool(const QString &tool, const QStringList &arguments);

    // --- The repair

    // The repair button's action: starts threadedRepair on a thread of its own with
    // the options read from the check boxes, and returns at once.
    void repair();
    // The windowed repair's thread: { "shouldTrash", "shouldTrashWorkspaces", "shouldTrashMediaCache" }.
    void threadedRepair(const QVariantMap &parameters);
    // The repair with one choice for preferences and layouts alike.
    void startRepair(bool trash, bool silent);
    // The repair itself: every step in order, the verdict, the notices, and the
    // editor started again when it had been running.
    void startRepair(bool shouldTrash, bool shouldTrashWorkspaces, bool silent);
    // The window's repair may also clear the media cache (app/HXMediaCache.h)
    // once Premiere Pro has quit; the command line never does.
    void startRepair(bool shouldTrash, bool shouldTrashWorkspaces, bool silent, bool clearMediaCache);
    // True from the repair button's action until its thread has finished.
    bool isRepairing() const { return m_repairing.load(); }
    // Main thread: the controls while a windowed repair runs, and after.
    void repairStart();
    void repairEnd();

    // --- Clean-up steps of the repair (and two menu commands)

    // Asks Premiere Pro to quit and waits about 42 seconds at most; true once it
    // is gone.
    bool closePremiere();
    void sendQuitEventToApp(const QString &applicationName);
    void trashPremierePrefs(bool showAlert);
    void trashWorkspaces(bool showAlert);
    // Ends the Adobe background processes through killtool, as root.
    void stopAll();
    void trashDynamicLinkCaches();
    void resetMemoryBalancer();
    // True, with a warning on the console, when the application is set to open in
    // 32-bit mode.
    bool checkForActive32BitMode(const QString &bundleIdentifier);
    // A file, or a folder's contents, to the console user's Trash through trashtool.
    void authTrashFile(const QString &path);
    void authTrashFolderContents(const QString &folder);
    void menuTrashPremierePrefs();
    void menuTrashWindowLayout();
    // A sheet listing what a repair with the window's options would touch now;
    // its default button starts that repair.
    void menuPreviewRepair();
    // Puts back what the last recorded repair moved to the Trash, after asking.
    void menuUndoLastRepair();

    // Runs the bundle's permissiontool as root, once, after the audit found
    // something wrong; the tool finds and corrects the items by itself.
    void setFilePermissions();

    bool hasGUI() const { return m_hasGUI; }
    void setHasGUI(bool hasGUI);

    static QString currentBundlePath();
    static QString currentExePath();

    // The output console. Each line also goes to the log; without a window it goes
    // to the system log and collects in outputString. Callable from any thread:
    // the work is done on the main thread, and the caller waits for it.
    void insertText(const QString &text);
    void insertBoldText(const QString &text);
    void insertErrorText(const QString &text);
    // Red in the regular weight, whatever the name says.
    void insertBoldErrorText(const QString &text);
    void insertErrorText(const QString &text, const QColor &color, bool bold);
    void clearErrorText();

    // Command-line mode: every console line of the run joined with "\n\n"; none
    // before the first line.
    std::optional<QString> outputString() const;

    // The console view of the main window (not owned).
    QTextEdit *errorText() const { return m_errorText; }
    void setErrorText(QTextEdit *view) { m_errorText = view; }

    // The parts of the main window the repair uses (not owned; any may be none).
    struct RepairControls {
        QPointer<QWidget> windowMain;
        QPointer<QAbstractButton> repairButton;
        QPointer<QProgressBar> spinner;
        QPointer<QAbstractButton> trashPrefs;
        QPointer<QAbstractButton> resetLayoutCheck;
        QPointer<QAbstractButton> mediaCacheCheck;
    };
    void setRepairControls(const RepairControls &controls) { m_controls = controls; }
    QWidget *windowMain() const { return m_controls.windowMain; }

private:
    void connectMainWindow();
    void connectPreferences();
    void rememberOption(QAbstractButton *box, const QString &key);
    void insertErrorTextOnMainThread(const QString &text, const QColor &color, bool bold);
    void clearErrorTextOnMainThread();

    bool m_hasGUI = false;
    qint64 m_awakeCount = 0;
    // Kept from the earliest version of the settings; nothing reads it.
    [[maybe_unused]] bool m_oldConfigAvailable = false;
    bool m_detectsCrashes = false;
    bool m_terminating = false;
    std::atomic<bool> m_repairing{false};
    mutable std::mutex m_outputMutex;
    std::optional<QString> m_outputString;
    QPointer<QTextEdit> m_errorText;
    RepairControls m_controls;
    QPointer<QLabel> m_logoImageView;
    QPointer<QAbstractButton> m_prefsAdminPass;
    QPointer<QAbstractButton> m_qcLoggingCheck;
    QPointer<QWidget> m_prefsWindow;
    std::unique_ptr<QWidget> m_ownedPrefsWindow;
    std::unique_ptr<QWidget> m_ownedMainWindow;
    std::unique_ptr<HXAboutDialogController> m_aboutDialog;
    HXSoftwareUpdate m_softwareUpdate;
};
