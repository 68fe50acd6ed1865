#include "system/HXDBusValue.h"

#include <QDBusArgument>
#include <QDBusVariant>
#include <QDateTime>
#include <QStringList>
#include <QVariantList>

namespace HXDBusValue {

QVariant toWire(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::QVariantMap:
        return toWire(value.toMap());
    case QMetaType::QVariantHash: {
        QVariantMap map;
        const QVariantHash hash = value.toHash();
        for (auto it = hash.cbegin(); it != hash.cend(); ++it)
            map.insert(it.key(), it.value());
        return toWire(map);
    }
    case QMetaType::QVariantList: {
        QVariantList list;
        for (const QVariant &item : value.toList())
            list.append(QVariant::fromValue(QDBusVariant(toWire(item))));
        return list;
    }
    case QMetaType::QDateTime:
        return value.toDateTime().toUTC().toString(Qt::ISODate);
    case QMetaType::QString:
    case QMetaType::QStringList:
    case QMetaType::QByteArray:
    case QMetaType::Bool:
    case QMetaType::Double:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return value;
    case QMetaType::UnknownType:
        // A variant must carry something; an absent value goes as empty text.
        return QString();
    default:
        return value.toString();
    }
}

QVariantMap toWire(const QVariantMap &dictionary)
{
    QVariantMap wire;
    for (auto it = dictionary.cbegin(); it != dictionary.cend(); ++it)
        wire.insert(it.key(), toWire(it.value()));
    return wire;
}

namespace {

QVariant fromArgument(const QDBusArgument &argument);

QVariant fromArgumentElement(const QDBusArgument &argument)
{
    switch (argument.currentType()) {
    case QDBusArgument::BasicType:
    case QDBusArgument::VariantType:
        return fromWire(argument.asVariant());
    default:
        return fromArgument(argument);
    }
}

QVariant fromArgument(const QDBusArgument &argument)
{
    switch (argument.currentType()) {
    case QDBusArgument::MapType: {
        QVariantMap map;
        argument.beginMap();
        while (!argument.atEnd()) {
            argument.beginMapEntry();
            const QVariant key = fromArgumentElement(argument);
            const QVariant value = fromArgumentElement(argument);
            argument.endMapEntry();
            map.insert(key.toString(), value);
        }
        argument.endMap();
        return map;
    }
    case QDBusArgument::ArrayType: {
        QVariantList list;
        argument.beginArray();
        while (!argument.atEnd())
            list.append(fromArgumentElement(argument));
        argument.endArray();
        return list;
    }
    case QDBusArgument::StructureType: {
        QVariantList fields;
        argument.beginStructure();
        while (!argument.atEnd())
            fields.append(fromArgumentElement(argument));
        argument.endStructure();
        return fields;
    }
    default:
        return fromWire(argument.asVariant());
    }
}

}  // namespace

QVariant fromWire(const QVariant &value)
{
    if (value.canConvert<QDBusVariant>() && value.userType() == qMetaTypeId<QDBusVariant>())
        return fromWire(value.value<QDBusVariant>().variant());
    if (value.userType() == qMetaTypeId<QDBusArgument>())
        return fromArgument(value.value<QDBusArgument>());
    if (value.typeId() == QMetaType::QVariantMap)
        return fromWire(value.toMap());
    if (value.typeId() == QMetaType::QVariantList) {
        QVariantList list;
        for (const QVariant &item : value.toList())
            list.append(fromWire(item));
        return list;
    }
    return value;
}

QVariantMap fromWire(const QVariantMap &dictionary)
{
    QVariantMap plain;
    for (auto it = dictionary.cbegin(); it != dictionary.cend(); ++it)
        plain.insert(it.key(), fromWire(it.value()));
    return plain;
}

}  // namespace HXDBusValue
