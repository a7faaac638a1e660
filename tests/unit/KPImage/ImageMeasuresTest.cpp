// SPDX-License-Identifier: MIT
// Bitmap access and the measures on pictures: grey drawing and the green-weighted reduction, brightness, the
// offset-difference focus quality and the 640 x 480 focus frame behind calculateFocus.
#include "KPImage/Focus/ImageAssess.h"
#include "KPImage/UIImage+ImagingHelper.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>

using namespace kp;
using kptest::grayImage;

namespace {

std::vector<uint8_t> bytesOf(const UIImage& image) {
    const CGImageRef& cg = image.CGImage();
    return std::vector<uint8_t>(cg->bytes(), cg->bytes() + cg->byteCount());
}

std::vector<uint8_t> randomBytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> out(n);
    for (auto& b : out) {
        b = static_cast<uint8_t>(rng());
    }
    return out;
}

// clang-format off
UIImage flat(size_t w, size_t h, uint8_t v) { return grayImage(w, h, [v](size_t, size_t) { return v; }); }
using MallocedFrame = std::unique_ptr<uint8_t, decltype(&std::free)>;
MallocedFrame frameOf(const UIImage& image) { return MallocedFrame(padImage(image), &std::free); }
uint8_t pattern(size_t x, size_t y) { return static_cast<uint8_t>((x * 7 + y * 13) % 251); }
// clang-format on

} // namespace

TEST(ImageMeasures, BitmapBytesGreyTestAndGreyDrawing) {
    const auto padded = randomBytes(5 * 7, 1); // row padding is copied as it stands
    const UIImage grey = UIImage::imageWithCGImage(kptest::makeGray(3, 5, padded, 7));
    const MallocedFrame copy(grey.makeDataArray(), &std::free);
    EXPECT_TRUE(copy && std::memcmp(copy.get(), padded.data(), padded.size()) == 0 && grey.isGrayScale());
    EXPECT_FALSE(UIImage::imageWithCGImage(kptest::makeRGBA(2, 2, randomBytes(16, 2))).isGrayScale());

    // Red, green, blue, white, transparent (drawn over black); a grey source is reproduced exactly; a bitmap at
    // scale 2 is drawn into its size in points.
    const std::vector<uint8_t> rgba{255, 0, 0, 255, 0, 255, 0, 255, 0, 0, 255, 255, 255, 255, 255, 255, 9, 9, 9, 0};
    EXPECT_EQ(bytesOf(*UIImage::imageWithCGImage(kptest::makeRGBA(5, 1, rgba)).makeGrayScale()),
              (std::vector<uint8_t>{77, 149, 29, 255, 0}));
    const auto source = randomBytes(64 * 48, 4);
    EXPECT_EQ(bytesOf(*UIImage::imageWithCGImage(kptest::makeGray(64, 48, source)).makeGrayScale()), source);
    const auto half =
        UIImage::imageWithCGImage(kptest::makeGray(8, 6, std::vector<uint8_t>(48, 40)), 2.0, UIImageOrientationUp)
            .makeGrayScale();
    EXPECT_EQ(half->CGImage()->width(), 4u);
    EXPECT_EQ(bytesOf(*half), std::vector<uint8_t>(12, 40));
    EXPECT_FALSE(UIImage().makeGrayScale());
}

TEST(ImageMeasures, IntegerReductionSamplesFourPixelsGreenWeighted) {
    const size_t W = 12, H = 12;
    const auto src = randomBytes(W * H * 4, 5);
    const UIImage image = UIImage::imageWithCGImage(kptest::makeRGBA(W, H, src));
    for (size_t s : {2, 3, 4}) {
        const auto out = image.makeGrayScaleAndScale(int(s));
        ASSERT_TRUE(out && out->CGImage());
        const size_t w = W / s, h = H / s, d = s / 2;
        ASSERT_EQ(out->CGImage()->height(), h);
        ASSERT_EQ(out->CGImage()->bytesPerRow(), w);
        const auto px = [&](size_t row, size_t col, size_t k) { return unsigned{src[(row * W + col) * 4 + k]}; };
        const auto bytes = bytesOf(*out);
        for (size_t i = 0; i < w * h; ++i) {
            const size_t r0 = s * (i / w), r1 = r0 + d, c0 = s * (i % w), c1 = c0 + d;
            const unsigned g = px(r0, c0, 1) + px(r0, c1, 1) + px(r1, c1, 1) + px(r1, c0, 1);
            const unsigned b = px(r0, c0, 2) + px(r0, c1, 2) + px(r1, c1, 2) + px(r1, c0, 2);
            ASSERT_EQ(bytes[i], (4 * g + b) / 20) << s << ": " << i;
        }
    }
    EXPECT_EQ(bytesOf(*image.makeGrayScaleAndScale(0)), bytesOf(*image.makeGrayScale())); // 1 or less: plain grey
    EXPECT_FALSE(
        UIImage::imageWithCGImage(kptest::makeRGBA(3, 40, randomBytes(480, 6))).makeGrayScaleAndScale(4)->CGImage());
    // 3-byte pixels run out a quarter before the end: what exists is used as laid out, the rest counts as 0 (and
    // under ASan nothing beyond is read).
    const auto rgb = UIImage::imageWithCGImage(kptest::makeRGB(8, 8, std::vector<uint8_t>(8 * 8 * 3, 200)));
    const auto bytes = bytesOf(*rgb.makeGrayScaleAndScale(2));
    EXPECT_EQ(bytes.front(), 200);
    EXPECT_EQ(bytes.back(), 0);
}

TEST(ImageMeasures, BrightnessSamplesASparseGridOverTheArea) {
    std::vector<uint8_t> rgbBytes(100 * 100 * 3);
    for (size_t i = 0; i < rgbBytes.size(); i += 3) {
        rgbBytes[i] = 10, rgbBytes[i + 1] = 90, rgbBytes[i + 2] = 250;
    }
    const UIImage rgb = UIImage::imageWithCGImage(kptest::makeRGB(100, 100, rgbBytes));
    const UIImage grey = flat(100, 100, 77), wide = flat(100, 50, 100), square = flat(100, 100, 200);
    const UIImage none = UIImage::imageWithoutBitmap({10, 10});
    const struct {
        const char* what;
        std::function<int()> measure;
        int expected;
    } cases[] = {
        // clang-format off
        // 100 x 100 samples 20..70 each way (36) over 60*60/10/10 = 36; 105 x 105 samples 49 over 65*65/100 = 42.
        {"100 flat", [] { return flat(100, 100, 120).calculateBrightness(); }, 120},
        {"105 flat", [] { return flat(105, 105, 120).calculateBrightness(); }, 140},
        {"grid only", [] { return grayImage(100, 100, [](size_t x, size_t y) { return x % 10 || y % 10 ? 0 : 200; })
                                      .calculateBrightness(); }, 200},
        {"no sample left", [] { return flat(40, 40, 255).calculateBrightness(); }, 0},
        {"rgb middle byte", [&] { return rgb.calculateBrightness(3, 20); }, 90},
        {"5 channels read as grey", [&] { return grey.calculateBrightness(5, 20); }, 77},
        {"negative border is none", [&] { return grey.calculateBrightness(1, -5); }, 77},
        // 10 % of 105 is 10: samples 10..90 (81) over 85*85/100 = 72.
        {"105 border 10", [] { return flat(105, 105, 80).calculateBrightness(1, 10); }, 90},
        {"border 50", [&] { return grey.calculateBrightness(1, 50); }, 0},
        {"4 channels on grey", [&] { return grey.calculateBrightness(4, 0); }, 2310 / 100},
        // The rectangle is checked against (0, 0, H, W); rows past the bitmap add nothing.
        {"rect outside", [&] { return wide.calculateBrightness(CGRectMake(0, 0, 60, 60)); }, 0},
        {"rect crossed", [&] { return wide.calculateBrightness(CGRectMake(0, 0, 40, 90)); }, 2500 / 81},
        {"rect whole", [&] { return square.calculateBrightness(CGRectMake(0, 0, 100, 100)); }, 220},
        {"no bitmap", [&] { return none.calculateBrightness() + none.calculateBrightness(1, 10) +
                                   none.calculateBrightness(CGRectMake(0, 0, 1, 1)); }, 0},
        // clang-format on
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.measure(), c.expected) << c.what;
    }
}

TEST(ImageMeasures, FocusQualityComparesOffsetPixelsAndScoresThreeTimesTheRms) {
    std::vector<uint8_t> grey(16 * 16), rgb(16 * 16 * 3, 77), big(64 * 64), column(101);
    for (size_t i = 0; i < grey.size(); ++i) {
        grey[i] = rgb[i * 3 + 1] = (i % 2) ? 255 : 0; // stripes in the only byte or the green one
    }
    for (size_t i = 0; i < big.size(); ++i) {
        big[i] = (i % 2) ? 255 : 0;
    }
    // Neighbours differ by 3 except rows 50 and 51 (by 10): 100 proves only row 50 of 101 was sampled at 50 %.
    for (size_t y = 0; y < column.size(); ++y) {
        column[y] = static_cast<uint8_t>(y <= 50 ? 3 * y : 3 * y + 7);
    }
    // Row 0 all 0, row 1 all 200: with offset 2 row 0's last two compare with row 1, row 1's last two are left out.
    const std::vector<uint8_t> rows{0, 0, 0, 0, 200, 200, 200, 200};
    const struct {
        const uint8_t* data;
        uint32_t w, h;
        int32_t channels, offset, step, border;
        float expected;
    } cases[] = {
        {grey.data(), 16, 16, 1, 1, 1, 10, 65025}, {grey.data(), 16, 16, 1, 2, 1, 10, 0},
        {rgb.data(), 16, 16, 3, 1, 3, 10, 65025},  {big.data(), 64, 64, 1, 1, 1, 10, 65025},
        {grey.data(), 16, 16, 1, 1, 1, 50, 0},     {column.data(), 1, 101, 1, 1, 1, 50, 100},
        {column.data(), 1, 100, 1, 1, 1, 50, 0},   {grey.data(), 16, 16, 1, 1, 0, 10, 0},
        {nullptr, 16, 16, 1, 1, 1, 10, 0},         {rows.data(), 4, 2, 1, 2, 1, 0, 2 * 40000.0f / 6},
        {rows.data(), 4, 2, 1, 1000000, 1, 0, 0},  {rows.data(), 4, 1, 1, -5, 1, 0, 0},
    };
    for (const auto& c : cases) {
        const float tolerance = c.w == 64 ? 2.0f : std::max(1e-6f, c.expected * 1e-6f); // exact below 2^24
        EXPECT_NEAR(CalculateFocusQuality(c.data, c.w, c.h, c.channels, c.offset, c.step, c.border), c.expected,
                    tolerance)
            << c.w << "x" << c.h << " channels " << c.channels << " offset " << c.offset << " step " << c.step;
    }
    // Columns alternating 0 and 10: RMS 10, score 30; 0 and 5 give 15, or 0 with a step of 2; 0 and 255 saturate.
    const UIImage soft = grayImage(64, 64, [](size_t x, size_t) { return (x % 2) ? 5 : 0; });
    EXPECT_EQ(grayImage(64, 64, [](size_t x, size_t) { return (x % 2) ? 10 : 0; }).calculateFocusScore(1, 1, 10), 30);
    EXPECT_EQ(soft.calculateFocusScore(1, 1, 10), 15);
    EXPECT_EQ(soft.calculateFocusScore(2, 1, 10), 0);
    EXPECT_EQ(grayImage(64, 64, [](size_t x, size_t) { return (x % 2) ? 255 : 0; }).calculateFocusScore(1, 1, 10), 100);
    EXPECT_EQ(UIImage().calculateFocusScore(1, 1, 10), 0);
}

TEST(ImageMeasures, TheFocusFrameIsCopiedCroppedOrPaddedAndScored) {
    // 641 x 480 drops the last column; 1000 x 600 is centre-cropped; 100 x 51 is centred in mid grey, the odd
    // extra row below.
    auto wider = frameOf(grayImage(641, 480, pattern));
    EXPECT_EQ(wider.get()[479 * 640 + 639], pattern(639, 479));
    auto larger = frameOf(grayImage(1000, 600, pattern));
    EXPECT_EQ(larger.get()[0], pattern(180, 60));
    auto small = frameOf(grayImage(100, 51, pattern));
    EXPECT_TRUE(small.get()[214 * 640 + 270] == pattern(0, 0) && small.get()[264 * 640 + 369] == pattern(99, 50));
    EXPECT_EQ(small.get()[213 * 640 + 270] + small.get()[265 * 640 + 270], 2 * 128);
    EXPECT_EQ(padImage(UIImage::imageWithoutBitmap({10, 10})), nullptr);

    // scaleImage enlarges 320 x 200 twice (then 40 grey rows above and below) and reduces 1920 x 1000 by 3.
    auto up = frameOf(*scaleImage(flat(320, 200, 60)));
    EXPECT_EQ(up.get()[39 * 640 + 320] + up.get()[440 * 640 + 320], 2 * 128);
    EXPECT_EQ(up.get()[40 * 640 + 320], 60);
    EXPECT_EQ(scaleImage(flat(1920, 1000, 10))->CGImage()->height(), 333u);

    // Colour is halved to grey, grey goes through scaleImage.
    const UIImage colour = UIImage::imageWithCGImage(kptest::makeBGRA(1280, 720, randomBytes(1280 * 720 * 4, 11)));
    auto frame = frameOf(*colour.makeGrayScaleAndScale(2));
    EXPECT_EQ(frame.get()[59 * 640], 128);
    EXPECT_EQ(colour.calculateFocus(), TwoPiFocusAssess(frame.get()));
    EXPECT_GT(colour.calculateFocus(), 50);
    const UIImage checks = grayImage(640, 480, [](size_t x, size_t y) { return ((x / 2 + y / 2) % 2) ? 40 : 160; });
    EXPECT_EQ(checks.calculateFocus(), TwoPiFocusAssess(frameOf(*scaleImage(checks)).get()));
    EXPECT_EQ(flat(320, 240, 90).calculateFocus() + UIImage().calculateFocus(), 0);
}
