#include "system/HXNotificationCenter.h"

#include "system/HXMainThread.h"

#include <QCoreApplication>

#include <condition_variable>
#include <memory>
#include <mutex>

HXNotificationCenter &HXNotificationCenter::defaultCenter()
{
    static HXNotificationCenter *center = new HXNotificationCenter;
    return *center;
}

HXNotificationCenter::ObserverId HXNotificationCenter::addObserver(const QString &name,
                                                                   HXNotificationObserver observer)
{
    return m_observers.add(name, std::move(observer));
}

void HXNotificationCenter::removeObserver(ObserverId id)
{
    m_observers.remove(id);
}

void HXNotificationCenter::postNotification(const QString &name, const QVariantMap &userInfo, bool wait)
{
    HXNotification notification{name, userInfo};
    if (!wait || HXIsMainThread() || QCoreApplication::instance() == nullptr) {
        HXPerformOnMainThread([this, notification] { m_observers.deliver(notification); }, wait);
        return;
    }
    // The wait uses standard primitives rather than a blocking queued call, so that
    // the hand-over back to this thread is visible to ThreadSanitizer (the
    // distribution's Qt is not instrumented).
    struct Done {
        std::mutex mutex;
        std::condition_variable changed;
        bool done = false;
    };
    auto state = std::make_shared<Done>();
    HXPerformOnMainThread(
        [this, notification, state] {
            m_observers.deliver(notification);
            std::lock_guard lock(state->mutex);
            state->done = true;
            state->changed.notify_all();
        },
        false);
    std::unique_lock lock(state->mutex);
    state->changed.wait(lock, [&state] { return state->done; });
}
