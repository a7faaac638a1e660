// SPDX-License-Identifier: MIT
// Cropping, rotating and scaling images: the crop arithmetic, canvas sizes, and where the picture lands.
#include "KPImage/UIImage+ImagingHelper.h"

#include "KPImage/KPImagingHelper.h"

#include "support/PixelProbe.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

using kp::CGRectMake;
using kp::CGSizeMake;
using kptest::pixelAt;
using kptest::Rgba;

// An RGBA image whose pixel (x, y) names its own position: R = x mod 256, G = y mod 256,
// B = the high bits of both. A cut's first pixel then tells where the cut started.
kp::UIImage coordinateImage(size_t width, size_t height) {
    std::vector<uint8_t> bytes(width * height * 4);
    for (size_t y = 0; y < height; ++y) {
        for (size_t x = 0; x < width; ++x) {
            uint8_t* p = &bytes[(y * width + x) * 4];
            p[0] = static_cast<uint8_t>(x & 255);
            p[1] = static_cast<uint8_t>(y & 255);
            p[2] = static_cast<uint8_t>((x >> 8) | ((y >> 8) << 4));
            p[3] = 255;
        }
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

Cut cutOf(const std::optional<kp::UIImage>& image) {
    if (!image || !image->CGImage()) {
        return {0, 0, 0, 0};
    }
    const Rgba first = *pixelAt(*image, 0, 0);
    return {static_cast<size_t>(first.r) | (static_cast<size_t>(first.b & 15) << 8),
            static_cast<size_t>(first.g) | (static_cast<size_t>(first.b >> 4) << 8), kp::CGImageGetWidth(image->CGImage()),
            kp::CGImageGetHeight(image->CGImage())};
}

// An asymmetric picture: 40 x 20, blue, with a red 10 x 5 block in its top-left corner.
kp::UIImage markedImage() {
    std::vector<uint8_t> bytes(40 * 20 * 4);
    for (size_t y = 0; y < 20; ++y) {
        for (size_t x = 0; x < 40; ++x) {
            uint8_t* p = &bytes[(y * 40 + x) * 4];
            const bool mark = x < 10 && y < 5;
            p[0] = mark ? 255 : 0;
            p[1] = 0;
            p[2] = mark ? 0 : 255;
            p[3] = 255;
        }
    }
    return kp::UIImage::imageWithCGImage(kptest::makeRGBA(40, 20, bytes));
}

bool isRed(const std::optional<kp::UIImage>& image, size_t x, size_t y) {
    const auto p = pixelAt(*image, x, y);
    return p && kptest::near(*p, {255, 0, 0, 255}, 8);
}
bool isBlue(const std::optional<kp::UIImage>& image, size_t x, size_t y) {
    const auto p = pixelAt(*image, x, y);
    return p && kptest::near(*p, {0, 0, 255, 255}, 8);
}
bool isTransparent(const std::optional<kp::UIImage>& image, size_t x, size_t y) {
    const auto p = pixelAt(*image, x, y);
    return p && p->a == 0;
}

kp::CGSize pixelSize(const std::optional<kp::UIImage>& image) {
    return {static_cast<double>(kp::CGImageGetWidth(image->CGImage())),
            static_cast<double>(kp::CGImageGetHeight(image->CGImage()))};
}

TEST(ImageGeometry, AngleConversions) {
    EXPECT_EQ(DegreesToRadians(180.0), 3.141592653589793);
    EXPECT_EQ(DegreesToRadians(90.0), 90.0 * 3.141592653589793 / 180.0);
    EXPECT_EQ(RadiansToDegrees(3.141592653589793), 180.0);
    EXPECT_EQ(RadiansToDegrees(-1.0), -180.0 / 3.141592653589793);
    EXPECT_EQ(DegreesToRadians(0.0), 0.0);
}

TEST(ImageGeometry, CropWithPaddingArithmetic) {
    const kp::UIImage image = coordinateImage(100, 100);
    // Never starts at column or row 0.
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(0, 0, 50, 50), 0)), (Cut{1, 1, 50, 50}));
    // 120 x 120 padded box from (0, 0), raised to (1, 1); too wide falls back to the bitmap less one.
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(10, 10, 100, 100), 20)), (Cut{1, 1, 99, 99}));
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(40, 40, 20, 20), 50)), (Cut{35, 35, 30, 30}));
    // Negative padding is no padding (and does not raise the origin).
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(40, 40, 20, 20), -30)), (Cut{40, 40, 20, 20}));
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(40.9, 30.2, 20.7, 10.99), 0)), (Cut{40, 30, 20, 10}));
    // The fallback is 99 wide, not the room left; the cut then clips it at the edge.
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(90, 5, 20, 20), 0)), (Cut{90, 5, 10, 20}));
    // Ending one column before the edge keeps the width; exactly touching it already falls back (X + W is not less
    // than the width).
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(50, 50, 49, 10), 0)), (Cut{50, 50, 49, 10}));
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(50, 50, 50, 10), 0)), (Cut{50, 50, 50, 10}));
    // A negative origin truncates to 0 and becomes 1.
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(-30, -5, 20, 20), 0)), (Cut{1, 1, 20, 20}));
    // Garbage boxes give nil, not a crash.
    EXPECT_FALSE(image.cropImageAtCoordinates(CGRectMake(NAN, 0, NAN, 10), 0));
    EXPECT_FALSE(image.cropImageAtCoordinates(CGRectMake(500, 500, 20, 20), 10));
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(1e30, 1e30, 1e30, 1e30), 0)), (Cut{0, 0, 0, 0}));
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(0, 0, INFINITY, INFINITY), 1e30f)),
              (Cut{1, 1, 99, 99}));
}

TEST(ImageGeometry, PaddedCropRoundsEveryStepToSinglePrecision) {
    const kp::UIImage image = coordinateImage(400, 400);
    struct Case {
        kp::CGRect box;
        float padding;
        Cut expected; // worked out apart from this code
    };
    const Case cases[] = {
        // With p = 0.333 in double instead of 0.333f the cut would start at (7, 14).
        {CGRectMake(40.3, 47.3, 200, 200), 33.3f, {6, 13, 266, 266}},
        // With p in float but W' and x' left in double it would start at (7, 7).
        {CGRectMake(10.1, 10.1, 33.6, 33.6), 12.5f, {8, 8, 37, 37}},
        // Everything in double: (16, 8).
        {CGRectMake(20.7, 10.1, 47.0, 21.0), 20.0f, {15, 7, 56, 25}},
        // 0.7f is below 0.7: W' = 16.99999988 in double, 17 once rounded to float.
        {CGRectMake(50, 60, 10, 10), 70.0f, {46, 56, 17, 17}},
        {CGRectMake(10.1, 20.7, 30.3, 40.9), 33.3f, {5, 13, 40, 54}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.box.origin.x << "," << c.box.origin.y << " " << c.box.size.width
                                        << "x" << c.box.size.height << " " << c.padding << "%");
        EXPECT_EQ(cutOf(image.cropImageAtCoordinates(c.box, c.padding)), c.expected);
    }
}

TEST(ImageGeometry, CropFromViewCoordinates) {
    const kp::UIImage image = coordinateImage(400, 800);
    // sx = sy = 4: 120 x 160 about the box's centre (100, 160).
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(10, 20, 30, 40), 75, CGSizeMake(100, 200))),
              (Cut{40, 80, 120, 160}));
    // The padding plays no part.
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(10, 20, 30, 40), 0, CGSizeMake(100, 200))),
              (Cut{40, 80, 120, 160}));
    // Starts at column 0 when the box starts there (no raising here), and is clipped at the far edge.
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(0, 180, 30, 40), 0, CGSizeMake(100, 200))),
              (Cut{0, 720, 120, 80}));
    // Odd sizes halve by a right shift: Wc = 121 -> 60.
    EXPECT_EQ(cutOf(image.cropImageAtCoordinates(CGRectMake(100, 100, 121, 10), 0, CGSizeMake(400, 800))),
              (Cut{100, 100, 121, 10}));
    // A centre left of half the width wraps to a far origin: nothing is left to cut.
    EXPECT_FALSE(image.cropImageAtCoordinates(CGRectMake(-20, 0, 30, 40), 0, CGSizeMake(100, 200)));
    // A zero view gives infinite factors: nil, no crash.
    EXPECT_FALSE(image.cropImageAtCoordinates(CGRectMake(10, 20, 30, 40), 0, CGSizeMake(0, 0)));
}

TEST(ImageGeometry, ImageAtRectCutsAndClips) {
    const kp::UIImage image = coordinateImage(100, 50);
    EXPECT_EQ(cutOf(image.imageAtRect(CGRectMake(10, 20, 5, 6))), (Cut{10, 20, 5, 6}));
    EXPECT_EQ(cutOf(image.imageAtRect(CGRectMake(90, 40, 50, 50))), (Cut{90, 40, 10, 10}));
    EXPECT_FALSE(image.imageAtRect(CGRectMake(200, 0, 5, 5)));
    const auto cut = image.imageAtRect(CGRectMake(0, 0, 4, 4));
    ASSERT_TRUE(cut);
    EXPECT_EQ(cut->scale(), 1.0);
    EXPECT_EQ(cut->imageOrientation(), kp::UIImageOrientationUp);
}

TEST(ImageGeometry, MissingBitmapIsLoggedWithMethodAndLine) {
    const kp::UIImage none = kp::UIImage::imageWithoutBitmap(CGSizeMake(30, 20));
    const std::string suffix = " *** error: image must be backed by a CGImage: " + none.description();
    kptest::LogCapture log;
    EXPECT_FALSE(none.cropImageAtCoordinates(CGRectMake(0, 0, 10, 10), 5));
    EXPECT_FALSE(none.cropImageAtCoordinates(CGRectMake(0, 0, 10, 10), 5, CGSizeMake(10, 10)));
    EXPECT_FALSE(none.rotatedByAngle(90));
    EXPECT_FALSE(none.imageAtRect(CGRectMake(0, 0, 10, 10)));
    const std::vector<std::string> lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "-[UIImage(ImagingHelper) cropImageAtCoordinates:withPaddingPercent:] [Line 801]" + suffix);
    EXPECT_EQ(lines[1],
              "-[UIImage(ImagingHelper) cropImageAtCoordinates:withPaddingPercent:viewSize:] [Line 860]" + suffix);
    EXPECT_EQ(lines[2], "-[UIImage(ImagingHelper) rotatedByAngle:] [Line 942]" + suffix);
}

TEST(ImageGeometry, BitmapRotationCanvasAndLayout) {
    const kp::UIImage wide = kp::UIImage::imageWithCGImage(kptest::makeBGRA(640, 480, std::vector<uint8_t>(640 * 480 * 4)));
    EXPECT_EQ(pixelSize(wide.rotatedByAngle(90)), CGSizeMake(480, 640));
    EXPECT_EQ(pixelSize(wide.rotatedByAngle(0)), CGSizeMake(640, 480));
    EXPECT_EQ(pixelSize(wide.rotatedByAngle(-180)), CGSizeMake(640, 480));
    const kp::UIImage square = kptest::grayImage(100, 100, [](size_t, size_t) { return 200; });
    const auto turned = square.rotatedByAngle(45);
    ASSERT_TRUE(turned);
    EXPECT_EQ(pixelSize(turned), CGSizeMake(141, 141));
    // The source's layout is kept: grey stays 8-bit grey with tight rows.
    EXPECT_TRUE(turned->isGrayScale());
    EXPECT_EQ(kp::CGImageGetBitsPerPixel(turned->CGImage()), 8u);
    EXPECT_EQ(kp::CGImageGetBytesPerRow(turned->CGImage()), 141u);
    EXPECT_EQ(pixelAt(*turned, 70, 70)->r, 200);
    EXPECT_EQ(pixelAt(*turned, 1, 1)->r, 0); // corners outside the turned square stay unpainted
    EXPECT_EQ(kp::CGImageGetBitmapInfo(wide.rotatedByAngle(30)->CGImage()), kp::kKPBitmapInfoBGRA);
    // Non-finite angles have no canvas.
    EXPECT_FALSE(square.rotatedByAngle(NAN));
    EXPECT_FALSE(square.rotatedByAngle(INFINITY));
}

// Where the red corner block of markedImage (40 x 20 pixels, red 10 x 5 top left, blue elsewhere) lands. Drawing
// works in points and shows the orientation, turning clockwise; bitmap operations work in pixels on the stored
// bitmap, turning counter-clockwise. Every result is a plain picture: scale 1, upright, as many points as pixels.
TEST(ImageGeometry, WhereTheCornerLandsForEveryOperation) {
    const kp::UIImage image = markedImage();
    // At scale 2: 20 x 10 points, the red block 5 x 2.5 points.
    const kp::UIImage scaled = kp::UIImage::imageWithCGImage(image.CGImage(), 2.0, kp::UIImageOrientationUp);
    // "Right" shows the stored picture 20 x 40, turned clockwise: red top right.
    const kp::UIImage oriented = kp::UIImage::imageWithCGImage(image.CGImage(), 1.0, kp::UIImageOrientationRight);
    ASSERT_EQ(scaled.size(), CGSizeMake(20, 10));
    ASSERT_EQ(oriented.size(), CGSizeMake(20, 40));
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
        {"bitmap 360", image.rotatedByAngle(360), CGSizeMake(40, 20), 2, 2, 37, 17},
        {"drawing 90", image.imageRotatedByDegrees(90), CGSizeMake(20, 40), 17, 2, 2, 37},
        {"drawing -90", image.imageRotatedByDegrees(-90), CGSizeMake(20, 40), 2, 37, 17, 2},
        {"drawing 180", image.imageRotatedByDegrees(180), CGSizeMake(40, 20), 37, 17, 2, 2},
        {"drawing pi/2", image.imageRotatedByRadians(3.141592653589793 / 2), CGSizeMake(20, 40), 17, 2, 2, 37},
        {"scaled resize", scaled.resizeToSize(CGSizeMake(20, 10)), CGSizeMake(20, 10), 2, 1, 7, 1},
        {"scaled scale", scaled.imageByScalingToSize(CGSizeMake(20, 10)), CGSizeMake(20, 10), 2, 1, 18, 8},
        {"scaled drawing 0", scaled.imageRotatedByDegrees(0), CGSizeMake(20, 10), 2, 1, 7, 1},
        {"scaled drawing 90", scaled.imageRotatedByDegrees(90), CGSizeMake(10, 20), 8, 2, 8, 7},
        {"scaled bitmap 0", scaled.rotatedByAngle(0), CGSizeMake(40, 20), 7, 1, 37, 17},
        {"scaled bitmap 90", scaled.rotatedByAngle(90), CGSizeMake(20, 40), 2, 37, 17, 2},
        {"scaled cut", scaled.imageAtRect(CGRectMake(0, 0, 20, 10)), CGSizeMake(20, 10), 7, 1, 15, 7},
        // The padded crop starts at (1, 1) of the bitmap: red up to x 8, y 3.
        {"scaled crop", scaled.cropImageAtCoordinates(CGRectMake(0, 0, 20, 10), 0), CGSizeMake(20, 10), 7, 1, 7, 4},
        {"scaled view crop", scaled.cropImageAtCoordinates(CGRectMake(0, 0, 10, 5), 0, CGSizeMake(20, 10)),
         CGSizeMake(20, 10), 2, 2, 15, 7},
        {"oriented resize", oriented.resizeToSize(CGSizeMake(20, 40)), CGSizeMake(20, 40), 17, 2, 2, 2},
        {"oriented scale", oriented.imageByScalingToSize(CGSizeMake(20, 40)), CGSizeMake(20, 40), 17, 2, 17, 37},
        {"oriented fit", oriented.imageByScalingProportionallyToSize(CGSizeMake(20, 40)), CGSizeMake(20, 40), 17, 2,
         2, 2},
        // Drawing rotation draws the stored bitmap squeezed into the size in points: red top left, 5 x 10.
        {"oriented drawing 0", oriented.imageRotatedByDegrees(0), CGSizeMake(20, 40), 2, 7, 2, 12},
        {"oriented bitmap 0", oriented.rotatedByAngle(0), CGSizeMake(40, 20), 2, 2, 37, 17},
        {"oriented bitmap 90", oriented.rotatedByAngle(90), CGSizeMake(20, 40), 2, 37, 17, 2},
        {"oriented crop", oriented.cropImageAtCoordinates(CGRectMake(0, 0, 20, 10), 0), CGSizeMake(20, 10), 0, 0, 10,
         0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(c.result);
        EXPECT_EQ(pixelSize(c.result), c.pixels);
        EXPECT_EQ(c.result->size(), c.pixels);
        EXPECT_EQ(c.result->scale(), 1.0);
        EXPECT_EQ(c.result->imageOrientation(), kp::UIImageOrientationUp);
        EXPECT_TRUE(isRed(c.result, c.redX, c.redY));
        EXPECT_TRUE(isBlue(c.result, c.blueX, c.blueY));
    }

    // 45 degrees of a 100 x 100 picture: a 141.42 canvas (142 pixels) with transparent corners.
    const auto diamond = kptest::grayImage(100, 100, [](size_t, size_t) { return 255; }).imageRotatedByDegrees(45);
    ASSERT_TRUE(diamond);
    EXPECT_EQ(pixelSize(diamond), CGSizeMake(142, 142));
    EXPECT_TRUE(isTransparent(diamond, 2, 2));
    EXPECT_TRUE(kptest::near(*pixelAt(*diamond, 71, 71), {255, 255, 255, 255}, 2));
}

TEST(ImageGeometry, BitmapRotationOfOddSizesKeepsEveryLayout) {
    // 41 x 21, blue with a red 10 x 5 block top left, as straight RGBA (alpha 255) and as 24-bit RGB.
    std::vector<uint8_t> rgba(41 * 21 * 4), rgb(41 * 21 * 3);
    for (size_t i = 0; i < 41 * 21; ++i) {
        const bool mark = i % 41 < 10 && i / 41 < 5;
        const uint8_t px[4] = {static_cast<uint8_t>(mark ? 255 : 0), 0, static_cast<uint8_t>(mark ? 0 : 255), 255};
        std::copy(px, px + 4, &rgba[i * 4]);
        std::copy(px, px + 3, &rgb[i * 3]);
    }
    for (const auto& source : {kptest::makeRGBA(41, 21, rgba), kptest::makeRGB(41, 21, rgb)}) {
        const bool alpha = kp::CGImageGetBitsPerPixel(source) == 32;
        SCOPED_TRACE(alpha ? "RGBA" : "RGB");
        const kp::UIImage image = kp::UIImage::imageWithCGImage(source);
        // 30 degrees: 41 cos 30 + 21 sin 30 = 46.0 and 41 sin 30 + 21 cos 30 = 38.7, rounded half up; the layout
        // is the source's, with tight rows.
        const auto turned = image.rotatedByAngle(30);
        ASSERT_TRUE(turned);
        const kp::CGImageRef& cg = turned->CGImage();
        EXPECT_EQ(pixelSize(turned), CGSizeMake(46, 39));
        EXPECT_EQ(kp::CGImageGetBitsPerPixel(cg), kp::CGImageGetBitsPerPixel(source));
        EXPECT_EQ(kp::CGImageGetBitmapInfo(cg), kp::CGImageGetBitmapInfo(source));
        EXPECT_EQ(kp::CGImageGetBytesPerRow(cg), 46 * kp::CGImageGetBitsPerPixel(source) / 8);

        // A quarter turn: 21 x 41. The centre sits at (floor(21 / 2), 41 - floor(41 / 2)) = (10, 21) from the
        // top left, half a pixel off the canvas centre: the picture spans x -0.5..20.5 and y 0.5..41.5, so the
        // last column and the first row are half covered (half transparent, or half dark without alpha).
        const auto quarter = image.rotatedByAngle(90);
        ASSERT_EQ(pixelSize(quarter), CGSizeMake(21, 41));
        EXPECT_TRUE(isRed(quarter, 1, 36)); // counter-clockwise: the red block goes bottom left
        EXPECT_TRUE(isRed(quarter, 3, 40));
        EXPECT_TRUE(isBlue(quarter, 5, 20));
        EXPECT_TRUE(isBlue(quarter, 0, 1));
        for (const auto& [x, y] : {std::pair{size_t{20}, size_t{20}}, std::pair{size_t{10}, size_t{0}}}) {
            const Rgba half = *pixelAt(*quarter, x, y);
            if (alpha) {
                EXPECT_NEAR(half.a, 128, 8) << x << "," << y;
                EXPECT_NEAR(half.b, 255, 8) << x << "," << y; // straight alpha: the colour itself is kept
            } else {
                EXPECT_EQ(half.a, 255);
                EXPECT_NEAR(half.b, 128, 8) << x << "," << y;
            }
        }

        // A half turn: 41 x 21, the picture at x -0.5..40.5, y 0.5..21.5.
        const auto half = image.rotatedByAngle(180);
        ASSERT_EQ(pixelSize(half), CGSizeMake(41, 21));
        EXPECT_TRUE(isRed(half, 39, 19));
        EXPECT_TRUE(isBlue(half, 0, 20));
        EXPECT_EQ(pixelAt(*half, 0, 10)->a, 255);
        EXPECT_NEAR(alpha ? pixelAt(*half, 40, 10)->a : pixelAt(*half, 40, 10)->b, 128, 8);
        EXPECT_NEAR(alpha ? pixelAt(*half, 20, 0)->a : pixelAt(*half, 20, 0)->b, 128, 8);
    }
}

// 200 x 100: four 50-column bands red, green, blue, white.
kp::UIImage bandedImage(size_t width = 200, size_t height = 100) {
    std::vector<uint8_t> bytes(width * height * 4);
    const uint8_t colours[4][3] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 255}};
    for (size_t y = 0; y < height; ++y) {
        for (size_t x = 0; x < width; ++x) {
            const uint8_t* c = colours[x * 4 / width];
            uint8_t* p = &bytes[(y * width + x) * 4];
            p[0] = c[0];
            p[1] = c[1];
            p[2] = c[2];
            p[3] = 255;
        }
    }
    return kp::UIImage::imageWithCGImage(kptest::makeRGBA(width, height, bytes));
}

TEST(ImageGeometry, ProportionalScalingFitsAndCovers) {
    const kp::UIImage wide = bandedImage(), tall = bandedImage(100, 200);
    const auto fit = wide.imageByScalingProportionallyToSize(CGSizeMake(100, 100));       // at (0, 25, 100, 50)
    const auto cover = wide.imageByScalingProportionallyToMinimumSize(CGSizeMake(100, 100)); // at (-50, 0, 200, 100)
    const auto tallFit = tall.imageByScalingProportionallyToSize(CGSizeMake(100, 100));      // at (25, 0, 50, 100)
    const auto tallCover = tall.imageByScalingProportionallyToMinimumSize(CGSizeMake(100, 100)); // (0, -50, 100, 200)
    const auto same = wide.imageByScalingProportionallyToSize(CGSizeMake(200, 100));
    const Rgba red{255, 0, 0, 255}, green{0, 255, 0, 255}, blue{0, 0, 255, 255}, white{255, 255, 255, 255}, clear{};
    struct Probe {
        const std::optional<kp::UIImage>& image;
        size_t x, y;
        Rgba expected;
        int tolerance;
    };
    const Probe probes[] = {
        {fit, 50, 10, clear, 0},     {fit, 50, 90, clear, 0},         {fit, 10, 50, red, 4},
        {fit, 35, 30, green, 4},     {fit, 90, 70, white, 4},         {cover, 1, 1, green, 4},
        {cover, 48, 98, green, 4},   {cover, 52, 50, blue, 4},        {cover, 98, 1, blue, 4},
        {tallFit, 10, 50, clear, 0}, {tallFit, 90, 50, clear, 0},     {tallFit, 30, 50, red, 4},
        {tallFit, 70, 50, white, 4}, {tallCover, 10, 50, red, 4},     {tallCover, 10, 1, red, 4},
        {tallCover, 90, 98, white, 4}, {same, 0, 0, red, 0},          {same, 199, 99, white, 0},
    };
    for (const Probe& p : probes) {
        ASSERT_TRUE(p.image);
        const Rgba at = *pixelAt(*p.image, p.x, p.y);
        EXPECT_TRUE(p.expected.a == 0 ? at.a == 0 : kptest::near(at, p.expected, p.tolerance)) << p.x << "," << p.y;
    }
    EXPECT_EQ(pixelSize(fit), CGSizeMake(100, 100));
    EXPECT_EQ(pixelSize(cover), CGSizeMake(100, 100));
}

TEST(ImageGeometry, StretchingAndEmptyTargets) {
    const kp::UIImage image = bandedImage();
    const auto resized = image.resizeToSize(CGSizeMake(37, 23));
    ASSERT_TRUE(resized);
    EXPECT_EQ(pixelSize(resized), CGSizeMake(37, 23));
    const auto stretched = image.imageByScalingToSize(CGSizeMake(400, 10));
    ASSERT_TRUE(stretched);
    EXPECT_EQ(pixelSize(stretched), CGSizeMake(400, 10));
    EXPECT_TRUE(kptest::near(*pixelAt(*stretched, 50, 5), {255, 0, 0, 255}, 4));
    EXPECT_TRUE(kptest::near(*pixelAt(*stretched, 350, 5), {255, 255, 255, 255}, 4));

    kptest::LogCapture log;
    EXPECT_FALSE(image.resizeToSize(CGSizeMake(0, 10)));
    EXPECT_TRUE(log.lines().empty()); // resizing does not log
    EXPECT_FALSE(image.imageByScalingToSize(CGSizeMake(0, 0)));
    EXPECT_FALSE(image.imageByScalingProportionallyToSize(CGSizeMake(-5, 10)));
    EXPECT_FALSE(image.imageByScalingProportionallyToMinimumSize(CGSizeMake(NAN, 10)));
    EXPECT_EQ(log.lines(), std::vector<std::string>(3, "could not scale image"));

    // A picture without area still gives a (transparent) canvas of the target size.
    const auto fromNothing =
        kp::UIImage::imageWithoutBitmap(CGSizeMake(0, 0)).imageByScalingProportionallyToSize(CGSizeMake(8, 8));
    ASSERT_TRUE(fromNothing);
    EXPECT_TRUE(isTransparent(fromNothing, 4, 4));
}

} // namespace

TEST(ImageGeometry, PicturesTooWideToDrawGiveNil) {
    const kp::UIImage wide =
        kp::UIImage::imageWithCGImage(kptest::makeBGRA(40000, 2, std::vector<uint8_t>(40000 * 2 * 4, 255)));
    kptest::LogCapture log;
    EXPECT_FALSE(wide.resizeToSize(CGSizeMake(100, 2)));
    EXPECT_FALSE(wide.imageByScalingToSize(CGSizeMake(100, 2)));
    EXPECT_FALSE(wide.imageByScalingProportionallyToSize(CGSizeMake(100, 100)));
    EXPECT_FALSE(wide.imageRotatedByDegrees(90));
    EXPECT_FALSE(wide.rotatedByAngle(90));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"could not scale image", "could not scale image"}));
    // The bitmap operations that need no drawing still work.
    const auto cut = wide.imageAtRect(CGRectMake(39990, 0, 10, 2));
    ASSERT_TRUE(cut);
    EXPECT_EQ(kp::CGImageGetWidth(cut->CGImage()), 10u);
}

TEST(ImageGeometry, RunningOutOfMemoryGivesNil) {
    const kp::UIImage big = coordinateImage(1024, 1024); // 4 MiB of RGBA
    const kp::UIImage wideGrey = kptest::grayImage(4096, 1024, [](size_t x, size_t) { return x; });
    const std::vector<uint8_t> greyBytes(1024 * 1024, 50);
    kptest::LogCapture log;
    kptest::ScopedAllocationLimit memory(512u << 10);
    EXPECT_FALSE(big.cropImageAtCoordinates(CGRectMake(0, 0, 900, 900), 10.0f));
    EXPECT_FALSE(big.cropImageAtCoordinates(CGRectMake(0, 0, 100, 100), 0.0f, CGSizeMake(100, 100)));
    EXPECT_FALSE(big.imageAtRect(CGRectMake(0, 0, 1024, 1024)));
    EXPECT_FALSE(big.rotatedByAngle(30));
    EXPECT_FALSE(big.resizeToSize(CGSizeMake(1000, 1000)));
    EXPECT_FALSE(big.imageByScalingToSize(CGSizeMake(1000, 1000)));
    EXPECT_FALSE(big.imageRotatedByDegrees(90));
    EXPECT_FALSE(big.makeGrayScale());
    EXPECT_FALSE(wideGrey.makeGrayScaleAndScale(2)); // the reduction's own buffer
    EXPECT_FALSE(kp::KPImagingHelper::makeUIImageFromGrayScaleData(greyBytes, 1024, 1024, 1024));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"could not scale image"});
    // Small results are still made.
    EXPECT_TRUE(big.imageAtRect(CGRectMake(0, 0, 64, 64)));
    EXPECT_TRUE(big.resizeToSize(CGSizeMake(64, 64)));
    EXPECT_GE(memory.refusals(), 10u);
}
