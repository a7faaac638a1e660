// SPDX-License-Identifier: MIT
// The preview layer: the picture under each video gravity, mirrored or not, agrees to the pixel with the
// geometry transformedMetadataObjectForMetadataObject gives and captureDevicePointOfInterestForPoint inverts.
#include "KPImage/Platform/AVCaptureVideoPreviewLayer.h"
#include "KPImage/Platform/CARenderer.h"
#include "Platform/Media/PixelConverter.h"
#include "support/ManualMainQueue.h"
#include "support/PixelProbe.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace kp;
using kptest::pixelAt;
using kptest::Rgba;

namespace {

constexpr size_t kW = 160, kH = 90;

// A grey 160 x 90 frame with a red 4 x 4 marker whose top-left pixel is (90, 20) and a blue one at (8, 60).
CVPixelBufferRef markerPixels() {
    CVPixelBufferRef buffer;
    EXPECT_EQ(CVPixelBufferCreate(kW, kH, kCVPixelFormatType_32BGRA, &buffer), kCVReturnSuccess);
    CVPixelBufferLockBaseAddress(buffer, 0);
    auto* base = static_cast<uint8_t*>(CVPixelBufferGetBaseAddress(buffer));
    const size_t stride = CVPixelBufferGetBytesPerRow(buffer);
    for (size_t y = 0; y < kH; ++y) {
        for (size_t x = 0; x < kW; ++x) {
            uint8_t* p = base + y * stride + x * 4;
            const bool red = x >= 90 && x < 94 && y >= 20 && y < 24;
            const bool blue = x >= 8 && x < 12 && y >= 60 && y < 64;
            p[0] = blue ? 255 : red ? 0 : 128;
            p[1] = red || blue ? 0 : 128;
            p[2] = red ? 255 : blue ? 0 : 128;
            p[3] = 255;
        }
    }
    CVPixelBufferUnlockBaseAddress(buffer, 0);
    return buffer;
}

CMSampleBufferRef frameOf(const CVPixelBufferRef& pixels) {
    CMSampleBufferRef frame;
    EXPECT_EQ(CMSampleBufferCreateForImageBuffer(pixels, true, {}, &frame), noErr);
    return frame;
}

std::shared_ptr<AVMetadataObject> faceAt(size_t x, size_t y) {
    AVMetadataFaceObject::Fields f;
    f.bounds = CGRectMake(x / CGFloat(kW), y / CGFloat(kH), 4 / CGFloat(kW), 4 / CGFloat(kH));
    f.faceID = 1;
    return AVMetadataFaceObject::create(f);
}

CGPoint corner(const AVMetadataMachineReadableCodeObject& code, size_t i) {
    CGPoint p{};
    EXPECT_TRUE(CGPointMakeWithDictionaryRepresentation(code.corners().at(i), &p));
    return p;
}

CGPoint centre(CGRect r) { return CGPointMake(CGRectGetMidX(r), CGRectGetMidY(r)); }

} // namespace

TEST(PreviewLayer, PictureAndMappedGeometryAgreeForEveryGravityAndMirroring) {
    kptest::ManualMainQueue main;
    auto root = CALayer::layer();
    root->setFrame(CGRectMake(0, 0, 200, 200));
    auto preview = AVCaptureVideoPreviewLayer::layerWithSession(nullptr);
    preview->setFrame(CGRectMake(20, 10, 160, 180)); // taller than the frame's shape
    preview->setBackgroundColor(CGColor{0, 0, 0, 1});
    root->addSublayer(preview);

    // Nothing is known before the first frame.
    EXPECT_EQ(preview->transformedMetadataObjectForMetadataObject(faceAt(90, 20)), nullptr);
    preview->enqueueSampleBuffer(frameOf(markerPixels()));
    EXPECT_EQ(preview->transformedMetadataObjectForMetadataObject(nullptr), nullptr);
    ASSERT_EQ(preview->frameSize()->width, 160);

    preview->setAutomaticallyAdjustsVideoMirroring(false);
    for (const auto& gravity :
         {AVLayerVideoGravityResizeAspect, AVLayerVideoGravityResizeAspectFill, AVLayerVideoGravityResize}) {
        for (bool mirrored : {false, true}) {
            SCOPED_TRACE(gravity + (mirrored ? " mirrored" : ""));
            preview->setVideoGravity(gravity);
            preview->setVideoMirrored(mirrored);
            auto image = CARenderLayerToImage(root, CGSizeMake(200, 200), 1);
            ASSERT_TRUE(image);
            auto red = preview->transformedMetadataObjectForMetadataObject(faceAt(90, 20));
            auto blue = preview->transformedMetadataObjectForMetadataObject(faceAt(8, 60));
            ASSERT_TRUE(red && blue);
            // The mapped rectangles are in preview-layer points; the picture is in the root's, 20, 10 further.
            const CGPoint r = centre(red->bounds()), b = centre(blue->bounds());
            EXPECT_TRUE(kptest::near(pixelAt(*image, size_t(r.x + 20), size_t(r.y + 10)).value_or(Rgba{}),
                                     Rgba{255, 0, 0, 255}, 40));
            // Just beyond the mapped box on either side the picture is grey again: the box and the marker agree
            // to the pixel.
            for (CGFloat x : {CGRectGetMinX(red->bounds()) - 2, CGRectGetMaxX(red->bounds()) + 1}) {
                EXPECT_TRUE(kptest::near(pixelAt(*image, size_t(x + 20), size_t(r.y + 10)).value_or(Rgba{}),
                                         Rgba{128, 128, 128, 255}, 40)) << x;
            }
            if (gravity == AVLayerVideoGravityResizeAspectFill) {
                // The blue marker is cropped away on the left (or the right when mirrored); the red one shows.
                EXPECT_TRUE(b.x < 0 || b.x > 160) << b.x;
            } else {
                EXPECT_TRUE(kptest::near(pixelAt(*image, size_t(b.x + 20), size_t(b.y + 10)).value_or(Rgba{}),
                                         Rgba{0, 0, 255, 255}, 40));
            }
            // The mapped marker box is as large as the marker is drawn.
            const CGRect video = *preview->videoRect();
            EXPECT_NEAR(red->bounds().size.width, 4 * video.size.width / kW, 1e-9);
            // The inverse maps the point back.
            const CGPoint back = preview->captureDevicePointOfInterestForPoint(r);
            EXPECT_NEAR(back.x, 92.0 / kW, 1e-9);
            EXPECT_NEAR(back.y, 22.0 / kH, 1e-9);
            EXPECT_NEAR(preview->pointForCaptureDevicePointOfInterest(back).x, r.x, 1e-9);
        }
    }

    // The aspect gravity leaves bands of the background above and below the picture.
    preview->setVideoGravity(AVLayerVideoGravityResizeAspect);
    EXPECT_TRUE(CGRectEqualToRect(*preview->videoRect(), CGRectMake(0, 45, 160, 90)));
    EXPECT_EQ(pixelAt(*CARenderLayerToImage(root, CGSizeMake(200, 200), 1), 100, 30), (Rgba{0, 0, 0, 255}));
    preview->setVideoGravity("AVLayerVideoGravityStretch"); // unknown: ignored
    EXPECT_EQ(preview->videoGravity(), AVLayerVideoGravityResizeAspect);
}

TEST(PreviewLayer, CodeCornersKeepTheirOrderAndMirror) {
    kptest::ManualMainQueue main;
    auto preview = AVCaptureVideoPreviewLayer::layerWithSession(nullptr);
    preview->setFrame(CGRectMake(0, 0, 320, 180));
    preview->enqueueSampleBuffer(frameOf(markerPixels()));
    AVMetadataMachineReadableCodeObject::Fields f;
    f.type = AVMetadataObjectTypePDF417Code;
    f.bounds = CGRectMake(0.1, 0.6, 0.3, 0.3);
    f.stringValue = "TEXT";
    for (CGPoint p : {CGPoint{0.1, 0.9}, CGPoint{0.4, 0.9}, CGPoint{0.4, 0.6}, CGPoint{0.1, 0.6}}) {
        f.corners.push_back(CGPointCreateDictionaryRepresentation(p));
    }
    auto code = AVMetadataMachineReadableCodeObject::create(f);
    auto t = std::dynamic_pointer_cast<AVMetadataMachineReadableCodeObject>(
        preview->transformedMetadataObjectForMetadataObject(code));
    ASSERT_TRUE(t);
    EXPECT_EQ(t->stringValue(), "TEXT");
    ASSERT_EQ(t->corners().size(), 4u);
    EXPECT_NEAR(corner(*t, 0).x, 32, 1e-9);
    EXPECT_NEAR(corner(*t, 0).y, 162, 1e-9);
    EXPECT_NEAR(t->bounds().origin.y, 108, 1e-9);
    // The original is untouched: the result is a copy.
    EXPECT_EQ(corner(*code, 0).x, 0.1);

    // Mirrored: each point is mirrored, the order stays (bottom-left first).
    preview->setAutomaticallyAdjustsVideoMirroring(false);
    preview->setVideoMirrored(true);
    t = std::dynamic_pointer_cast<AVMetadataMachineReadableCodeObject>(
        preview->transformedMetadataObjectForMetadataObject(code));
    ASSERT_TRUE(t);
    EXPECT_NEAR(corner(*t, 0).x, 288, 1e-9);
    EXPECT_NEAR(corner(*t, 1).x, 192, 1e-9);
    EXPECT_NEAR(t->bounds().origin.x, 192, 1e-9);
}

TEST(PreviewLayer, ShowsBiPlanarFramesToo) {
    kptest::ManualMainQueue main;
    PixelConverter converter;
    auto yuv = converter.convert(markerPixels(), kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, kW, kH);
    ASSERT_TRUE(yuv);
    auto preview = AVCaptureVideoPreviewLayer::layerWithSession(nullptr);
    preview->setFrame(CGRectMake(0, 0, kW, kH));
    preview->enqueueSampleBuffer(frameOf(yuv));
    auto image = CARenderLayerToImage(preview, CGSizeMake(kW, kH), 1);
    ASSERT_TRUE(image);
    EXPECT_TRUE(kptest::near(pixelAt(*image, 60, 40).value_or(Rgba{}), Rgba{128, 128, 128, 255}, 6));
    EXPECT_TRUE(kptest::near(pixelAt(*image, 92, 22).value_or(Rgba{}), Rgba{255, 0, 0, 255}, 80));
}
