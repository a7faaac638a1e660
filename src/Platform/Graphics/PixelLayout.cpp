// SPDX-License-Identifier: MIT
// Byte layouts of 8-bit bitmaps and their conversion to and from Cairo's ARGB32.
#include "Platform/Graphics/PixelLayout.h"

#include <bit>

namespace kp::detail {

bool PixelLayout::isCairoARGB32() const {
    return std::endian::native == std::endian::little && bytesPerPixel == 4 && !gray && b == 0 && g == 1 &&
           r == 2 && a == 3 && premultiplied && !alphaSkipped;
}

std::optional<PixelLayout> pixelLayoutFor(CGColorSpaceModel model, size_t bitsPerPixel, CGBitmapInfo info) {
    if ((info & kCGBitmapFloatComponents) != 0) {
        return std::nullopt;
    }
    const CGBitmapInfo alpha = info & kCGBitmapAlphaInfoMask;
    const CGBitmapInfo order = info & kCGBitmapByteOrderMask;
    PixelLayout l;
    if (model == kCGColorSpaceModelMonochrome) {
        if (bitsPerPixel != 8 || alpha != kCGImageAlphaNone) {
            return std::nullopt;
        }
        l.bytesPerPixel = 1;
        l.gray = true;
        return l;
    }
    if (model != kCGColorSpaceModelRGB) {
        return std::nullopt;
    }
    if (bitsPerPixel == 24) {
        if (alpha != kCGImageAlphaNone) {
            return std::nullopt;
        }
        l.bytesPerPixel = 3;
        l.r = 0;
        l.g = 1;
        l.b = 2;
        return l;
    }
    if (bitsPerPixel != 32 || alpha == kCGImageAlphaNone || alpha == kCGImageAlphaOnly) {
        return std::nullopt;
    }
    if (order != kCGBitmapByteOrderDefault && order != kCGBitmapByteOrder32Big && order != kCGBitmapByteOrder32Little) {
        return std::nullopt;
    }
    l.bytesPerPixel = 4;
    const bool alphaLast =
        alpha == kCGImageAlphaPremultipliedLast || alpha == kCGImageAlphaLast || alpha == kCGImageAlphaNoneSkipLast;
    l.premultiplied = alpha == kCGImageAlphaPremultipliedLast || alpha == kCGImageAlphaPremultipliedFirst;
    l.alphaSkipped = alpha == kCGImageAlphaNoneSkipLast || alpha == kCGImageAlphaNoneSkipFirst;
    // Big-endian component order, reversed in memory for 32-bit little-endian words.
    int pos[4] = {0, 1, 2, 3}; // R, G, B, A in big-endian order
    if (alphaLast) {
        pos[0] = 0, pos[1] = 1, pos[2] = 2, pos[3] = 3;
    } else {
        pos[3] = 0, pos[0] = 1, pos[1] = 2, pos[2] = 3;
    }
    if (order == kCGBitmapByteOrder32Little) {
        for (int& p : pos) {
            p = 3 - p;
        }
    }
    l.r = pos[0];
    l.g = pos[1];
    l.b = pos[2];
    l.a = pos[3];
    return l;
}

std::optional<PixelLayout> pixelLayoutOf(const CGImage& image) {
    return pixelLayoutFor(CGColorSpaceGetModel(image.colorSpace()), image.bitsPerPixel(), image.bitmapInfo());
}

void rowToARGB32(const uint8_t* src, const PixelLayout& l, size_t width, uint32_t* dst) {
    if (l.gray) {
        for (size_t x = 0; x < width; ++x) {
            const uint32_t v = src[x];
            dst[x] = 0xFF000000u | (v << 16) | (v << 8) | v;
        }
        return;
    }
    const size_t bpp = static_cast<size_t>(l.bytesPerPixel);
    for (size_t x = 0; x < width; ++x) {
        const uint8_t* p = src + x * bpp;
        uint8_t r = p[l.r], g = p[l.g], b = p[l.b];
        uint8_t a = 255;
        if (l.a >= 0 && !l.alphaSkipped) {
            a = p[l.a];
            if (!l.premultiplied) {
                r = premultiply(r, a);
                g = premultiply(g, a);
                b = premultiply(b, a);
            } else {
                // Premultiplied components cannot exceed alpha; clamp bad input.
                r = std::min(r, a);
                g = std::min(g, a);
                b = std::min(b, a);
            }
        }
        dst[x] = (uint32_t{a} << 24) | (uint32_t{r} << 16) | (uint32_t{g} << 8) | b;
    }
}

void rowFromARGB32(const uint32_t* src, size_t width, const PixelLayout& l, uint8_t* dst) {
    if (l.gray) {
        for (size_t x = 0; x < width; ++x) {
            const uint32_t v = src[x];
            const uint32_t r = (v >> 16) & 0xFF, g = (v >> 8) & 0xFF, b = v & 0xFF;
            dst[x] = static_cast<uint8_t>((77 * r + 150 * g + 29 * b + 128) >> 8);
        }
        return;
    }
    const size_t bpp = static_cast<size_t>(l.bytesPerPixel);
    for (size_t x = 0; x < width; ++x) {
        const uint32_t v = src[x];
        const uint8_t a = static_cast<uint8_t>(v >> 24);
        uint8_t r = static_cast<uint8_t>(v >> 16), g = static_cast<uint8_t>(v >> 8), b = static_cast<uint8_t>(v);
        uint8_t* p = dst + x * bpp;
        if (l.a >= 0 && !l.alphaSkipped && !l.premultiplied) {
            r = unpremultiply(r, a);
            g = unpremultiply(g, a);
            b = unpremultiply(b, a);
        }
        p[l.r] = r;
        p[l.g] = g;
        p[l.b] = b;
        if (l.a >= 0) {
            p[l.a] = l.alphaSkipped ? 255 : a;
        }
    }
}

} // namespace kp::detail
