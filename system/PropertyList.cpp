#include "system/PropertyList.h"

#include "platform/Accounts.h"
#include "platform/Folder.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <plist/plist.h>

#include <cstdlib>
#include <limits>
#include <memory>
#include <unistd.h>

namespace PropertyList {

namespace {

// Property lists count dates from 2001-01-01 00:00:00 UTC.
constexpr qint64 kSecondsFrom1970To2001 = 978307200;

struct PlistFree {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

// libplist keeps integers as 64 unsigned bits and remembers signedness only in its
// XML and binary forms. Values above the signed range are negative numbers unless
// the integer was written unsigned, which only its serialised form tells.
QVariant integerValue(plist_t node)
{
    uint64_t raw = 0;
    plist_get_uint_val(node, &raw);
    if (raw <= static_cast<uint64_t>(std::numeric_limits<qint64>::max()))
        return QVariant::fromValue(static_cast<qint64>(raw));
    PlistPtr copy(plist_copy(node));
    char *xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(copy.get(), &xml, &length);
    const bool negative =
        xml && QByteArray::fromRawData(xml, static_cast<int>(length)).contains("<integer>-");
    plist_to_xml_free(xml);
    if (negative)
        return QVariant::fromValue(static_cast<qint64>(raw));
    return QVariant::fromValue(static_cast<quint64>(raw));
}

QVariant toVariant(plist_t node)
{
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return QVariant(value != 0);
    }
    case PLIST_UINT:
        return integerValue(node);
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return QVariant(value);
    }
    case PLIST_STRING: {
        char *value = nullptr;
        plist_get_string_val(node, &value);
        QString text = QString::fromUtf8(value);
        std::free(value);
        return text;
    }
    case PLIST_KEY: {
        char *value = nullptr;
        plist_get_key_val(node, &value);
        QString text = QString::fromUtf8(value);
        std::free(value);
        return text;
    }
    case PLIST_DATA: {
        char *value = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &value, &length);
        QByteArray bytes(value, static_cast<qsizetype>(length));
        std::free(value);
        return bytes;
    }
    case PLIST_DATE: {
        int32_t seconds = 0;
        int32_t micros = 0;
        plist_get_date_val(node, &seconds, &micros);
        const qint64 msecs = (kSecondsFrom1970To2001 + seconds) * 1000 + micros / 1000;
        return QDateTime::fromMSecsSinceEpoch(msecs, Qt::UTC);
    }
    case PLIST_ARRAY: {
        QVariantList list;
        const uint32_t count = plist_array_get_size(node);
        list.reserve(count);
        for (uint32_t i = 0; i < count; ++i)
            list.append(toVariant(plist_array_get_item(node, i)));
        return list;
    }
    case PLIST_DICT: {
        QVariantMap map;
        plist_dict_iter iter = nullptr;
        plist_dict_new_iter(node, &iter);
        for (;;) {
            char *key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(node, iter, &key, &value);
            if (key == nullptr)
                break;
            map.insert(QString::fromUtf8(key), toVariant(value));
            std::free(key);
        }
        std::free(iter);
        return map;
    }
    default:
        return QVariant();
    }
}

// plist_new_uint makes a signed node; only libplist's parser makes one that is
// written back unsigned, which values above the signed range need.
plist_t unsignedInteger(quint64 value)
{
    if (value <= static_cast<quint64>(std::numeric_limits<qint64>::max()))
        return plist_new_uint(value);
    const QByteArray xml =
        "<plist version=\"1.0\"><integer>" + QByteArray::number(value) + "</integer></plist>";
    plist_t node = nullptr;
    plist_from_xml(xml.constData(), static_cast<uint32_t>(xml.size()), &node);
    return node;
}

plist_t fromVariant(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
        return plist_new_bool(value.toBool() ? 1 : 0);
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::Char:
    case QMetaType::SChar:
        // A negative value keeps its two's-complement bits; libplist writes it signed.
        return plist_new_uint(static_cast<uint64_t>(value.toLongLong()));
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
    case QMetaType::UShort:
    case QMetaType::UChar:
        return unsignedInteger(value.toULongLong());
    case QMetaType::Double:
    case QMetaType::Float:
        return plist_new_real(value.toDouble());
    case QMetaType::QString:
        return plist_new_string(value.toString().toUtf8().constData());
    case QMetaType::QByteArray: {
        const QByteArray bytes = value.toByteArray();
        return plist_new_data(bytes.constData(), static_cast<uint64_t>(bytes.size()));
    }
    case QMetaType::QDateTime: {
        const qint64 msecs = value.toDateTime().toMSecsSinceEpoch();
        const qint64 seconds = msecs / 1000 - kSecondsFrom1970To2001;
        return plist_new_date(static_cast<int32_t>(seconds), static_cast<int32_t>(msecs % 1000) * 1000);
    }
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        plist_t array = plist_new_array();
        for (const QVariant &item : value.toList()) {
            plist_t child = fromVariant(item);
            if (child == nullptr) {
                plist_free(array);
                return nullptr;
            }
            plist_array_append_item(array, child);
        }
        return array;
    }
    case QMetaType::QVariantMap: {
        plist_t dict = plist_new_dict();
        const QVariantMap map = value.toMap();
        for (auto it = map.constBegin(); it != map.constEnd(); ++it) {
            plist_t child = fromVariant(it.value());
            if (child == nullptr) {
                plist_free(dict);
                return nullptr;
            }
            plist_dict_set_item(dict, it.key().toUtf8().constData(), child);
        }
        return dict;
    }
    default:
        return nullptr;
    }
}

}  // namespace

QVariant fromData(const QByteArray &data)
{
    if (data.isEmpty() || data.size() > std::numeric_limits<uint32_t>::max())
        return QVariant();
    plist_t root = nullptr;
    plist_from_memory(data.constData(), static_cast<uint32_t>(data.size()), &root);
    if (root == nullptr)
        return QVariant();
    PlistPtr owner(root);
    return toVariant(root);
}

QVariant readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QVariant();
    return fromData(file.readAll());
}

QVariantMap readDictionary(const QString &path)
{
    const QVariant value = readFile(path);
    return value.typeId() == QMetaType::QVariantMap ? value.toMap() : QVariantMap();
}

QVariantMap readDictionaryInUsersTree(const QString &path)
{
    const std::optional<platform::Item> item = platform::Item::open(path);
    const int descriptor = item ? item->folder.openFileForReading(item->name) : -1;
    if (descriptor < 0)
        return QVariantMap();
    QFile file;
    if (!file.open(descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        ::close(descriptor);
        return QVariantMap();
    }
    const QVariant value = fromData(file.readAll());
    return value.typeId() == QMetaType::QVariantMap ? value.toMap() : QVariantMap();
}

QByteArray toXml(const QVariant &value)
{
    PlistPtr root(fromVariant(value));
    if (!root)
        return QByteArray();
    char *xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root.get(), &xml, &length);
    QByteArray result(xml, static_cast<qsizetype>(length));
    plist_to_xml_free(xml);
    return result;
}

bool writeXmlFile(const QString &path, const QVariant &value)
{
    const QByteArray xml = toXml(value);
    if (xml.isEmpty())
        return false;
    // QSaveFile writes beside the target and renames over it on commit.
    QSaveFile file(path);
    file.setDirectWriteFallback(false);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    if (file.write(xml) != xml.size()) {
        file.cancelWriting();
        return false;
    }
    return file.commit();
}

bool writeXmlFileInUsersTree(const QString &path, const QVariant &value, std::optional<uid_t> owner)
{
    const QByteArray xml = toXml(value);
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    if (xml.isEmpty() || slash < 0)
        return false;
    const QString name = path.mid(slash + 1);
    const std::optional<platform::Folder> folder =
        platform::Folder::openMakingPath(slash == 0 ? QStringLiteral("/") : path.left(slash), 0755, owner);
    if (!folder || name.isEmpty())
        return false;
    const QString temporary = QStringLiteral(".%1.%2.tmp").arg(name).arg(::getpid());
    const int fd = folder->createFile(temporary, 0644);
    if (fd < 0)
        return false;
    bool written = true;
    for (qsizetype done = 0; written && done < xml.size();) {
        const ssize_t count = ::write(fd, xml.constData() + done, static_cast<size_t>(xml.size() - done));
        written = count > 0;
        done += count > 0 ? count : 0;
    }
    written = ::close(fd) == 0 && written;
    if (written && owner && ::geteuid() == 0)
        written = folder->setOwner(temporary, *owner, platform::primaryGroupOf(*owner)) == 0;
    if (!written || folder->rename(temporary, *folder, name, true) != 0) {
        folder->removeEntry(temporary);
        return false;
    }
    return true;
}

}  // namespace PropertyList
