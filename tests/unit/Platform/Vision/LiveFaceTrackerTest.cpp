// SPDX-License-Identifier: MIT
// The live face tracker: faces in photos and the sample scene, none in face-free pictures, stable and new IDs,
// angles from landmarks and their quantisation at the step boundaries.
#include "Platform/Vision/LiveFaceTracker.h"

#include "Platform/Capture/SampleScene.h"
#include "support/CodePictures.h"
#include "support/TestSupport.h"

#include "KPImage/Platform/CIDetector.h"
#include "KPImage/Platform/UIImage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <numbers>

using namespace kp;

namespace {

LumaImage lumaOf(const std::string& path) {
    LumaImage out;
    const auto image = UIImage::imageWithContentsOfFile(path);
    if (image && image->CGImage()) {
        LumaImageFromCGImage(*image->CGImage(), out);
    }
    return out;
}

// The picture placed at (x, y) on a larger grey canvas.
LumaImage placed(const LumaImage& src, int width, int height, int x, int y) {
    LumaImage out;
    out.resize(width, height);
    std::fill(out.pixels.begin(), out.pixels.end(), uint8_t{110});
    for (int r = 0; r < src.height; ++r) {
        for (int c = 0; c < src.width; ++c) {
            if (x + c >= 0 && x + c < width && y + r >= 0 && y + r < height) {
                out.row(y + r)[x + c] = src.row(r)[c];
            }
        }
    }
    return out;
}

// The picture turned about a point by degrees, clockwise as seen, on a canvas of the same size.
LumaImage turned(const LumaImage& src, double degrees, CGPoint about) {
    RotatedCrop crop;
    crop.centre = about;
    crop.angle = -degrees * std::numbers::pi / 180.0;
    crop.width = src.width;
    crop.height = src.height;
    // The crop's centre shows the turning point; shift it back to where it was.
    LumaImage out = crop.sample(src);
    return placed(out, src.width, src.height, static_cast<int>(std::lround(about.x - src.width / 2.0)),
                  static_cast<int>(std::lround(about.y - src.height / 2.0)));
}

LumaImage sampleSceneAt(double t, int width, int height) {
    cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
    SampleScene::shared().render(s, width, height, t, {});
    LumaImage out;
    out.resize(width, height);
    const uint8_t* data = cairo_image_surface_get_data(s);
    const int stride = cairo_image_surface_get_stride(s);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const uint8_t* p = data + y * stride + 4 * x;
            out.row(y)[x] = static_cast<uint8_t>((77u * p[2] + 150u * p[1] + 29u * p[0] + 128u) >> 8);
        }
    }
    cairo_surface_destroy(s);
    return out;
}

DlibFaceDetector::Landmarks frontalLandmarks() {
    DlibFaceDetector::Landmarks p{};
    for (size_t i = 0; i <= 16; ++i) {
        p[i] = {10.0 + 100.0 * static_cast<double>(i) / 16.0, 60.0};
    }
    for (size_t i = 36; i < 42; ++i) {
        p[i] = {40, 50};
    }
    for (size_t i = 42; i < 48; ++i) {
        p[i] = {80, 50};
    }
    p[30] = {60, 75};
    return p;
}

} // namespace

TEST(LiveFaceTracker, QuantisesAnglesToThePlatformSteps) {
    // Roll in steps of 30, yaw in steps of 45, both in [0, 360); halves round away from upright.
    EXPECT_EQ(LiveFaceTracker::quantizedRoll(0.0), 0.0);
    EXPECT_FALSE(std::signbit(LiveFaceTracker::quantizedRoll(-0.0)));
    EXPECT_FALSE(std::signbit(LiveFaceTracker::quantizedRoll(-14.9)));
    EXPECT_EQ(LiveFaceTracker::quantizedRoll(14.9), 0.0);
    EXPECT_EQ(LiveFaceTracker::quantizedRoll(15.0), 30.0);
    EXPECT_EQ(LiveFaceTracker::quantizedRoll(-15.0), 330.0);
    EXPECT_EQ(LiveFaceTracker::quantizedRoll(-14.9), 0.0);
    EXPECT_EQ(LiveFaceTracker::quantizedRoll(359.0), 0.0);
    EXPECT_EQ(LiveFaceTracker::quantizedRoll(345.0), 0.0);
    EXPECT_EQ(LiveFaceTracker::quantizedRoll(344.9), 330.0);
    EXPECT_EQ(LiveFaceTracker::quantizedRoll(-720.0), 0.0);
    EXPECT_EQ(LiveFaceTracker::quantizedYaw(22.4), 0.0);
    EXPECT_EQ(LiveFaceTracker::quantizedYaw(22.5), 45.0);
    EXPECT_EQ(LiveFaceTracker::quantizedYaw(-22.5), 315.0);
    EXPECT_EQ(LiveFaceTracker::quantizedYaw(-90.0), 270.0);
    EXPECT_EQ(LiveFaceTracker::quantizedYaw(std::nan("")), 0.0);
}

TEST(LiveFaceTracker, MeasuresRollAndYawFromLandmarks) {
    auto p = frontalLandmarks();
    EXPECT_NEAR(LiveFaceTracker::rollFromLandmarks(p), 0.0, 1e-9);
    EXPECT_NEAR(LiveFaceTracker::yawFromLandmarks(p), 0.0, 1e-9);
    // The right-hand eye lower in the picture: the head tilts clockwise as seen.
    const double a = 30.0 * std::numbers::pi / 180.0;
    for (CGPoint& q : p) {
        q = {60 + (q.x - 60) * std::cos(a) - (q.y - 60) * std::sin(a),
             60 + (q.x - 60) * std::sin(a) + (q.y - 60) * std::cos(a)};
    }
    EXPECT_NEAR(LiveFaceTracker::rollFromLandmarks(p), 30.0, 1e-9);
    // The nose halfway to the right outline: sin(yaw) = 0.5, the face turned towards the frame's right.
    auto q = frontalLandmarks();
    q[30] = {85, 75};
    EXPECT_NEAR(LiveFaceTracker::yawFromLandmarks(q), 30.0, 1e-9);
    q[30] = {35, 75};
    EXPECT_NEAR(LiveFaceTracker::yawFromLandmarks(q), -30.0, 1e-9);
    q[16] = q[0];
    EXPECT_TRUE(std::isnan(LiveFaceTracker::yawFromLandmarks(q)));
}

TEST(LiveFaceTracker, FindsFacesAndFollowsThemWithStableIds) {
    LiveFaceTracker tracker(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Picture);
    const LumaImage astronaut = lumaOf(kptest::dataPath("astronaut.png"));
    ASSERT_FALSE(astronaut.empty());
    const auto first = tracker.track(placed(astronaut, 1280, 720, 200, 100));
    ASSERT_EQ(first.size(), 1u);
    const TrackedFace& f = first[0];
    // The astronaut's face lies in the upper middle of the photo.
    EXPECT_GT(f.bounds.origin.x, 300);
    EXPECT_LT(f.bounds.origin.x + f.bounds.size.width, 560);
    EXPECT_TRUE(f.hasRollAngle);
    EXPECT_EQ(f.rollAngle, 0.0);
    EXPECT_FALSE(std::signbit(f.rollAngle));
    EXPECT_TRUE(f.hasYawAngle);
    EXPECT_EQ(f.yawAngle, 0.0);

    // Moved a little: the same face keeps its ID.
    const auto moved = tracker.track(placed(astronaut, 1280, 720, 230, 110));
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_EQ(moved[0].faceID, f.faceID);

    // The head tilted by 30 degrees where it is: still tracked, with the roll reported.
    const CGPoint head{f.bounds.origin.x + f.bounds.size.width / 2 - 200,
                       f.bounds.origin.y + f.bounds.size.height / 2 - 100};
    const auto tilted = tracker.track(placed(turned(astronaut, 30, head), 1280, 720, 230, 110));
    ASSERT_EQ(tilted.size(), 1u);
    EXPECT_EQ(tilted[0].faceID, f.faceID);
    EXPECT_TRUE(tilted[0].hasRollAngle);
    EXPECT_EQ(tilted[0].rollAngle, 30.0);
    const auto other = tracker.track(placed(turned(astronaut, -30, head), 1280, 720, 230, 110));
    ASSERT_EQ(other.size(), 1u);
    EXPECT_EQ(other[0].rollAngle, 330.0);

    // Gone for longer than a missed detection: the face that comes back is a new one.
    LumaImage empty;
    empty.resize(1280, 720);
    std::fill(empty.pixels.begin(), empty.pixels.end(), uint8_t{110});
    for (int i = 0; i <= LiveFaceTracker::kMaxMissedFrames; ++i) {
        EXPECT_TRUE(tracker.track(empty).empty());
    }
    const auto back = tracker.track(placed(astronaut, 1280, 720, 200, 100));
    ASSERT_EQ(back.size(), 1u);
    EXPECT_GT(back[0].faceID, f.faceID);
    // A second tracker never hands out an ID the first one used.
    LiveFaceTracker second(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Picture);
    const auto fresh = second.track(placed(astronaut, 1280, 720, 200, 100));
    ASSERT_EQ(fresh.size(), 1u);
    EXPECT_GT(fresh[0].faceID, back[0].faceID);
}

TEST(LiveFaceTracker, FindsSmallFacesAndTheSampleScenesFace) {
    LiveFaceTracker tracker(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Picture);
    // The astronaut's face shrunk to about a tenth of a 720p frame's height (the photo's face box is 95 pixels).
    const LumaImage astronaut = LumaImageScaled(lumaOf(kptest::dataPath("astronaut.png")), 0.8);
    const auto small = tracker.track(placed(astronaut, 1280, 720, 700, 200));
    ASSERT_EQ(small.size(), 1u);
    EXPECT_LT(small[0].bounds.size.height, 0.12 * 720);
    EXPECT_GT(small[0].bounds.size.height, 0.09 * 720);
    // The face lies in the upper middle of the photo, which starts at (700, 200).
    EXPECT_GT(small[0].bounds.origin.x, 700 + 0.25 * astronaut.width);
    EXPECT_LT(small[0].bounds.origin.x + small[0].bounds.size.width, 700 + 0.75 * astronaut.width);
    EXPECT_GT(small[0].bounds.origin.y, 200);
    tracker.reset();
    EXPECT_EQ(tracker.track(sampleSceneAt(0.0, 1280, 720)).size(), 1u);

    // In video the small face is found within one round of the twelve tiles (a search step in every second frame
    // while nothing is tracked), then tracked in every frame.
    LiveFaceTracker video(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Video);
    const LumaImage frame = placed(astronaut, 1280, 720, 700, 200);
    std::vector<TrackedFace> seen;
    for (int frames = 0; frames < 24 && seen.empty(); ++frames) {
        seen = video.track(frame);
    }
    ASSERT_EQ(seen.size(), 1u);
    for (int i = 0; i < 3; ++i) {
        const auto again = video.track(frame);
        ASSERT_EQ(again.size(), 1u);
        EXPECT_EQ(again[0].faceID, seen[0].faceID);
    }
}

TEST(LiveFaceTracker, FindsNoFaceInFaceFreePictures) {
    LiveFaceTracker tracker(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Picture);
    // Drawn: discs and rings (round like heads), stripes, a code and noise.
    LumaImage drawn;
    drawn.resize(1280, 720);
    for (int y = 0; y < drawn.height; ++y) {
        for (int x = 0; x < drawn.width; ++x) {
            const double d1 = std::hypot(x - 300.0, y - 300.0);
            const double d2 = std::hypot(x - 900.0, y - 360.0);
            uint8_t v = static_cast<uint8_t>(90 + (x * 7 + y * 13) % 40);
            if (d1 < 150) {
                v = 200;
            }
            if (d2 > 120 && d2 < 180) {
                v = 40;
            }
            if (y > 600 && (x / 9) % 2 == 0) {
                v = 20;
            }
            drawn.row(y)[x] = v;
        }
    }
    kptest::printCode(drawn, kptest::CodeKind::QR, "NO FACE HERE", {640, 200, 10, 5});
    const auto found = tracker.track(drawn);
    EXPECT_TRUE(found.empty()) << found.front().bounds.origin.x << "," << found.front().bounds.origin.y << " "
                               << found.front().bounds.size.width;
    // The sample scene while the face is out of the picture: card only.
    EXPECT_TRUE(tracker.track(sampleSceneAt(SampleScene::kFaceAbsentFrom + 0.5, 1280, 720)).empty());
    // A real photograph without people, where the system has one (dlib's example pictures).
    const std::string cars = "/usr/share/doc/libdlib19.1/examples/mmod_cars_test_image.jpg";
    if (std::filesystem::exists(cars)) {
        const LumaImage photo = lumaOf(cars);
        ASSERT_FALSE(photo.empty());
        EXPECT_TRUE(tracker.track(photo).empty());
    }
}
