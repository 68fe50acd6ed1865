#pragma once

// The application controller. This build has the command-line form and the output
// console; the main window arrives with the windowed mode.

#include <QColor>
#include <QPointer>
#include <QString>
#include <QTextEdit>

#include <memory>
#include <mutex>
#include <optional>

class HXAppController {
public:
    // A controller without window, text view or log of its own; initWithoutGUI
    // (and the windowed construction) set those up.
    HXAppController() = default;

    // The controller of the command-line repair: task log "Mendwell.task", no window.
    static std::unique_ptr<HXAppController> initWithoutGUI();

    void startRepair(bool trashPreferences, bool trashWorkspaces, bool silent);

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

private:
    void insertErrorTextOnMainThread(const QString &text, const QColor &color, bool bold);
    void clearErrorTextOnMainThread();

    bool m_hasGUI = false;
    mutable std::mutex m_outputMutex;
    std::optional<QString> m_outputString;
    QPointer<QTextEdit> m_errorText;
};
