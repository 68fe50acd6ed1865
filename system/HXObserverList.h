#pragma once

// The observers of a notification centre, safe to change from any thread and
// from inside an observer while a notification is being delivered.

#include "system/HXNotification.h"

#include <QString>

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

class HXObserverList {
public:
    using ObserverId = std::uint64_t;

    // OBSERVER is called for notifications named NAME, or for all when NAME is empty.
    ObserverId add(const QString &name, HXNotificationObserver observer);
    // The observer is not called again, except by a delivery already running on
    // another thread.
    void remove(ObserverId id);
    // Calls the matching observers in the order they were added.
    void deliver(const HXNotification &notification) const;

private:
    struct Entry {
        ObserverId id = 0;
        QString name;
        HXNotificationObserver observer;
        bool removed = false;  // guarded by m_mutex
    };

    mutable std::mutex m_mutex;
    std::vector<std::shared_ptr<Entry>> m_entries;
    ObserverId m_lastId = 0;
};
