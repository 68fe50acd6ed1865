#pragma once

// Finder colour labels, kept in the Finder-information word of the item as macOS
// keeps them (bits 1 to 3 of the Finder flags), so labels survive a copy to or
// from a Mac.

#include <QString>

#include <cstdint>
#include <optional>

// A calibrated colour by hue, saturation and brightness (each 0 to 1).
struct HXFinderColor {
    double hue = 0.0;
    double saturation = 0.0;
    double brightness = 0.0;
    double alpha = 1.0;

    bool operator==(const HXFinderColor &) const = default;
};

namespace HXFileManager {

// The item's whole Finder flags word, label bits and all; 0 when it has none or
// cannot be read.
std::uint16_t finderColorIndexForPath(const QString &path);

// Replaces the label bits (mask 0x0E) with those of INDEX, keeping the others.
// Failures are silent.
void setFinderColorIndex(unsigned int index, const QString &path);

// The colour of a label value (2 to 15; bit 0 is ignored); none for other values.
std::optional<HXFinderColor> finderColorForColorIndex(unsigned int index);
std::optional<HXFinderColor> finderColorForPath(const QString &path);

}  // namespace HXFileManager
