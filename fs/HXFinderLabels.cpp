#include "fs/HXFinderLabels.h"

#include "fs/HXFileOperations.h"
#include "platform/ExtendedAttributes.h"

#include <QByteArray>

#include <algorithm>

namespace HXFileManager {

namespace {

// The Finder information is 32 bytes; its flags word is big-endian at offset 8,
// for files and folders alike.
const QString kFinderInfo = QStringLiteral("com.apple.FinderInfo");
constexpr qsizetype kFinderInfoSize = 32;
constexpr qsizetype kFlagsOffset = 8;
constexpr std::uint16_t kLabelMask = 0x0E;

// The item's Finder information, at least 32 bytes; zeros when it has none, like
// a fresh catalog record. None when the item is missing or the information
// cannot be read.
std::optional<QByteArray> readFinderInfo(const QString &path)
{
    if (path.isEmpty() || !fileExistsAtPath(path))
        return std::nullopt;
    int error = 0;
    const long long size = platform::extendedAttributeSize(path, kFinderInfo, &error);
    QByteArray info(std::max<qsizetype>(kFinderInfoSize, size), '\0');
    if (size <= 0)
        return info;
    if (platform::readExtendedAttribute(path, kFinderInfo, info.data(), static_cast<std::size_t>(size),
                                        &error) < 0)
        return std::nullopt;
    return info;
}

std::uint16_t flagsWord(const QByteArray &info)
{
    return static_cast<std::uint16_t>((static_cast<unsigned char>(info[kFlagsOffset]) << 8) |
                                      static_cast<unsigned char>(info[kFlagsOffset + 1]));
}

}  // namespace

std::uint16_t finderColorIndexForPath(const QString &path)
{
    const std::optional<QByteArray> info = readFinderInfo(path);
    return info ? flagsWord(*info) : 0;
}

void setFinderColorIndex(unsigned int index, const QString &path)
{
    std::optional<QByteArray> info = readFinderInfo(path);
    if (!info)
        return;
    const auto flags = static_cast<std::uint16_t>((flagsWord(*info) & ~kLabelMask) | (index & kLabelMask));
    (*info)[kFlagsOffset] = static_cast<char>(flags >> 8);
    (*info)[kFlagsOffset + 1] = static_cast<char>(flags & 0xFF);
    platform::writeExtendedAttribute(path, kFinderInfo, *info);
}

std::optional<HXFinderColor> finderColorForColorIndex(unsigned int index)
{
    switch (index) {
    case 2:
    case 3:
        return HXFinderColor{0.0, 0.0, 0.72, 1.0};  // gray
    case 4:
    case 5:
        return HXFinderColor{0.2056, 0.5, 0.85, 1.0};  // green
    case 6:
    case 7:
        return HXFinderColor{0.7917, 0.26, 0.86, 1.0};  // purple
    case 8:
    case 9:
        return HXFinderColor{0.5789, 0.56, 0.98, 1.0};  // blue
    case 10:
    case 11:
        return HXFinderColor{0.1388, 0.54, 0.95, 1.0};  // yellow
    case 12:
    case 13:
        return HXFinderColor{0.0083, 0.54, 1.0, 1.0};  // red
    case 14:
    case 15:
        return HXFinderColor{0.0888, 0.52, 0.98, 1.0};  // orange
    default:
        return std::nullopt;
    }
}

std::optional<HXFinderColor> finderColorForPath(const QString &path)
{
    return finderColorForColorIndex(finderColorIndexForPath(path));
}

}  // namespace HXFileManager
