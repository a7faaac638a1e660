// SPDX-License-Identifier: MIT
// Reads single pixels of a bitmap as straight RGBA whatever its layout, for pixel probes in tests.
#pragma once

#include "KPImage/Platform/CGImage.h"
#include "KPImage/Platform/UIImage.h"

#include <cstdint>
#include <optional>
#include <ostream>

namespace kptest {

struct Rgba {
    int r = 0, g = 0, b = 0, a = 0;
    friend bool operator==(const Rgba&, const Rgba&) = default;
    friend std::ostream& operator<<(std::ostream& os, const Rgba& p) {
        return os << "(" << p.r << "," << p.g << "," << p.b << "," << p.a << ")";
    }
};

/// The pixel at column x, row y (from the top) in straight RGBA: grey gives r = g = b, layouts without
/// alpha give a = 255, premultiplied layouts are divided back. Nil outside the bitmap or for other layouts.
std::optional<Rgba> pixelAt(const kp::CGImageRef& image, size_t x, size_t y);
inline std::optional<Rgba> pixelAt(const kp::UIImage& image, size_t x, size_t y) {
    return pixelAt(image.CGImage(), x, y);
}

/// True when each component is within tolerance of the expected one.
bool near(const Rgba& actual, const Rgba& expected, int tolerance);

} // namespace kptest
