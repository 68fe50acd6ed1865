#include "ui/HXGrowl.h"

#include "system/HXBundle.h"
#include "system/HXNotificationCenter.h"
#include "system/HXSessionBus.h"
#include "system/HXUserDefaults.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QThread>

namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kInterface = QStringLiteral("org.freedesktop.Notifications");
const QString kDefaultAction = QStringLiteral("default");
// NotificationClosed reason for a notice that expired.
constexpr uint kReasonExpired = 1;
// A notification server answers at once; this only bounds a wedged one.
constexpr int kNotifyTimeoutMs = 10000;

// The "image-data" hint: raw RGBA pixels.
struct NotificationImage {
    int width = 0;
    int height = 0;
    int rowStride = 0;
    bool hasAlpha = true;
    int bitsPerSample = 8;
    int channels = 4;
    QByteArray data;
};

}  // namespace

Q_DECLARE_METATYPE(NotificationImage)

namespace {

QDBusArgument &operator<<(QDBusArgument &argument, const NotificationImage &image)
{
    argument.beginStructure();
    argument << image.width << image.height << image.rowStride << image.hasAlpha << image.bitsPerSample
             << image.channels << image.data;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, NotificationImage &image)
{
    argument.beginStructure();
    argument >> image.width >> image.height >> image.rowStride >> image.hasAlpha >> image.bitsPerSample >>
        image.channels >> image.data;
    argument.endStructure();
    return argument;
}

NotificationImage imageData(const QImage &icon)
{
    const QImage rgba = icon.convertToFormat(QImage::Format_RGBA8888);
    NotificationImage image;
    image.width = rgba.width();
    image.height = rgba.height();
    image.rowStride = static_cast<int>(rgba.bytesPerLine());
    image.data = QByteArray(reinterpret_cast<const char *>(rgba.constBits()), rgba.sizeInBytes());
    return image;
}

}  // namespace

HXGrowl::HXGrowl()
{
    qDBusRegisterMetaType<NotificationImage>();
}

HXGrowl &HXGrowl::defaultController()
{
    static HXGrowl *controller = [] {
        auto *growl = new HXGrowl;
        // The server's signals are delivered in this object's thread: the main one.
        if (QCoreApplication *app = QCoreApplication::instance();
            app != nullptr && growl->thread() != app->thread())
            growl->moveToThread(app->thread());
        return growl;
    }();
    return *controller;
}

void HXGrowl::postGrowlNotification(const QString &title, const QString &description, const QImage &icon,
                                    const QString &notificationName)
{
    postGrowlNotification(title, description, icon, notificationName, QDateTime::currentDateTimeUtc());
}

void HXGrowl::postGrowlNotification(const QString &title, const QString &description, const QImage &icon,
                                    const QString &notificationName, const QVariant &clickContext)
{
    if (isGrowlDisabled())
        return;
    HXGrowl &growl = defaultController();
    growl.becomeDelegate();
    growl.post(title, description, icon, notificationName, clickContext);
}

bool HXGrowl::isGrowlDisabled()
{
    const std::optional<QVariant> value = HXUserDefaults::valueForKey(
        QStringLiteral("growlDisabled"), QStringLiteral("com.lanternfish.global"));
    return value && HXUserDefaults::boolFromValue(*value);
}

QString HXGrowl::applicationNameForGrowl()
{
    return applicationNameForGrowl(HXBundle::mainBundle());
}

QString HXGrowl::applicationNameForGrowl(const HXBundle &bundle)
{
    const QVariant displayName = bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleDisplayName"));
    if (displayName.typeId() == QMetaType::QString && !displayName.toString().isEmpty())
        return displayName.toString();
    return bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleExecutable")).toString();
}

bool HXGrowl::isDelegate() const
{
    std::lock_guard lock(m_mutex);
    return m_isDelegate;
}

void HXGrowl::becomeDelegate()
{
    std::lock_guard lock(m_mutex);
    if (m_isDelegate)
        return;
    QDBusConnection bus = HXSessionBus::connection();
    if (!bus.isConnected())
        return;
    m_isDelegate = bus.connect(kService, kPath, kInterface, QStringLiteral("ActionInvoked"), this,
                               SLOT(actionInvoked(uint, QString))) &&
                   bus.connect(kService, kPath, kInterface, QStringLiteral("NotificationClosed"), this,
                               SLOT(notificationClosed(uint, uint)));
}

void HXGrowl::post(const QString &title, const QString &description, const QImage &icon,
                   const QString &notificationName, const QVariant &clickContext)
{
    QDBusConnection bus = HXSessionBus::connection();
    if (!bus.isConnected())
        return;
    QVariantMap hints{
        {QStringLiteral("urgency"), QVariant::fromValue<uchar>(1)},  // priority 0: normal
        {QStringLiteral("category"),
         notificationName.isEmpty() ? QString::fromLatin1(kDefaultNotificationName) : notificationName},
    };
    QString appIcon;
    if (!icon.isNull())
        hints.insert(QStringLiteral("image-data"), QVariant::fromValue(imageData(icon)));
    else
        appIcon = HXBundle::mainBundle().iconPath();

    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Notify"));
    call << applicationNameForGrowl() << 0u << appIcon << title << description
         << QStringList{kDefaultAction, QString()} << hints
         << -1;  // -1: the server's own expiry (not sticky)

    // Held across the call so that a click arriving at once on the main thread
    // waits until the notice's click context is known.
    std::lock_guard lock(m_mutex);
    const QDBusMessage reply = bus.call(call, QDBus::Block, kNotifyTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return;
    if (clickContext.isValid())
        m_clickContexts.insert(reply.arguments().constFirst().toUInt(), clickContext);
}

QVariant HXGrowl::takeClickContext(uint id)
{
    std::lock_guard lock(m_mutex);
    return m_clickContexts.take(id);
}

void HXGrowl::actionInvoked(uint id, const QString &actionKey)
{
    if (actionKey != kDefaultAction)
        return;
    const QVariant context = takeClickContext(id);
    if (context.isValid())
        growlNotificationWasClicked(context);
}

void HXGrowl::notificationClosed(uint id, uint reason)
{
    // A clicked notice closes too; its context is gone by then.
    const QVariant context = takeClickContext(id);
    if (context.isValid() && reason == kReasonExpired)
        growlNotificationTimedOut(context);
}

void HXGrowl::growlNotificationWasClicked(const QVariant &clickContext)
{
    if (!clickContext.isValid())
        return;
    HXNotificationCenter::defaultCenter().postNotification(
        QString::fromLatin1(kClickedNotification), {{QStringLiteral("clickContext"), clickContext}}, true);
}

void HXGrowl::growlNotificationTimedOut(const QVariant &clickContext)
{
    if (!clickContext.isValid())
        return;
    HXNotificationCenter::defaultCenter().postNotification(
        QString::fromLatin1(kTimedOutNotification), {{QStringLiteral("clickContext"), clickContext}}, true);
}
