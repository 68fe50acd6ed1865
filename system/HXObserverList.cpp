#include "system/HXObserverList.h"

HXObserverList::ObserverId HXObserverList::add(const QString &name, HXNotificationObserver observer)
{
    auto entry = std::make_shared<Entry>();
    entry->name = name;
    entry->observer = std::move(observer);
    std::lock_guard lock(m_mutex);
    entry->id = ++m_lastId;
    m_entries.push_back(entry);
    return entry->id;
}

void HXObserverList::remove(ObserverId id)
{
    std::lock_guard lock(m_mutex);
    for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
        if ((*it)->id == id) {
            (*it)->removed = true;
            m_entries.erase(it);
            return;
        }
    }
}

void HXObserverList::deliver(const HXNotification &notification) const
{
    // Observers are called without the lock, over a copy, so that they may add and
    // remove observers; the ones removed meanwhile are skipped.
    std::vector<std::shared_ptr<Entry>> entries;
    {
        std::lock_guard lock(m_mutex);
        for (const auto &entry : m_entries)
            if (entry->name.isEmpty() || entry->name == notification.name)
                entries.push_back(entry);
    }
    for (const auto &entry : entries) {
        {
            std::lock_guard lock(m_mutex);
            if (entry->removed)
                continue;
        }
        entry->observer(notification);
    }
}
