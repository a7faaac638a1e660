// SPDX-License-Identifier: MIT
// Reads single pixels of a bitmap as straight RGBA whatever its layout.
#include "support/PixelProbe.h"

#include <cstdlib>

namespace kptest {

std::optional<Rgba> pixelAt(const kp::CGImageRef& image, size_t x, size_t y) {
    if (!image || x >= image->width() || y >= image->height()) {
        return std::nullopt;
    }
    const size_t bytesPerPixel = image->bitsPerPixel() / 8;
    const uint8_t* p = image->bytes() + y * image->bytesPerRow() + x * bytesPerPixel;
    const kp::CGBitmapInfo info = image->bitmapInfo();
    const kp::CGBitmapInfo alpha = info & kp::kCGBitmapAlphaInfoMask;
    const bool little = (info & kp::kCGBitmapByteOrderMask) == kp::kCGBitmapByteOrder32Little;
    Rgba out;
    if (bytesPerPixel == 1) {
        out = {p[0], p[0], p[0], 255};
    } else if (bytesPerPixel == 3) {
        out = {p[0], p[1], p[2], 255};
    } else if (bytesPerPixel == 4) {
        // Logical component order in the 32-bit word, then reversed for little-endian words.
        const bool alphaFirst = alpha == kp::kCGImageAlphaPremultipliedFirst || alpha == kp::kCGImageAlphaFirst ||
                                alpha == kp::kCGImageAlphaNoneSkipFirst;
        int c[4] = {p[0], p[1], p[2], p[3]};
        if (little) {
            c[0] = p[3];
            c[1] = p[2];
            c[2] = p[1];
            c[3] = p[0];
        }
        out = alphaFirst ? Rgba{c[1], c[2], c[3], c[0]} : Rgba{c[0], c[1], c[2], c[3]};
        if (alpha == kp::kCGImageAlphaNoneSkipFirst || alpha == kp::kCGImageAlphaNoneSkipLast ||
            alpha == kp::kCGImageAlphaNone) {
            out.a = 255;
        }
        const bool premultiplied =
            alpha == kp::kCGImageAlphaPremultipliedFirst || alpha == kp::kCGImageAlphaPremultipliedLast;
        if (premultiplied && out.a > 0 && out.a < 255) {
            out.r = (out.r * 255 + out.a / 2) / out.a;
            out.g = (out.g * 255 + out.a / 2) / out.a;
            out.b = (out.b * 255 + out.a / 2) / out.a;
        }
    } else {
        return std::nullopt;
    }
    return out;
}

bool near(const Rgba& actual, const Rgba& expected, int tolerance) {
    return std::abs(actual.r - expected.r) <= tolerance && std::abs(actual.g - expected.g) <= tolerance &&
           std::abs(actual.b - expected.b) <= tolerance && std::abs(actual.a - expected.a) <= tolerance;
}

} // namespace kptest
