#include "app/HXAboutDialogController.h"

#include "diagnostics/HXException.h"
#include "system/HXFormat.h"
#include "system/HXPath.h"
#include "system/PropertyList.h"
#include "ui/HXInterfaceFile.h"

#include <QDialog>
#include <QFile>
#include <QFrame>
#include <QIcon>
#include <QLabel>
#include <QTextBrowser>

#include <exception>

std::unique_ptr<HXAboutDialogController> HXAboutDialogController::load(const HXBundle &bundle,
                                                                       QWidget *parent)
{
    QWidget *loaded = HXInterfaceFile::load(bundle, QStringLiteral("HXAbout"), parent);
    auto *window = qobject_cast<QDialog *>(loaded);
    if (window == nullptr) {
        delete loaded;
        return nullptr;
    }
    std::unique_ptr<HXAboutDialogController> controller(new HXAboutDialogController(bundle));
    controller->m_aboutWindow = window;
    controller->m_appNameLabel = window->findChild<QLabel *>(QStringLiteral("appNameLabel"));
    controller->m_verLabel = window->findChild<QLabel *>(QStringLiteral("verLabel"));
    controller->m_appIconView = window->findChild<QLabel *>(QStringLiteral("appIconView"));
    controller->m_creditsScrollView = window->findChild<QFrame *>(QStringLiteral("creditsScrollView"));
    controller->m_creditsTextView = window->findChild<QTextBrowser *>(QStringLiteral("creditsTextView"));
    controller->awakeFromNib();
    return controller;
}

HXAboutDialogController::~HXAboutDialogController()
{
    // The window is the controller's, unless a parent took it over.
    if (m_aboutWindow && m_aboutWindow->parent() == nullptr)
        delete m_aboutWindow;
}

void HXAboutDialogController::awakeFromNib()
{
    try {
        const QRect frame = m_aboutWindow ? m_aboutWindow->geometry() : QRect();
        QFile credits(m_bundle.resourcePath() + QStringLiteral("/Credits.html"));
        if (!credits.exists()) {
            if (m_creditsScrollView)
                m_creditsScrollView->hide();
            if (m_aboutWindow)
                m_aboutWindow->setGeometry(frame.x(), frame.y(), frame.width(), 250);
        } else if (credits.open(QIODevice::ReadOnly) && m_creditsTextView) {
            m_creditsTextView->setReadOnly(false);
            m_creditsTextView->setHtml(QString::fromUtf8(credits.readAll()));
            m_creditsTextView->setReadOnly(true);
            m_creditsTextView->moveCursor(QTextCursor::Start);
            m_creditsTextView->ensureCursorVisible();
        }

        const QString icon = m_bundle.iconPath();
        if (m_appIconView && !icon.isEmpty())
            m_appIconView->setPixmap(QIcon(icon).pixmap(QSize(64, 64)));

        const QString name = HXPath::deletingExtension(HXPath::lastComponent(m_bundle.executablePath()));
        if (m_aboutWindow)
            m_aboutWindow->setWindowTitle(HXFormat(u"About %@", name));
        if (m_appNameLabel)
            m_appNameLabel->setText(name);

        const QVariantMap updates =
            PropertyList::readDictionary(m_bundle.resourcePath() + QStringLiteral("/HXUpdates.plist"));
        if (m_verLabel)
            m_verLabel->setText(HXFormat(
                u"%@ (%@)\n\n%@ %@ (%@)",
                m_bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleShortVersionString")).toString(),
                m_bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleVersion")).toString(),
                QStringLiteral("Kestrelkit"),
                updates.value(QStringLiteral("HXGroupVersionString")).toString(),
                updates.value(QStringLiteral("HXGroupVersion")).toString()));
    } catch (const std::exception &exception) {
        HXException::logException(exception, "-[HXAboutDialogController awakeFromNib]");
    }
}
