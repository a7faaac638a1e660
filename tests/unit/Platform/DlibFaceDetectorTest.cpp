// SPDX-License-Identifier: MIT
// The dlib face detector's measures from landmarks, and its raw output space on a photo.
#include "Platform/Vision/DlibFaceDetector.h"

#include "KPImage/Platform/UIImage.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

namespace {

using kp::DlibFaceDetector;

// A face of 68 points: eyes around (40, 50) and (80, 50), mouth from (45, 90) to (75, 90), jaw 10..110.
DlibFaceDetector::Landmarks neutralFace() {
    DlibFaceDetector::Landmarks p{};
    for (size_t i = 0; i <= 16; ++i) {
        p[i] = {10.0 + 100.0 * static_cast<double>(i) / 16.0, 60.0 + static_cast<double>(i)};
    }
    const auto eye = [&p](size_t first, double cx, double open) {
        p[first + 0] = {cx - 10, 50};
        p[first + 1] = {cx - 4, 50 - open};
        p[first + 2] = {cx + 4, 50 - open};
        p[first + 3] = {cx + 10, 50};
        p[first + 4] = {cx + 4, 50 + open};
        p[first + 5] = {cx - 4, 50 + open};
    };
    eye(36, 40, 4);
    eye(42, 80, 4);
    // Outer lip: corners 48 and 54 level with the middle of the lips (51 top, 57 bottom).
    const double xs[12] = {45, 50, 55, 60, 65, 70, 75, 70, 65, 60, 55, 50};
    const double ys[12] = {90, 87, 86, 85, 86, 87, 90, 93, 94, 95, 94, 93};
    for (size_t i = 0; i < 12; ++i) {
        p[48 + i] = {xs[i], ys[i]};
    }
    for (size_t i = 60; i < 68; ++i) {
        p[i] = {60, 90};
    }
    return p;
}

TEST(DlibFaceDetector, MeasuresFromLandmarks) {
    kp::CIDetectorFeatureOptions all{true, true};
    DlibFaceDetector::Landmarks pts = neutralFace();
    kp::CIFaceFeature f = DlibFaceDetector::featureFromLandmarks(kp::CGRectMake(10, 20, 100, 90), &pts, 200, all);
    // Bottom-left space of a 200-pixel-high image.
    EXPECT_EQ(f.bounds, kp::CGRectMake(10, 90, 100, 90));
    EXPECT_EQ(f.leftEyePosition, kp::CGPointMake(40, 150));
    EXPECT_EQ(f.rightEyePosition, kp::CGPointMake(80, 150));
    EXPECT_EQ(f.mouthPosition.x, 60);
    EXPECT_NEAR(f.mouthPosition.y, 110, 0.01);
    EXPECT_TRUE(f.hasLeftEyePosition && f.hasRightEyePosition && f.hasMouthPosition && f.hasFaceAngle);
    EXPECT_EQ(f.faceAngle, 0.0f);
    EXPECT_FALSE(f.hasSmile);
    EXPECT_FALSE(f.leftEyeClosed);
    EXPECT_FALSE(f.rightEyeClosed);

    // Corners lifted by 6 pixels of a 30-pixel mouth: a smile.
    DlibFaceDetector::Landmarks smiling = pts;
    smiling[48].y -= 6;
    smiling[54].y -= 6;
    EXPECT_TRUE(DlibFaceDetector::featureFromLandmarks(kp::CGRectMake(10, 20, 100, 90), &smiling, 200, all).hasSmile);
    // ...but not computed when not asked for.
    EXPECT_FALSE(DlibFaceDetector::featureFromLandmarks(kp::CGRectMake(10, 20, 100, 90), &smiling, 200, {}).hasSmile);

    // The right-hand eye's lids shut: only that eye is closed.
    DlibFaceDetector::Landmarks blinking = pts;
    for (size_t i : {43u, 44u, 46u, 47u}) {
        blinking[i].y = 50;
    }
    f = DlibFaceDetector::featureFromLandmarks(kp::CGRectMake(10, 20, 100, 90), &blinking, 200, all);
    EXPECT_FALSE(f.leftEyeClosed);
    EXPECT_TRUE(f.rightEyeClosed);

    // Right-hand eye 40 pixels higher over 40 across: the face is turned 45 degrees counter-clockwise.
    DlibFaceDetector::Landmarks tilted = pts;
    for (size_t i = 42; i <= 47; ++i) {
        tilted[i].y -= 40;
    }
    EXPECT_NEAR(DlibFaceDetector::featureFromLandmarks(kp::CGRectMake(10, 20, 100, 90), &tilted, 200, all).faceAngle,
                45.0f, 1e-4);

    // Without landmarks only the box is there.
    f = DlibFaceDetector::featureFromLandmarks(kp::CGRectMake(10, 20, 100, 90), nullptr, 200, all);
    EXPECT_FALSE(f.hasLeftEyePosition || f.hasRightEyePosition || f.hasMouthPosition || f.hasFaceAngle);
    EXPECT_EQ(DlibFaceDetector::eyeAspectRatio(&pts[36]), 0.4);
}

TEST(DlibFaceDetector, ReportsInBottomLeftSpaceInEveryLayout) {
    const auto photo = kp::UIImage::imageWithContentsOfFile(kptest::dataPath("astronaut.png"));
    ASSERT_TRUE(photo);
    ASSERT_TRUE(DlibFaceDetector::landmarkModelAvailable(kp::kCIDefaultFaceLandmarksModelPath));
    EXPECT_FALSE(DlibFaceDetector::landmarkModelAvailable("/nonexistent/model.dat"));
    const kp::CGImageRef rgba = photo->CGImage();
    // The same picture as BGRA (premultiplied, little-endian word) must give the same face.
    std::vector<uint8_t> bgra(rgba->width() * rgba->height() * 4);
    for (size_t i = 0; i < rgba->width() * rgba->height(); ++i) {
        const uint8_t* s = rgba->bytes() + (i / rgba->width()) * rgba->bytesPerRow() + (i % rgba->width()) * 4;
        bgra[i * 4 + 0] = s[2];
        bgra[i * 4 + 1] = s[1];
        bgra[i * 4 + 2] = s[0];
        bgra[i * 4 + 3] = 255;
    }
    const kp::CGImageRef swapped = kptest::makeBGRA(rgba->width(), rgba->height(), bgra);
    DlibFaceDetector detector(kp::CIDetectorAccuracyLow);
    const auto a = detector.featuresInImage(kp::CIImage::imageWithCGImage(rgba), {true, true});
    const auto b = detector.featuresInImage(kp::CIImage::imageWithCGImage(swapped), {true, true});
    ASSERT_EQ(a.size(), 1u);
    ASSERT_EQ(b.size(), 1u);
    EXPECT_EQ(a[0].bounds, b[0].bounds);
    // y up: the eyes are above the mouth, and the box's origin is its bottom edge (the chin is near y 320).
    EXPECT_GT(a[0].leftEyePosition.y, a[0].mouthPosition.y);
    EXPECT_NEAR(a[0].bounds.origin.y, 512 - 175, 25);
    EXPECT_TRUE(detector.featuresInImage(kp::CIImage(), {}).empty());
}

} // namespace
