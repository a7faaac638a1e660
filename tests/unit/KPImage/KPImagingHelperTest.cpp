// SPDX-License-Identifier: MIT
// Conversions into images: orientation table, colour swatch, raw buffers and their rejection rules.
#include "KPImage/KPImagingHelper.h"

#include "support/PixelProbe.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

namespace {

using kp::KPImagingHelper;

TEST(KPImagingHelper, DeviceToImageOrientation) {
    EXPECT_EQ(KPImagingHelper::convertToImageOrientation(2), kp::UIImageOrientationLeft);
    EXPECT_EQ(KPImagingHelper::convertToImageOrientation(3), kp::UIImageOrientationUp);
    EXPECT_EQ(KPImagingHelper::convertToImageOrientation(4), kp::UIImageOrientationDown);
    for (int32_t other : {1, 0, 5, -1, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(KPImagingHelper::convertToImageOrientation(other), kp::UIImageOrientationRight) << other;
    }
}

TEST(KPImagingHelper, ImageFromColour) {
    const auto image = KPImagingHelper::imageFromColor(kp::UIColor::colorWithRed(1, 0.5, 0, 1));
    ASSERT_TRUE(image);
    EXPECT_EQ(image->size(), kp::CGSizeMake(10, 10));
    EXPECT_EQ(image->scale(), 1.0);
    for (size_t at : {0u, 5u, 9u}) {
        EXPECT_TRUE(kptest::near(*kptest::pixelAt(*image, at, 9 - at), {255, 128, 0, 255}, 1));
    }
    const auto clear = KPImagingHelper::imageFromColor(kp::UIColor::clearColor());
    ASSERT_TRUE(clear);
    EXPECT_EQ(kptest::pixelAt(*clear, 4, 4)->a, 0);
}

TEST(KPImagingHelper, RawBuffersKeepTheirLayoutAndPadding) {
    // 3 x 2 pixels in rows of 16 bytes: the padding stays in the image's layout.
    std::vector<uint8_t> buffer(32, 0xEE);
    for (size_t i = 0; i < 12; ++i) {
        buffer[i] = static_cast<uint8_t>(10 + i);
        buffer[16 + i] = static_cast<uint8_t>(100 + i);
    }
    struct Case {
        const char* name;
        std::optional<kp::UIImage> image;
        size_t bitsPerPixel;
        kp::CGBitmapInfo info;
        kp::CGColorSpaceModel model;
        kptest::Rgba secondRowFirstPixel;
    };
    const Case cases[] = {
        {"grey", KPImagingHelper::makeUIImageFromGrayScaleData(buffer.data(), 3, 2, 16), 8, 0,
         kp::kCGColorSpaceModelMonochrome, {100, 100, 100, 255}},
        {"rgb", KPImagingHelper::makeUIImageFromRGBData(buffer.data(), 3, 2, 16), 24, 0, kp::kCGColorSpaceModelRGB,
         {100, 101, 102, 255}},
        {"rgba", KPImagingHelper::makeUIImageFromRGBAData(buffer.data(), 3, 2, 16), 32, 3, kp::kCGColorSpaceModelRGB,
         {100, 101, 102, 103}},
        {"bgra", KPImagingHelper::makeUIImageFromBGRAData(std::span<const uint8_t>(buffer), 3, 2, 16), 32, 8194,
         kp::kCGColorSpaceModelRGB, {0, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(c.image);
        const kp::CGImageRef& cg = c.image->CGImage();
        EXPECT_EQ(cg->width(), 3u);
        EXPECT_EQ(cg->height(), 2u);
        EXPECT_EQ(cg->bytesPerRow(), 16u);
        EXPECT_EQ(cg->bitsPerPixel(), c.bitsPerPixel);
        EXPECT_EQ(cg->bitmapInfo(), c.info);
        EXPECT_EQ(kp::CGColorSpaceGetModel(cg->colorSpace()), c.model);
        // Exactly bytesPerRow * height bytes are copied, padding included.
        EXPECT_EQ(kp::CGDataProviderCopyData(cg->dataProvider()), buffer);
        if (c.info != 8194) {
            EXPECT_EQ(*kptest::pixelAt(cg, 0, 1), c.secondRowFirstPixel);
        }
    }
    // The caller's buffer is copied, not borrowed.
    const auto grey = KPImagingHelper::makeUIImageFromGrayScaleData(buffer.data(), 3, 2, 16);
    buffer.assign(buffer.size(), 0);
    EXPECT_EQ(kptest::pixelAt(*grey, 0, 0)->r, 10);
}

TEST(KPImagingHelper, RawBuffersRejectBadSizes) {
    std::vector<uint8_t> buffer(64, 1);
    const uint8_t* p = buffer.data();
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromGrayScaleData(nullptr, 4, 4, 4));
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromGrayScaleData(p, 0, 4, 4));
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromGrayScaleData(p, 4, -1, 4));
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromGrayScaleData(p, 4, 4, 0));
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromRGBAData(p, 4, 4, 15)); // a row needs 16 bytes
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromRGBData(p, 4, 4, -12));
    // Products past 32 bits, and a width whose row overflows 32 bits.
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromGrayScaleData(p, 70000, 70000, 70000));
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromBGRAData(p, INT32_MAX, 1, INT32_MAX));
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromGrayScaleData(p, 1, INT32_MAX, INT32_MAX));
    // The span forms check the buffer's length: 64 bytes hold 4 rows of 16, not 5.
    const std::span<const uint8_t> span(buffer);
    EXPECT_TRUE(KPImagingHelper::makeUIImageFromRGBAData(span, 4, 4, 16));
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromRGBAData(span, 4, 5, 16));
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromGrayScaleData(span.first(15), 4, 4, 4));
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromGrayScaleData(std::span<const uint8_t>(), 1, 1, 1));
    EXPECT_EQ(KPImagingHelper::convertBGRAtoRGB(p, 4, 4, 16), nullptr);
}

} // namespace
