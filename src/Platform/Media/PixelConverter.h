// SPDX-License-Identifier: MIT
// Pixel format conversion and scaling between camera formats and pixel buffers (libswscale).
#pragma once

#include "KPImage/Platform/CVPixelBuffer.h"

#include <cstdint>

struct SwsContext;
struct AVFrame;

namespace kp {

/// Converts frames into pixel buffers (BGRA or '420f'), scaling as asked. Keeps its scaler and a pool of output
/// buffers between calls, so a stream reuses one converter and its frames reuse the memory of frames that were
/// let go; not for concurrent use.
class PixelConverter {
public:
    PixelConverter() = default;
    ~PixelConverter();
    PixelConverter(const PixelConverter&) = delete;
    PixelConverter& operator=(const PixelConverter&) = delete;

    /// Source pixel layouts.
    enum class Source { BGRA, NV12Full, YUYV, AVFrameFormat };

    /// A buffer of dstWidth x dstHeight in dstFormat made from a region (x, y, w, h) of a pixel buffer; the whole
    /// buffer when w or h is 0. Null on bad arguments or failure.
    CVPixelBufferRef convert(const CVPixelBufferRef& source, OSType dstFormat, size_t dstWidth, size_t dstHeight,
                             size_t x = 0, size_t y = 0, size_t w = 0, size_t h = 0);
    /// Uncompressed camera layouts (limited range): packed 4:2:2 Y0 U Y1 V (YUYV) or U Y0 V Y1 (UYVY), and 4:2:0
    /// NV12 (a Y plane, then interleaved U, V rows at half height, both with the same stride).
    enum class CameraLayout { YUYV, UYVY, NV12 };
    /// A buffer from camera pixels of width x height with the given stride (bytes per row of the Y plane) and
    /// byte count. Null when the bytes are too few for the size or the arguments are bad.
    CVPixelBufferRef convertCamera(CameraLayout layout, const uint8_t* data, size_t size, size_t width, size_t height,
                                   size_t stride, OSType dstFormat, size_t dstWidth, size_t dstHeight);
    /// A buffer from a decoded FFmpeg frame.
    CVPixelBufferRef convertFrame(const AVFrame* frame, OSType dstFormat, size_t dstWidth, size_t dstHeight);

private:
    CVPixelBufferRef run(int srcFormat, bool srcFullRange, const uint8_t* const srcData[4], const int srcStride[4],
                         int srcWidth, int srcHeight, OSType dstFormat, size_t dstWidth, size_t dstHeight);
    SwsContext* _context = nullptr;
    CVPixelBufferPoolRef _pool;
};

} // namespace kp
