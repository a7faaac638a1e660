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

// A grey 160 x 90 BGRA frame with a red 4 x 4 marker whose top-left pixel is (90, 20) and a blue one at (8, 60); or
// converted to '420f' with the colours swapped, to tell it from the first.
CMSampleBufferRef markerFrame(bool biPlanar = false) {
    CVPixelBufferRef pixels;
    EXPECT_EQ(CVPixelBufferCreate(kW, kH, kCVPixelFormatType_32BGRA, &pixels), kCVReturnSuccess);
    for (size_t y = 0; y < kH; ++y) {
        for (size_t x = 0; x < kW; ++x) {
            uint8_t* p = pixels->bytes() + y * pixels->plane(0).bytesPerRow + x * 4;
            bool red = x >= 90 && x < 94 && y >= 20 && y < 24, blue = x >= 8 && x < 12 && y >= 60 && y < 64;
            if (biPlanar) {
                std::swap(red, blue);
            }
            p[0] = blue ? 255 : red ? 0 : 128, p[1] = red || blue ? 0 : 128, p[2] = red ? 255 : blue ? 0 : 128;
            p[3] = 255;
        }
    }
    if (biPlanar) {
        pixels = PixelConverter().convert(pixels, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, kW, kH);
    }
    CMSampleBufferRef frame;
    EXPECT_EQ(CMSampleBufferCreateForImageBuffer(pixels, true, {}, &frame), noErr);
    return frame;
}

std::shared_ptr<AVMetadataFaceObject> faceAt(const AVCaptureVideoPreviewLayer& preview, size_t x, size_t y) {
    AVMetadataFaceObject::Fields f;
    f.bounds = CGRectMake(x / CGFloat(kW), y / CGFloat(kH), 4 / CGFloat(kW), 4 / CGFloat(kH));
    f.faceID = 1;
    f.hasRollAngle = true;
    f.rollAngle = 30;
    return std::dynamic_pointer_cast<AVMetadataFaceObject>(
        preview.transformedMetadataObjectForMetadataObject(AVMetadataFaceObject::create(f)));
}

bool near(const std::optional<UIImage>& image, CGFloat x, CGFloat y, Rgba expected, int tolerance = 40) {
    return kptest::near(kptest::pixelAt(*image, size_t(x), size_t(y)).value_or(Rgba{}), expected, tolerance);
}

} // namespace

TEST(PreviewLayer, PictureMappedGeometryAndCodeCornersAgreeForEveryGravityAndMirroring) {
    kptest::ManualMainQueue main;
    auto root = CALayer::layer();
    root->setFrame(CGRectMake(0, 0, 200, 200));
    auto preview = AVCaptureVideoPreviewLayer::layerWithSession(nullptr);
    preview->setFrame(CGRectMake(20, 10, 160, 180)); // taller than the frame's shape
    preview->setBackgroundColor(CGColor{0, 0, 0, 1});
    root->addSublayer(preview);
    EXPECT_EQ(faceAt(*preview, 90, 20), nullptr) << "nothing is known before the first frame";
    preview->enqueueSampleBuffer(markerFrame());
    preview->setAutomaticallyAdjustsVideoMirroring(false);
    for (const auto& gravity :
         {AVLayerVideoGravityResizeAspect, AVLayerVideoGravityResizeAspectFill, AVLayerVideoGravityResize}) {
        for (bool mirrored : {false, true}) {
            SCOPED_TRACE(gravity + (mirrored ? " mirrored" : ""));
            preview->setVideoGravity(gravity);
            preview->setVideoMirrored(mirrored);
            auto image = CARenderLayerToImage(root, CGSizeMake(200, 200), 1);
            auto red = faceAt(*preview, 90, 20), blue = faceAt(*preview, 8, 60);
            ASSERT_TRUE(image && red && blue);
            EXPECT_EQ(red->rollAngle(), mirrored ? 330 : 30);
            // The mapped rectangles are in preview-layer points; the picture is in the root's, 20, 10 further.
            // Just beyond the mapped box on either side the picture is grey again: box and marker agree to the pixel.
            const CGRect box = red->bounds();
            const CGFloat x = CGRectGetMidX(box), y = CGRectGetMidY(box);
            EXPECT_TRUE(near(image, x + 20, y + 10, kRed));
            EXPECT_TRUE(near(image, CGRectGetMinX(box) + 18, y + 10, kGrey));
            EXPECT_TRUE(near(image, CGRectGetMaxX(box) + 21, y + 10, kGrey));
            EXPECT_NEAR(box.size.width, 4 * preview->videoRect()->size.width / kW, 1e-9);
            const CGFloat bx = CGRectGetMidX(blue->bounds());
            if (gravity == AVLayerVideoGravityResizeAspectFill) {
                EXPECT_TRUE(bx < 0 || bx > 160) << "the blue marker is cropped away at the side: " << bx;
            } else {
                EXPECT_TRUE(near(image, bx + 20, CGRectGetMidY(blue->bounds()) + 10, kBlue));
            }
            // The inverse maps the point back.
            const CGPoint back = preview->captureDevicePointOfInterestForPoint(CGPointMake(x, y));
            EXPECT_NEAR(back.x, 92.0 / kW, 1e-9);
            EXPECT_NEAR(back.y, 22.0 / kH, 1e-9);
        }
    }
    // The aspect gravity leaves bands of the background above and below the picture; '420f' frames show too.
    preview->setVideoGravity(AVLayerVideoGravityResizeAspect);
    preview->setVideoMirrored(false);
    preview->enqueueSampleBuffer(markerFrame(true));
    EXPECT_TRUE(CGRectEqualToRect(*preview->videoRect(), CGRectMake(0, 45, 160, 90)));
    const auto image = CARenderLayerToImage(root, CGSizeMake(200, 200), 1);
    EXPECT_TRUE(near(image, 100, 30, Rgba{0, 0, 0, 255}, 0));
    EXPECT_TRUE(near(image, 80, 100, kGrey, 6) && near(image, 112, 77, kBlue, 80));

    // A code's corners in a 320 x 180 layer that the frame fills.
    preview->setFrame(CGRectMake(0, 0, 320, 180));
    AVMetadataMachineReadableCodeObject::Fields f;
    f.bounds = CGRectMake(0.1, 0.6, 0.3, 0.3);
    for (CGPoint p : {CGPoint{0.1, 0.9}, CGPoint{0.4, 0.9}, CGPoint{0.4, 0.6}, CGPoint{0.1, 0.6}}) {
        f.corners.push_back(CGPointCreateDictionaryRepresentation(p));
    }
    auto code = AVMetadataMachineReadableCodeObject::create(f);
    // Mirrored, each point is mirrored and the order stays (bottom-left first); the original is untouched.
    for (bool mirrored : {false, true}) {
        preview->setVideoMirrored(mirrored);
        auto t = std::dynamic_pointer_cast<AVMetadataMachineReadableCodeObject>(
            preview->transformedMetadataObjectForMetadataObject(code));
        ASSERT_TRUE(t && t->corners().size() == 4u);
        CGPoint first, second;
        EXPECT_TRUE(CGPointMakeWithDictionaryRepresentation(t->corners()[0], &first) &&
                    CGPointMakeWithDictionaryRepresentation(t->corners()[1], &second));
        EXPECT_EQ(
            std::vector({first.x, first.y, second.x, t->bounds().origin.x, t->bounds().origin.y}),
            std::vector<CGFloat>({mirrored ? 288. : 32., 162, mirrored ? 192. : 128., mirrored ? 192. : 32., 108}));
    }
    EXPECT_EQ(code->corners()[0], f.corners[0]);
}
