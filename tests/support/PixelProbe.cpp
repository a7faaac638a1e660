// SPDX-License-Identifier: MIT
// Reads single pixels of a bitmap as straight RGBA whatever its layout.
#include "support/PixelProbe.h"

#include <cstdlib>

namespace kptest {

std::optional<Rgba> pixelAt(const kp::CGImageRef& image, size_t x, size_t y) {
    const size_t bytesPerPixel = image ? image->bitsPerPixel() / 8 : 0;
    if (!image || x >= image->width() || y >= image->height() ||
        (bytesPerPixel != 1 && bytesPerPixel != 3 && bytesPerPixel != 4)) {
        return std::nullopt;
    }
    const uint8_t* p = image->bytes() + y * image->bytesPerRow() + x * bytesPerPixel;
    if (bytesPerPixel < 4) {
        return bytesPerPixel == 1 ? Rgba{p[0], p[0], p[0], 255} : Rgba{p[0], p[1], p[2], 255};
    }
    // Logical component order in the 32-bit word, reversed for little-endian words.
    using namespace kp;
    const CGBitmapInfo alpha = image->bitmapInfo() & kCGBitmapAlphaInfoMask;
    const bool little = (image->bitmapInfo() & kCGBitmapByteOrderMask) == kCGBitmapByteOrder32Little;
    const int c[4] = {p[little ? 3 : 0], p[little ? 2 : 1], p[little ? 1 : 2], p[little ? 0 : 3]};
    const bool alphaFirst =
        alpha == kCGImageAlphaPremultipliedFirst || alpha == kCGImageAlphaFirst || alpha == kCGImageAlphaNoneSkipFirst;
    Rgba out = alphaFirst ? Rgba{c[1], c[2], c[3], c[0]} : Rgba{c[0], c[1], c[2], c[3]};
    if (alpha == kCGImageAlphaNoneSkipFirst || alpha == kCGImageAlphaNoneSkipLast || alpha == kCGImageAlphaNone) {
        out.a = 255;
    }
    if ((alpha == kCGImageAlphaPremultipliedFirst || alpha == kCGImageAlphaPremultipliedLast) && out.a > 0 &&
        out.a < 255) { // premultiplied: divided back
        for (int* v : {&out.r, &out.g, &out.b}) {
            *v = (*v * 255 + out.a / 2) / out.a;
        }
    }
    return out;
}

bool near(const Rgba& actual, const Rgba& expected, int tolerance) {
    return std::abs(actual.r - expected.r) <= tolerance && std::abs(actual.g - expected.g) <= tolerance &&
           std::abs(actual.b - expected.b) <= tolerance && std::abs(actual.a - expected.a) <= tolerance;
}

} // namespace kptest
