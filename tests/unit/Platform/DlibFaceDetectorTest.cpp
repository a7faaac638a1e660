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
    for (const auto& [first, cx] : {std::pair{36, 40.0}, {42, 80.0}}) { // corners, upper lid, lower lid
        const double xs[6] = {-10, -4, 4, 10, 4, -4}, ys[6] = {0, -4, -4, 0, 4, 4};
        for (size_t i = 0; i < 6; ++i) {
            p[first + i] = {cx + xs[i], 50 + ys[i]};
        }
    }
    // Outer lip: corners 48 and 54 level with the middle of the lips (51 top, 57 bottom).
    const double ys[12] = {90, 87, 86, 85, 86, 87, 90, 93, 94, 95, 94, 93};
    for (size_t i = 0; i < 12; ++i) {
        p[48 + i] = {i <= 6 ? 45.0 + 5 * i : 105.0 - 5 * i, ys[i]};
    }
    std::fill(p.begin() + 60, p.end(), kp::CGPoint{60, 90});
    return p;
}

TEST(DlibFaceDetector, MeasuresFromLandmarks) {
    const kp::CIDetectorFeatureOptions all{true, true};
    const kp::CGRect box = kp::CGRectMake(10, 20, 100, 90);
    DlibFaceDetector::Landmarks pts = neutralFace();
    kp::CIFaceFeature f = DlibFaceDetector::featureFromLandmarks(box, &pts, 200, all);
    // Bottom-left space of a 200-pixel-high image.
    EXPECT_EQ(f.bounds, kp::CGRectMake(10, 90, 100, 90));
    EXPECT_EQ(f.leftEyePosition, kp::CGPointMake(40, 150));
    EXPECT_EQ(f.rightEyePosition, kp::CGPointMake(80, 150));
    EXPECT_EQ(f.mouthPosition.x, 60);
    EXPECT_NEAR(f.mouthPosition.y, 110, 0.01);
    EXPECT_TRUE(f.hasLeftEyePosition && f.hasRightEyePosition && f.hasMouthPosition && f.hasFaceAngle);
    EXPECT_FALSE(f.hasSmile || f.leftEyeClosed || f.rightEyeClosed);
    EXPECT_EQ(f.faceAngle, 0.0f);
    EXPECT_EQ(DlibFaceDetector::eyeAspectRatio(&pts[36]), 0.4);

    // The face with some points moved down by dy (up when negative).
    const auto moved = [&](std::initializer_list<std::pair<size_t, double>> dys, kp::CIDetectorFeatureOptions o) {
        DlibFaceDetector::Landmarks m = pts;
        for (const auto& [i, dy] : dys) {
            m[i].y += dy;
        }
        return DlibFaceDetector::featureFromLandmarks(box, &m, 200, o);
    };
    // Corners lifted by 6 pixels of a 30-pixel mouth: a smile, but not computed when not asked for.
    EXPECT_TRUE(moved({{48, -6}, {54, -6}}, all).hasSmile);
    EXPECT_FALSE(moved({{48, -6}, {54, -6}}, {}).hasSmile);
    // The right-hand eye's lids shut: only that eye is closed.
    f = moved({{43, 4}, {44, 4}, {46, -4}, {47, -4}}, all);
    EXPECT_TRUE(!f.leftEyeClosed && f.rightEyeClosed);
    // Right-hand eye 40 pixels higher over 40 across: the face is turned 45 degrees counter-clockwise.
    EXPECT_NEAR(moved({{42, -40}, {43, -40}, {44, -40}, {45, -40}, {46, -40}, {47, -40}}, all).faceAngle, 45.0f, 1e-4);
    // Without landmarks only the box is there.
    f = DlibFaceDetector::featureFromLandmarks(box, nullptr, 200, all);
    EXPECT_FALSE(f.hasLeftEyePosition || f.hasRightEyePosition || f.hasMouthPosition || f.hasFaceAngle);
}

TEST(DlibFaceDetector, ReportsInBottomLeftSpaceInEveryLayout) {
    const auto photo = kp::UIImage::imageWithContentsOfFile(kptest::dataPath("astronaut.png"));
    ASSERT_TRUE(photo);
    ASSERT_TRUE(DlibFaceDetector::landmarkModelAvailable(kp::kCIDefaultFaceLandmarksModelPath));
    EXPECT_FALSE(DlibFaceDetector::landmarkModelAvailable("/nonexistent/model.dat"));
    const kp::CGImageRef rgba = photo->CGImage();
    // The same picture as BGRA (premultiplied, little-endian word) must give the same face.
    std::vector<uint8_t> bgra;
    for (size_t i = 0; i < rgba->width() * rgba->height(); ++i) {
        const uint8_t* s = rgba->bytes() + (i / rgba->width()) * rgba->bytesPerRow() + (i % rgba->width()) * 4;
        bgra.insert(bgra.end(), {s[2], s[1], s[0], 255});
    }
    const kp::CGImageRef swapped = kptest::makeBGRA(rgba->width(), rgba->height(), bgra);
    DlibFaceDetector detector(kp::CIDetectorAccuracyLow);
    const auto a = detector.featuresInImage(kp::CIImage::imageWithCGImage(rgba), {true, true});
    const auto b = detector.featuresInImage(kp::CIImage::imageWithCGImage(swapped), {true, true});
    ASSERT_TRUE(a.size() == 1 && b.size() == 1);
    EXPECT_EQ(a[0].bounds, b[0].bounds);
    // y up: the eyes are above the mouth, and the box's origin is its bottom edge (the chin is near y 320).
    EXPECT_GT(a[0].leftEyePosition.y, a[0].mouthPosition.y);
    EXPECT_NEAR(a[0].bounds.origin.y, 512 - 175, 25);
    EXPECT_TRUE(detector.featuresInImage(kp::CIImage(), {}).empty());
}

} // namespace
