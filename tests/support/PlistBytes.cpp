#include "tests/support/PlistBytes.h"

#include <plist/plist.h>

QByteArray bigEndian(quint64 value, int width)
{
    QByteArray bytes(width, '\0');
    for (int i = width - 1; i >= 0; --i, value >>= 8)
        bytes[i] = static_cast<char>(value & 0xff);
    return bytes;
}

QByteArray binaryOf(const QByteArray &xml)
{
    plist_t parsed = nullptr;
    plist_from_xml(xml.constData(), static_cast<uint32_t>(xml.size()), &parsed);
    char *binary = nullptr;
    uint32_t length = 0;
    plist_to_bin(parsed, &binary, &length);
    plist_free(parsed);
    const QByteArray bytes(binary, static_cast<qsizetype>(length));
    plist_to_bin_free(binary);
    return bytes;
}

QByteArray binaryList(int count, const std::function<QByteArray(int)> &object)
{
    QByteArray list("bplist00");
    QByteArray offsets;
    for (int i = 0; i < count; ++i) {
        offsets += bigEndian(static_cast<quint64>(list.size()), 4);
        list += object(i);
    }
    const auto table = static_cast<quint64>(list.size());
    return list + offsets + QByteArray(6, '\0') + '\x04' + '\x04' + bigEndian(count, 8) + bigEndian(0, 8) +
           bigEndian(table, 8);
}

QByteArray arrayOf(std::initializer_list<int> refs)
{
    QByteArray array(1, static_cast<char>(0xa0 | refs.size()));
    for (int ref : refs)
        array += bigEndian(static_cast<quint64>(ref), 4);
    return array;
}

QByteArray deepBinary(int levels)
{
    return binaryList(levels, [&](int i) { return i + 1 < levels ? arrayOf({i + 1}) : arrayOf({}); });
}

QByteArray cyclicBinary(int count)
{
    return binaryList(count, [&](int i) { return arrayOf({(i + 1) % count}); });
}

QByteArray doublingBinary(int levels)
{
    return binaryList(levels + 1, [&](int i) {
        return i < levels ? arrayOf({i + 1, i + 1}) : QByteArray("\x09");
    });
}

QByteArray deepXml(int levels, bool closed)
{
    QByteArray xml = "<plist>" + QByteArray("<array>").repeated(levels - 1) + "<array/>";
    if (closed)
        xml += QByteArray("</array>").repeated(levels - 1) + "</plist>";
    return xml;
}
