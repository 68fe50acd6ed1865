#include "system/PropertyList.h"

#include "diagnostics/HXLog.h"
#include "platform/Accounts.h"
#include "platform/Folder.h"
#include "platform/Identity.h"

#include <QByteArrayView>
#include <QDateTime>
#include <QFile>
#include <QSaveFile>

#include <plist/plist.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

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

// LEVEL is the node's own (the outermost is 1); the checks before parsing keep it
// within kMaxNesting, and OK turns false rather than going deeper all the same.
QVariant toVariant(plist_t node, int level, bool &ok)
{
    if (level > kMaxNesting) {
        ok = false;
        return QVariant();
    }
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
        uint64_t length = 0;
        const char *value = plist_get_string_ptr(node, &length);
        return QString::fromUtf8(value, static_cast<qsizetype>(length));
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
        // By iterator: plist_array_get_item walks the list from its start in a
        // binary list's arrays, which made reading them quadratic.
        QVariantList list;
        list.reserve(plist_array_get_size(node));
        plist_array_iter iter = nullptr;
        plist_array_new_iter(node, &iter);
        for (plist_t item = nullptr; ok;) {
            plist_array_next_item(node, iter, &item);
            if (item == nullptr)
                break;
            list.append(toVariant(item, level + 1, ok));
        }
        std::free(iter);
        return list;
    }
    case PLIST_DICT: {
        QVariantMap map;
        plist_dict_iter iter = nullptr;
        plist_dict_new_iter(node, &iter);
        while (ok) {
            char *key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(node, iter, &key, &value);
            if (key == nullptr)
                break;
            map.insert(QString::fromUtf8(key), toVariant(value, level + 1, ok));
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
        // libplist keeps the seconds since 2001 in 32 bits: a date beyond them
        // (before 1933 or after 2068) would be written as another date.
        const qint64 msecs = value.toDateTime().toMSecsSinceEpoch();
        const qint64 seconds = msecs / 1000 - kSecondsFrom1970To2001;
        if (seconds < std::numeric_limits<int32_t>::min() || seconds > std::numeric_limits<int32_t>::max())
            return nullptr;
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

// What the checks below find before libplist sees a list.
enum class Shape { Fine, Malformed, TooDeep, TooMany, TooLarge };

QString describe(Shape shape)
{
    switch (shape) {
    case Shape::Fine:
        break;
    case Shape::Malformed:
        return QStringLiteral("not a property list");
    case Shape::TooDeep:
        return HXFormat(u"nested deeper than %i levels", kMaxNesting);
    case Shape::TooMany:
        return HXFormat(u"more than %lli values", kMaxValues);
    case Shape::TooLarge:
        return HXFormat(u"larger than %lli bytes", kMaxSize);
    }
    return QString();
}

// The structure of an XML list as libplist 2.2 reads it, found without building
// anything. Its reader keeps no depth limit and frees what it built by recursion
// when it meets an error, so even a malformed list crashes it once deep enough.
// The scan takes libplist's steps (its quotes, comments, CDATA and DOCTYPE, its
// ending after the outermost value) and calls malformed whatever libplist would
// refuse, so the levels it counts are the ones libplist would build.
class XmlShape {
public:
    explicit XmlShape(const QByteArray &data) : m_data(data.constData()), m_end(data.size()) {}

    Shape shape()
    {
        // A zero byte ends libplist's copy of a string early, and then its getters
        // fail an assertion on the length they kept. XML holds none anyway.
        if (std::memchr(m_data, 0, static_cast<std::size_t>(m_end)) != nullptr)
            return Shape::Malformed;
        enum Open : char { Plist, Dict, Array };
        std::vector<Open> path;
        int containers = 0;
        int plists = 0;
        qsizetype values = 0;
        bool hasRoot = false;
        bool rootLeftOpen = false;  // an empty root container still takes the values after it
        bool hasContent = false;
        while (m_pos < m_end) {
            skipSpace();
            if (m_pos >= m_end)
                break;
            if (m_data[m_pos] != '<' || ++m_pos >= m_end)
                return Shape::Malformed;
            if (m_data[m_pos] == '?') {
                findText("?>", true);
                if (m_pos > m_end - 2 || !at("?>"))
                    return Shape::Malformed;
                m_pos += 2;
                continue;
            }
            if (m_data[m_pos] == '!') {
                if (!skipSpecial())
                    return Shape::Malformed;
                continue;
            }
            const qsizetype start = m_pos;
            findAny(" \r\n\t<>", false);
            if (m_pos >= m_end)
                return Shape::Malformed;
            const QByteArrayView fullTag(m_data + start, m_pos - start);
            if (m_data[m_pos] != '>')
                findAny("<>", true);
            if (m_pos >= m_end || m_data[m_pos] != '>')
                return Shape::Malformed;
            const bool empty = m_data[m_pos - 1] == '/';
            const QByteArrayView tag =
                empty ? fullTag.first(std::min(fullTag.size(), m_pos - start - 1)) : fullTag;
            ++m_pos;

            if (tag == "plist") {
                hasContent = false;
                if (path.empty() && hasRoot)
                    return Shape::Fine;  // libplist allows no second top-level plist and stops
                if (empty)
                    return Shape::Malformed;
                if (++plists > kMaxNesting)
                    return Shape::TooDeep;
                path.push_back(Plist);
                continue;
            }
            if (tag == "/plist") {
                if (!hasContent || path.empty() || path.back() != Plist)
                    return Shape::Malformed;
                path.pop_back();
                --plists;
                continue;
            }
            hasContent = true;
            if (tag.startsWith('/')) {
                const QByteArrayView name = tag.sliced(1);
                const bool matches = !path.empty() && ((name == "dict" && path.back() == Dict) ||
                                                       (name == "array" && path.back() == Array));
                if (!matches)
                    return Shape::Malformed;
                path.pop_back();
                if (--containers == 0 && !rootLeftOpen)
                    return Shape::Fine;  // the outermost value is complete: libplist ends here
                continue;
            }
            const bool container = tag == "dict" || tag == "array";
            if (!container) {
                const bool trimmed = tag != "string" && tag != "key";
                const bool leaf = !trimmed || tag == "integer" || tag == "real" || tag == "true" ||
                                  tag == "false" || tag == "data" || tag == "date";
                if (!leaf || (!empty && !skipText(fullTag, trimmed)))
                    return Shape::Malformed;
            }
            if (++values > kMaxValues)
                return Shape::TooMany;
            if (!hasRoot) {
                hasRoot = true;
                if (!container)
                    return Shape::Fine;  // a single value is the whole list to libplist
                rootLeftOpen = empty;
            } else if (containers + (rootLeftOpen ? 1 : 0) + 1 > kMaxNesting) {
                return Shape::TooDeep;
            }
            if (container && !empty) {
                path.push_back(tag == "dict" ? Dict : Array);
                ++containers;
            }
        }
        return path.empty() ? Shape::Fine : Shape::Malformed;
    }

private:
    bool at(const char *text) const
    {
        const auto length = static_cast<qsizetype>(std::strlen(text));
        return m_pos >= 0 && m_end - m_pos >= length && std::memcmp(m_data + m_pos, text, length) == 0;
    }

    void skipSpace()
    {
        while (m_pos < m_end && std::memchr(" \t\r\n", m_data[m_pos], 4) != nullptr)
            ++m_pos;
    }

    // The helpers below are libplist's find_char, find_str and find_next: a double
    // quote hides everything up to the next one when QUOTES is set.
    bool skipQuoted()
    {
        ++m_pos;
        while (m_pos < m_end && m_data[m_pos] != '"')
            ++m_pos;
        return m_pos < m_end;
    }

    void findChar(char wanted)
    {
        while (m_pos < m_end && m_data[m_pos] != wanted)
            ++m_pos;
    }

    void findText(const char *text, bool quotes)
    {
        const auto length = static_cast<qsizetype>(std::strlen(text));
        while (m_pos < m_end - length) {
            if (at(text))
                return;
            if (quotes && m_data[m_pos] == '"' && !skipQuoted())
                return;
            ++m_pos;
        }
    }

    void findAny(const char *chars, bool quotes)
    {
        const std::size_t count = std::strlen(chars);
        while (m_pos < m_end) {
            if (quotes && m_data[m_pos] == '"' && !skipQuoted())
                return;
            if (std::memchr(chars, m_data[m_pos], count) != nullptr)
                return;
            ++m_pos;
        }
    }

    // A comment or a DOCTYPE; m_pos is at the "!".
    bool skipSpecial()
    {
        if (m_end - m_pos > 3 && at("!--")) {
            m_pos += 3;
            findText("-->", false);
            if (m_pos > m_end - 3 || !at("-->"))
                return false;
            m_pos += 3;
            return true;
        }
        if (m_end - m_pos <= 8 || !at("!DOCTYPE"))
            return false;
        m_pos += 8;
        while (m_pos < m_end) {
            findAny(" \t\r\n[>", true);
            if (m_pos >= m_end)
                return false;
            if (m_data[m_pos] == '[') {
                findText("]>", true);
                if (m_pos > m_end - 2 || !at("]>"))
                    return false;
                m_pos += 2;
                return true;
            }
            if (m_data[m_pos] == '>') {
                ++m_pos;
                return true;
            }
            skipSpace();
        }
        return true;
    }

    // A leaf's text up to its closing tag (libplist's get_text_parts).
    bool skipText(QByteArrayView tag, bool trimmed)
    {
        if (trimmed)
            skipSpace();
        for (;;) {
            findChar('<');
            if (m_pos >= m_end || ++m_pos >= m_end)
                return false;
            if (m_data[m_pos] == '/')
                break;
            if (m_data[m_pos] != '!' || ++m_pos >= m_end - 1)
                return false;
            if (at("--")) {
                m_pos += 2;
                findText("-->", false);
                if (m_pos > m_end - 3 || !at("-->"))
                    return false;
            } else {
                if (m_data[m_pos] != '[' || ++m_pos >= m_end - 8 || !at("CDATA["))
                    return false;
                m_pos += 6;
                findText("]]>", false);
                if (m_pos > m_end - 3 || !at("]]>"))
                    return false;
            }
            m_pos += 3;
        }
        ++m_pos;
        if (m_pos >= m_end - tag.size() || QByteArrayView(m_data + m_pos, tag.size()) != tag)
            return false;
        m_pos += tag.size();
        skipSpace();
        if (m_pos >= m_end || m_data[m_pos] != '>')
            return false;
        ++m_pos;
        return true;
    }

    const char *m_data;
    qsizetype m_pos = 0;
    qsizetype m_end;
};

quint64 bigEndian(const uchar *bytes, int count)
{
    quint64 value = 0;
    for (int i = 0; i < count; ++i)
        value = value << 8 | bytes[i];
    return value;
}

// The shape of a binary list, checked the whole way from its top object before
// libplist parses it: libplist 2.2 recurses once a level without a limit, and
// copies a shared object for each reference, so a few hundred bytes that refer
// to one object twice at each of 40 levels would make 2^40 values.
Shape binaryShape(const QByteArray &data)
{
    const auto *bytes = reinterpret_cast<const uchar *>(data.constData());
    const auto size = static_cast<quint64>(data.size());
    constexpr quint64 kTrailer = 32;
    if (size < 8 + 2 + kTrailer)
        return Shape::Malformed;
    const uchar *trailer = bytes + size - kTrailer;
    const int offsetSize = trailer[6];
    const int refSize = trailer[7];
    const quint64 count = bigEndian(trailer + 8, 8);
    const quint64 top = bigEndian(trailer + 16, 8);
    const quint64 table = bigEndian(trailer + 24, 8);
    // libplist writes 3-byte references itself; any width up to 8 reads big-endian.
    const auto isWord = [](int width) { return width >= 1 && width <= 8; };
    if (!isWord(offsetSize) || !isWord(refSize) || count == 0 || top >= count)
        return Shape::Malformed;
    if (count > static_cast<quint64>(kMaxValues))
        return Shape::TooMany;
    // Objects lie between the header and the offset table, which ends at the trailer.
    if (table < 9 || table > size - kTrailer || (size - kTrailer - table) / offsetSize < count)
        return Shape::Malformed;

    struct Object {
        quint64 refs = 0;      // where its references start
        quint64 children = 0;  // how many references
        quint64 bytes = 0;     // its own data
    };
    // Object INDEX as libplist will read it, its references within the objects' area.
    const auto objectAt = [&](quint64 index) -> std::optional<Object> {
        quint64 pos = bigEndian(bytes + table + index * offsetSize, offsetSize);
        if (pos < 8 || pos >= table)
            return std::nullopt;
        const int type = bytes[pos] >> 4;
        const int info = bytes[pos] & 0xf;
        ++pos;
        const auto fits = [&](quint64 length) { return length <= table - pos; };
        quint64 length = info;
        if (info == 0xf &&
            (type == 0x4 || type == 0x5 || type == 0x6 || type == 0xa || type == 0xc || type == 0xd)) {
            if (!fits(1) || bytes[pos] >> 4 != 0x1 || (bytes[pos] & 0xf) > 3)
                return std::nullopt;
            const int width = 1 << (bytes[pos] & 0xf);
            ++pos;
            if (!fits(width))
                return std::nullopt;
            length = bigEndian(bytes + pos, width);
            pos += width;
        }
        Object object;
        switch (type) {
        case 0x0:  // false, true
            return info == 0x8 || info == 0x9 ? std::optional<Object>(object) : std::nullopt;
        case 0x1:  // integer
            return info <= 4 && fits(quint64(1) << info) ? std::optional<Object>(object) : std::nullopt;
        case 0x2:  // real
            return (info == 2 || info == 3) && fits(quint64(1) << info) ? std::optional<Object>(object)
                                                                        : std::nullopt;
        case 0x3:  // date
            return info == 3 && fits(8) ? std::optional<Object>(object) : std::nullopt;
        case 0x4:  // data
        case 0x5:  // ASCII string
            object.bytes = length;
            return fits(length) ? std::optional<Object>(object) : std::nullopt;
        case 0x6:  // UTF-16 string, without the zero unit that libplist's key getter asserts against
            object.bytes = length * 2;
            if (length > (table - pos) / 2)
                return std::nullopt;
            for (quint64 unit = pos; unit < pos + object.bytes; unit += 2)
                if (bytes[unit] == 0 && bytes[unit + 1] == 0)
                    return std::nullopt;
            return object;
        case 0x8:  // UID
            return fits(quint64(info) + 1) ? std::optional<Object>(object) : std::nullopt;
        case 0xa:  // array
        case 0xc:  // set
        case 0xd:  // dictionary: the keys' references, then the values'
            object.refs = pos;
            object.children = type == 0xd ? length * 2 : length;
            return length <= (table - pos) / refSize / (type == 0xd ? 2 : 1) ? std::optional<Object>(object)
                                                                             : std::nullopt;
        default:
            return std::nullopt;
        }
    };

    // Depth first from the top, each object's totals worked out once: its levels,
    // and the values and bytes it stands for with every reference followed.
    enum State : uchar { Unseen, OnPath, Done };
    struct Totals {
        State state = Unseen;
        int levels = 0;
        quint64 values = 0;
        quint64 bytes = 0;
    };
    struct Frame {
        quint64 index;
        Object object;
        quint64 next = 0;
        Totals totals;
    };
    const quint64 valueCap = static_cast<quint64>(kMaxValues) + 1;
    const quint64 byteCap = static_cast<quint64>(kMaxSize) + 1;
    std::vector<Totals> totals(count);
    std::vector<Frame> path;
    path.reserve(kMaxNesting + 1);
    const auto enter = [&](quint64 index) {
        const std::optional<Object> object = objectAt(index);
        if (!object)
            return false;
        totals[index].state = OnPath;
        path.push_back({index, *object, 0, {OnPath, 1, 1, std::min(object->bytes, byteCap)}});
        return true;
    };
    const auto addChild = [&](Totals &parent, const Totals &child) {
        parent.levels = std::max(parent.levels, child.levels + 1);
        parent.values = std::min(parent.values + child.values, valueCap);
        parent.bytes = std::min(parent.bytes + child.bytes, byteCap);
    };
    if (!enter(top))
        return Shape::Malformed;
    while (!path.empty()) {
        Frame &frame = path.back();
        if (frame.next == frame.object.children) {
            Totals done = frame.totals;
            done.state = Done;
            totals[frame.index] = done;
            path.pop_back();
            if (!path.empty())
                addChild(path.back().totals, done);
            continue;
        }
        const quint64 child = bigEndian(bytes + frame.object.refs + frame.next * refSize, refSize);
        ++frame.next;
        if (child >= count || totals[child].state == OnPath)
            return Shape::Malformed;  // libplist refuses a value inside itself too
        if (totals[child].state == Done) {
            if (static_cast<qsizetype>(path.size()) + totals[child].levels > kMaxNesting)
                return Shape::TooDeep;
            addChild(frame.totals, totals[child]);
        } else if (static_cast<qsizetype>(path.size()) >= kMaxNesting) {
            return Shape::TooDeep;
        } else if (!enter(child)) {
            return Shape::Malformed;
        }
    }
    if (totals[top].values > static_cast<quint64>(kMaxValues))
        return Shape::TooMany;
    return totals[top].bytes > static_cast<quint64>(kMaxSize) ? Shape::TooLarge : Shape::Fine;
}

// The file at PATH opened for reading, never waiting on a pipe or a device:
// with root's rights through root's walk and never through a link; otherwise as
// the system opens it for this thread's user, her links followed. -1 when it is
// missing, unreadable or not a regular file (DAMAGE says so for the last two kinds).
int openForReading(const QString &path, QString *damage)
{
    int error = 0;
    if (!platform::hasRootRights()) {
        const int fd =
            ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        struct stat info {};
        if (fd >= 0 && ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
            ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
            return fd;
        }
        if (fd >= 0) {
            ::close(fd);
            *damage = QStringLiteral("not a regular file");
        }
        return -1;
    }
    const std::optional<platform::Item> item = platform::Item::open(path, &error);
    if (!item) {
        if (error == ELOOP)
            *damage = QStringLiteral("its folder is reached through a symbolic link");
        return -1;
    }
    const int fd = item->folder.openFileForReading(item->name, &error);
    if (fd < 0) {
        if (error == ELOOP)
            *damage = QStringLiteral("a symbolic link");
        else if (error == EISDIR || error == EINVAL || error == ENXIO || error == ENODEV)
            *damage = QStringLiteral("not a regular file");
    }
    return fd;
}

// The contents of the file at PATH, at most one byte beyond kMaxSize; none when it
// is missing, unreadable or not a regular file (DAMAGE says so for the last).
std::optional<QByteArray> readContents(const QString &path, QString *damage)
{
    const int fd = openForReading(path, damage);
    if (fd < 0)
        return std::nullopt;
    // A size beyond the bound settles it; a smaller one is only a first guess, as
    // the file may grow while it is read.
    struct stat info {};
    const bool sized = ::fstat(fd, &info) == 0 && info.st_size >= 0;
    if (sized && info.st_size > kMaxSize) {
        ::close(fd);
        *damage = describe(Shape::TooLarge);
        return std::nullopt;
    }
    const qsizetype guess = sized ? static_cast<qsizetype>(info.st_size) : 0;
    QByteArray contents(guess + 1, Qt::Uninitialized);
    qsizetype used = 0;
    for (;;) {
        if (used == contents.size()) {
            if (used > kMaxSize)
                break;
            contents.resize(std::min(used * 2, kMaxSize + 1));
        }
        const ssize_t count = ::read(fd, contents.data() + used, static_cast<size_t>(contents.size() - used));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            if (count < 0)
                used = -1;
            break;
        }
        used += count;
    }
    ::close(fd);
    if (used < 0)
        return std::nullopt;
    contents.truncate(used);
    return contents;
}

}  // namespace

QVariant fromData(const QByteArray &data, QString *damage)
{
    QString reason;
    QVariant value;
    if (data.size() > kMaxSize) {
        reason = describe(Shape::TooLarge);
    } else {
        // libplist's own test for the binary form.
        const bool binary = data.startsWith("bplist00");
        const Shape shape = binary ? binaryShape(data) : XmlShape(data).shape();
        plist_t root = nullptr;
        if (shape == Shape::Fine && binary)
            plist_from_bin(data.constData(), static_cast<uint32_t>(data.size()), &root);
        else if (shape == Shape::Fine && !data.isEmpty())
            plist_from_xml(data.constData(), static_cast<uint32_t>(data.size()), &root);
        PlistPtr owner(root);
        bool ok = root != nullptr;
        if (ok)
            value = toVariant(root, 1, ok);
        reason = shape != Shape::Fine ? describe(shape)
                 : ok                 ? QString()
                 : root != nullptr    ? describe(Shape::TooDeep)
                                      : describe(Shape::Malformed);
        if (!ok)
            value = QVariant();
    }
    if (damage)
        *damage = reason;
    return value;
}

QVariant readFile(const QString &path)
{
    QString damage;
    QVariant value;
    if (const std::optional<QByteArray> contents = readContents(path, &damage))
        value = fromData(*contents, &damage);
    if (!damage.isEmpty())
        HXLog::fastAppendLog(u"Ignoring damaged property list %@: %@", path, damage);
    return value;
}

QVariantMap readDictionary(const QString &path)
{
    const QVariant value = readFile(path);
    return value.typeId() == QMetaType::QVariantMap ? value.toMap() : QVariantMap();
}

QVariantMap readDictionaryInUsersTree(const QString &path)
{
    return readDictionary(path);
}

QByteArray toXml(const QVariant &value)
{
    PlistPtr root(fromVariant(value));
    if (!root)
        return QByteArray();
    char *xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(root.get(), &xml, &length);
    // A list larger than any reader takes is not written: it could not be read back.
    QByteArray result;
    if (length <= kMaxSize)
        result = QByteArray(xml, static_cast<qsizetype>(length));
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
    std::optional<std::pair<uid_t, gid_t>> handedTo;
    if (owner && platform::hasRootRights())
        handedTo.emplace(*owner, platform::primaryGroupOf(*owner));
    if (const int error = folder->writeWholeFile(name, xml, 0644, handedTo, true)) {
        errno = error;
        return false;
    }
    return true;
}

}  // namespace PropertyList
