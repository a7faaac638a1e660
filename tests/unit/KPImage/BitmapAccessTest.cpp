// SPDX-License-Identifier: MIT
// Bitmap access: raw bytes, the grey test, grey drawing and the green-weighted integer reduction.
#include "KPImage/UIImage+ImagingHelper.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>

using namespace kp;

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
} // namespace

TEST(BitmapAccess, DataArrayCopiesStoredBytesAndGreyTestReadsTheColourModel) {
    // Row padding is part of the stored bytes and is copied as it stands.
    const auto padded = randomBytes(5 * 7, 1);
    const UIImage grey = UIImage::imageWithCGImage(kptest::makeGray(3, 5, padded, 7));
    uint8_t* copy = grey.makeDataArray();
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::memcmp(copy, padded.data(), padded.size()), 0);
    std::free(copy);
    EXPECT_EQ(UIImage().makeDataArray(), nullptr);

    EXPECT_TRUE(grey.isGrayScale());
    EXPECT_FALSE(UIImage::imageWithCGImage(kptest::makeRGBA(2, 2, randomBytes(16, 2))).isGrayScale());
    const auto cmyk = CGImageCreate(2, 2, 8, 32, 8, CGColorSpaceCreateWithModel(kCGColorSpaceModelCMYK),
                                    kCGImageAlphaNone, CGDataProviderCreateWithData(randomBytes(16, 3)));
    ASSERT_TRUE(cmyk);
    EXPECT_FALSE(UIImage::imageWithCGImage(cmyk).isGrayScale());
    EXPECT_FALSE(UIImage().isGrayScale());
}

TEST(BitmapAccess, GreyDrawingConvertsColourAndUsesTheSizeInPoints) {
    // Red, green, blue, white, transparent (drawn over black) in RGBA.
    const std::vector<uint8_t> rgba{255, 0, 0, 255, 0, 255, 0, 255, 0, 0, 255, 255, 255, 255, 255, 255, 9, 9, 9, 0};
    const auto grey = UIImage::imageWithCGImage(kptest::makeRGBA(5, 1, rgba)).makeGrayScale();
    ASSERT_TRUE(grey && grey->CGImage());
    EXPECT_EQ(grey->CGImage()->bytesPerRow(), 5u);
    EXPECT_EQ(grey->CGImage()->bitmapInfo(), kCGImageAlphaNone);
    EXPECT_EQ(bytesOf(*grey), (std::vector<uint8_t>{77, 149, 29, 255, 0}));

    // A grey source is reproduced exactly.
    const auto source = randomBytes(64 * 48, 4);
    const UIImage g = UIImage::imageWithCGImage(kptest::makeGray(64, 48, source));
    EXPECT_EQ(bytesOf(*g.makeGrayScale()), source);

    // A bitmap at scale 2 is drawn into its size in points: 8 x 6 pixels become 4 x 3.
    const UIImage retina = UIImage::imageWithCGImage(kptest::makeGray(8, 6, std::vector<uint8_t>(48, 40)), 2.0,
                                                     UIImageOrientationUp);
    const auto half = retina.makeGrayScale();
    ASSERT_TRUE(half);
    EXPECT_EQ(half->CGImage()->width(), 4u);
    EXPECT_EQ(half->CGImage()->height(), 3u);
    EXPECT_EQ(bytesOf(*half), std::vector<uint8_t>(12, 40));
    EXPECT_FALSE(UIImage().makeGrayScale());
}

TEST(BitmapAccess, IntegerReductionSamplesFourPixelsGreenWeighted) {
    const size_t W = 12, H = 12;
    const auto src = randomBytes(W * H * 4, 5);
    const UIImage image = UIImage::imageWithCGImage(kptest::makeRGBA(W, H, src));
    for (int s : {2, 3, 4}) {
        SCOPED_TRACE(s);
        const auto out = image.makeGrayScaleAndScale(s);
        ASSERT_TRUE(out && out->CGImage());
        const size_t w = W / s, h = H / s, d = s / 2;
        ASSERT_EQ(out->CGImage()->width(), w);
        ASSERT_EQ(out->CGImage()->height(), h);
        EXPECT_EQ(out->CGImage()->bytesPerRow(), w);
        const auto px = [&](size_t row, size_t col, size_t k) { return unsigned{src[(row * W + col) * 4 + k]}; };
        const auto bytes = bytesOf(*out);
        for (size_t j = 0; j < h; ++j) {
            for (size_t i = 0; i < w; ++i) {
                const size_t r0 = s * j, r1 = s * j + d, c0 = s * i, c1 = s * i + d;
                const unsigned g = px(r0, c0, 1) + px(r0, c1, 1) + px(r1, c1, 1) + px(r1, c0, 1);
                const unsigned b = px(r0, c0, 2) + px(r0, c1, 2) + px(r1, c1, 2) + px(r1, c0, 2);
                ASSERT_EQ(bytes[j * w + i], (4 * g + b) / 20) << i << "," << j;
            }
        }
    }
    // Factors of 1 or less are the plain grey drawing.
    for (int s : {1, 0, -3}) {
        EXPECT_EQ(bytesOf(*image.makeGrayScaleAndScale(s)), bytesOf(*image.makeGrayScale()));
    }
    // A source smaller than the factor leaves nothing: an empty image without a bitmap.
    const auto empty = UIImage::imageWithCGImage(kptest::makeRGBA(3, 40, randomBytes(480, 6))).makeGrayScaleAndScale(4);
    ASSERT_TRUE(empty);
    EXPECT_FALSE(empty->CGImage());
    EXPECT_EQ(empty->size(), CGSizeZero);
}

TEST(BitmapAccess, ReductionOfA24BitImageReadsOnlyItsOwnBytes) {
    // The reduction reads 4 bytes a pixel, so a 3-byte image runs out of bytes a quarter before the end.
    // Whatever exists is used as laid out; what does not counts as 0 (and under ASan nothing is read).
    const size_t W = 8, H = 8;
    std::vector<uint8_t> rgb(W * H * 3, 200);
    const auto out = UIImage::imageWithCGImage(kptest::makeRGB(W, H, rgb)).makeGrayScaleAndScale(2);
    ASSERT_TRUE(out && out->CGImage());
    const auto bytes = bytesOf(*out);
    EXPECT_EQ(bytes.front(), 200);  // all four sampled pixels lie inside the data
    EXPECT_EQ(bytes.back(), 0);     // all lie beyond it
}
