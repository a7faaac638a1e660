// SPDX-License-Identifier: MIT
// Brightness measures: sparse-grid sampling, the area-based divisor, channel and border handling, log lines.
#include "KPImage/UIImage+ImagingHelper.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using namespace kp;
using kptest::grayImage;

TEST(Brightness, DivisorComesFromTheAreaNotTheSampleCount) {
    // 100 x 100 samples 20, 30, ..., 70 each way (36 samples) and divides by 60*60/10/10 = 36.
    EXPECT_EQ(grayImage(100, 100, [](size_t, size_t) { return 120; }).calculateBrightness(), 120);
    // 105 x 105 samples 20..80 (49 samples) but divides by 65*65/10/10 = 42: truncate(49 v / 42).
    EXPECT_EQ(grayImage(105, 105, [](size_t, size_t) { return 120; }).calculateBrightness(), 140);
    EXPECT_EQ(grayImage(105, 105, [](size_t, size_t) { return 140; }).calculateBrightness(), 163);
    // Only the sampled grid counts: a pattern that is 200 on the grid and 0 elsewhere reads 200.
    EXPECT_EQ(grayImage(100, 100, [](size_t x, size_t y) { return (x % 10 == 0 && y % 10 == 0) ? 200 : 0; })
                  .calculateBrightness(),
              200);
    // Too small to leave a sample: 0 whatever the divisor wraps to.
    EXPECT_EQ(grayImage(40, 40, [](size_t, size_t) { return 255; }).calculateBrightness(), 0);
    EXPECT_EQ(grayImage(30, 300, [](size_t, size_t) { return 255; }).calculateBrightness(), 0);
    // A narrow image samples every pixel (step = width when below 10).
    EXPECT_EQ(grayImage(5, 100, [](size_t, size_t) { return 50; }).calculateBrightness(), 0);
}

TEST(Brightness, PercentBorderChannelsAndSkipArithmetic) {
    // RGB: channels 3 reads the middle byte of each pixel.
    std::vector<uint8_t> rgb(100 * 100 * 3);
    for (size_t i = 0; i < rgb.size(); i += 3) {
        rgb[i] = 10, rgb[i + 1] = 90, rgb[i + 2] = 250;
    }
    const UIImage colour = UIImage::imageWithCGImage(kptest::makeRGB(100, 100, rgb));
    EXPECT_EQ(colour.calculateBrightness(3, 20), 90);
    // Channels 5 reads as grey (c = 1, byte 0 of a row of W bytes): bytes cycle 10, 90, 250.
    const UIImage grey = grayImage(100, 100, [](size_t, size_t) { return 77; });
    EXPECT_EQ(grey.calculateBrightness(5, 20), 77);
    EXPECT_EQ(grey.calculateBrightness(1, 20), 77);
    // A negative percentage compares as large and so means no border: 0..90 sampled (100 samples), n = 100.
    EXPECT_EQ(grey.calculateBrightness(1, -5), 77);
    // 10 % of 105 is 10.5 -> 10: samples 10..90 (81) over 85*85/100 = 72.
    EXPECT_EQ(grayImage(105, 105, [](size_t, size_t) { return 80; }).calculateBrightness(1, 10), 90);
    // 50 % meets itself: no rows, result 0.
    EXPECT_EQ(grey.calculateBrightness(1, 50), 0);
    // 4 channels on a grey image: rows of 400 bytes run out after y = 20 (3 rows x 10 samples of 77);
    // the missing bytes add nothing and the divisor stays 100.
    EXPECT_EQ(grey.calculateBrightness(4, 0), 2310 / 100);
}

TEST(Brightness, RectangleIsCheckedAgainstCrossedSizeAndSamplesBothEnds) {
    kptest::LogCapture log;
    const UIImage wide = grayImage(100, 50, [](size_t, size_t) { return 100; });
    // The accepted area is (0, 0, H, W) = (0, 0, 50, 100).
    EXPECT_EQ(wide.calculateBrightness(CGRectMake(0, 0, 60, 60)), 0);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0],
              "-[UIImage(ImagingHelper) calculateBrightness:] [Line 698] *** error: rect is outside of image");
    // (0, 0, 40, 90) is accepted: rows 0..90 at step 10 x columns 0..40, over 90*90/10/10 = 81. Only rows
    // 0..40 exist (5 rows x 5 columns of 100); the rows past the bitmap add nothing.
    EXPECT_EQ(wide.calculateBrightness(CGRectMake(0, 0, 40, 90)), 2500 / 81);
    EXPECT_EQ(log.lines().size(), 1u);
    // Height 20 at step 10 samples 3 rows; width 0 one column: 3 samples over 20*20/100 = 4.
    const UIImage square = grayImage(100, 100, [](size_t, size_t) { return 200; });
    EXPECT_EQ(square.calculateBrightness(CGRectMake(10, 10, 0, 20)), 200 * 3 / 4);
    // The whole square reaches row 100, past the last row: that row adds nothing; no crash.
    EXPECT_EQ(square.calculateBrightness(CGRectMake(0, 0, 100, 100)), static_cast<int>(200.0f * 110 / 100));
}

TEST(Brightness, ImageWithoutBitmapLogsAndReturnsZero) {
    kptest::LogCapture log;
    const UIImage empty = UIImage::imageWithoutBitmap({10, 10});
    EXPECT_EQ(empty.calculateBrightness(), 0);
    EXPECT_EQ(empty.calculateBrightness(1, 10), 0);
    EXPECT_EQ(empty.calculateBrightness(CGRectMake(0, 0, 1, 1)), 0);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 3u);
    const std::string suffix = " *** error: image must be backed by a CGImage: " + empty.description();
    EXPECT_EQ(lines[0], "-[UIImage(ImagingHelper) calculateBrightness] [Line 580]" + suffix);
    EXPECT_EQ(lines[1], "-[UIImage(ImagingHelper) calculateBrightness:edgePercentSkip:] [Line 632]" + suffix);
    EXPECT_EQ(lines[2], "-[UIImage(ImagingHelper) calculateBrightness:] [Line 689]" + suffix);
}
