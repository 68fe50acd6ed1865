#pragma once

// Short desktop notices through the desktop's notification server
// (org.freedesktop.Notifications on the session bus). A click on a notice, or
// its expiry, comes back as "HXGrowlAlertClicked" / "HXGrowlAlertTimedOut" on
// the application's notification centre, with the notice's click context under
// "clickContext". The suite-wide "growlDisabled" switch turns every notice off.

#include <QDateTime>
#include <QHash>
#include <QImage>
#include <QObject>
#include <QString>
#include <QVariant>

#include <mutex>

class HXBundle;

class HXGrowl : public QObject {
    Q_OBJECT
public:
    static constexpr const char *kDefaultNotificationName = "HXInfoNotification";
    static constexpr const char *kClickedNotification = "HXGrowlAlertClicked";
    static constexpr const char *kTimedOutNotification = "HXGrowlAlertTimedOut";

    // The one instance; it receives the server's clicks and expiries on the main
    // thread.
    static HXGrowl &defaultController();

    // Posts with the moment of posting as click context. A null ICON means the
    // application's icon, an empty NOTIFICATIONNAME the default notice name.
    static void postGrowlNotification(const QString &title, const QString &description,
                                      const QImage &icon = QImage(),
                                      const QString &notificationName = QString());
    // Posts with CLICKCONTEXT (any property-list value; invalid for none, in which
    // case a click or an expiry posts nothing). Callable from any thread.
    static void postGrowlNotification(const QString &title, const QString &description, const QImage &icon,
                                      const QString &notificationName, const QVariant &clickContext);

    void growlNotificationWasClicked(const QVariant &clickContext);
    void growlNotificationTimedOut(const QVariant &clickContext);

    // The main bundle's "CFBundleDisplayName" when it is a non-empty string, else its
    // "CFBundleExecutable".
    static QString applicationNameForGrowl();
    static QString applicationNameForGrowl(const HXBundle &bundle);

    // True when the suite-wide preferences switch notices off (read afresh).
    static bool isGrowlDisabled();

    // True once a notice has been posted and this instance listens for its clicks.
    bool isDelegate() const;

private Q_SLOTS:
    void actionInvoked(uint id, const QString &actionKey);
    void notificationClosed(uint id, uint reason);

private:
    HXGrowl();

    void becomeDelegate();
    void post(const QString &title, const QString &description, const QImage &icon,
              const QString &notificationName, const QVariant &clickContext);
    QVariant takeClickContext(uint id);

    mutable std::mutex m_mutex;
    bool m_isDelegate = false;
    // Click contexts of the notices still on screen, by server id.
    QHash<uint, QVariant> m_clickContexts;
};
