#include "system/HXSessionBus.h"

#include <QDBusMessage>
#include <QDBusReply>

namespace {

const QString kBusService = QStringLiteral("org.freedesktop.DBus");
const QString kBusPath = QStringLiteral("/org/freedesktop/DBus");
const QString kBusInterface = QStringLiteral("org.freedesktop.DBus");
// Questions to the bus daemon itself; it answers at once unless it is wedged.
constexpr int kBusTimeoutMs = 5000;

}  // namespace

namespace HXSessionBus {

QDBusConnection connection()
{
    return QDBusConnection::sessionBus();
}

bool nameHasOwner(const QString &name)
{
    QDBusConnection bus = connection();
    if (!bus.isConnected())
        return false;
    QDBusMessage call =
        QDBusMessage::createMethodCall(kBusService, kBusPath, kBusInterface, QStringLiteral("NameHasOwner"));
    call << name;
    const QDBusReply<bool> reply = bus.call(call, QDBus::Block, kBusTimeoutMs);
    return reply.isValid() && reply.value();
}

bool flush()
{
    QDBusConnection bus = connection();
    if (!bus.isConnected())
        return false;
    // The bus reads a connection's messages in order, so its answer to this call
    // comes after it has routed everything sent before it.
    const QDBusMessage call = QDBusMessage::createMethodCall(
        kBusService, kBusPath, QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
    return bus.call(call, QDBus::Block, kBusTimeoutMs).type() == QDBusMessage::ReplyMessage;
}

}  // namespace HXSessionBus
