#pragma once

// Alerts from any thread: a window-modal message box on a parent window (a sheet),
// or a free-standing one when there is no parent or the parent already shows a
// sheet. Showing always happens on the main thread. A waiting caller gets the
// button's code back (default 1, alternate 0, other -1); a caller that does not
// wait gets -1 and the answer goes to the delegate.
//
// A delegate is a QObject whose did-end handler is an invokable method named by
// the did-end selector and taking (QMessageBox *alert, qint64 returnCode,
// void *contextInfo), like alertDidEnd below.

#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariantMap>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>

class QMessageBox;
class QWidget;

class HXAlert : public QObject, public std::enable_shared_from_this<HXAlert> {
    Q_OBJECT

public:
    static constexpr qint64 kDefaultReturn = 1;
    static constexpr qint64 kAlternateReturn = 0;
    static constexpr qint64 kOtherReturn = -1;
    static constexpr const char *kDefaultDidEndSelector = "alertDidEnd";

    // Absent texts and titles: std::nullopt.
    using Text = std::optional<QString>;

    // Waits; the platform's default button only.
    static qint64 alertSheetWithMessageText(const Text &messageText, const Text &informativeText,
                                            QWidget *parentWindow);
    static qint64 alertSheetWithMessageText(const Text &messageText, const Text &defaultButton,
                                            const Text &alternateButton, const Text &otherButton,
                                            const Text &informativeText, QWidget *parentWindow, bool block);
    // Deliberately passes none of DELEGATE, DIDENDSELECTOR and BLOCK on: this form
    // always waits and answers the alert itself. Callers that need a delegate use
    // the form with an alert object.
    static qint64 alertSheetWithMessageText(const Text &messageText, const Text &defaultButton,
                                            const Text &alternateButton, const Text &otherButton,
                                            const Text &informativeText, QWidget *parentWindow,
                                            QObject *delegate, const char *didEndSelector, bool block);
    static qint64 alertSheetWithMessageText(const Text &messageText, const Text &defaultButton,
                                            const Text &alternateButton, const Text &otherButton,
                                            const Text &informativeText, QWidget *parentWindow,
                                            QObject *delegate, const char *didEndSelector, bool block,
                                            std::shared_ptr<HXAlert> alertObject);
    // SUPPRESSIONBINDING: a key of the standard user defaults to which the alert's
    // suppression check box is bound.
    static qint64 alertSheetWithMessageText(const Text &messageText, const Text &defaultButton,
                                            const Text &alternateButton, const Text &otherButton,
                                            const Text &informativeText, QWidget *parentWindow,
                                            QObject *delegate, const char *didEndSelector, bool block,
                                            std::shared_ptr<HXAlert> alertObject,
                                            const Text &suppressionBinding);

    // Waits, and answers with the default button (1) after INTERVAL unless the user
    // answers first.
    static qint64 timedAlertSheetWithMessageText(const Text &messageText, const Text &defaultButton,
                                                 const Text &alternateButton, const Text &otherButton,
                                                 const Text &informativeText, QWidget *parentWindow,
                                                 std::chrono::seconds interval);

    static std::shared_ptr<HXAlert> create();
    ~HXAlert() override;

    // Main thread: shows the alert the request describes.
    void alertSheetWithDictionary(const QVariantMap &request);
    // The default did-end handler: stores the code, then marks the alert ended.
    Q_INVOKABLE void alertDidEnd(QMessageBox *alert, qint64 returnCode, void *contextInfo);
    // Body of the timer thread of a timed alert.
    void defaultReturnAfterTimeInterval(long interval);

    // Main thread only, like the window itself.
    QWidget *parentWindow() const;
    void setParentWindow(QWidget *window);
    QObject *delegate() const { return m_delegate; }
    void setDelegate(QObject *delegate) { m_delegate = delegate; }

    bool alertEnded() const { return m_alertEnded.load(); }
    void setAlertEnded(bool ended) { m_alertEnded = ended; }
    qint64 returnCode() const { return m_returnCode.load(); }
    void setReturnCode(qint64 code) { m_returnCode = code; }

    QMessageBox *alert() const;
    void setAlert(QMessageBox *alert);

    // True when DELEGATE offers a did-end handler named SELECTOR.
    static bool respondsToDidEndSelector(const QObject *delegate, const char *selector);

private:
    HXAlert() = default;

    void orderOut();

    QPointer<QWidget> m_parentWindow;
    QPointer<QObject> m_delegate;
    // Written by the main thread or the timer thread, read by the waiting thread.
    std::atomic<bool> m_alertEnded{false};
    std::atomic<qint64> m_returnCode{0};
    mutable std::mutex m_alertMutex;
    QPointer<QMessageBox> m_alert;
    // Set by the timed form; its timer starts once the alert is shown.
    std::optional<std::chrono::seconds> m_timerInterval;
};
