#pragma once

// Property-list values on the D-Bus wire. Dictionaries travel as a{sv}, arrays as
// av, dates as ISO 8601 text (UTC), data as ay; what arrives is turned back into
// plain QVariants (nested containers arrive as QDBusArgument otherwise).

#include <QVariant>
#include <QVariantMap>

namespace HXDBusValue {

// VALUE in a form QtDBus can marshal.
QVariant toWire(const QVariant &value);
QVariantMap toWire(const QVariantMap &dictionary);

// A received value with every nested container demarshalled.
QVariant fromWire(const QVariant &value);
QVariantMap fromWire(const QVariantMap &dictionary);

}  // namespace HXDBusValue
