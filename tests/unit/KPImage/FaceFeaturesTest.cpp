// SPDX-License-Identifier: MIT
// The widest-face selection (scripted detector), the real detector on a photo and on face-free pictures, and the
// markers and text drawn onto copies.
#include "KPImage/UIImage+ImagingHelper.h"

#include "KPImage/Platform/CIDetector.h"
#include "support/FakeFaceDetector.h"
#include "support/PixelProbe.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using kp::CGPointMake;
using kp::CGRectMake;
using kp::CIFaceFeature;
using kptest::pixelAt;

kp::UIImage blankImage(size_t width, size_t height) {
    return kptest::grayImage(width, height, [](size_t, size_t) { return 255; });
}

CIFaceFeature face(kp::CGRect bounds, float angle, std::optional<kp::CGPoint> leftEye = {},
                   std::optional<kp::CGPoint> rightEye = {}, std::optional<kp::CGPoint> mouth = {}) {
    CIFaceFeature f;
    f.bounds = bounds;
    f.faceAngle = angle;
    f.hasFaceAngle = true;
    f.hasLeftEyePosition = leftEye.has_value();
    f.leftEyePosition = leftEye.value_or(kp::CGPointZero);
    f.hasRightEyePosition = rightEye.has_value();
    f.rightEyePosition = rightEye.value_or(kp::CGPointZero);
    f.hasMouthPosition = f.hasSmile = mouth.has_value();
    f.mouthPosition = mouth.value_or(kp::CGPointZero);
    return f;
}

TEST(FaceFeatures, TheWidestFaceIsTakenAndFlippedToTopLeft) {
    {
        CIFaceFeature f =
            face(CGRectMake(10, 20, 100, 120), 0, CGPointMake(10, 0), CGPointMake(80, 470.5), CGPointMake(50, 480));
        f.rightEyeClosed = true;
        kptest::FakeFaceDetector fake({f});
        const kp::FaceFeatures r = blankImage(640, 480).getFaceFeaturesWithAccuracy(1);
        EXPECT_EQ(r.faceBounds, CGRectMake(10, 340, 100, 120));
        EXPECT_TRUE(r.leftEyePosition == CGPointMake(10, 480) && r.rightEyePosition == CGPointMake(80, 9.5) &&
                    r.mouthPosition == CGPointMake(50, 0));
        EXPECT_TRUE(r.hasSmile && r.rightEyeClosed && !r.leftEyeClosed && r.landmarksFound == 1);
    }
    const kp::UIImage image = blankImage(200, 100);
    {
        // A wider face without a mouth after a narrow one with a mouth: the narrow face's mouth and smile stay
        // beside the wide face's box and eyes; equal widths keep the first; the angle is always the last one's.
        CIFaceFeature narrow = face(CGRectMake(0, 0, 30, 30), 5, CGPointMake(8, 20), {}, CGPointMake(15, 10));
        narrow.leftEyeClosed = true;
        kptest::FakeFaceDetector fake({narrow, face(CGRectMake(50, 0, 80, 80), 0, CGPointMake(70, 60)),
                                       face(CGRectMake(100, 10, 80, 60), -20, CGPointMake(105, 5))});
        const kp::FaceFeatures r = image.getFaceFeaturesWithAccuracy(0);
        EXPECT_EQ(r.faceBounds, CGRectMake(50, 20, 80, 80));
        EXPECT_EQ(r.mouthPosition, CGPointMake(15, 90));
        EXPECT_TRUE(r.hasSmile);
        EXPECT_EQ(r.leftEyePosition, CGPointMake(70, 40));
        EXPECT_FALSE(r.leftEyeClosed);
        EXPECT_EQ(r.faceAngle, -20.0f);
    }
    // Faces of no width are never chosen; a chosen face without landmarks leaves landmarksFound at 0.
    for (const auto& [width, found] : {std::pair{0.0, false}, {90.0, true}}) {
        kptest::FakeFaceDetector fake({face(CGRectMake(0, 0, width, 10), 30)});
        const kp::FaceFeatures r = image.getFaceFeaturesWithAccuracy(0);
        EXPECT_EQ(r.faceBounds != kp::CGRectZero, found);
        EXPECT_EQ(r.landmarksFound, 0);
    }
}

TEST(FaceFeatures, FindsTheAstronautsFace) {
    const auto photo = kp::UIImage::imageWithContentsOfFile(kptest::dataPath("astronaut.png"));
    ASSERT_TRUE(photo);
    // One frontal face about x 170..280, y 60..190 (the mission patch on the suit is not a face); eyes side by
    // side, the left-hand one on the image's left; the mouth below them.
    const kp::FaceFeatures r = photo->getFaceFeaturesWithAccuracy(1);
    EXPECT_NEAR(kp::CGRectGetMidX(r.faceBounds), 222, 20);
    EXPECT_NEAR(kp::CGRectGetMidY(r.faceBounds), 125, 25);
    ASSERT_EQ(r.landmarksFound, 1);
    EXPECT_LT(r.leftEyePosition.x + 30, r.rightEyePosition.x);
    EXPECT_GT(r.mouthPosition.y, r.leftEyePosition.y + 25);
    EXPECT_LT(std::fabs(r.faceAngle), 10.0f);
    EXPECT_EQ(kp::UIImage::imageWithoutBitmap(kp::CGSizeMake(10, 10)).getFaceFeaturesWithAccuracy(1).faceBounds,
              kp::CGRectZero);
}

TEST(FaceFeatures, MarkersAndTextAreDrawnAtThePoints) {
    const kp::UIImage image = blankImage(100, 80);
    const auto marked = image.drawFacialLocationsLeftEye(CGPointMake(30, 30), CGPointMake(70, 30), CGPointMake(50, 60),
                                                         CGRectMake(10, 10, 80, 65));
    ASSERT_TRUE(marked);
    // Squares about each eye (red, blue) and the mouth (green) and the face box (yellow); inside stays as it was.
    const std::tuple<size_t, size_t, kptest::Rgba> probes[] = {
        {15, 30, {255, 0, 0, 255}},   {85, 30, {0, 0, 255, 255}},     {50, 45, {0, 255, 0, 255}},
        {10, 70, {255, 255, 0, 255}}, {30, 30, {255, 255, 255, 255}},
    };
    for (const auto& [x, y, colour] : probes) {
        EXPECT_TRUE(kptest::near(*pixelAt(*marked, x, y), colour, 2)) << x << "," << y;
    }
    // Text is black whatever colour is set.
    const auto written = blankImage(200, 60).drawText("Hello", CGPointMake(20, 10), kp::UIColor::redColor(), 24);
    size_t inked = 0, coloured = 0;
    for (size_t i = 0; i < 200 * 60; ++i) {
        const kptest::Rgba p = *pixelAt(*written, i % 200, i / 200);
        inked += p.g < 128;
        coloured += p.g < 128 && std::abs(p.r - p.g) > 1;
    }
    EXPECT_GT(inked, 100u);
    EXPECT_EQ(coloured, 0u);
}

} // namespace
