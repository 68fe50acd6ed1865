#include "system/HXDistributedNotificationCenter.h"

#include "system/HXDBusValue.h"
#include "system/HXSessionBus.h"

#include <QCoreApplication>
#include <QDBusMessage>
#include <QObject>
#include <QThread>

namespace {

// Receives the bus signal on the main thread and hands it to the centre.
class HXDistributedNotificationListener : public QObject {
    Q_OBJECT
public:
    explicit HXDistributedNotificationListener(HXDistributedNotificationCenter *center) : m_center(center) {}

public Q_SLOTS:
    void post(const QString &name, const QVariantMap &userInfo)
    {
        m_center->deliver(HXNotification{name, HXDBusValue::fromWire(userInfo)});
    }

private:
    HXDistributedNotificationCenter *m_center;
};

}  // namespace

HXDistributedNotificationCenter &HXDistributedNotificationCenter::defaultCenter()
{
    static HXDistributedNotificationCenter *center = new HXDistributedNotificationCenter;
    return *center;
}

bool HXDistributedNotificationCenter::postNotification(const QString &name, const QVariantMap &userInfo)
{
    QDBusConnection bus = HXSessionBus::connection();
    if (!bus.isConnected())
        return false;
    QDBusMessage signal = QDBusMessage::createSignal(
        QString::fromLatin1(kPath), QString::fromLatin1(kInterface), QString::fromLatin1(kSignal));
    signal << name << HXDBusValue::toWire(userInfo);
    if (!bus.send(signal))
        return false;
    return HXSessionBus::flush();
}

HXDistributedNotificationCenter::ObserverId
HXDistributedNotificationCenter::addObserver(const QString &name, HXNotificationObserver observer)
{
    {
        std::lock_guard lock(m_mutex);
        if (!listenLocked())
            return 0;
    }
    return m_observers.add(name, std::move(observer));
}

void HXDistributedNotificationCenter::removeObserver(ObserverId id)
{
    m_observers.remove(id);
}

bool HXDistributedNotificationCenter::listenLocked()
{
    if (m_listener != nullptr)
        return true;
    QDBusConnection bus = HXSessionBus::connection();
    if (!bus.isConnected())
        return false;
    auto *listener = new HXDistributedNotificationListener(this);
    // The bus delivers the signal in the listener's thread: the main thread.
    if (QCoreApplication *app = QCoreApplication::instance();
        app != nullptr && listener->thread() != app->thread())
        listener->moveToThread(app->thread());
    if (!bus.connect(QString(), QString::fromLatin1(kPath), QString::fromLatin1(kInterface),
                     QString::fromLatin1(kSignal), listener, SLOT(post(QString, QVariantMap)))) {
        delete listener;
        return false;
    }
    m_listener = listener;
    return true;
}

#include "HXDistributedNotificationCenter.moc"
