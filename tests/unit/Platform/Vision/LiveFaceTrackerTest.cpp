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

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <regex>
#include <sstream>
#include <tuple>

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
    p.fill({60, 60});
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
    const std::pair<double, double> rolls[] = {{0, 0},     {-0.0, 0}, {-14.9, 0}, {14.9, 0},    {15, 30},
                                               {-15, 330}, {359, 0},  {345, 0},   {344.9, 330}, {-720, 0}};
    for (const auto& [degrees, expected] : rolls) {
        EXPECT_EQ(LiveFaceTracker::quantizedRoll(degrees), expected) << degrees;
        EXPECT_FALSE(std::signbit(LiveFaceTracker::quantizedRoll(degrees))) << degrees;
    }
    const std::pair<double, double> yaws[] = {{22.4, 0}, {22.5, 45}, {-22.5, 315}, {-90, 270}, {std::nan(""), 0}};
    for (const auto& [degrees, expected] : yaws) {
        EXPECT_EQ(LiveFaceTracker::quantizedYaw(degrees), expected) << degrees;
    }

    // Near a boundary the step reported last holds until the head is clearly past it.
    struct Case {
        double degrees, previous, step, margin, expected;
    };
    for (const Case& c : std::vector<Case>{{18.9, 0, 30, 4, 0},       {19.1, 0, 30, 4, 30},   {-18.9, 0, 30, 4, 0},
                                           {-19.1, 0, 30, 4, 330},    {11.1, 30, 30, 4, 30},  {10.9, 30, 30, 4, 0},
                                           {345, 0, 30, 4, 0},        {348, 330, 30, 4, 330}, {28.4, 0, 45, 6, 0},
                                           {28.6, 0, 45, 6, 45},      {-28.4, 0, 45, 6, 0},   {17, 45, 45, 6, 45},
                                           {15, -1, 30, 4, 30},       {std::nan(""), 45, 45, 6, 45}}) {
        EXPECT_EQ(LiveFaceTracker::steadyStep(c.degrees, c.previous, c.step, c.margin), c.expected)
            << c.degrees << " after " << c.previous;
    }
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
    // The box fits the face along its own axes: the tilted face's box has the upright one's size and centre (the
    // turn's centre, (60, 60), lies on the jaw line's middle).
    const CGRect upright = LiveFaceTracker::boxFromLandmarks(frontalLandmarks());
    const CGRect tilted = LiveFaceTracker::boxFromLandmarks(p);
    EXPECT_NEAR(upright.size.width, 100.0, 1e-9); // ear to ear; the face is less high than wide
    EXPECT_NEAR(tilted.size.width, upright.size.width, 1e-9);
    EXPECT_NEAR(tilted.size.height, tilted.size.width, 1e-9);
    const CGPoint c{upright.origin.x + 50 - 60, upright.origin.y + 50 - 60};
    EXPECT_NEAR(tilted.origin.x + 50, 60 + c.x * std::cos(a) - c.y * std::sin(a), 1e-9);
    EXPECT_NEAR(tilted.origin.y + 50, 60 + c.x * std::sin(a) + c.y * std::cos(a), 1e-9);
    auto flat = frontalLandmarks();
    for (size_t i = 42; i < 48; ++i) {
        flat[i] = flat[36];
    }
    EXPECT_EQ(LiveFaceTracker::boxFromLandmarks(flat).size.width, 0.0);
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

// Real portraits (tests/data/LICENSES.md) and their faces by eye, brows to chin and ear to ear.
struct Portrait {
    const char* file;
    CGRect face;
};
const Portrait kPortraits[] = {{"astronaut.png", {{170, 85}, {110, 110}}},
                               {"grace_hopper.jpg", {{165, 150}, {195, 195}}}};

// The portrait scaled so that its face is width pixels wide, on a grey canvas with the face's corner at (x, y); the
// face's box in the canvas.
LumaImage portraitAt(const Portrait& p, double width, int canvasWidth, int canvasHeight, int x, int y, CGRect& face) {
    const LumaImage photo = lumaOf(kptest::dataPath(p.file));
    RotatedCrop crop;
    crop.scale = width / p.face.size.width;
    crop.width = static_cast<int>(photo.width * crop.scale);
    crop.height = static_cast<int>(photo.height * crop.scale);
    crop.centre = {photo.width / 2.0, photo.height / 2.0};
    const int px = x - static_cast<int>(std::lround(p.face.origin.x * crop.scale));
    const int py = y - static_cast<int>(std::lround(p.face.origin.y * crop.scale));
    face = CGRectMake(x, y, width, width);
    return placed(crop.sample(photo), canvasWidth, canvasHeight, px, py);
}

TEST(LiveFaceTracker, FindsRealFacesFromSmallToLargeAndReadsThemFrontal) {
    // From a face of 48 pixels in a 720p frame (a person about 2.5 m from a webcam) to one of 320 pixels; each box
    // fits the face.
    struct Case {
        double width;
        int canvasWidth, canvasHeight;
    };
    for (const Portrait& p : kPortraits) {
        for (const Case& c : {Case{48, 1280, 720}, Case{96, 300, 260}, Case{320, 800, 700}}) {
            CGRect truth;
            const LumaImage picture = portraitAt(p, c.width, c.canvasWidth, c.canvasHeight,
                                                 c.canvasWidth / 2 - static_cast<int>(c.width / 2),
                                                 c.canvasHeight / 3, truth);
            LiveFaceTracker tracker(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Picture);
            const auto faces = tracker.track(picture);
            ASSERT_EQ(faces.size(), 1u) << p.file << " " << c.width;
            EXPECT_GE(LiveFaceTracker::overlap(faces[0].bounds, truth), 0.6) << p.file << " " << c.width;
            EXPECT_EQ(faces[0].yawAngle, 0.0) << p.file << " " << c.width;
            EXPECT_EQ(faces[0].rollAngle, 0.0) << p.file << " " << c.width;
        }
    }
}

TEST(LiveFaceTracker, FindsAFaceThatAppearsAndHoldsItsBoxStill) {
    LiveFaceTracker picture(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Picture);
    EXPECT_EQ(picture.track(sampleSceneAt(0.0, 1280, 720)).size(), 1u);

    // In video a face of 48 pixels that steps into a 720p frame is found in the frame it appears in (it is a change).
    // Held still in front of a noisy sensor, its box changes its width by less than 5 % from frame to frame and
    // keeps fitting the face; ID and angles stay.
    LiveFaceTracker video(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Video);
    LumaImage empty;
    empty.resize(1280, 720);
    std::fill(empty.pixels.begin(), empty.pixels.end(), uint8_t{110});
    EXPECT_TRUE(video.track(empty).empty());
    CGRect truth;
    const LumaImage frame = portraitAt(kPortraits[1], 48, 1280, 720, 584, 306, truth);
    uint32_t seed = 12345;
    std::vector<TrackedFace> before;
    for (int i = 0; i < 4; ++i) {
        LumaImage noisy = frame;
        for (uint8_t& v : noisy.pixels) {
            seed = seed * 1664525u + 1013904223u;
            v = static_cast<uint8_t>(std::clamp(static_cast<int>(v) + static_cast<int>(seed >> 29) - 4, 0, 255));
        }
        const auto faces = video.track(noisy);
        ASSERT_EQ(faces.size(), 1u) << "frame " << i;
        EXPECT_GE(LiveFaceTracker::overlap(faces[0].bounds, truth), 0.6) << "frame " << i;
        EXPECT_EQ(faces[0].yawAngle, 0.0);
        EXPECT_EQ(faces[0].rollAngle, 0.0);
        if (!before.empty()) {
            EXPECT_EQ(faces[0].faceID, before[0].faceID);
            EXPECT_LT(std::abs(faces[0].bounds.size.width / before[0].bounds.size.width - 1.0), 0.05) << "frame " << i;
        }
        before = faces;
    }
}

TEST(LiveFaceTracker, FindsTheFacesOfHandMarkedGroupPhotos) {
    // dlib's example group photos with their hand-marked faces (37 to 109 pixels in pictures of about 500), where
    // the system has them: nearly all found, hardly anything else; heads that are clearly turned (by eye) or frontal
    // report their yaw.
    const std::tuple<std::string, double, double, double> turnedHeads[] = {
        {"2008_002079.jpg", 41, 194, 45},  {"2008_002079.jpg", 62, 134, 45}, {"2008_002079.jpg", 433, 171, 315},
        {"2007_007763.jpg", 381, 89, 315}, {"2008_002079.jpg", 346, 138, 0}, {"2008_004176.jpg", 162, 118, 0}};
    int turnedSeen = 0;
    const std::string folder = "/usr/share/doc/libdlib19.1/examples/faces/";
    if (!std::filesystem::exists(folder + "testing.xml")) {
        GTEST_SKIP() << "no example photos";
    }
    int faces = 0, found = 0, falses = 0;
    for (const char* list : {"testing.xml", "training.xml"}) {
        std::ifstream in(folder + list);
        std::stringstream text;
        text << in.rdbuf();
        const std::string xml = text.str();
        const std::regex re("<image file='([^']+)'|<box top='(\\d+)' left='(\\d+)' width='(\\d+)' height='(\\d+)'");
        std::vector<std::pair<std::string, std::vector<CGRect>>> pictures;
        for (std::sregex_iterator it(xml.begin(), xml.end(), re), end; it != end; ++it) {
            if ((*it)[1].matched) {
                pictures.push_back({(*it)[1], {}});
            } else if (!pictures.empty()) {
                pictures.back().second.push_back(
                    CGRectMake(std::stod((*it)[3]), std::stod((*it)[2]), std::stod((*it)[4]), std::stod((*it)[5])));
            }
        }
        for (const auto& [file, marked] : pictures) {
            LiveFaceTracker tracker(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Picture);
            const auto reported = tracker.track(lumaOf(folder + file));
            std::vector<bool> used(reported.size(), false);
            for (const CGRect& m : marked) {
                ++faces;
                for (size_t i = 0; i < reported.size(); ++i) {
                    if (!used[i] && LiveFaceTracker::overlap(m, reported[i].bounds) >= 0.3) {
                        used[i] = true;
                        ++found;
                        for (const auto& [name, left, top, yaw] : turnedHeads) {
                            if (file == name && m.origin.x == left && m.origin.y == top) {
                                ++turnedSeen;
                                EXPECT_EQ(reported[i].yawAngle, yaw) << file << " " << left << "," << top;
                            }
                        }
                        break;
                    }
                }
            }
            falses += static_cast<int>(std::count(used.begin(), used.end(), false));
        }
    }
    EXPECT_EQ(turnedSeen, static_cast<int>(std::size(turnedHeads)));
    EXPECT_EQ(faces, 43);
    EXPECT_GE(found, 40);
    EXPECT_LE(falses, 2);
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
