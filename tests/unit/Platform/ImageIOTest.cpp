// SPDX-License-Identifier: MIT
// Image files: PNG and JPEG round trips, EXIF orientation, the decoding limit, memory refusals, atomic writes.
#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/UIGraphics.h"
#include "support/MovieFrames.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <random>

using namespace kp;
namespace fs = std::filesystem;

namespace {
std::vector<uint8_t> randomBytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> out(n);
    for (auto& b : out) {
        b = static_cast<uint8_t>(rng());
    }
    return out;
}

std::vector<uint8_t> pixels(const std::optional<UIImage>& image) {
    return image ? std::vector<uint8_t>(image->CGImage()->bytes(),
                                        image->CGImage()->bytes() + image->CGImage()->byteCount())
                 : std::vector<uint8_t>{};
}
} // namespace

TEST(ImageIO, PngRoundTripsKeepPixelsAndJpegReadsExifOrientation) {
    // Grey stays grey; straight alpha, including fully transparent pixels with colour, is exact; RGB gains opaque
    // alpha; opaque premultiplied BGRA comes back as RGBA.
    const auto grey = randomBytes(13 * 7, 1), rgba = randomBytes(6 * 6 * 4, 3);
    const std::pair<CGImageRef, std::vector<uint8_t>> cases[] = {
        {kptest::makeGray(13, 7, grey), grey},
        {kptest::makeRGBA(6, 6, rgba), rgba},
        {kptest::makeRGB(1, 1, {1, 2, 3}), {1, 2, 3, 255}},
        {kptest::makeBGRA(1, 1, {10, 20, 30, 255}), {30, 20, 10, 255}},
    };
    for (const auto& [image, expected] : cases) {
        const auto back = UIImage::imageWithData(*UIImagePNGRepresentation(UIImage::imageWithCGImage(image)));
        EXPECT_EQ(pixels(back), expected) << image->bitsPerPixel();
        EXPECT_EQ(back && back->isGrayScale(), image->bitsPerPixel() == 8);
    }
    EXPECT_FALSE(UIImagePNGRepresentation(UIImage()));

    std::vector<uint8_t> orange(16 * 8 * 3);
    for (size_t i = 0; i < orange.size(); i += 3) {
        orange[i] = 200, orange[i + 1] = 40, orange[i + 2] = 10;
    }
    auto jpeg = UIImageJPEGRepresentation(UIImage::imageWithCGImage(kptest::makeRGB(16, 8, orange)), 0.95);
    ASSERT_TRUE(jpeg);
    // Insert an APP1 EXIF block with orientation 6 (stored sideways: shown turned right).
    const std::vector<uint8_t> app1{0xFF, 0xE1, 0, 34,   'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8,
                                    0,    1,    1, 0x12, 0,   3,   0,   0,   0, 1, 0,   6,   0, 0,  0, 0, 0, 0};
    jpeg->insert(jpeg->begin() + 2, app1.begin(), app1.end());
    const auto turned = UIImage::imageWithData(*jpeg);
    ASSERT_TRUE(turned);
    EXPECT_EQ(turned->imageOrientation(), UIImageOrientationRight);
    EXPECT_EQ(turned->size(), CGSizeMake(8, 16)); // points follow the orientation, the bitmap stays as stored
    EXPECT_EQ(turned->CGImage()->width(), 16u);
    EXPECT_NEAR(turned->CGImage()->bytes()[0], 200, 6);
}

TEST(ImageIO, HostCanLowerTheDecodingLimitInclusively) {
    const UIImage small = UIImage::imageWithCGImage(kptest::makeGray(64, 64, randomBytes(4096, 7)));
    for (const auto& data : {*UIImagePNGRepresentation(small), *UIImageJPEGRepresentation(small, 0.9)}) {
        setMaximumDecodedImagePixels(64 * 64);
        EXPECT_TRUE(UIImage::imageWithData(data));
        setMaximumDecodedImagePixels(64 * 64 - 1);
        ImageReadError error;
        EXPECT_FALSE(UIImage::imageWithData(data, &error));
        EXPECT_EQ(error.reason, ImageReadError::TooManyPixels);
        EXPECT_EQ(error.message, "64 x 64 pixels is over the limit of 4095");
        setMaximumDecodedImagePixels(kKPMaxImagePixels * 2); // it can be lowered, never raised
        EXPECT_EQ(maximumDecodedImagePixels(), kKPMaxImagePixels);
    }
}

TEST(ImageIO, PicturesThatDoNotFitInMemoryGiveNil) {
    // Every caller-sized buffer of the platform layer: 1 MiB and more is refused.
    const kptest::ScratchFolder dir("memory");
    const std::string file = dir.file("big.bin");
    ASSERT_TRUE(writeToFile(std::vector<uint8_t>(2u << 20, 7), file, true));
    const UIImage big = UIImage::imageWithCGImage(kptest::makeRGBA(1024, 1024, std::vector<uint8_t>(4u << 20, 9)));
    const auto bigPng = *UIImagePNGRepresentation(big);
    {
        kptest::ScopedAllocationLimit memory(1u << 20);
        EXPECT_FALSE(dataWithContentsOfFile(file));
        ImageReadError error;
        EXPECT_FALSE(UIImage::imageWithData(bigPng, &error));
        EXPECT_EQ(error.reason, ImageReadError::OutOfMemory);
        EXPECT_FALSE(UIImagePNGRepresentation(big));
        EXPECT_FALSE(UIImageJPEGRepresentation(big, 0.5));
        EXPECT_FALSE(CGImageCreateWithImageInRect(big.CGImage(), CGRectMake(0, 0, 1024, 1024)));
        EXPECT_TRUE(CGDataProviderCopyData(big.CGImage()->dataProvider()).empty());
        UIGraphicsBeginImageContext(CGSizeMake(1024, 1024));
        EXPECT_FALSE(UIGraphicsGetImageFromCurrentImageContext());
        UIGraphicsEndImageContext();
        EXPECT_TRUE(CGImageCreateWithImageInRect(big.CGImage(), CGRectMake(0, 0, 64, 64))); // small work goes on
    }
    EXPECT_EQ(dataWithContentsOfFile(file)->size(), 2u << 20);
}

TEST(ImageIO, WritesReplaceWholeFilesOrNothingAndReadsTakeOnlyRegularFiles) {
    const kptest::ScratchFolder dir("write");
    const std::string path = dir.file("a.bin"), fifo = dir.file("pipe.png");
    const std::vector<uint8_t> first(1000, 1), second(10, 2);
    EXPECT_TRUE(writeToFile(first, path, true) && writeToFile(second, path, true));
    EXPECT_EQ(*dataWithContentsOfFile(path), second);
    EXPECT_TRUE(writeToFile(first, path, false));
    // A missing directory or a path under a regular file fails without leaving anything behind.
    EXPECT_FALSE(writeToFile(first, dir.file("missing/b.bin"), true));
    EXPECT_FALSE(writeToFile(first, path + "/c.bin", true));
    EXPECT_FALSE(writeToFile(first, "", true));
    EXPECT_EQ(*dataWithContentsOfFile(path), first);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
    fs::create_symlink(path, dir.file("link")); // a link to a regular file is read through
    EXPECT_EQ(dataWithContentsOfFile(dir.file("link")), first);

    // No writer ever opens the pipe: a blocking open would wait for ever. Nor does a direct write wait for a
    // reader; an atomic one replaces the pipe by a file.
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(dataWithContentsOfFile(fifo));
    EXPECT_FALSE(dataWithContentsOfFile("/dev/null"));
    EXPECT_FALSE(writeToFile(std::vector<uint8_t>{1}, fifo, false));
    EXPECT_TRUE(writeToFile(std::vector<uint8_t>{1}, fifo, true));
    EXPECT_EQ(dataWithContentsOfFile(fifo), std::vector<uint8_t>{1});
}
