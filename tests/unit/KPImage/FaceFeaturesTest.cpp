// SPDX-License-Identifier: MIT
// The widest-face selection (scripted detector), the real detector on a photo and on face-free pictures,
// and the markers and text drawn onto copies.
#include "KPImage/UIImage+ImagingHelper.h"

#include "KPImage/Platform/CIDetector.h"
#include "support/FakeFaceDetector.h"
#include "support/PixelProbe.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

namespace {

using kp::CGPointMake;
using kp::CGRectMake;
using kp::CIFaceFeature;
using kptest::pixelAt;

kp::UIImage blankImage(size_t width, size_t height, uint8_t value = 255) {
    return kptest::grayImage(width, height, [value](size_t, size_t) { return value; });
}

CIFaceFeature face(kp::CGRect bounds, float angle) {
    CIFaceFeature f;
    f.bounds = bounds;
    f.faceAngle = angle;
    f.hasFaceAngle = true;
    return f;
}

void expectZeroRecord(const kp::FaceFeatures& r) {
    EXPECT_EQ(r.faceBounds, kp::CGRectZero);
    EXPECT_EQ(r.leftEyePosition, kp::CGPointZero);
    EXPECT_EQ(r.rightEyePosition, kp::CGPointZero);
    EXPECT_EQ(r.mouthPosition, kp::CGPointZero);
    EXPECT_EQ(r.landmarksFound, 0);
    EXPECT_EQ(r.faceAngle, 0.0f);
    EXPECT_FALSE(r.hasSmile);
    EXPECT_FALSE(r.leftEyeClosed);
    EXPECT_FALSE(r.rightEyeClosed);
}

TEST(FaceFeatures, DetectorSpaceIsFlippedToTopLeft) {
    CIFaceFeature f = face(CGRectMake(10, 20, 100, 120), 0);
    f.hasLeftEyePosition = true;
    f.leftEyePosition = CGPointMake(10, 0);
    f.hasRightEyePosition = true;
    f.rightEyePosition = CGPointMake(80, 470.5);
    f.rightEyeClosed = true;
    f.hasMouthPosition = true;
    f.mouthPosition = CGPointMake(50, 480);
    f.hasSmile = true;
    kptest::FakeFaceDetector fake({f});
    const kp::FaceFeatures r = blankImage(640, 480).getFaceFeaturesWithAccuracy(1);
    EXPECT_EQ(r.faceBounds, CGRectMake(10, 340, 100, 120));
    EXPECT_EQ(r.leftEyePosition, CGPointMake(10, 480));
    EXPECT_EQ(r.rightEyePosition, CGPointMake(80, 9.5));
    EXPECT_EQ(r.mouthPosition, CGPointMake(50, 0));
    EXPECT_TRUE(r.hasSmile);
    EXPECT_FALSE(r.leftEyeClosed);
    EXPECT_TRUE(r.rightEyeClosed);
    EXPECT_EQ(r.landmarksFound, 1);
}

TEST(FaceFeatures, WidestFaceSelection) {
    const kp::UIImage image = blankImage(200, 100);
    {
        // Equal widths: the first stays chosen. The angle is always the last feature's.
        CIFaceFeature first = face(CGRectMake(0, 0, 50, 40), 10);
        first.hasLeftEyePosition = true;
        first.leftEyePosition = CGPointMake(5, 5);
        CIFaceFeature second = face(CGRectMake(100, 10, 50, 60), -20);
        second.hasLeftEyePosition = true;
        second.leftEyePosition = CGPointMake(105, 5);
        kptest::FakeFaceDetector fake({first, second});
        const kp::FaceFeatures r = image.getFaceFeaturesWithAccuracy(0);
        EXPECT_EQ(r.faceBounds, CGRectMake(0, 60, 50, 40));
        EXPECT_EQ(r.leftEyePosition, CGPointMake(5, 95));
        EXPECT_EQ(r.faceAngle, -20.0f);
    }
    {
        // A wider face without a mouth after a narrow one with a mouth: the narrow face's mouth and smile
        // stay, together with the wide face's box and eyes.
        CIFaceFeature narrow = face(CGRectMake(0, 0, 30, 30), 5);
        narrow.hasMouthPosition = true;
        narrow.mouthPosition = CGPointMake(15, 10);
        narrow.hasSmile = true;
        narrow.hasLeftEyePosition = true;
        narrow.leftEyePosition = CGPointMake(8, 20);
        narrow.leftEyeClosed = true;
        CIFaceFeature wide = face(CGRectMake(50, 0, 80, 80), 0);
        wide.hasLeftEyePosition = true;
        wide.leftEyePosition = CGPointMake(70, 60);
        wide.hasRightEyePosition = true;
        wide.rightEyePosition = CGPointMake(110, 60);
        kptest::FakeFaceDetector fake({narrow, wide});
        const kp::FaceFeatures r = image.getFaceFeaturesWithAccuracy(0);
        EXPECT_EQ(r.faceBounds, CGRectMake(50, 20, 80, 80));
        EXPECT_EQ(r.mouthPosition, CGPointMake(15, 90));
        EXPECT_TRUE(r.hasSmile);
        EXPECT_EQ(r.leftEyePosition, CGPointMake(70, 40));
        EXPECT_FALSE(r.leftEyeClosed); // replaced by the wide face's eye
        EXPECT_EQ(r.rightEyePosition, CGPointMake(110, 40));
        EXPECT_EQ(r.landmarksFound, 1);
    }
    {
        // A narrower face after the widest changes nothing but the angle; a chosen face without landmarks
        // leaves landmarksFound at 0.
        kptest::FakeFaceDetector fake({face(CGRectMake(0, 0, 90, 10), 30), face(CGRectMake(0, 0, 40, 10), 60)});
        const kp::FaceFeatures r = image.getFaceFeaturesWithAccuracy(0);
        EXPECT_EQ(r.faceBounds, CGRectMake(0, 90, 90, 10));
        EXPECT_EQ(r.faceAngle, 60.0f);
        EXPECT_EQ(r.landmarksFound, 0);
        EXPECT_EQ(r.leftEyePosition, kp::CGPointZero);
    }
    {
        // Faces of no width are never chosen.
        kptest::FakeFaceDetector fake({face(CGRectMake(10, 10, 0, 30), 45)});
        const kp::FaceFeatures r = image.getFaceFeaturesWithAccuracy(0);
        EXPECT_EQ(r.faceBounds, kp::CGRectZero);
        EXPECT_EQ(r.faceAngle, 45.0f);
    }
}

TEST(FaceFeatures, FindsTheAstronautsFace) {
    const auto photo = kp::UIImage::imageWithContentsOfFile(kptest::dataPath("astronaut.png"));
    ASSERT_TRUE(photo);
    // High accuracy here; the low one runs in the detector's own test and without the landmark model below.
    const kp::FaceFeatures r = photo->getFaceFeaturesWithAccuracy(1);
    const kp::CGRect box = r.faceBounds;
    // One frontal face about x 170..280, y 60..190 (the mission patch on the suit is not a face).
    EXPECT_NEAR(kp::CGRectGetMidX(box), 222, 20);
    EXPECT_NEAR(kp::CGRectGetMidY(box), 125, 25);
    EXPECT_GT(box.size.width, 70);
    EXPECT_LT(box.size.width, 130);
    ASSERT_EQ(r.landmarksFound, 1);
    for (kp::CGPoint p : {r.leftEyePosition, r.rightEyePosition, r.mouthPosition}) {
        EXPECT_TRUE(kp::CGRectContainsPoint(box, p)) << p.x << "," << p.y;
    }
    // Eyes side by side in the upper part, the left-hand one on the image's left; mouth below, between.
    EXPECT_LT(r.leftEyePosition.x + 30, r.rightEyePosition.x);
    EXPECT_NEAR(r.leftEyePosition.y, r.rightEyePosition.y, 8);
    EXPECT_LT(r.leftEyePosition.y, kp::CGRectGetMidY(box));
    EXPECT_GT(r.mouthPosition.y, r.leftEyePosition.y + 25);
    EXPECT_GT(r.mouthPosition.x, r.leftEyePosition.x);
    EXPECT_LT(r.mouthPosition.x, r.rightEyePosition.x);
    EXPECT_TRUE(r.hasSmile);
    EXPECT_FALSE(r.leftEyeClosed);
    EXPECT_FALSE(r.rightEyeClosed);
    EXPECT_LT(std::fabs(r.faceAngle), 10.0f);
}

TEST(FaceFeatures, FaceFreePicturesGiveTheZeroRecord) {
    const kp::UIImage checks =
        kptest::grayImage(256, 256, [](size_t x, size_t y) { return ((x / 16 + y / 16) % 2) ? 230 : 20; });
    // Bars of varying width, like a one-dimensional barcode.
    const kp::UIImage barcode =
        kptest::grayImage(400, 160, [](size_t x, size_t) { return (x / 3 * 7919 % 13) < 6 ? 0 : 255; });
    expectZeroRecord(checks.getFaceFeaturesWithAccuracy(1));
    expectZeroRecord(barcode.getFaceFeaturesWithAccuracy(0));
    expectZeroRecord(kp::UIImage::imageWithoutBitmap(kp::CGSizeMake(10, 10)).getFaceFeaturesWithAccuracy(1));
}

TEST(FaceFeatures, WithoutLandmarkModelOnlyTheBoxIsFound) {
    const std::string saved = kp::CIDetectorFaceLandmarksModelPath();
    kp::CIDetectorSetFaceLandmarksModelPath("/nonexistent/landmarks.dat");
    const auto photo = kp::UIImage::imageWithContentsOfFile(kptest::dataPath("astronaut.png"));
    ASSERT_TRUE(photo);
    const kp::FaceFeatures r = photo->getFaceFeaturesWithAccuracy(0);
    kp::CIDetectorSetFaceLandmarksModelPath(saved);
    EXPECT_NEAR(kp::CGRectGetMidX(r.faceBounds), 222, 20);
    EXPECT_EQ(r.landmarksFound, 0);
    EXPECT_EQ(r.mouthPosition, kp::CGPointZero);
    EXPECT_FALSE(r.hasSmile);
}

TEST(FaceFeatures, MarkersAreDrawnAtThePoints) {
    const kp::UIImage image = blankImage(100, 80);
    const auto marked = image.drawFacialLocationsLeftEye(CGPointMake(30, 30), CGPointMake(70, 30),
                                                         CGPointMake(50, 60), CGRectMake(10, 10, 80, 65));
    ASSERT_TRUE(marked);
    const kptest::Rgba red{255, 0, 0, 255}, blue{0, 0, 255, 255}, green{0, 255, 0, 255}, yellow{255, 255, 0, 255};
    EXPECT_TRUE(kptest::near(*pixelAt(*marked, 15, 30), red, 2));   // left edge of the square about (30, 30)
    EXPECT_TRUE(kptest::near(*pixelAt(*marked, 30, 44), red, 2));   // its bottom edge
    EXPECT_TRUE(kptest::near(*pixelAt(*marked, 85, 30), blue, 2));  // right edge about (70, 30)
    EXPECT_TRUE(kptest::near(*pixelAt(*marked, 50, 45), green, 2)); // top edge about (50, 60)
    EXPECT_TRUE(kptest::near(*pixelAt(*marked, 10, 70), yellow, 2)); // face box, left edge
    EXPECT_TRUE(kptest::near(*pixelAt(*marked, 30, 30), {255, 255, 255, 255}, 0)); // inside stays as it was
    EXPECT_TRUE(kptest::near(*pixelAt(*marked, 3, 3), {255, 255, 255, 255}, 0));

    // A marker near the corner is clipped: the square from (-10, -10) to (20, 20).
    const auto corner = image.drawFacialLocationsLeftEye(CGPointMake(5, 5), CGPointMake(-100, -100),
                                                         CGPointMake(-100, -100), CGRectMake(-50, -50, 1, 1));
    ASSERT_TRUE(corner);
    EXPECT_TRUE(kptest::near(*pixelAt(*corner, 20, 10), red, 2));
    EXPECT_TRUE(kptest::near(*pixelAt(*corner, 10, 20), red, 2));
    EXPECT_TRUE(kptest::near(*pixelAt(*corner, 5, 5), {255, 255, 255, 255}, 0));
}

TEST(FaceFeatures, TextIsDrawnBlackFromThePointWhateverColourIsSet) {
    const kp::UIImage image = blankImage(200, 60);
    const auto written = image.drawText("Hello", CGPointMake(20, 10), kp::UIColor::redColor(), 24);
    ASSERT_TRUE(written);
    size_t inked = 0, minX = 200, minY = 60, maxY = 0, solid = 0;
    for (size_t y = 0; y < 60; ++y) {
        for (size_t x = 0; x < 200; ++x) {
            const kptest::Rgba p = *pixelAt(*written, x, y);
            if (p.g < 128) {
                ++inked;
                // The red that was set does not reach the text: the ink is grey to black.
                EXPECT_LE(std::abs(p.r - p.g), 1) << "ink must be black at " << x << "," << y;
                solid += p.r == 0 ? 1 : 0;
                minX = std::min(minX, x);
                minY = std::min(minY, y);
                maxY = std::max(maxY, y);
            }
        }
    }
    EXPECT_GT(solid, 50u);
    EXPECT_GT(inked, 100u);
    EXPECT_GE(minX, 19u);
    EXPECT_LT(minX, 30u);
    EXPECT_GE(minY, 8u); // one point of baseline lift, no more
    EXPECT_LT(maxY, 45u);
    // An empty string or a size of 0 leaves the picture as it was.
    const auto empty = image.drawText("", CGPointMake(0, 0), kp::UIColor::blackColor(), 0);
    ASSERT_TRUE(empty);
    EXPECT_TRUE(kptest::near(*pixelAt(*empty, 100, 30), {255, 255, 255, 255}, 0));
}

} // namespace
