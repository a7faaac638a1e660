// SPDX-License-Identifier: MIT
// 8-bit luminance pictures the live detectors work on, made from camera frames and images.
#pragma once

#include "KPImage/Platform/CGImage.h"
#include "KPImage/Platform/CVPixelBuffer.h"
#include "KPImage/Platform/Geometry.h"

#include <cstdint>
#include <vector>

namespace kp {

/// An owned 8-bit luminance picture without row padding.
struct LumaImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> pixels;

    bool empty() const { return width <= 0 || height <= 0; }
    const uint8_t* row(int y) const { return pixels.data() + static_cast<size_t>(y) * static_cast<size_t>(width); }
    uint8_t* row(int y) { return pixels.data() + static_cast<size_t>(y) * static_cast<size_t>(width); }
    /// Makes a width x height picture (contents unspecified); false (and empty) for a bad or too large size.
    bool resize(int w, int h);
};

/// The luminance of a 'BGRA' or '420f' pixel buffer (locked read-only while it is read); false for other
/// formats or an inconsistent layout.
bool LumaImageFromPixelBuffer(const CVPixelBufferRef& buffer, LumaImage& out);
/// Byte offsets of red, green and blue (all the same for grey) within one pixel of an 8-bit grey or RGB(A) image;
/// false for layouts the detectors cannot read.
bool CGImageComponentOffsets(const CGImage& image, size_t& r, size_t& g, size_t& b);
/// The luminance of an 8-bit grey or RGB(A) image in any component order; false for layouts it cannot read.
bool LumaImageFromCGImage(const CGImage& image, LumaImage& out);
/// A copy shrunk by an area average to about scale (0 < scale <= 1) of each side; scale 1 copies.
LumaImage LumaImageScaled(const LumaImage& image, double scale);

/// An upright, scaled view of a turned region of a picture: crop pixel (u, v) shows the source point
/// centre + R(angle) * ((u, v) / scale - (width, height) / (2 * scale)), angle in radians clockwise as seen.
struct RotatedCrop {
    CGPoint centre{};
    double angle = 0;
    double scale = 1;
    int width = 0;
    int height = 0;

    /// The source point a crop point shows.
    CGPoint toSource(CGPoint p) const;
    /// The crop's pixels, sampled bilinearly (the border repeated); empty for a bad size.
    LumaImage sample(const LumaImage& source) const;
};

} // namespace kp
