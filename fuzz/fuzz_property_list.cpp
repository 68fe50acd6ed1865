// Property lists, XML or binary, through the bounded reader; what it read,
// written as XML and read again, must be the same value.

#include "fuzz/FuzzSupport.h"
#include "system/PropertyList.h"

#include <QDateTime>

#include <cmath>

namespace {

// VALUE as a round trip through XML keeps it: a NaN, which equals nothing, as
// text, and dates to the second, libplist's seconds since 2001 cut toward zero
// (binary lists hold them finer).
QVariant comparable(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Double:
        return std::isnan(value.toDouble()) ? QVariant(QStringLiteral("NaN")) : value;
    case QMetaType::QDateTime: {
        const qint64 msecs = value.toDateTime().toMSecsSinceEpoch();
        return QDateTime::fromMSecsSinceEpoch(msecs - (msecs - 978307200000) % 1000, Qt::UTC);
    }
    case QMetaType::QVariantList: {
        QVariantList list = value.toList();
        for (QVariant &item : list)
            item = comparable(item);
        return list;
    }
    case QMetaType::QVariantMap: {
        QVariantMap map = value.toMap();
        for (QVariant &item : map)
            item = comparable(item);
        return map;
    }
    default:
        return value;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QVariant value = PropertyList::fromData(
        QByteArray(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size)));
    const QByteArray xml = value.isValid() ? PropertyList::toXml(value) : QByteArray();
    // An empty one: a value with no plist form (a UID) that the writer refuses.
    if (!xml.isEmpty())
        FUZZ_CHECK(comparable(PropertyList::fromData(xml)) == comparable(value));
    return 0;
}
