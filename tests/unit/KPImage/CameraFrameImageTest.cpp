// SPDX-License-Identifier: MIT
// Camera frames to upright pictures: the copy of the BGRA pixels and the rotation per orientation and camera.
#include "KPImage/KPImagingHelper.h"
#include "KPImage/Platform/UIDevice.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace kp;

namespace {

/// A 4 x 2 BGRA frame whose pixel (x, y) has blue = 10 x + y + 1 (opaque). Even sides keep the rotation on
/// whole pixels; an odd side is drawn half a pixel off, and so resampled.
CMSampleBufferRef frame() {
    CVPixelBufferRef pixels;
    EXPECT_EQ(CVPixelBufferCreate(4, 2, kCVPixelFormatType_32BGRA, &pixels), kCVReturnSuccess);
    CVPixelBufferLockBaseAddress(pixels, 0);
    auto* base = static_cast<uint8_t*>(CVPixelBufferGetBaseAddress(pixels));
    const size_t bpr = CVPixelBufferGetBytesPerRow(pixels);
    for (size_t y = 0; y < 2; ++y) {
        for (size_t x = 0; x < 4; ++x) {
            uint8_t* p = base + y * bpr + x * 4;
            p[0] = static_cast<uint8_t>(10 * x + y + 1), p[1] = 0, p[2] = 0, p[3] = 255;
        }
    }
    CVPixelBufferUnlockBaseAddress(pixels, 0);
    CMSampleBufferRef sample;
    EXPECT_EQ(CMSampleBufferCreateForImageBuffer(pixels, true, {}, &sample), noErr);
    return sample;
}

uint8_t blueAt(const UIImage& image, size_t x, size_t y) {
    const CGImageRef& cg = image.CGImage();
    return cg->bytes()[y * cg->bytesPerRow() + x * 4];
}

class CameraFrameImage : public testing::Test {
protected:
    void TearDown() override { UIDevice::currentDevice().setOrientation(UIDeviceOrientationPortrait); }
};

} // namespace

TEST_F(CameraFrameImage, PortraitAndFlatTurnClockwiseForEitherCamera) {
    for (UIDeviceOrientation o : {UIDeviceOrientationPortrait, UIDeviceOrientationPortraitUpsideDown,
                                  UIDeviceOrientationFaceUp, UIDeviceOrientationUnknown}) {
        UIDevice::currentDevice().setOrientation(o);
        for (int32_t position : {1, 2}) {
            SCOPED_TRACE(testing::Message() << "orientation " << o << " position " << position);
            std::optional<UIImage> raw;
            const auto image = KPImagingHelper::makeUIImageFromCMSampleBuffer(frame(), position, &raw);
            ASSERT_TRUE(image && raw);
            EXPECT_EQ(raw->CGImage()->width(), 4u);
            EXPECT_EQ(blueAt(*raw, 3, 1), 32);
            ASSERT_EQ(image->CGImage()->width(), 2u);
            ASSERT_EQ(image->CGImage()->height(), 4u);
            // A quarter turn clockwise: the top-left pixel moves to the top right, never mirrored.
            EXPECT_EQ(blueAt(*image, 1, 0), 1);
            EXPECT_EQ(blueAt(*image, 0, 0), 2);
            EXPECT_EQ(blueAt(*image, 0, 3), 32);
        }
    }
}

TEST_F(CameraFrameImage, LandscapeTurnsHalfWayForOneCamera) {
    const struct {
        UIDeviceOrientation orientation;
        int32_t position;
        bool halfTurn;
    } cases[] = {{UIDeviceOrientationLandscapeLeft, 1, false}, {UIDeviceOrientationLandscapeLeft, 2, true},
                 {UIDeviceOrientationLandscapeRight, 1, true}, {UIDeviceOrientationLandscapeRight, 2, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "orientation " << c.orientation << " position " << c.position);
        UIDevice::currentDevice().setOrientation(c.orientation);
        const auto image = KPImagingHelper::makeUIImageFromCMSampleBuffer(frame(), c.position);
        ASSERT_TRUE(image);
        ASSERT_EQ(image->CGImage()->width(), 4u);
        EXPECT_EQ(blueAt(*image, 0, 0), c.halfTurn ? 32 : 1);
        EXPECT_EQ(blueAt(*image, 3, 1), c.halfTurn ? 1 : 32);
    }
}

TEST_F(CameraFrameImage, MissingOrNonBgraFramesGiveNil) {
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromCMSampleBuffer(nullptr, 1));
    CVPixelBufferRef yuv;
    ASSERT_EQ(CVPixelBufferCreate(4, 4, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, &yuv), kCVReturnSuccess);
    CMSampleBufferRef sample;
    ASSERT_EQ(CMSampleBufferCreateForImageBuffer(yuv, true, {}, &sample), noErr);
    EXPECT_FALSE(KPImagingHelper::makeUIImageFromCMSampleBuffer(sample, 1));
}
