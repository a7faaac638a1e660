// SPDX-License-Identifier: MIT
// Conversions into images: raw buffers and their rejection rules, the colour swatch, and camera frames turned
// upright per device orientation and camera.
#include "KPImage/KPImagingHelper.h"
#include "KPImage/Platform/UIDevice.h"

#include "support/PixelProbe.h"

#include <gtest/gtest.h>

#include <climits>
#include <vector>

namespace {

using namespace kp;

TEST(KPImagingHelper, RawBuffersKeepTheirLayoutAndRejectBadSizes) {
    // 3 x 2 pixels in rows of 16 bytes: exactly bytesPerRow x height bytes are copied, padding included.
    std::vector<uint8_t> buffer(32, 0xEE);
    for (size_t i = 0; i < 12; ++i) {
        buffer[i] = static_cast<uint8_t>(10 + i);
        buffer[16 + i] = static_cast<uint8_t>(100 + i);
    }
    const struct {
        const char* name;
        std::optional<UIImage> image;
        size_t bitsPerPixel;
        kptest::Rgba secondRow;
    } cases[] = {
        {"grey", KPImagingHelper::makeUIImageFromGrayScaleData(buffer.data(), 3, 2, 16), 8, {100, 100, 100, 255}},
        {"rgb", KPImagingHelper::makeUIImageFromRGBData(buffer.data(), 3, 2, 16), 24, {100, 101, 102, 255}},
        {"rgba",
         KPImagingHelper::makeUIImageFromRGBAData(std::span<const uint8_t>(buffer), 3, 2, 16),
         32,
         {100, 101, 102, 103}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(c.image);
        const CGImageRef& cg = c.image->CGImage();
        EXPECT_EQ(cg->bitsPerPixel(), c.bitsPerPixel);
        EXPECT_EQ(CGDataProviderCopyData(cg->dataProvider()), buffer);
        EXPECT_EQ(*kptest::pixelAt(cg, 0, 1), c.secondRow);
    }
    buffer.assign(buffer.size(), 0);
    EXPECT_EQ(kptest::pixelAt(*cases[0].image, 0, 0)->r, 10) << "the caller's buffer is copied, not borrowed";

    const uint8_t* p = buffer.data();
    const std::span<const uint8_t> span(buffer); // 32 bytes: 2 rows of 16, not 3
    EXPECT_TRUE(KPImagingHelper::makeUIImageFromRGBAData(span, 4, 2, 16));
    for (const auto& bad : {KPImagingHelper::makeUIImageFromGrayScaleData(nullptr, 4, 4, 4),
                            KPImagingHelper::makeUIImageFromGrayScaleData(p, 0, 4, 4),
                            KPImagingHelper::makeUIImageFromGrayScaleData(p, 4, -1, 4),
                            KPImagingHelper::makeUIImageFromRGBAData(p, 4, 4, 15), // a row needs 16 bytes
                            KPImagingHelper::makeUIImageFromRGBData(p, 4, 4, -12),
                            KPImagingHelper::makeUIImageFromGrayScaleData(p, 70000, 70000, 70000),
                            KPImagingHelper::makeUIImageFromBGRAData(p, INT32_MAX, 1, INT32_MAX),
                            KPImagingHelper::makeUIImageFromGrayScaleData(p, 1, INT32_MAX, INT32_MAX),
                            KPImagingHelper::makeUIImageFromRGBAData(span, 4, 3, 16),
                            KPImagingHelper::makeUIImageFromGrayScaleData(std::span<const uint8_t>(), 1, 1, 1)}) {
        EXPECT_FALSE(bad);
    }
    EXPECT_EQ(KPImagingHelper::convertBGRAtoRGB(p, 4, 4, 16), nullptr);
    const auto swatch = KPImagingHelper::imageFromColor(UIColor::colorWithRed(1, 0.5, 0, 1)); // 10 x 10
    EXPECT_TRUE(kptest::near(*kptest::pixelAt(*swatch, 9, 9), {255, 128, 0, 255}, 1));
}

// A 4 x 2 BGRA frame whose pixel (x, y) has blue = 10 x + y + 1.
CMSampleBufferRef frame(OSType format = kCVPixelFormatType_32BGRA) {
    CVPixelBufferRef pixels;
    EXPECT_EQ(CVPixelBufferCreate(4, 2, format, &pixels), kCVReturnSuccess);
    CVPixelBufferLockBaseAddress(pixels, 0);
    auto* base = static_cast<uint8_t*>(CVPixelBufferGetBaseAddress(pixels));
    for (size_t i = 0; i < 8 && format == kCVPixelFormatType_32BGRA; ++i) {
        uint8_t* px = base + (i / 4) * CVPixelBufferGetBytesPerRow(pixels) + (i % 4) * 4;
        px[0] = static_cast<uint8_t>(10 * (i % 4) + i / 4 + 1), px[1] = px[2] = 0, px[3] = 255;
    }
    CVPixelBufferUnlockBaseAddress(pixels, 0);
    CMSampleBufferRef sample;
    EXPECT_EQ(CMSampleBufferCreateForImageBuffer(pixels, true, {}, &sample), noErr);
    return sample;
}

uint8_t blueAt(const UIImage& image, size_t x, size_t y) {
    return image.CGImage()->bytes()[y * image.CGImage()->bytesPerRow() + x * 4];
}

TEST(KPImagingHelper, CameraFramesAreTurnedUprightForTheOrientationAndCamera) {
    const auto orientation = &KPImagingHelper::convertToImageOrientation;
    EXPECT_TRUE(orientation(2) == UIImageOrientationLeft && orientation(3) == UIImageOrientationUp &&
                orientation(4) == UIImageOrientationDown && orientation(INT32_MIN) == UIImageOrientationRight);
    // Portrait and flat turn a quarter clockwise for either camera; landscape turns half-way for one camera.
    enum Turn { Quarter, None, Half };
    const struct {
        UIDeviceOrientation orientation;
        int32_t position;
        Turn turn;
    } cases[] = {
        // clang-format off
        {UIDeviceOrientationPortrait, 1, Quarter},           {UIDeviceOrientationPortrait, 2, Quarter},
        {UIDeviceOrientationPortraitUpsideDown, 2, Quarter}, {UIDeviceOrientationFaceUp, 1, Quarter},
        {UIDeviceOrientationUnknown, 2, Quarter},            {UIDeviceOrientationLandscapeLeft, 1, None},
        {UIDeviceOrientationLandscapeLeft, 2, Half},         {UIDeviceOrientationLandscapeRight, 1, Half},
        {UIDeviceOrientationLandscapeRight, 2, None},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "orientation " << c.orientation << " position " << c.position);
        UIDevice::currentDevice().setOrientation(c.orientation);
        std::optional<UIImage> raw;
        const auto image = KPImagingHelper::makeUIImageFromCMSampleBuffer(frame(), c.position, &raw);
        ASSERT_TRUE(image && raw);
        EXPECT_EQ(blueAt(*raw, 3, 1), 32);
        ASSERT_EQ(image->CGImage()->width(), c.turn == Quarter ? 2u : 4u);
        const uint8_t expected[3][3] = {{2, 1, 32}, {1, 11, 32}, {32, 22, 1}}; // (0, 0), (1, 0), last pixel
        EXPECT_EQ(blueAt(*image, 0, 0), expected[c.turn][0]);
        EXPECT_EQ(blueAt(*image, 1, 0), expected[c.turn][1]);
        EXPECT_EQ(blueAt(*image, c.turn == Quarter ? 0 : 3, c.turn == Quarter ? 3 : 1), expected[c.turn][2]);
    }
    UIDevice::currentDevice().setOrientation(UIDeviceOrientationPortrait);
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromCMSampleBuffer(nullptr, 1));
    EXPECT_FALSE(
        KPImagingHelper::makeUIImageFromCMSampleBuffer(frame(kCVPixelFormatType_420YpCbCr8BiPlanarFullRange), 1));
}

} // namespace
