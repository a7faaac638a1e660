// SPDX-License-Identifier: MIT
// The preview layer: the picture under each video gravity, mirrored or not, agrees to the pixel with the
// geometry transformedMetadataObjectForMetadataObject gives and captureDevicePointOfInterestForPoint inverts.
#include "KPImage/Platform/AVCaptureVideoPreviewLayer.h"
#include "KPImage/Platform/CARenderer.h"
#include "Platform/Media/PixelConverter.h"
#include "support/ManualMainQueue.h"
#include "support/PixelProbe.h"

#include <gtest/gtest.h>

using namespace kp;
using kptest::Rgba;

namespace {

constexpr size_t kW = 160, kH = 90;
const Rgba kGrey{128, 128, 128, 255}, kRed{255, 0, 0, 255}, kBlue{0, 0, 255, 255};

// A grey 160 x 90 BGRA frame with a red 4 x 4 marker whose top-left pixel is (90, 20) and a blue one at (8, 60).
CMSampleBufferRef markerFrame(CVPixelBufferRef* pixels = nullptr) {
    CVPixelBufferRef buffer;
    EXPECT_EQ(CVPixelBufferCreate(kW, kH, kCVPixelFormatType_32BGRA, &buffer), kCVReturnSuccess);
    for (size_t y = 0; y < kH; ++y) {
        for (size_t x = 0; x < kW; ++x) {
            uint8_t* p = buffer->bytes() + y * buffer->plane(0).bytesPerRow + x * 4;
            const bool red = x >= 90 && x < 94 && y >= 20 && y < 24, blue = x >= 8 && x < 12 && y >= 60 && y < 64;
            p[0] = blue ? 255 : red ? 0 : 128, p[1] = red || blue ? 0 : 128, p[2] = red ? 255 : blue ? 0 : 128;
            p[3] = 255;
        }
    }
    if (pixels) {
        *pixels = buffer;
    }
    CMSampleBufferRef frame;
    EXPECT_EQ(CMSampleBufferCreateForImageBuffer(buffer, true, {}, &frame), noErr);
    return frame;
}

std::shared_ptr<AVMetadataObject> faceAt(size_t x, size_t y) {
    AVMetadataFaceObject::Fields f;
    f.bounds = CGRectMake(x / CGFloat(kW), y / CGFloat(kH), 4 / CGFloat(kW), 4 / CGFloat(kH));
    f.faceID = 1;
    f.hasRollAngle = true;
    f.rollAngle = 30;
    return AVMetadataFaceObject::create(f);
}

bool near(const std::optional<UIImage>& image, CGFloat x, CGFloat y, Rgba expected, int tolerance = 40) {
    return kptest::near(kptest::pixelAt(*image, size_t(x), size_t(y)).value_or(Rgba{}), expected, tolerance);
}

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
    preview->enqueueSampleBuffer(markerFrame());
    EXPECT_EQ(preview->transformedMetadataObjectForMetadataObject(nullptr), nullptr);
    preview->setAutomaticallyAdjustsVideoMirroring(false);
    for (const auto& gravity :
         {AVLayerVideoGravityResizeAspect, AVLayerVideoGravityResizeAspectFill, AVLayerVideoGravityResize}) {
        for (bool mirrored : {false, true}) {
            SCOPED_TRACE(gravity + (mirrored ? " mirrored" : ""));
            preview->setVideoGravity(gravity);
            preview->setVideoMirrored(mirrored);
            auto image = CARenderLayerToImage(root, CGSizeMake(200, 200), 1);
            ASSERT_TRUE(image);
            auto red = std::dynamic_pointer_cast<AVMetadataFaceObject>(
                preview->transformedMetadataObjectForMetadataObject(faceAt(90, 20)));
            auto blue = preview->transformedMetadataObjectForMetadataObject(faceAt(8, 60));
            ASSERT_TRUE(red && blue);
            EXPECT_EQ(red->rollAngle(), mirrored ? 330 : 30);
            // The mapped rectangles are in preview-layer points; the picture is in the root's, 20, 10 further.
            // Just beyond the mapped box on either side the picture is grey again: box and marker agree to the pixel.
            const CGRect box = red->bounds();
            const CGFloat x = CGRectGetMidX(box), y = CGRectGetMidY(box) + 10;
            EXPECT_TRUE(near(image, x + 20, y, kRed));
            EXPECT_TRUE(near(image, CGRectGetMinX(box) + 18, y, kGrey) &&
                        near(image, CGRectGetMaxX(box) + 21, y, kGrey));
            const CGFloat bx = CGRectGetMidX(blue->bounds());
            if (gravity == AVLayerVideoGravityResizeAspectFill) {
                EXPECT_TRUE(bx < 0 || bx > 160) << "the blue marker is cropped away at the side: " << bx;
            } else {
                EXPECT_TRUE(near(image, bx + 20, CGRectGetMidY(blue->bounds()) + 10, kBlue));
            }
            EXPECT_NEAR(box.size.width, 4 * preview->videoRect()->size.width / kW, 1e-9);
            // The inverse maps the point back.
            const CGPoint back = preview->captureDevicePointOfInterestForPoint(CGPointMake(x, y - 10));
            EXPECT_NEAR(back.x, 92.0 / kW, 1e-9);
            EXPECT_NEAR(back.y, 22.0 / kH, 1e-9);
            EXPECT_NEAR(preview->pointForCaptureDevicePointOfInterest(back).x, x, 1e-9);
        }
    }
    // The aspect gravity leaves bands of the background above and below the picture.
    preview->setVideoGravity(AVLayerVideoGravityResizeAspect);
    preview->setVideoGravity("AVLayerVideoGravityStretch"); // unknown: ignored
    EXPECT_TRUE(CGRectEqualToRect(*preview->videoRect(), CGRectMake(0, 45, 160, 90)));
    EXPECT_TRUE(near(CARenderLayerToImage(root, CGSizeMake(200, 200), 1), 100, 30, Rgba{0, 0, 0, 255}, 0));
}

TEST(PreviewLayer, CodeCornersKeepTheirOrderAndMirror) {
    kptest::ManualMainQueue main;
    auto preview = AVCaptureVideoPreviewLayer::layerWithSession(nullptr);
    preview->setFrame(CGRectMake(0, 0, 320, 180));
    preview->enqueueSampleBuffer(markerFrame());
    AVMetadataMachineReadableCodeObject::Fields f;
    f.type = AVMetadataObjectTypePDF417Code;
    f.bounds = CGRectMake(0.1, 0.6, 0.3, 0.3);
    f.stringValue = "TEXT";
    for (CGPoint p : {CGPoint{0.1, 0.9}, CGPoint{0.4, 0.9}, CGPoint{0.4, 0.6}, CGPoint{0.1, 0.6}}) {
        f.corners.push_back(CGPointCreateDictionaryRepresentation(p));
    }
    auto code = AVMetadataMachineReadableCodeObject::create(f);
    preview->setAutomaticallyAdjustsVideoMirroring(false);
    // Mirrored, each point is mirrored and the order stays (bottom-left first); the original is untouched.
    for (bool mirrored : {false, true}) {
        preview->setVideoMirrored(mirrored);
        auto t = std::dynamic_pointer_cast<AVMetadataMachineReadableCodeObject>(
            preview->transformedMetadataObjectForMetadataObject(code));
        ASSERT_TRUE(t && t->corners().size() == 4u);
        EXPECT_EQ(t->stringValue(), "TEXT");
        std::vector<CGPoint> corners(4);
        for (size_t i = 0; i < 4; ++i) {
            EXPECT_TRUE(CGPointMakeWithDictionaryRepresentation(t->corners()[i], &corners[i]));
        }
        EXPECT_NEAR(corners[0].x, mirrored ? 288 : 32, 1e-9);
        EXPECT_NEAR(corners[0].y, 162, 1e-9);
        EXPECT_NEAR(corners[1].x, mirrored ? 192 : 128, 1e-9);
        EXPECT_NEAR(t->bounds().origin.x, mirrored ? 192 : 32, 1e-9);
        EXPECT_NEAR(t->bounds().origin.y, 108, 1e-9);
    }
    CGPoint original{};
    EXPECT_TRUE(CGPointMakeWithDictionaryRepresentation(code->corners()[0], &original));
    EXPECT_EQ(original.x, 0.1);
}

TEST(PreviewLayer, ShowsBiPlanarFramesToo) {
    kptest::ManualMainQueue main;
    CVPixelBufferRef bgra;
    markerFrame(&bgra);
    auto yuv = PixelConverter().convert(bgra, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, kW, kH);
    ASSERT_TRUE(yuv);
    auto preview = AVCaptureVideoPreviewLayer::layerWithSession(nullptr);
    preview->setFrame(CGRectMake(0, 0, kW, kH));
    CMSampleBufferRef frame;
    ASSERT_EQ(CMSampleBufferCreateForImageBuffer(yuv, true, {}, &frame), noErr);
    preview->enqueueSampleBuffer(frame);
    auto image = CARenderLayerToImage(preview, CGSizeMake(kW, kH), 1);
    ASSERT_TRUE(image);
    EXPECT_TRUE(near(image, 60, 40, kGrey, 6) && near(image, 92, 22, kRed, 80));
}
