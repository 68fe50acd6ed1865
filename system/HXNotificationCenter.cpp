#include "system/HXNotificationCenter.h"

#include "system/HXMainThread.h"

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
    HXPerformOnMainThread([this, notification] { m_observers.deliver(notification); }, wait);
}
