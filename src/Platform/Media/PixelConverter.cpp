// SPDX-License-Identifier: MIT
// Pixel format conversion and scaling with libswscale.
#include "Platform/Media/PixelConverter.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>

namespace kp {

namespace {
// NV12 into a '420f' or '420v' buffer of the same size, the range widened or narrowed as needed. libswscale's
// unscaled NV12-to-NV12 path leaves the chroma plane unwritten (FFmpeg 5.1), so the copy is done here.
void copyNV12(const uint8_t* const srcData[4], const int srcStride[4], bool srcFullRange, bool dstFullRange,
              CVPixelBuffer& out) {
    using Table = std::array<uint8_t, 256>;
    // v -> (v - from) * scale + to, rounded and clamped.
    const auto table = [](double from, double scale, double to) {
        Table t{};
        for (int v = 0; v < 256; ++v) {
            t[static_cast<size_t>(v)] =
                static_cast<uint8_t>(std::clamp(std::lround((v - from) * scale + to), 0L, 255L));
        }
        return t;
    };
    static const Table widenLuma = table(16.0, 255.0 / 219.0, 0.0);
    static const Table widenChroma = table(128.0, 255.0 / 224.0, 128.0);
    static const Table narrowLuma = table(0.0, 219.0 / 255.0, 16.0);
    static const Table narrowChroma = table(128.0, 224.0 / 255.0, 128.0);
    const bool widen = !srcFullRange && dstFullRange;
    const size_t width = out.width();
    const size_t rows[2] = {out.height(), (out.height() + 1) / 2};
    const size_t bytes[2] = {width, (width + 1) & ~size_t{1}};
    for (size_t p = 0; p < 2; ++p) {
        const Table& map = widen ? (p == 0 ? widenLuma : widenChroma) : (p == 0 ? narrowLuma : narrowChroma);
        const auto& plane = out.plane(p);
        for (size_t y = 0; y < rows[p]; ++y) {
            const uint8_t* from = srcData[p] + y * static_cast<size_t>(srcStride[p]);
            uint8_t* to = out.bytes() + plane.offset + y * plane.bytesPerRow;
            if (srcFullRange == dstFullRange) {
                std::memcpy(to, from, bytes[p]);
            } else {
                std::transform(from, from + bytes[p], to, [&](uint8_t v) { return map[v]; });
            }
        }
    }
}

// Free output buffers kept for reuse: enough for a stream whose frames are let go as fast as they come.
constexpr size_t kFreeFrames = 4;
} // namespace

PixelConverter::~PixelConverter() { sws_freeContext(_context); }

CVPixelBufferRef PixelConverter::run(int srcFormat, bool srcFullRange, const uint8_t* const srcData[4],
                                     const int srcStride[4], int srcWidth, int srcHeight, OSType dstFormat,
                                     size_t dstWidth, size_t dstHeight) {
    if (srcWidth <= 0 || srcHeight <= 0 || dstWidth == 0 || dstHeight == 0 || dstWidth > INT_MAX ||
        dstHeight > INT_MAX) {
        return nullptr;
    }
    if (!_pool || _pool->width() != dstWidth || _pool->height() != dstHeight || _pool->pixelFormat() != dstFormat) {
        _pool.reset();
        if (CVPixelBufferPoolCreate(dstWidth, dstHeight, dstFormat, kFreeFrames, &_pool) != kCVReturnSuccess) {
            return nullptr;
        }
    }
    CVPixelBufferRef out;
    if (CVPixelBufferPoolCreatePixelBuffer(_pool, &out) != kCVReturnSuccess) {
        return nullptr;
    }
    const bool dstNV12 = isBiPlanar420(dstFormat);
    const bool dstFullRange = dstFormat != kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;
    if (dstNV12 && srcFormat == AV_PIX_FMT_NV12 && dstWidth == static_cast<size_t>(srcWidth) &&
        dstHeight == static_cast<size_t>(srcHeight)) {
        copyNV12(srcData, srcStride, srcFullRange, dstFullRange, *out);
        return out;
    }
    const AVPixelFormat dst = dstNV12 ? AV_PIX_FMT_NV12 : AV_PIX_FMT_BGRA;
    _context = sws_getCachedContext(_context, srcWidth, srcHeight, static_cast<AVPixelFormat>(srcFormat),
                                    static_cast<int>(dstWidth), static_cast<int>(dstHeight), dst, SWS_BILINEAR,
                                    nullptr, nullptr, nullptr);
    if (_context == nullptr) {
        return nullptr;
    }
    // '420f' is full range and '420v' video range; camera YUV is usually video range.
    const int* coefficients = sws_getCoefficients(SWS_CS_ITU601);
    sws_setColorspaceDetails(_context, coefficients, srcFullRange ? 1 : 0, coefficients, dstFullRange ? 1 : 0, 0,
                             1 << 16, 1 << 16);
    uint8_t* dstData[4] = {out->bytes() + out->plane(0).offset, nullptr, nullptr, nullptr};
    int dstStride[4] = {static_cast<int>(out->plane(0).bytesPerRow), 0, 0, 0};
    if (dstNV12) {
        dstData[1] = out->bytes() + out->plane(1).offset;
        dstStride[1] = static_cast<int>(out->plane(1).bytesPerRow);
    }
    if (sws_scale(_context, srcData, srcStride, 0, srcHeight, dstData, dstStride) <= 0) {
        return nullptr;
    }
    return out;
}

CVPixelBufferRef PixelConverter::convert(const CVPixelBufferRef& source, OSType dstFormat, size_t dstWidth,
                                         size_t dstHeight, size_t x, size_t y, size_t w, size_t h) {
    if (!source) {
        return nullptr;
    }
    if (w == 0 || h == 0) {
        x = 0;
        y = 0;
        w = source->width();
        h = source->height();
    }
    if (x >= source->width() || y >= source->height() || w > source->width() - x || h > source->height() - y) {
        return nullptr;
    }
    const uint8_t* base = source->bytes();
    const uint8_t* srcData[4] = {nullptr, nullptr, nullptr, nullptr};
    int srcStride[4] = {0, 0, 0, 0};
    int format = 0;
    bool full = true;
    if (source->pixelFormat() == kCVPixelFormatType_32BGRA) {
        const auto& p = source->plane(0);
        srcData[0] = base + p.offset + y * p.bytesPerRow + x * 4;
        srcStride[0] = static_cast<int>(p.bytesPerRow);
        format = AV_PIX_FMT_BGRA;
    } else if (isBiPlanar420(source->pixelFormat())) {
        // Chroma is subsampled: keep the crop on even coordinates.
        x &= ~size_t{1};
        y &= ~size_t{1};
        const auto& luma = source->plane(0);
        const auto& chroma = source->plane(1);
        srcData[0] = base + luma.offset + y * luma.bytesPerRow + x;
        srcData[1] = base + chroma.offset + (y / 2) * chroma.bytesPerRow + x;
        srcStride[0] = static_cast<int>(luma.bytesPerRow);
        srcStride[1] = static_cast<int>(chroma.bytesPerRow);
        format = AV_PIX_FMT_NV12;
        full = source->pixelFormat() == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
    } else {
        return nullptr;
    }
    return run(format, full, srcData, srcStride, static_cast<int>(w), static_cast<int>(h), dstFormat, dstWidth,
               dstHeight);
}

CVPixelBufferRef PixelConverter::convertCamera(CameraLayout layout, const uint8_t* data, size_t size, size_t width,
                                               size_t height, size_t stride, OSType dstFormat, size_t dstWidth,
                                               size_t dstHeight) {
    if (data == nullptr || width == 0 || height == 0 || width > kCVPixelBufferMaxDimension ||
        height > kCVPixelBufferMaxDimension || stride > INT_MAX) {
        return nullptr;
    }
    const uint8_t* srcData[4] = {data, nullptr, nullptr, nullptr};
    int srcStride[4] = {static_cast<int>(stride), 0, 0, 0};
    const uint64_t lumaBytes = static_cast<uint64_t>(stride) * height;
    uint64_t need = lumaBytes;
    // Chroma covers odd sizes by rounding up: a row holds (width + 1) / 2 chroma pairs.
    const size_t evenWidth = (width + 1) & ~size_t{1};
    int format = AV_PIX_FMT_YUYV422;
    if (layout == CameraLayout::NV12) {
        if (stride < evenWidth) {
            return nullptr;
        }
        need += static_cast<uint64_t>(stride) * ((height + 1) / 2);
        format = AV_PIX_FMT_NV12;
    } else {
        if (stride < evenWidth * 2) {
            return nullptr;
        }
        format = layout == CameraLayout::UYVY ? AV_PIX_FMT_UYVY422 : AV_PIX_FMT_YUYV422;
    }
    if (need > size) {
        return nullptr;
    }
    if (layout == CameraLayout::NV12) {
        srcData[1] = data + lumaBytes;
        srcStride[1] = srcStride[0];
    }
    return run(format, false, srcData, srcStride, static_cast<int>(width), static_cast<int>(height), dstFormat,
               dstWidth, dstHeight);
}

CVPixelBufferRef PixelConverter::convertFrame(const AVFrame* frame, OSType dstFormat, size_t dstWidth,
                                              size_t dstHeight) {
    if (frame == nullptr || frame->width <= 0 || frame->height <= 0) {
        return nullptr;
    }
    const bool full = frame->color_range == AVCOL_RANGE_JPEG || frame->format == AV_PIX_FMT_YUVJ420P ||
                      frame->format == AV_PIX_FMT_YUVJ422P || frame->format == AV_PIX_FMT_YUVJ444P;
    const uint8_t* srcData[4] = {frame->data[0], frame->data[1], frame->data[2], frame->data[3]};
    const int srcStride[4] = {frame->linesize[0], frame->linesize[1], frame->linesize[2], frame->linesize[3]};
    return run(frame->format, full, srcData, srcStride, frame->width, frame->height, dstFormat, dstWidth, dstHeight);
}

} // namespace kp
