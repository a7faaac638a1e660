// SPDX-License-Identifier: MIT
// Cropping, rotating and scaling images: the crop arithmetic, canvas sizes, and where the picture lands.
#include "KPImage/UIImage+ImagingHelper.h"

#include "support/PixelProbe.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using kp::CGRectMake;
using kp::CGSizeMake;
using kptest::pixelAt;
using kptest::Rgba;

// An RGBA image whose pixel (x, y) names its own position (R = x mod 256, G = y mod 256, B = the high bits), so
// a cut's first pixel tells where it started.
kp::UIImage coordinateImage(size_t width, size_t height) {
    std::vector<uint8_t> bytes(width * height * 4);
    for (size_t i = 0; i < width * height; ++i) {
        const size_t x = i % width, y = i / width;
        const uint8_t p[4] = {uint8_t(x & 255), uint8_t(y & 255), uint8_t((x >> 8) | ((y >> 8) << 4)), 255};
        std::copy(p, p + 4, &bytes[i * 4]);
    }
    return kp::UIImage::imageWithCGImage(kptest::makeRGBA(width, height, bytes));
}

struct Cut {
    size_t x, y, width, height;
    friend bool operator==(const Cut&, const Cut&) = default;
};
std::ostream& operator<<(std::ostream& os, const Cut& c) {
    return os << "(" << c.x << ", " << c.y << ", " << c.width << ", " << c.height << ")";
}

Cut cutOf(const std::optional<kp::UIImage>& image) { // nil is (0, 0, 0, 0)
    if (!image || !image->CGImage()) {
        return {0, 0, 0, 0};
    }
    const Rgba first = *pixelAt(*image, 0, 0);
    const auto u = [](int v) { return static_cast<size_t>(v); };
    return {u(first.r) | u(first.b & 15) << 8, u(first.g) | u(first.b >> 4) << 8, kp::CGImageGetWidth(image->CGImage()),
            kp::CGImageGetHeight(image->CGImage())};
}

// 40 x 20 (or the given size), blue, with a red 10 x 5 block in its top-left corner.
kp::CGImageRef markedBitmap(size_t w = 40, size_t h = 20, bool alpha = true) {
    const size_t n = alpha ? 4 : 3;
    std::vector<uint8_t> bytes(w * h * n);
    for (size_t i = 0; i < w * h; ++i) {
        const bool mark = i % w < 10 && i / w < 5;
        const uint8_t p[4] = {uint8_t(mark ? 255 : 0), 0, uint8_t(mark ? 0 : 255), 255};
        std::copy(p, p + n, &bytes[i * n]);
    }
    return alpha ? kptest::makeRGBA(w, h, bytes) : kptest::makeRGB(w, h, bytes);
}

bool isColour(const std::optional<kp::UIImage>& image, size_t x, size_t y, const Rgba& colour) {
    const auto p = pixelAt(*image, x, y);
    return p && kptest::near(*p, colour, 8);
}
const Rgba kRed{255, 0, 0, 255}, kBlue{0, 0, 255, 255};

kp::CGSize pixelSize(const std::optional<kp::UIImage>& image) {
    return {double(kp::CGImageGetWidth(image->CGImage())), double(kp::CGImageGetHeight(image->CGImage()))};
}

TEST(ImageGeometry, CropArithmetic) {
    const kp::UIImage small = coordinateImage(100, 100), square = coordinateImage(400, 400),
                      tall = coordinateImage(400, 800);
    const std::optional<kp::CGSize> none;
    struct Case {
        const kp::UIImage& image;
        kp::CGRect box;
        float padding;
        std::optional<kp::CGSize> view;
        Cut expected; // worked out apart from this code; (0, 0, 0, 0) is nil
    };
    const Case cases[] = {
        // Padded crops never start at column or row 0; too wide falls back to the bitmap less one.
        {small, CGRectMake(0, 0, 50, 50), 0, none, {1, 1, 50, 50}},
        {small, CGRectMake(10, 10, 100, 100), 20, none, {1, 1, 99, 99}},
        {small, CGRectMake(40, 40, 20, 20), 50, none, {35, 35, 30, 30}},
        {small, CGRectMake(40, 40, 20, 20), -30, none, {40, 40, 20, 20}}, // negative padding is none
        {small, CGRectMake(40.9, 30.2, 20.7, 10.99), 0, none, {40, 30, 20, 10}},
        {small, CGRectMake(90, 5, 20, 20), 0, none, {90, 5, 10, 20}},   // the 99 fallback clipped at the edge
        {small, CGRectMake(50, 50, 49, 10), 0, none, {50, 50, 49, 10}}, // ends one before the edge: kept
        {small, CGRectMake(50, 50, 50, 10), 0, none, {50, 50, 50, 10}}, // touches it: fallback, clipped
        {small, CGRectMake(-30, -5, 20, 20), 0, none, {1, 1, 20, 20}},
        {small, CGRectMake(NAN, 0, NAN, 10), 0, none, {0, 0, 0, 0}},
        {small, CGRectMake(500, 500, 20, 20), 10, none, {0, 0, 0, 0}},
        {small, CGRectMake(1e30, 1e30, 1e30, 1e30), 0, none, {0, 0, 0, 0}},
        {small, CGRectMake(0, 0, INFINITY, INFINITY), 1e30f, none, {1, 1, 99, 99}},
        // Every step in single precision: in double these would start at (7, 14), (7, 7), (16, 8), (46, 56).
        {square, CGRectMake(40.3, 47.3, 200, 200), 33.3f, none, {6, 13, 266, 266}},
        {square, CGRectMake(10.1, 10.1, 33.6, 33.6), 12.5f, none, {8, 8, 37, 37}},
        {square, CGRectMake(20.7, 10.1, 47.0, 21.0), 20.0f, none, {15, 7, 56, 25}},
        {square, CGRectMake(50, 60, 10, 10), 70.0f, none, {46, 56, 17, 17}},
        {square, CGRectMake(10.1, 20.7, 30.3, 40.9), 33.3f, none, {5, 13, 40, 54}},
        // From view coordinates (here x 4): about the box's centre, the padding unused, clipped at the far edge.
        {tall, CGRectMake(10, 20, 30, 40), 75, CGSizeMake(100, 200), {40, 80, 120, 160}},
        {tall, CGRectMake(0, 180, 30, 40), 0, CGSizeMake(100, 200), {0, 720, 120, 80}},
        {tall, CGRectMake(100, 100, 121, 10), 0, CGSizeMake(400, 800), {100, 100, 121, 10}},
        {tall, CGRectMake(-20, 0, 30, 40), 0, CGSizeMake(100, 200), {0, 0, 0, 0}},
        {tall, CGRectMake(10, 20, 30, 40), 0, CGSizeMake(0, 0), {0, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.box.origin.x << "," << c.box.origin.y << " " << c.box.size.width << "x"
                                        << c.box.size.height << " " << c.padding << "%");
        EXPECT_EQ(cutOf(c.view ? c.image.cropImageAtCoordinates(c.box, c.padding, *c.view)
                               : c.image.cropImageAtCoordinates(c.box, c.padding)),
                  c.expected);
    }
    const kp::UIImage wide = coordinateImage(100, 50);
    EXPECT_EQ(cutOf(wide.imageAtRect(CGRectMake(10, 20, 5, 6))), (Cut{10, 20, 5, 6}));
    EXPECT_EQ(cutOf(wide.imageAtRect(CGRectMake(90, 40, 50, 50))), (Cut{90, 40, 10, 10}));
    EXPECT_FALSE(wide.imageAtRect(CGRectMake(200, 0, 5, 5)));
    EXPECT_FALSE(kp::UIImage::imageWithoutBitmap(CGSizeMake(30, 20)).cropImageAtCoordinates(CGRectMake(0, 0, 9, 9), 5));
}

// Where the red corner block of the marked 40 x 20 picture lands. Drawing works in points, shows the orientation
// and turns clockwise; bitmap operations work on the stored pixels and turn counter-clockwise. Every result is a
// plain picture: scale 1, upright, as many points as pixels.
TEST(ImageGeometry, WhereTheCornerLandsForEveryOperation) {
    const kp::UIImage image = kp::UIImage::imageWithCGImage(markedBitmap());
    const kp::UIImage scaled = kp::UIImage::imageWithCGImage(image.CGImage(), 2.0, kp::UIImageOrientationUp);
    const kp::UIImage oriented = kp::UIImage::imageWithCGImage(image.CGImage(), 1.0, kp::UIImageOrientationRight);
    struct Case {
        const char* what;
        std::optional<kp::UIImage> result;
        kp::CGSize pixels;
        size_t redX, redY, blueX, blueY;
    };
    const Case cases[] = {
        {"bitmap 90", image.rotatedByAngle(90), CGSizeMake(20, 40), 2, 37, 17, 2},
        {"bitmap -90", image.rotatedByAngle(-90), CGSizeMake(20, 40), 17, 2, 2, 37},
        {"bitmap 180", image.rotatedByAngle(180), CGSizeMake(40, 20), 37, 17, 2, 2},
        {"drawing 90", image.imageRotatedByDegrees(90), CGSizeMake(20, 40), 17, 2, 2, 37},
        {"drawing -90", image.imageRotatedByDegrees(-90), CGSizeMake(20, 40), 2, 37, 17, 2},
        {"scaled resize", scaled.resizeToSize(CGSizeMake(20, 10)), CGSizeMake(20, 10), 2, 1, 7, 1},
        {"scaled scale", scaled.imageByScalingToSize(CGSizeMake(20, 10)), CGSizeMake(20, 10), 2, 1, 18, 8},
        {"scaled bitmap 0", scaled.rotatedByAngle(0), CGSizeMake(40, 20), 7, 1, 37, 17},
        {"scaled cut", scaled.imageAtRect(CGRectMake(0, 0, 20, 10)), CGSizeMake(20, 10), 7, 1, 15, 7},
        {"scaled crop", scaled.cropImageAtCoordinates(CGRectMake(0, 0, 20, 10), 0), CGSizeMake(20, 10), 7, 1, 7, 4},
        {"scaled view crop", scaled.cropImageAtCoordinates(CGRectMake(0, 0, 10, 5), 0, CGSizeMake(20, 10)),
         CGSizeMake(20, 10), 2, 2, 15, 7},
        {"fit", image.imageByScalingProportionallyToSize(CGSizeMake(30, 20)), CGSizeMake(30, 20), 5, 4, 27, 16},
        {"cover", image.imageByScalingProportionallyToMinimumSize(CGSizeMake(30, 20)), CGSizeMake(30, 20), 2, 1, 27,
         17},
        {"oriented resize", oriented.resizeToSize(CGSizeMake(20, 40)), CGSizeMake(20, 40), 17, 2, 2, 2},
        {"oriented scale", oriented.imageByScalingToSize(CGSizeMake(20, 40)), CGSizeMake(20, 40), 17, 2, 17, 37},
        {"oriented fit", oriented.imageByScalingProportionallyToSize(CGSizeMake(20, 40)), CGSizeMake(20, 40), 17, 2, 2,
         2},
        {"oriented drawing 0", oriented.imageRotatedByDegrees(0), CGSizeMake(20, 40), 2, 7, 2, 12},
        {"oriented crop", oriented.cropImageAtCoordinates(CGRectMake(0, 0, 20, 10), 0), CGSizeMake(20, 10), 0, 0, 10,
         0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(c.result);
        EXPECT_EQ(pixelSize(c.result), c.pixels);
        EXPECT_EQ(c.result->size(), c.pixels);
        EXPECT_EQ(c.result->imageOrientation(), kp::UIImageOrientationUp);
        EXPECT_TRUE(isColour(c.result, c.redX, c.redY, kRed));
        EXPECT_TRUE(isColour(c.result, c.blueX, c.blueY, kBlue));
    }
}

TEST(ImageGeometry, RotationCanvasesKeepTheSourceLayout) {
    // 30 degrees of 41 x 21: 41 cos 30 + 21 sin 30 = 46.0 by 38.7, rounded half up, in the source's layout.
    for (const bool alpha : {true, false}) {
        const kp::CGImageRef source = markedBitmap(41, 21, alpha);
        const auto turned = kp::UIImage::imageWithCGImage(source).rotatedByAngle(30);
        ASSERT_TRUE(turned);
        EXPECT_EQ(pixelSize(turned), CGSizeMake(46, 39));
        EXPECT_EQ(kp::CGImageGetBitmapInfo(turned->CGImage()), kp::CGImageGetBitmapInfo(source));
        EXPECT_EQ(kp::CGImageGetBytesPerRow(turned->CGImage()), 46 * kp::CGImageGetBitsPerPixel(source) / 8);
    }
    // Grey stays 8-bit grey with tight rows; drawn at 45 degrees the 141.42 canvas is 142 pixels, corners clear.
    const kp::UIImage grey = kptest::grayImage(100, 100, [](size_t, size_t) { return 200; });
    EXPECT_EQ(kp::CGImageGetBytesPerRow(grey.rotatedByAngle(45)->CGImage()), 141u);
    const auto diamond = grey.imageRotatedByDegrees(45);
    EXPECT_EQ(pixelSize(diamond), CGSizeMake(142, 142));
    EXPECT_EQ(pixelAt(*diamond, 2, 2)->a, 0);
    EXPECT_FALSE(grey.rotatedByAngle(NAN));
}

TEST(ImageGeometry, EmptyTargetsGiveNil) {
    const kp::UIImage image = coordinateImage(100, 100);
    kptest::LogCapture log;
    EXPECT_FALSE(image.resizeToSize(CGSizeMake(0, 10)) || image.imageByScalingToSize(CGSizeMake(0, 0)) ||
                 image.imageByScalingProportionallyToSize(CGSizeMake(-5, 10)) ||
                 image.imageByScalingProportionallyToMinimumSize(CGSizeMake(NAN, 10)));
    EXPECT_EQ(log.lines(), std::vector<std::string>(3, "could not scale image")); // resizing does not log
}

} // namespace
