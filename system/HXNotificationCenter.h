#pragma once

// The application's own notification centre: observers register for a name (or
// for every name) and are called on the main thread, whichever thread posts.

#include "system/HXNotification.h"
#include "system/HXObserverList.h"

#include <QString>
#include <QVariantMap>

class HXNotificationCenter {
public:
    using ObserverId = HXObserverList::ObserverId;

    static HXNotificationCenter &defaultCenter();

    // OBSERVER is called on the main thread for each notification named NAME, or
    // for every notification when NAME is empty. The id removes it again.
    ObserverId addObserver(const QString &name, HXNotificationObserver observer);
    // After this returns the observer is not called again, except by a delivery
    // already running on the main thread while another thread removes it.
    void removeObserver(ObserverId id);

    // Delivers the notification to its observers on the main thread, in the order
    // they were added. With WAIT the call returns once they have all run.
    void postNotification(const QString &name, const QVariantMap &userInfo = {}, bool wait = true);

private:
    HXObserverList m_observers;
};
