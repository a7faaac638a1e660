// SPDX-License-Identifier: MIT
// Camera pixel layouts through the converter: sizes checked against the bytes given, odd sizes, '420f' kept intact,
// and the video range of '420v' frames.
#include "Platform/Media/PixelConverter.h"
#include "Platform/Vision/LumaImage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

using namespace kp;

namespace {

constexpr OSType k420v = kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;
constexpr OSType k420f = kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;

// Y, Cb, Cr of a bi-planar buffer's pixel, or B, G, R of a BGRA one.
std::array<int, 3> pixelAt(const CVPixelBufferRef& pixels, size_t x, size_t y) {
    const auto& luma = pixels->plane(0);
    if (pixels->pixelFormat() == kCVPixelFormatType_32BGRA) {
        const uint8_t* p = pixels->bytes() + y * luma.bytesPerRow + x * 4;
        return {p[0], p[1], p[2]};
    }
    const auto& chroma = pixels->plane(1);
    const uint8_t* c = pixels->bytes() + chroma.offset + (y / 2) * chroma.bytesPerRow + (x / 2) * 2;
    return {pixels->bytes()[luma.offset + y * luma.bytesPerRow + x], c[0], c[1]};
}

// A bi-planar buffer of the format with every pixel (y, cb, cr).
CVPixelBufferRef filled420(OSType format, size_t width, size_t height, std::array<int, 3> yuv) {
    CVPixelBufferRef pixels;
    if (CVPixelBufferCreate(width, height, format, &pixels) != kCVReturnSuccess) {
        return nullptr;
    }
    const size_t chroma = pixels->plane(1).offset;
    std::fill_n(pixels->bytes(), chroma, static_cast<uint8_t>(yuv[0]));
    for (size_t i = chroma; i + 1 < pixels->dataSize(); i += 2) {
        pixels->bytes()[i] = static_cast<uint8_t>(yuv[1]), pixels->bytes()[i + 1] = static_cast<uint8_t>(yuv[2]);
    }
    return pixels;
}

} // namespace

TEST(PixelConverter, CameraLayoutsNeedTheirBytesAndKeepOddSizes) {
    PixelConverter converter;
    using Layout = PixelConverter::CameraLayout;
    // 3 x 3 NV12 needs rows of 4 (two chroma pairs) and two chroma rows: 4 * 3 + 4 * 2 bytes.
    const std::vector<uint8_t> nv12{81, 81, 81, 81, 81, 81, 81, 81, 81, 81, 81, 81, 90, 240, 90, 240, 90, 240, 90, 240};
    std::vector<uint8_t> packed(8 * 2, 0);
    EXPECT_FALSE(converter.convertCamera(Layout::NV12, nv12.data(), 19, 3, 3, 4, k420f, 3, 3)) << "a byte short";
    EXPECT_FALSE(converter.convertCamera(Layout::NV12, nv12.data(), 20, 3, 3, 3, k420f, 3, 3)) << "stride too small";
    // Packed 4:2:2 of odd width: the last pixel pair is whole.
    EXPECT_FALSE(converter.convertCamera(Layout::UYVY, packed.data(), packed.size(), 3, 2, 6, k420f, 3, 2));
    EXPECT_FALSE(converter.convertCamera(Layout::YUYV, packed.data(), packed.size() - 1, 3, 2, 8, k420f, 3, 2));
    EXPECT_TRUE(converter.convertCamera(Layout::YUYV, packed.data(), packed.size(), 3, 2, 8, k420f, 3, 2));
    const auto out = converter.convertCamera(Layout::NV12, nv12.data(), nv12.size(), 3, 3, 4, k420f, 3, 3);
    ASSERT_TRUE(out);
    EXPECT_NEAR(pixelAt(out, 2, 2)[2], 255, 1); // the odd last column has its chroma, widened to full range
}

TEST(PixelConverter, VideoRangeFramesConvertWithTheirOwnRange) {
    // Same size (the converter's own copy) and scaled (libswscale), between the two ranges and to BGRA.
    constexpr OSType kBGRA = kCVPixelFormatType_32BGRA;
    const std::tuple<OSType, std::array<int, 3>, OSType, std::array<int, 3>> cases[] = {
        {k420v, {16, 128, 128}, k420f, {0, 128, 128}},    {k420v, {235, 240, 16}, k420f, {255, 255, 0}},
        {k420f, {0, 128, 128}, k420v, {16, 128, 128}},    {k420f, {255, 255, 0}, k420v, {235, 240, 16}},
        {k420v, {81, 90, 240}, k420v, {81, 90, 240}},     {k420v, {16, 128, 128}, kBGRA, {0, 0, 0}},
        {k420v, {235, 128, 128}, kBGRA, {255, 255, 255}}, {k420f, {255, 128, 128}, kBGRA, {255, 255, 255}},
        {k420v, {126, 236, 20}, k420f, {128, 251, 5}}, // chroma widens by 255 / 224, luma by 255 / 219
    };
    PixelConverter converter;
    for (const auto& [from, yuv, to, expected] : cases) {
        const auto source = filled420(from, 8, 6, yuv);
        ASSERT_TRUE(source);
        for (const size_t width : {8, 4}) {
            SCOPED_TRACE("Y " + std::to_string(yuv[0]) + " to width " + std::to_string(width));
            const auto out = converter.convert(source, to, width, width * 3 / 4);
            ASSERT_TRUE(out && out->pixelFormat() == to);
            const auto got = pixelAt(out, 1, 1);
            for (size_t i = 0; i < 3; ++i) {
                // libswscale's scaling rounds to within 2; a range mistake is 16 or more off.
                EXPECT_NEAR(got[i], expected[i], 2) << "part " << i;
            }
        }
    }
    // The detectors' grey: video-range luma widened, so both ranges give the same picture.
    for (const auto& [format, y, grey] : {std::tuple{k420v, 16, 0}, std::tuple{k420v, 235, 255},
                                          std::tuple{k420v, 126, 128}, std::tuple{k420f, 126, 126}}) {
        LumaImage luma;
        ASSERT_TRUE(LumaImageFromPixelBuffer(filled420(format, 4, 4, {y, 128, 128}), luma));
        EXPECT_EQ(luma.pixels.at(5), grey) << y;
    }
}
