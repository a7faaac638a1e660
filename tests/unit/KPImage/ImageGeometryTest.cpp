// SPDX-License-Identifier: MIT
// Cropping, rotating and scaling images: the crop arithmetic, canvas sizes, and where the picture lands.
#include "KPImage/UIImage+ImagingHelper.h"

#include "KPImage/KPImagingHelper.h"

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
    // Exactly touching the right edge already falls back (X + W is not less than the width).
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

TEST(ImageGeometry, BitmapRotationTurnsCounterClockwise) {
    const kp::UIImage image = markedImage();
    // The red corner block starts at the top left.
    const auto ccw = image.rotatedByAngle(90);
    ASSERT_TRUE(ccw);
    EXPECT_EQ(pixelSize(ccw), CGSizeMake(20, 40));
    EXPECT_TRUE(isRed(ccw, 2, 37)); // counter-clockwise: top left goes to bottom left
    EXPECT_TRUE(isBlue(ccw, 17, 2));
    EXPECT_TRUE(isBlue(ccw, 7, 37));

    const auto cw = image.rotatedByAngle(-90);
    ASSERT_TRUE(cw);
    EXPECT_TRUE(isRed(cw, 17, 2)); // clockwise: top left goes to top right
    EXPECT_TRUE(isBlue(cw, 2, 37));

    const auto half = image.rotatedByAngle(180);
    ASSERT_TRUE(half);
    EXPECT_EQ(pixelSize(half), CGSizeMake(40, 20));
    EXPECT_TRUE(isRed(half, 37, 17));
    EXPECT_TRUE(isBlue(half, 2, 2));

    const auto same = image.rotatedByAngle(360);
    ASSERT_TRUE(same);
    EXPECT_TRUE(isRed(same, 2, 2));
    EXPECT_TRUE(isBlue(same, 37, 17));
}

TEST(ImageGeometry, DrawingRotationTurnsClockwise) {
    const kp::UIImage image = markedImage();
    const auto cw = image.imageRotatedByDegrees(90);
    ASSERT_TRUE(cw);
    // A quarter turn swaps the sides exactly (no extra column from cosine noise).
    EXPECT_EQ(pixelSize(cw), CGSizeMake(20, 40));
    EXPECT_TRUE(isRed(cw, 17, 2)); // clockwise: top left goes to top right
    EXPECT_TRUE(isBlue(cw, 2, 37));

    const auto ccw = image.imageRotatedByDegrees(-90);
    ASSERT_TRUE(ccw);
    EXPECT_TRUE(isRed(ccw, 2, 37));
    EXPECT_TRUE(isBlue(ccw, 17, 2));

    const auto half = image.imageRotatedByDegrees(180);
    ASSERT_TRUE(half);
    EXPECT_EQ(pixelSize(half), CGSizeMake(40, 20));
    EXPECT_TRUE(isRed(half, 37, 17));

    const auto radians = image.imageRotatedByRadians(3.141592653589793 / 2);
    ASSERT_TRUE(radians);
    EXPECT_EQ(pixelSize(radians), CGSizeMake(20, 40));
    EXPECT_TRUE(isRed(radians, 17, 2));

    // 45 degrees of a 100 x 100 picture: a 141.42 canvas (142 pixels) with transparent corners.
    const auto diamond = kptest::grayImage(100, 100, [](size_t, size_t) { return 255; }).imageRotatedByDegrees(45);
    ASSERT_TRUE(diamond);
    EXPECT_EQ(pixelSize(diamond), CGSizeMake(142, 142));
    EXPECT_TRUE(isTransparent(diamond, 2, 2));
    EXPECT_TRUE(kptest::near(*pixelAt(*diamond, 71, 71), {255, 255, 255, 255}, 2));
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
    const kp::UIImage image = bandedImage();
    const Rgba red{255, 0, 0, 255}, green{0, 255, 0, 255}, blue{0, 0, 255, 255}, white{255, 255, 255, 255};

    // Fit: f = 0.5, drawn at (0, 25, 100, 50); the margins stay transparent.
    const auto fit = image.imageByScalingProportionallyToSize(CGSizeMake(100, 100));
    ASSERT_TRUE(fit);
    EXPECT_EQ(pixelSize(fit), CGSizeMake(100, 100));
    EXPECT_TRUE(isTransparent(fit, 50, 10));
    EXPECT_TRUE(isTransparent(fit, 50, 90));
    EXPECT_TRUE(kptest::near(*pixelAt(*fit, 10, 50), red, 4));
    EXPECT_TRUE(kptest::near(*pixelAt(*fit, 35, 30), green, 4));
    EXPECT_TRUE(kptest::near(*pixelAt(*fit, 90, 70), white, 4));

    // Cover: f = 1, drawn at (-50, 0, 200, 100): the middle bands fill the canvas.
    const auto cover = image.imageByScalingProportionallyToMinimumSize(CGSizeMake(100, 100));
    ASSERT_TRUE(cover);
    EXPECT_EQ(pixelSize(cover), CGSizeMake(100, 100));
    EXPECT_TRUE(kptest::near(*pixelAt(*cover, 1, 1), green, 4));
    EXPECT_TRUE(kptest::near(*pixelAt(*cover, 48, 98), green, 4));
    EXPECT_TRUE(kptest::near(*pixelAt(*cover, 52, 50), blue, 4));
    EXPECT_TRUE(kptest::near(*pixelAt(*cover, 98, 1), blue, 4));

    // A tall picture fits centred horizontally: 100 x 200 to (100, 100) is drawn at (25, 0, 50, 100).
    const auto tallFit = bandedImage(100, 200).imageByScalingProportionallyToSize(CGSizeMake(100, 100));
    ASSERT_TRUE(tallFit);
    EXPECT_TRUE(isTransparent(tallFit, 10, 50));
    EXPECT_TRUE(isTransparent(tallFit, 90, 50));
    EXPECT_TRUE(kptest::near(*pixelAt(*tallFit, 30, 50), red, 4));
    EXPECT_TRUE(kptest::near(*pixelAt(*tallFit, 70, 50), white, 4));
    // ...and covers cut top and bottom: drawn at (0, -50, 100, 200).
    const auto tallCover = bandedImage(100, 200).imageByScalingProportionallyToMinimumSize(CGSizeMake(100, 100));
    ASSERT_TRUE(tallCover);
    EXPECT_TRUE(kptest::near(*pixelAt(*tallCover, 10, 50), red, 4));
    EXPECT_EQ(pixelAt(*tallCover, 50, 1)->a, 255);
    EXPECT_EQ(pixelAt(*tallCover, 50, 98)->a, 255);

    // Equal sizes draw the picture as it is.
    const auto same = image.imageByScalingProportionallyToSize(CGSizeMake(200, 100));
    ASSERT_TRUE(same);
    EXPECT_TRUE(kptest::near(*pixelAt(*same, 0, 0), red, 0));
    EXPECT_TRUE(kptest::near(*pixelAt(*same, 199, 99), white, 0));
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
