// SPDX-License-Identifier: MIT
// Bringing images to the 640 x 480 focus frame: fitting, padding, cropping and the calculateFocus chain.
#include "KPImage/UIImage+ImagingHelper.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>

using namespace kp;
using kptest::grayImage;

namespace {
using Frame = std::unique_ptr<uint8_t, decltype(&std::free)>;
Frame frameOf(const UIImage& image) { return Frame(padImage(image), &std::free); }
uint8_t pattern(size_t x, size_t y) { return static_cast<uint8_t>((x * 7 + y * 13) % 251); }
} // namespace

TEST(FocusFrame, PadImageCopiesCropsAndCentres) {
    // 640 x 480 is copied unchanged.
    auto exact = frameOf(grayImage(640, 480, pattern));
    ASSERT_TRUE(exact);
    for (size_t i = 0; i < kFocusFrameBytes; i += 997) {
        ASSERT_EQ(exact.get()[i], pattern(i % 640, i / 640));
    }
    // 641 x 480: padX truncates to 0, so the rightmost column is dropped.
    auto wider = frameOf(grayImage(641, 480, pattern));
    EXPECT_EQ(wider.get()[639], pattern(639, 0));
    EXPECT_EQ(wider.get()[479 * 640 + 639], pattern(639, 479));
    // 1000 x 600 is centre-cropped: frame (x, y) = source (x + 180, y + 60).
    auto larger = frameOf(grayImage(1000, 600, pattern));
    EXPECT_EQ(larger.get()[0], pattern(180, 60));
    EXPECT_EQ(larger.get()[479 * 640 + 639], pattern(819, 539));
    // 100 x 51 is centred with mid grey around it; the odd extra row goes to the bottom.
    auto small = frameOf(grayImage(100, 51, pattern));
    EXPECT_EQ(small.get()[214 * 640 + 270], pattern(0, 0));    // padX 270, padY 214
    EXPECT_EQ(small.get()[213 * 640 + 270], 128);
    EXPECT_EQ(small.get()[265 * 640 + 270], 128);              // first row below: 214 + 51
    EXPECT_EQ(small.get()[264 * 640 + 369], pattern(99, 50));
    EXPECT_EQ(small.get()[264 * 640 + 370], 128);
    // No bitmap behind a non-empty size: nothing to read, null.
    EXPECT_EQ(padImage(UIImage::imageWithoutBitmap({10, 10})), nullptr);
}

TEST(FocusFrame, ScaleImageFitsGreyImagesUpOrDown) {
    const auto same = scaleImage(grayImage(640, 480, pattern));
    ASSERT_TRUE(same);
    auto exact = frameOf(*same);
    EXPECT_EQ(exact.get()[123 * 640 + 456], pattern(456, 123)); // identity drawing is exact
    // 320 x 200 is enlarged twice to 640 x 400, then padded with 40 grey rows above and below.
    const auto up = scaleImage(grayImage(320, 200, [](size_t, size_t) { return 60; }));
    ASSERT_TRUE(up && up->CGImage());
    EXPECT_EQ(up->CGImage()->width(), 640u);
    EXPECT_EQ(up->CGImage()->height(), 400u);
    auto padded = frameOf(*up);
    EXPECT_EQ(padded.get()[39 * 640 + 320], 128);
    EXPECT_EQ(padded.get()[40 * 640 + 320], 60);
    EXPECT_EQ(padded.get()[439 * 640 + 320], 60);
    EXPECT_EQ(padded.get()[440 * 640 + 320], 128);
    // 1920 x 1000 is reduced until the width fits: f = 1/3 -> 640 x 333.
    const auto down = scaleImage(grayImage(1920, 1000, [](size_t, size_t) { return 10; }));
    ASSERT_TRUE(down && down->CGImage());
    EXPECT_EQ(down->CGImage()->width(), 640u);
    EXPECT_EQ(down->CGImage()->height(), 333u);
    // The source's own layout is kept.
    const auto rgba = scaleImage(UIImage::imageWithCGImage(kptest::makeRGBA(64, 48, std::vector<uint8_t>(64 * 48 * 4, 255))));
    ASSERT_TRUE(rgba && rgba->CGImage());
    EXPECT_EQ(rgba->CGImage()->bitsPerPixel(), 32u);
    EXPECT_EQ(rgba->CGImage()->bitmapInfo(), kKPBitmapInfoRGBA);
    EXPECT_FALSE(scaleImage(UIImage()));
}

TEST(FocusFrame, CalculateFocusHalvesColourAndFitsGrey) {
    std::mt19937 rng(11);
    // A colour 1280 x 720 frame becomes 640 x 360 grey and is padded with 60 grey rows.
    std::vector<uint8_t> bgra(1280 * 720 * 4);
    for (auto& b : bgra) {
        b = static_cast<uint8_t>(rng() % 200);
    }
    for (size_t i = 3; i < bgra.size(); i += 4) {
        bgra[i] = 255;
    }
    const UIImage colour = UIImage::imageWithCGImage(kptest::makeBGRA(1280, 720, bgra));
    const auto half = colour.makeGrayScaleAndScale(2);
    ASSERT_TRUE(half && half->CGImage());
    EXPECT_EQ(half->CGImage()->width(), 640u);
    EXPECT_EQ(half->CGImage()->height(), 360u);
    auto frame = frameOf(*half);
    EXPECT_EQ(frame.get()[59 * 640], 128);
    EXPECT_EQ(frame.get()[60 * 640], half->CGImage()->bytes()[0]);
    const int32_t score = colour.calculateFocus();
    EXPECT_EQ(score, TwoPiFocusAssess(frame.get()));
    EXPECT_GT(score, 50); // random texture is sharp

    // A grey image goes through scaleImage instead; a uniform one scores 0.
    const UIImage grey = grayImage(320, 240, [&](size_t, size_t) { return 90; });
    EXPECT_EQ(grey.calculateFocus(), 0);
    const UIImage textured = grayImage(640, 480, [&](size_t x, size_t y) { return ((x / 2 + y / 2) % 2) ? 40 : 160; });
    auto direct = frameOf(*scaleImage(textured));
    EXPECT_EQ(textured.calculateFocus(), TwoPiFocusAssess(direct.get()));
    EXPECT_EQ(UIImage().calculateFocus(), 0);
}
