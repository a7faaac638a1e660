// SPDX-License-Identifier: MIT
// Luminance pictures from camera frames and images, and their area-average reduction.
#include "Platform/Vision/LumaImage.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace kp {

namespace {
// The same integer weights the drawing context uses for grey.
inline uint8_t luma(unsigned r, unsigned g, unsigned b) {
    return static_cast<uint8_t>((77u * r + 150u * g + 29u * b + 128u) >> 8);
}

// Video-range luma (16..235) to full range (0..255), rounded, clamped outside the range.
constexpr std::array<uint8_t, 256> makeVideoToFullLuma() {
    std::array<uint8_t, 256> table{};
    for (int v = 0; v < 256; ++v) {
        const int full = ((v - 16) * 255 * 2 + 219) / (219 * 2);
        table[static_cast<size_t>(v)] = static_cast<uint8_t>(v <= 16 ? 0 : v >= 235 ? 255 : full);
    }
    return table;
}
constexpr std::array<uint8_t, 256> kVideoToFullLuma = makeVideoToFullLuma();
} // namespace

bool LumaImage::resize(int w, int h) {
    if (w <= 0 || h <= 0 || static_cast<size_t>(w) > kCVPixelBufferMaxDimension ||
        static_cast<size_t>(h) > kCVPixelBufferMaxDimension) {
        width = height = 0;
        pixels.clear();
        return false;
    }
    width = w;
    height = h;
    pixels.resize(static_cast<size_t>(w) * static_cast<size_t>(h));
    return true;
}

bool CGImageComponentOffsets(const CGImage& image, size_t& r, size_t& g, size_t& b) {
    if (image.bitsPerComponent() != 8 || image.bitsPerPixel() % 8 != 0 || image.bitsPerPixel() == 0) {
        return false;
    }
    const size_t bytesPerPixel = image.bitsPerPixel() / 8;
    const CGColorSpaceModel model = CGColorSpaceGetModel(image.colorSpace());
    const size_t colours = model == kCGColorSpaceModelMonochrome ? 1 : model == kCGColorSpaceModelRGB ? 3 : 0;
    if (colours == 0 || bytesPerPixel < colours) {
        return false;
    }
    const CGBitmapInfo alpha = image.bitmapInfo() & kCGBitmapAlphaInfoMask;
    const bool alphaFirst =
        alpha == kCGImageAlphaPremultipliedFirst || alpha == kCGImageAlphaFirst || alpha == kCGImageAlphaNoneSkipFirst;
    size_t first = alphaFirst ? 1 : 0;
    size_t order[3] = {first, first + (colours == 3 ? 1 : 0), first + (colours == 3 ? 2 : 0)};
    // A little-endian word stores its components in reverse.
    const CGBitmapInfo byteOrder = image.bitmapInfo() & kCGBitmapByteOrderMask;
    const bool reversed = (byteOrder == kCGBitmapByteOrder32Little && bytesPerPixel == 4) ||
                          (byteOrder == kCGBitmapByteOrder16Little && bytesPerPixel == 2);
    if (reversed) {
        for (size_t& o : order) {
            o = bytesPerPixel - 1 - o;
        }
    }
    r = order[0];
    g = order[1];
    b = order[2];
    return r < bytesPerPixel && g < bytesPerPixel && b < bytesPerPixel;
}

bool LumaImageFromCGImage(const CGImage& image, LumaImage& out) {
    size_t ro = 0, go = 0, bo = 0;
    if (!CGImageComponentOffsets(image, ro, go, bo)) {
        return false;
    }
    const size_t width = image.width();
    const size_t height = image.height();
    const size_t bytesPerPixel = image.bitsPerPixel() / 8;
    const size_t rowBytes = image.bytesPerRow();
    if (width == 0 || height == 0 || rowBytes < width * bytesPerPixel ||
        image.byteCount() < rowBytes * (height - 1) + width * bytesPerPixel ||
        !out.resize(static_cast<int>(std::min<size_t>(width, kCVPixelBufferMaxDimension + 1)),
                    static_cast<int>(std::min<size_t>(height, kCVPixelBufferMaxDimension + 1)))) {
        return false;
    }
    const uint8_t* bytes = image.bytes();
    for (size_t y = 0; y < height; ++y) {
        const uint8_t* row = bytes + y * rowBytes;
        uint8_t* dst = out.row(static_cast<int>(y));
        for (size_t x = 0; x < width; ++x) {
            const uint8_t* p = row + x * bytesPerPixel;
            dst[x] = luma(p[ro], p[go], p[bo]);
        }
    }
    return true;
}

bool LumaImageFromPixelBuffer(const CVPixelBufferRef& buffer, LumaImage& out) {
    if (!buffer) {
        return false;
    }
    const OSType format = CVPixelBufferGetPixelFormatType(buffer);
    if (format != kCVPixelFormatType_32BGRA && !isBiPlanar420(format)) {
        return false;
    }
    if (CVPixelBufferLockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly) != kCVReturnSuccess) {
        return false;
    }
    bool ok = false;
    const bool planar = isBiPlanar420(format);
    // Video-range luma is widened to full range, so that detection sees the same grey as from a '420f' frame.
    const bool videoRange = format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;
    const auto* base = static_cast<const uint8_t*>(planar ? CVPixelBufferGetBaseAddressOfPlane(buffer, 0)
                                                          : CVPixelBufferGetBaseAddress(buffer));
    const size_t width = planar ? CVPixelBufferGetWidthOfPlane(buffer, 0) : CVPixelBufferGetWidth(buffer);
    const size_t height = planar ? CVPixelBufferGetHeightOfPlane(buffer, 0) : CVPixelBufferGetHeight(buffer);
    const size_t rowBytes =
        planar ? CVPixelBufferGetBytesPerRowOfPlane(buffer, 0) : CVPixelBufferGetBytesPerRow(buffer);
    const size_t bytesPerPixel = planar ? 1 : 4;
    if (base != nullptr && width > 0 && height > 0 && rowBytes >= width * bytesPerPixel &&
        out.resize(static_cast<int>(std::min<size_t>(width, kCVPixelBufferMaxDimension + 1)),
                   static_cast<int>(std::min<size_t>(height, kCVPixelBufferMaxDimension + 1)))) {
        for (size_t y = 0; y < height; ++y) {
            const uint8_t* row = base + y * rowBytes;
            uint8_t* dst = out.row(static_cast<int>(y));
            if (videoRange) {
                std::transform(row, row + width, dst, [](uint8_t v) { return kVideoToFullLuma[v]; });
            } else if (planar) {
                std::copy(row, row + width, dst);
            } else {
                for (size_t x = 0; x < width; ++x) {
                    // Premultiplied B, G, R: camera frames are opaque, so the colours stand as they are.
                    dst[x] = luma(row[4 * x + 2], row[4 * x + 1], row[4 * x]);
                }
            }
        }
        ok = true;
    }
    CVPixelBufferUnlockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly);
    return ok;
}

LumaImage LumaImageScaled(const LumaImage& image, double scale) {
    LumaImage out;
    if (image.empty() || !(scale > 0)) {
        return out;
    }
    if (scale >= 1.0) {
        return image;
    }
    const int w = std::max(1, static_cast<int>(std::lround(image.width * scale)));
    const int h = std::max(1, static_cast<int>(std::lround(image.height * scale)));
    out.resize(w, h);
    // Each output pixel averages the source pixels whose top-left corners fall into its footprint.
    std::vector<int> x0(static_cast<size_t>(w) + 1);
    for (int x = 0; x <= w; ++x) {
        x0[static_cast<size_t>(x)] = static_cast<int>(static_cast<int64_t>(x) * image.width / w);
    }
    std::vector<uint32_t> sums(static_cast<size_t>(w));
    for (int y = 0; y < h; ++y) {
        const int ya = static_cast<int>(static_cast<int64_t>(y) * image.height / h);
        const int yb = std::max(ya + 1, static_cast<int>(static_cast<int64_t>(y + 1) * image.height / h));
        std::fill(sums.begin(), sums.end(), 0u);
        for (int sy = ya; sy < yb; ++sy) {
            const uint8_t* src = image.row(sy);
            for (int x = 0; x < w; ++x) {
                uint32_t s = 0;
                const int xb = std::max(x0[static_cast<size_t>(x)] + 1, x0[static_cast<size_t>(x) + 1]);
                for (int sx = x0[static_cast<size_t>(x)]; sx < xb; ++sx) {
                    s += src[sx];
                }
                sums[static_cast<size_t>(x)] += s;
            }
        }
        uint8_t* dst = out.row(y);
        for (int x = 0; x < w; ++x) {
            const int xb = std::max(x0[static_cast<size_t>(x)] + 1, x0[static_cast<size_t>(x) + 1]);
            const uint32_t n = static_cast<uint32_t>((yb - ya) * (xb - x0[static_cast<size_t>(x)]));
            dst[x] = static_cast<uint8_t>((sums[static_cast<size_t>(x)] + n / 2) / n);
        }
    }
    return out;
}

CGPoint RotatedCrop::toSource(CGPoint p) const {
    const double u = p.x / scale - width / (2 * scale);
    const double v = p.y / scale - height / (2 * scale);
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    return {centre.x + u * c - v * s, centre.y + u * s + v * c};
}

LumaImage RotatedCrop::sample(const LumaImage& source) const {
    LumaImage out;
    if (source.empty() || !(scale > 0) || !out.resize(width, height)) {
        return out;
    }
    const double maxX = source.width - 1;
    const double maxY = source.height - 1;
    const CGPoint origin = toSource({0, 0});
    const CGPoint du{std::cos(angle) / scale, std::sin(angle) / scale};
    const CGPoint dv{-std::sin(angle) / scale, std::cos(angle) / scale};
    // Rows whose samples all fall inside the source step through it in 16.16 fixed point with 8-bit weights; rows
    // that reach the border clamp every sample.
    constexpr double kOne = 65536.0;
    const auto inside = [&](double x, double y) { return x >= 0 && y >= 0 && x < maxX - 0.01 && y < maxY - 0.01; };
    const auto fixedStep = [&](double d) { return static_cast<int64_t>(std::llround(d * kOne)); };
    const int64_t stepX = fixedStep(du.x);
    const int64_t stepY = fixedStep(du.y);
    const auto stride = static_cast<ptrdiff_t>(source.width);
    for (int v = 0; v < height; ++v) {
        uint8_t* dst = out.row(v);
        const double startX = origin.x + v * dv.x;
        const double startY = origin.y + v * dv.y;
        const double endX = startX + (width - 1) * du.x;
        const double endY = startY + (width - 1) * du.y;
        if (inside(startX, startY) && inside(endX, endY)) {
            int64_t fx = fixedStep(startX);
            int64_t fy = fixedStep(startY);
            for (int u = 0; u < width; ++u, fx += stepX, fy += stepY) {
                const auto x0 = static_cast<ptrdiff_t>(fx >> 16);
                const auto y0 = static_cast<ptrdiff_t>(fy >> 16);
                const auto wx = static_cast<uint32_t>((fx >> 8) & 0xFF);
                const auto wy = static_cast<uint32_t>((fy >> 8) & 0xFF);
                const uint8_t* r0 = source.pixels.data() + y0 * stride + x0;
                const uint8_t* r1 = r0 + stride;
                const uint32_t top = r0[0] * (256 - wx) + r0[1] * wx;
                const uint32_t bottom = r1[0] * (256 - wx) + r1[1] * wx;
                dst[u] = static_cast<uint8_t>((top * (256 - wy) + bottom * wy + 32768) >> 16);
            }
            continue;
        }
        for (int u = 0; u < width; ++u) {
            const double x = std::clamp(origin.x + u * du.x + v * dv.x, 0.0, maxX);
            const double y = std::clamp(origin.y + u * du.y + v * dv.y, 0.0, maxY);
            const int x0 = static_cast<int>(x);
            const int y0 = static_cast<int>(y);
            const int x1 = std::min(x0 + 1, source.width - 1);
            const int y1 = std::min(y0 + 1, source.height - 1);
            const double fx = x - x0;
            const double fy = y - y0;
            const uint8_t* r0 = source.row(y0);
            const uint8_t* r1 = source.row(y1);
            const double top = r0[x0] + (r0[x1] - r0[x0]) * fx;
            const double bottom = r1[x0] + (r1[x1] - r1[x0]) * fx;
            dst[u] = static_cast<uint8_t>(top + (bottom - top) * fy + 0.5);
        }
    }
    return out;
}

} // namespace kp
