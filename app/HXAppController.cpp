#include "app/HXAppController.h"

#include "app/HXAboutDialogController.h"

#include "diagnostics/HXBugReporter.h"
#include "diagnostics/HXLog.h"
#include "platform/Accounts.h"
#include "platform/CrashReports.h"
#include "platform/Platform.h"
#include "system/HXAuthorization.h"
#include "system/HXBundle.h"
#include "system/HXFormat.h"
#include "system/HXLocalPaths.h"
#include "system/HXMainThread.h"
#include "system/HXPath.h"
#include "system/HXUserDefaults.h"

#include <QApplication>
#include <QTextCharFormat>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextEdit>

namespace {

// Reports of this process's own crashes go where the bug reporter looks: the
// user's Logs/DiagnosticReports, given to that user when root writes them.
void writeCrashReportsForUser()
{
    const std::optional<platform::Account> user = platform::accountNamed(HXLocalPaths::username());
    platform::installCrashReportWriter(
        HXPath::appendingComponent(HXLocalPaths::logDirectory(true), QStringLiteral("DiagnosticReports")),
        QStringLiteral("Mendwell"), user ? std::optional<uid_t>(user->uid) : std::nullopt);
}

}  // namespace

HXAppController::HXAppController() = default;

HXAppController::~HXAppController()
{
    // The windows go before the application object does.
    m_ownedPrefsWindow.reset();
    m_ownedMainWindow.reset();
    if (m_detectsCrashes)
        HXBugReporter::stopBugReporter();
}

std::unique_ptr<HXAppController> HXAppController::initWithoutGUI()
{
    std::unique_ptr<HXAppController> controller(new HXAppController());
    writeCrashReportsForUser();
    // The log comes before the crash check, which logs what it finds: until the log
    // is named, a line goes to the one named after the executable, the window's.
    HXLog::createNewLog(QStringLiteral("Mendwell.task"));
    // The stamps of the command-line runs live in the user's copy of our settings.
    HXBugReporter::startBugReporter(
        QStringLiteral("Mendwell"),
        HXPath::appendingComponent(HXLocalPaths::prefsDirectory(true),
                                   QStringLiteral("com.lanternfish.Mendwell.plist")));
    controller->m_detectsCrashes = true;
    controller->m_hasGUI = false;
    // Without -hotkey the repair must never show a password dialog: fix the
    // privileged-operations controller in its no-window form before anything
    // else creates it.
    if (!platform::processArguments().contains(QStringLiteral("-hotkey")))
        HXAuthorization::sharedController(false);
    return controller;
}

std::unique_ptr<HXAppController> HXAppController::init()
{
    std::unique_ptr<HXAppController> controller(new HXAppController());
    HXBugReporter::startBugReporter();
    writeCrashReportsForUser();
    controller->m_detectsCrashes = true;
    HXLog::createNewLog(QStringLiteral("Mendwell"));
    // Not through setHasGUI: the window's authorization may ask for a password.
    controller->m_hasGUI = true;
    controller->loadAppInfrastructure();
    HXUserDefaults::standardUserDefaults().registerDefaults({{QStringLiteral("SUCheckAtStartup"), true},
                                                             {QStringLiteral("shouldTrash"), 0},
                                                             {QStringLiteral("shouldTrashWorkspaces"), 0}});
    return controller;
}

void HXAppController::setHasGUI(bool hasGUI)
{
    m_hasGUI = hasGUI;
    // Deliberately the no-window form, even when the flag is switched on.
    if (hasGUI)
        HXAuthorization::sharedController(false);
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

void HXAppController::insertText(const QString &text)
{
    insertErrorText(text, QColor(Qt::black), false);
}

void HXAppController::insertBoldText(const QString &text)
{
    insertErrorText(text, QColor(Qt::black), true);
}

void HXAppController::insertErrorText(const QString &text)
{
    insertErrorText(text, QColor(Qt::red), false);
}

void HXAppController::insertBoldErrorText(const QString &text)
{
    // Regular weight on purpose: callers rely on how it has always looked.
    insertErrorText(text, QColor(Qt::red), false);
}

void HXAppController::insertErrorText(const QString &text, const QColor &color, bool bold)
{
    // Lines from the repair thread appear in order and before its next step.
    HXPerformOnMainThread([&] { insertErrorTextOnMainThread(text, color, bold); }, true);
}

void HXAppController::insertErrorTextOnMainThread(const QString &text, const QColor &color, bool bold)
{
    // The text is the log's format, as it always was.
    HXLog::appendLog(text);
    if (!m_hasGUI) {
        platform::systemLog(HXFormat(u"%@", text));
        std::lock_guard lock(m_outputMutex);
        if (!m_outputString || m_outputString->isEmpty())
            m_outputString = text;
        else
            m_outputString = *m_outputString + QStringLiteral("\n\n") + text;
        return;
    }
    QTextEdit *view = m_errorText;
    if (view == nullptr)
        return;

    const qsizetype length = view->toPlainText().size();
    const qsizetype textLength = text.size();
    view->setReadOnly(false);
    QTextCursor cursor(view->document());
    cursor.setPosition(static_cast<int>(length));

    QFont font = QApplication::font();
    font.setPointSizeF(12.0);
    font.setBold(bold);
    QTextCharFormat attributes;
    attributes.setFont(font);

    qsizetype start = 0;
    if (length > 0) {
        // The separator takes the attributes current at the insertion point.
        cursor.insertText(QStringLiteral("\n\n"));
        start = length + 2;
    }
    cursor.insertText(text, attributes);

    QTextCursor range(view->document());
    range.setPosition(static_cast<int>(start));
    range.setPosition(static_cast<int>(start + textLength), QTextCursor::KeepAnchor);
    QTextCharFormat colour;
    colour.setForeground(color);
    range.mergeCharFormat(colour);

    // Both ends into view, leaving the caret after the line and nothing selected.
    QTextCursor caret(view->document());
    caret.setPosition(static_cast<int>(start));
    view->setTextCursor(caret);
    view->ensureCursorVisible();
    caret.setPosition(static_cast<int>(start + textLength));
    view->setTextCursor(caret);
    view->ensureCursorVisible();
    view->viewport()->update();
    view->setReadOnly(true);
}

void HXAppController::clearErrorText()
{
    HXPerformOnMainThread([&] { clearErrorTextOnMainThread(); }, true);
}

void HXAppController::clearErrorTextOnMainThread()
{
    if (QTextEdit *view = m_errorText)
        view->setPlainText(QString());
    if (!m_hasGUI) {
        std::lock_guard lock(m_outputMutex);
        if (m_outputString)
            m_outputString = QString();
    }
}

std::optional<QString> HXAppController::outputString() const
{
    std::lock_guard lock(m_outputMutex);
    return m_outputString;
}
