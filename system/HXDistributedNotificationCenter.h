#pragma once

// Notifications between programs of the user's session: a signal
// Post(s name, a{sv} userInfo) on the session bus, path
// /com/lanternfish/DistributedNotifications, interface
// com.lanternfish.DistributedNotifications. Every program on the bus that
// observes the name receives it, this one included.

#include "system/HXNotification.h"
#include "system/HXObserverList.h"

#include <QString>
#include <QVariantMap>

#include <mutex>

class QObject;

class HXDistributedNotificationCenter {
public:
    using ObserverId = HXObserverList::ObserverId;

    static constexpr const char *kPath = "/com/lanternfish/DistributedNotifications";
    static constexpr const char *kInterface = "com.lanternfish.DistributedNotifications";
    static constexpr const char *kSignal = "Post";

    static HXDistributedNotificationCenter &defaultCenter();

    // Broadcasts the notification and returns once the bus holds it, so a program
    // that exits right afterwards still delivers it. Dates in USERINFO travel as
    // ISO 8601 text. False when there is no session bus or it refused the message.
    bool postNotification(const QString &name, const QVariantMap &userInfo = {});

    // OBSERVER is called on the main thread (which must run an event loop) for each
    // notification named NAME, or for every notification when NAME is empty.
    // Id 0 when there is no session bus to listen on.
    ObserverId addObserver(const QString &name, HXNotificationObserver observer);
    void removeObserver(ObserverId id);

    // Called by the bus listener on the main thread.
    void deliver(const HXNotification &notification) { m_observers.deliver(notification); }

private:
    bool listenLocked();

    std::mutex m_mutex;
    QObject *m_listener = nullptr;  // lives on the main thread, never freed
    HXObserverList m_observers;
};
