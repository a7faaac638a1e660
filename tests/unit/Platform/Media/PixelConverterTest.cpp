// SPDX-License-Identifier: MIT
// Camera pixel layouts through the converter: sizes checked against the bytes given, odd sizes, '420f' kept intact.
#include "Platform/Media/PixelConverter.h"

#include <gtest/gtest.h>

#include <array>
#include <utility>
#include <vector>

using namespace kp;

namespace {

// Y, Cb, Cr of a '420f' buffer's pixel.
std::array<int, 3> yuvAt(const CVPixelBufferRef& pixels, size_t x, size_t y) {
    const auto& luma = pixels->plane(0);
    const auto& chroma = pixels->plane(1);
    const uint8_t* c = pixels->bytes() + chroma.offset + (y / 2) * chroma.bytesPerRow + (x / 2) * 2;
    return {pixels->bytes()[luma.offset + y * luma.bytesPerRow + x], c[0], c[1]};
}

} // namespace

TEST(PixelConverter, CameraLayoutsNeedTheirBytesAndKeepOddSizes) {
    PixelConverter converter;
    using Layout = PixelConverter::CameraLayout;
    constexpr OSType k420f = kCVPixelFormatType_420YpCbCr8BiPlanarFullRange;
    // 3 x 3 NV12 needs rows of 4 (two chroma pairs) and two chroma rows: 4 * 3 + 4 * 2 bytes.
    std::vector<uint8_t> nv12(20, 81);
    for (size_t i = 12; i < 20; i += 2) {
        nv12[i] = 90;
        nv12[i + 1] = 240;
    }
    EXPECT_FALSE(converter.convertCamera(Layout::NV12, nv12.data(), 19, 3, 3, 4, k420f, 3, 3)) << "a byte short";
    EXPECT_FALSE(converter.convertCamera(Layout::NV12, nv12.data(), 20, 3, 3, 3, k420f, 3, 3)) << "stride too small";
    const auto out = converter.convertCamera(Layout::NV12, nv12.data(), nv12.size(), 3, 3, 4, k420f, 3, 3);
    ASSERT_TRUE(out);
    for (const auto& [x, y] : {std::pair<size_t, size_t>{0, 0}, {2, 2}}) {
        const auto p = yuvAt(out, x, y);
        EXPECT_NEAR(p[0], 76, 1); // limited range widened to full range
        EXPECT_NEAR(p[1], 85, 1);
        EXPECT_NEAR(p[2], 255, 1);
    }

    // Packed 4:2:2 of odd width: the last pixel pair is whole.
    std::vector<uint8_t> packed(8 * 2, 0);
    EXPECT_FALSE(converter.convertCamera(Layout::UYVY, packed.data(), packed.size(), 3, 2, 6, k420f, 3, 2));
    EXPECT_FALSE(converter.convertCamera(Layout::YUYV, packed.data(), packed.size() - 1, 3, 2, 8, k420f, 3, 2));
    EXPECT_TRUE(converter.convertCamera(Layout::YUYV, packed.data(), packed.size(), 3, 2, 8, k420f, 3, 2));
    EXPECT_FALSE(converter.convertCamera(Layout::NV12, nullptr, 100, 2, 2, 2, k420f, 2, 2));
    EXPECT_FALSE(converter.convertCamera(Layout::NV12, nv12.data(), nv12.size(), 0, 3, 4, k420f, 3, 3));

    // A '420f' buffer converted to '420f' of the same size keeps its chroma.
    const auto copy = converter.convert(out, k420f, 3, 3);
    ASSERT_TRUE(copy);
    EXPECT_EQ(yuvAt(copy, 2, 2), yuvAt(out, 2, 2));
}
