// SPDX-License-Identifier: MIT
// A Cairo surface over an image's pixels for drawing it: the image's own bytes when they are Cairo's layout,
// otherwise a converted copy.
#pragma once

#include "KPImage/Platform/CGImage.h"

#include <cstdint>
#include <vector>

typedef struct _cairo_surface cairo_surface_t;

namespace kp {

/// Borrows the image for its own lifetime; the surface is valid while this object lives.
class CairoImageSource {
public:
    explicit CairoImageSource(const CGImageRef& image);
    /// A surface over BGRA premultiplied rows (Cairo's ARGB32; with opaque, the alpha byte is ignored); bytes
    /// must outlive this object.
    CairoImageSource(const uint8_t* bgra, size_t width, size_t height, size_t bytesPerRow, bool opaque = false);
    ~CairoImageSource();
    CairoImageSource(const CairoImageSource&) = delete;
    CairoImageSource& operator=(const CairoImageSource&) = delete;

    /// Null when the image cannot be drawn.
    cairo_surface_t* surface() const { return _surface; }
    size_t width() const { return _width; }
    size_t height() const { return _height; }

private:
    cairo_surface_t* _surface = nullptr;
    CGImageRef _converted;
    size_t _width = 0;
    size_t _height = 0;
};

} // namespace kp
