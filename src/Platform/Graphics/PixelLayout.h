// SPDX-License-Identifier: MIT
// Byte layouts of 8-bit bitmaps and their conversion to and from Cairo's premultiplied ARGB32 pixels.
#pragma once

#include "KPImage/Platform/CGImage.h"

#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <optional>

namespace kp::detail {

/// Where each component sits within a pixel's bytes.
struct PixelLayout {
    int bytesPerPixel = 0; // 1, 3 or 4
    bool gray = false;     // one luminance byte (offset r)
    int r = 0, g = 0, b = 0;
    int a = -1;            // -1: no alpha byte; a skipped byte is written 255 and ignored on reading
    bool alphaSkipped = false;
    bool premultiplied = false;

    /// Cairo's own ARGB32 on this machine: bytes B, G, R, A premultiplied.
    bool isCairoARGB32() const;
};

/// The layout of an 8-bit bitmap of this colour model, size and bitmap info; nil for layouts the drawing
/// engine does not handle (16-bit byte orders, float components, grey with alpha, CMYK...).
std::optional<PixelLayout> pixelLayoutFor(CGColorSpaceModel model, size_t bitsPerPixel, CGBitmapInfo info);
std::optional<PixelLayout> pixelLayoutOf(const CGImage& image);

/// Converts one row of width pixels into Cairo ARGB32 (native-endian premultiplied words).
void rowToARGB32(const uint8_t* src, const PixelLayout& layout, size_t width, uint32_t* dst);
/// Converts one row of Cairo ARGB32 pixels into the layout (grey = (77 R + 150 G + 29 B + 128) >> 8).
void rowFromARGB32(const uint32_t* src, size_t width, const PixelLayout& layout, uint8_t* dst);

inline uint8_t premultiply(uint8_t c, uint8_t a) { return static_cast<uint8_t>((c * a + 127) / 255); }
inline uint8_t unpremultiply(uint8_t c, uint8_t a) {
    return a == 0 ? 0 : static_cast<uint8_t>(std::min<unsigned>(255u, (c * 255u + a / 2u) / a));
}

} // namespace kp::detail
