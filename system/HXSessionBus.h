#pragma once

// The user's D-Bus session bus, which carries the distributed notifications, the
// client progress reports and the desktop notices.

#include <QDBusConnection>
#include <QString>

namespace HXSessionBus {

// The session bus connection (shared by the process; may be disconnected).
QDBusConnection connection();

// True when some program owns the well-known NAME. Asks the bus itself, so a
// service that the bus could start on demand is not started.
bool nameHasOwner(const QString &name);

// Waits until the bus has taken every message this process sent on it so far.
// Qt writes messages from its own thread, and one sent just before the process
// ends can be lost; after this call the bus holds it and delivers it whatever
// the sender does next. False when the bus did not answer.
bool flush();

}  // namespace HXSessionBus
