#include "ui/HXAlert.h"

#include "platform/Platform.h"
#include "platform/SignalStack.h"
#include "system/HXFormat.h"
#include "system/HXMainThread.h"
#include "system/HXUserDefaults.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QEventLoop>
#include <QLabel>
#include <QMessageBox>
#include <QMetaMethod>
#include <QPushButton>
#include <QTimer>

#include <thread>

namespace {

const QString kMessageText = QStringLiteral("messageText");
const QString kDefaultButtonTitle = QStringLiteral("defaultButtonTitle");
const QString kAlternateButtonTitle = QStringLiteral("alternateButtonTitle");
const QString kOtherButtonTitle = QStringLiteral("otherButtonTitle");
const QString kInformativeText = QStringLiteral("informativeText");
const QString kDidEndSelector = QStringLiteral("didEndSelector");
const QString kSuppressionBinding = QStringLiteral("suppressionBinding");

const char *const kReturnCodeProperty = "HXAlertReturnCode";

// A sheet is a window-modal window owned by the parent.
bool hasAttachedSheet(const QWidget *window)
{
    const QList<QWidget *> children = window->findChildren<QWidget *>(Qt::FindDirectChildrenOnly);
    for (const QWidget *child : children) {
        if (child->isWindow() && child->isVisible() && child->windowModality() == Qt::WindowModal)
            return true;
    }
    return false;
}

QMetaMethod didEndMethod(const QObject *delegate, const char *selector)
{
    if (delegate == nullptr || selector == nullptr)
        return QMetaMethod();
    const QMetaObject *meta = delegate->metaObject();
    for (int index = 0; index < meta->methodCount(); ++index) {
        const QMetaMethod method = meta->method(index);
        if (method.name() == selector && method.parameterCount() == 3 &&
            method.methodType() != QMetaMethod::Signal && method.methodType() != QMetaMethod::Constructor)
            return method;
    }
    return QMetaMethod();
}

void insertIfGiven(QVariantMap &request, const QString &key, const HXAlert::Text &value)
{
    if (value)
        request.insert(key, *value);
}

// On the main thread the application's events keep flowing while we wait, so the
// alert itself can be answered; elsewhere a plain poll is enough.
void waitUntilEnded(const HXAlert &alert)
{
    using namespace std::chrono_literals;
    while (!alert.alertEnded()) {
        if (HXIsMainThread()) {
            QEventLoop pass;
            QTimer::singleShot(10ms, &pass, &QEventLoop::quit);
            pass.exec();
        } else {
            std::this_thread::sleep_for(200ms);
        }
    }
}

}  // namespace

std::shared_ptr<HXAlert> HXAlert::create()
{
    return std::shared_ptr<HXAlert>(new HXAlert());
}

HXAlert::~HXAlert()
{
    m_delegate.clear();
    m_parentWindow.clear();
    setAlert(nullptr);
}

QWidget *HXAlert::parentWindow() const
{
    return m_parentWindow;
}

void HXAlert::setParentWindow(QWidget *window)
{
    m_parentWindow = window;
}

QMessageBox *HXAlert::alert() const
{
    std::lock_guard lock(m_alertMutex);
    return m_alert.data();
}

void HXAlert::setAlert(QMessageBox *alert)
{
    std::lock_guard lock(m_alertMutex);
    m_alert = alert;
}

bool HXAlert::respondsToDidEndSelector(const QObject *delegate, const char *selector)
{
    return didEndMethod(delegate, selector).isValid();
}

qint64 HXAlert::alertSheetWithMessageText(const Text &messageText, const Text &informativeText,
                                          QWidget *parentWindow)
{
    return alertSheetWithMessageText(messageText, std::nullopt, std::nullopt, std::nullopt, informativeText,
                                     parentWindow, nullptr, nullptr, true);
}

qint64 HXAlert::alertSheetWithMessageText(const Text &messageText, const Text &defaultButton,
                                          const Text &alternateButton, const Text &otherButton,
                                          const Text &informativeText, QWidget *parentWindow, bool block)
{
    return alertSheetWithMessageText(messageText, defaultButton, alternateButton, otherButton,
                                     informativeText, parentWindow, nullptr, nullptr, block);
}

qint64 HXAlert::alertSheetWithMessageText(const Text &messageText, const Text &defaultButton,
                                          const Text &alternateButton, const Text &otherButton,
                                          const Text &informativeText, QWidget *parentWindow,
                                          QObject *delegate, const char *didEndSelector, bool block)
{
    (void)delegate;
    (void)didEndSelector;
    (void)block;
    return alertSheetWithMessageText(messageText, defaultButton, alternateButton, otherButton,
                                     informativeText, parentWindow, nullptr, nullptr, true, nullptr);
}

qint64 HXAlert::alertSheetWithMessageText(const Text &messageText, const Text &defaultButton,
                                          const Text &alternateButton, const Text &otherButton,
                                          const Text &informativeText, QWidget *parentWindow,
                                          QObject *delegate, const char *didEndSelector, bool block,
                                          std::shared_ptr<HXAlert> alertObject)
{
    return alertSheetWithMessageText(messageText, defaultButton, alternateButton, otherButton,
                                     informativeText, parentWindow, delegate, didEndSelector, block,
                                     std::move(alertObject), std::nullopt);
}

qint64 HXAlert::alertSheetWithMessageText(const Text &messageText, const Text &defaultButton,
                                          const Text &alternateButton, const Text &otherButton,
                                          const Text &informativeText, QWidget *parentWindow,
                                          QObject *delegate, const char *didEndSelector, bool block,
                                          std::shared_ptr<HXAlert> alertObject,
                                          const Text &suppressionBinding)
{
    if (qobject_cast<QApplication *>(QCoreApplication::instance()) == nullptr) {
        platform::systemLog(HXFormat(u"Alert error: no window system to show \"%@\"", messageText));
        return -1;
    }
    std::shared_ptr<HXAlert> shown = alertObject ? std::move(alertObject) : create();
    const char *selector = didEndSelector != nullptr ? didEndSelector : kDefaultDidEndSelector;

    // Windows belong to the main thread, so the sheet test and the delegate's
    // methods are looked at there.
    bool responds = false;
    HXPerformOnMainThread(
        [&] {
            QWidget *parent = parentWindow != nullptr ? parentWindow->window() : nullptr;
            if (parent != nullptr && hasAttachedSheet(parent))
                parent = nullptr;
            shown->setParentWindow(parent);
            shown->setDelegate(delegate != nullptr ? delegate : shown.get());
            shown->setAlertEnded(false);
            responds = respondsToDidEndSelector(shown->delegate(), selector);
        },
        true);
    if (!responds) {
        platform::systemLog(HXFormat(u"Alert error: delegate does not respond to selector %@", selector));
        return -1;
    }

    QVariantMap request;
    insertIfGiven(request, kMessageText, messageText);
    insertIfGiven(request, kDefaultButtonTitle, defaultButton);
    insertIfGiven(request, kAlternateButtonTitle, alternateButton);
    insertIfGiven(request, kOtherButtonTitle, otherButton);
    insertIfGiven(request, kInformativeText, informativeText);
    request.insert(kDidEndSelector, QString::fromLatin1(selector));
    insertIfGiven(request, kSuppressionBinding, suppressionBinding);
    HXPerformOnMainThread([&] { shown->alertSheetWithDictionary(request); }, true);

    // A timed alert's clock starts once the alert is reset and shown, so a short
    // interval can never be overwritten by the reset above.
    if (shown->m_timerInterval) {
        const long seconds = static_cast<long>(shown->m_timerInterval->count());
        shown->m_timerInterval.reset();
        std::thread([timed = shown, seconds] {
            const platform::ThreadSignalStack signalStack;
            timed->defaultReturnAfterTimeInterval(seconds);
        }).detach();
    }

    if (!block)
        return -1;
    waitUntilEnded(*shown);
    HXPerformOnMainThread([&] { shown->orderOut(); }, true);
    return shown->returnCode();
}

qint64 HXAlert::timedAlertSheetWithMessageText(const Text &messageText, const Text &defaultButton,
                                               const Text &alternateButton, const Text &otherButton,
                                               const Text &informativeText, QWidget *parentWindow,
                                               std::chrono::seconds interval)
{
    std::shared_ptr<HXAlert> timed = create();
    timed->m_timerInterval = interval;
    return alertSheetWithMessageText(messageText, defaultButton, alternateButton, otherButton,
                                     informativeText, parentWindow, nullptr, nullptr, true, timed);
}

void HXAlert::defaultReturnAfterTimeInterval(long interval)
{
    // Never cancelled: after a user's answer this lands in a finished alert that
    // nobody reads any more.
    std::this_thread::sleep_for(std::chrono::seconds(interval));
    setReturnCode(kDefaultReturn);
    setAlertEnded(true);
}

void HXAlert::alertDidEnd(QMessageBox *alert, qint64 returnCode, void *contextInfo)
{
    (void)alert;
    (void)contextInfo;
    setReturnCode(returnCode);
    setAlertEnded(true);
}

void HXAlert::alertSheetWithDictionary(const QVariantMap &request)
{
    const QByteArray selector = request.value(kDidEndSelector).toString().toLatin1();
    QWidget *parent = m_parentWindow;

    auto *box = new QMessageBox(parent);
    box->setAttribute(Qt::WA_DeleteOnClose);
    const QIcon icon = QApplication::windowIcon();
    if (!icon.isNull())
        box->setIconPixmap(icon.pixmap(64, 64));
    else
        box->setIcon(QMessageBox::Information);
    box->setTextFormat(Qt::PlainText);
    box->setText(request.value(kMessageText).toString());
    // The headline stands out from the explanation below it.
    if (auto *headline = box->findChild<QLabel *>(QStringLiteral("qt_msgbox_label"))) {
        QFont font = headline->font();
        font.setBold(true);
        headline->setFont(font);
    }
    // Set as it is, never used as a format, so "%" signs show literally; plain text
    // so that markup does too.
    box->setInformativeText(request.value(kInformativeText).toString());
    if (auto *informative = box->findChild<QLabel *>(QStringLiteral("qt_msgbox_informativelabel")))
        informative->setTextFormat(Qt::PlainText);

    const QString defaultTitle = request.contains(kDefaultButtonTitle)
                                     ? request.value(kDefaultButtonTitle).toString()
                                     : QMessageBox::tr("OK");
    QPushButton *defaultButton = box->addButton(defaultTitle, QMessageBox::AcceptRole);
    defaultButton->setProperty(kReturnCodeProperty, kDefaultReturn);
    if (request.contains(kAlternateButtonTitle)) {
        box->addButton(request.value(kAlternateButtonTitle).toString(), QMessageBox::RejectRole)
            ->setProperty(kReturnCodeProperty, kAlternateReturn);
    }
    if (request.contains(kOtherButtonTitle)) {
        box->addButton(request.value(kOtherButtonTitle).toString(), QMessageBox::DestructiveRole)
            ->setProperty(kReturnCodeProperty, kOtherReturn);
    }
    box->setDefaultButton(defaultButton);

    if (request.contains(kSuppressionBinding)) {
        const QString key = request.value(kSuppressionBinding).toString();
        auto *suppression = new QCheckBox(QMessageBox::tr("Do not show this message again"));
        suppression->setChecked(HXUserDefaults::standardUserDefaults().boolForKey(key));
        QObject::connect(suppression, &QCheckBox::toggled, suppression, [key](bool checked) {
            HXUserDefaults::standardUserDefaults().setBool(checked, key);
        });
        box->setCheckBox(suppression);
    }
    setAlert(box);

    // The box keeps the alert object alive while it is shown, so an alert nobody
    // waits for still reaches its delegate.
    std::shared_ptr<HXAlert> self = shared_from_this();
    QObject::connect(box, &QMessageBox::finished, box, [self, box, selector] {
        QAbstractButton *clicked = box->clickedButton();
        const qint64 code =
            clicked != nullptr ? clicked->property(kReturnCodeProperty).toLongLong() : kOtherReturn;
        QObject *delegate = self->delegate();
        const QMetaMethod method = didEndMethod(delegate, selector.constData());
        if (method.isValid()) {
            method.invoke(delegate, Qt::DirectConnection, Q_ARG(QMessageBox *, box), Q_ARG(qint64, code),
                          Q_ARG(void *, nullptr));
        }
    });
    // A box that goes away unanswered (its window closed under it) must not leave
    // a waiting caller behind.
    QObject::connect(box, &QObject::destroyed, [self] {
        if (!self->alertEnded()) {
            self->setReturnCode(kOtherReturn);
            self->setAlertEnded(true);
        }
    });

    if (parent != nullptr) {
        parent->raise();
        parent->activateWindow();
        box->setWindowModality(Qt::WindowModal);
        // Hung from the top edge of the window's content, the way a sheet drops.
        box->adjustSize();
        const QRect content = parent->geometry();
        box->move(content.x() + (content.width() - box->width()) / 2, content.y());
    } else {
        box->setWindowModality(Qt::ApplicationModal);
    }
    box->show();
}

void HXAlert::orderOut()
{
    QMessageBox *box = alert();
    if (box != nullptr) {
        // Ordered out, not answered: a timed-out alert keeps the code its timer set.
        QObject::disconnect(box, &QMessageBox::finished, nullptr, nullptr);
        box->hide();
        box->deleteLater();
    }
    setAlert(nullptr);
}
