// SPDX-License-Identifier: MIT
// The offset-difference focus quality and its 0..100 score.
#include "KPImage/Focus/ImageAssess.h"
#include "KPImage/UIImage+ImagingHelper.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

using namespace kp;
using kptest::grayImage;

namespace {
std::vector<uint8_t> stripes(uint32_t w, uint32_t h, uint32_t channels) {
    std::vector<uint8_t> data(size_t{w} * h * channels);
    for (uint32_t y = 0; y < h; ++y) {
        for (uint32_t x = 0; x < w; ++x) {
            for (uint32_t c = 0; c < channels; ++c) {
                // Only the green byte (or the only byte) carries the stripes.
                const bool carrier = channels >= 3 ? c == 1 : c == 0;
                data[(size_t{y} * w + x) * channels + c] = carrier ? ((x % 2) ? 255 : 0) : 77;
            }
        }
    }
    return data;
}
} // namespace

TEST(FocusQuality, BordersOffsetsAndChannels) {
    // Small images keep the float sum exact (below 2^24); larger ones accumulate single-precision rounding.
    const auto grey = stripes(16, 16, 1);
    EXPECT_EQ(CalculateFocusQuality(grey.data(), 16, 16, 1, 1, 1, 10), 65025.0f);
    EXPECT_EQ(CalculateFocusQuality(grey.data(), 16, 16, 1, 0, 1, 10), 0.0f); // compared with itself
    EXPECT_EQ(CalculateFocusQuality(grey.data(), 16, 16, 1, 2, 1, 10), 0.0f); // same phase
    const auto big = stripes(64, 64, 1);
    EXPECT_NEAR(CalculateFocusQuality(big.data(), 64, 64, 1, 1, 1, 10), 65025.0f, 2.0f);
    // The green byte of 3- and 4-byte pixels; channels 2 reads byte 0 (77 everywhere).
    const auto rgb = stripes(16, 16, 3);
    const auto rgba = stripes(16, 16, 4);
    EXPECT_EQ(CalculateFocusQuality(rgb.data(), 16, 16, 3, 1, 3, 10), 65025.0f);
    EXPECT_EQ(CalculateFocusQuality(rgba.data(), 16, 16, 4, 1, 1, 0), 65025.0f);
    const auto two = std::vector<uint8_t>(64 * 64 * 2, 77);
    EXPECT_FLOAT_EQ(CalculateFocusQuality(two.data(), 64, 64, 2, 1, 1, 10), 0.0f);
    // 50 % of an even height leaves no rows; an odd height of 101 keeps row 50 only.
    EXPECT_EQ(CalculateFocusQuality(grey.data(), 16, 16, 1, 1, 1, 50), 0.0f);
    // A 1-pixel-wide column of 101 rows: offset 1 compares each row with the next. Neighbours differ by
    // 3 everywhere except rows 50 and 51 (by 10), so 100 proves only row 50 was sampled.
    std::vector<uint8_t> column(101);
    for (size_t y = 0; y < column.size(); ++y) {
        column[y] = static_cast<uint8_t>(y <= 50 ? 3 * y : 3 * y + 7);
    }
    EXPECT_FLOAT_EQ(CalculateFocusQuality(column.data(), 1, 101, 1, 1, 1, 50), 100.0f);
    EXPECT_FLOAT_EQ(CalculateFocusQuality(column.data(), 1, 100, 1, 1, 1, 50), 0.0f);
    // step 0 or less is refused rather than looping for ever; null data gives 0.
    EXPECT_EQ(CalculateFocusQuality(grey.data(), 16, 16, 1, 1, 0, 10), 0.0f);
    EXPECT_EQ(CalculateFocusQuality(grey.data(), 16, 16, 1, 1, -3, 10), 0.0f);
    EXPECT_EQ(CalculateFocusQuality(nullptr, 16, 16, 1, 1, 1, 10), 0.0f);
}

TEST(FocusQuality, OffsetRunsIntoNextRowButNeverPastTheBuffer) {
    // 4 x 2 grey: row 0 = 0 0 0 0, row 1 = 200 200 200 200. With offset 2 and no border, x = 2, 3 of
    // row 0 compare with row 1's x = 0, 1 (as designed); row 1's x = 2, 3 would read past the end and
    // are left out: 8 pairs become 6, two of them 200 apart.
    const std::vector<uint8_t> data{0, 0, 0, 0, 200, 200, 200, 200};
    EXPECT_FLOAT_EQ(CalculateFocusQuality(data.data(), 4, 2, 1, 2, 1, 0), 2.0f * 40000.0f / 6.0f);
    // A large or negative offset lands outside the buffer for every sample: nothing sampled.
    EXPECT_FLOAT_EQ(CalculateFocusQuality(data.data(), 4, 2, 1, 1000000, 1, 0), 0.0f);
    EXPECT_FLOAT_EQ(CalculateFocusQuality(data.data(), 4, 1, 1, -5, 1, 0), 0.0f);
}

TEST(FocusQuality, ScoreIsThreeTimesRmsSaturatingAt100) {
    const UIImage striped = grayImage(64, 64, [](size_t x, size_t) { return (x % 2) ? 255 : 0; });
    EXPECT_EQ(striped.calculateFocusScore(1, 1, 10), 100);
    EXPECT_EQ(grayImage(64, 64, [](size_t, size_t) { return 99; }).calculateFocusScore(3, 1, 10), 0);
    // Columns alternate 0 and 10: RMS 10, score 30.
    EXPECT_EQ(grayImage(64, 64, [](size_t x, size_t) { return (x % 2) ? 10 : 0; }).calculateFocusScore(1, 1, 10), 30);
    // Columns alternate 0 and 5: sqrt(25) * 3 = 15; a step of 2 compares like with like.
    const UIImage soft = grayImage(64, 64, [](size_t x, size_t) { return (x % 2) ? 5 : 0; });
    EXPECT_EQ(soft.calculateFocusScore(1, 1, 10), 15);
    EXPECT_EQ(soft.calculateFocusScore(2, 1, 10), 0);
    // The score is taken from the grey image at the size in points; an empty image scores 0.
    EXPECT_EQ(UIImage().calculateFocusScore(1, 1, 10), 0);
}
