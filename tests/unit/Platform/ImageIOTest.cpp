// SPDX-License-Identifier: MIT
// Image files: PNG and JPEG round trips, EXIF orientation, the decoding limit, memory refusals, atomic writes.
#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/SystemLog.h"
#include "KPImage/Platform/UIGraphics.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

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

std::vector<uint8_t> pixels(const UIImage& image) {
    const auto& cg = image.CGImage();
    return std::vector<uint8_t>(cg->bytes(), cg->bytes() + cg->byteCount());
}

fs::path scratchDir(const std::string& name) {
    const fs::path dir = fs::temp_directory_path() / ("kpimage-test-" + name + "-" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

} // namespace

TEST(ImageIO, PngAndJpegRoundTripsKeepPixelsAndJpegReadsExifOrientation) {
    const auto grey = randomBytes(13 * 7, 1);
    const auto g = UIImage::imageWithData(*UIImagePNGRepresentation(UIImage::imageWithCGImage(kptest::makeGray(13, 7, grey))));
    ASSERT_TRUE(g);
    EXPECT_TRUE(g->isGrayScale());
    EXPECT_EQ(pixels(*g), grey);
    // Straight alpha, including fully transparent pixels with colour, is exact; RGB gains opaque alpha.
    const auto rgba = randomBytes(6 * 6 * 4, 3);
    EXPECT_EQ(pixels(*UIImage::imageWithData(*UIImagePNGRepresentation(UIImage::imageWithCGImage(kptest::makeRGBA(6, 6, rgba))))),
              rgba);
    const auto c = UIImage::imageWithData(*UIImagePNGRepresentation(UIImage::imageWithCGImage(kptest::makeRGB(1, 1, {1, 2, 3}))));
    ASSERT_TRUE(c);
    EXPECT_EQ(c->CGImage()->bitmapInfo(), kKPBitmapInfoRGBA);
    EXPECT_EQ(pixels(*c), (std::vector<uint8_t>{1, 2, 3, 255}));
    // Opaque premultiplied BGRA comes back as RGBA.
    const auto b = UIImage::imageWithData(
        *UIImagePNGRepresentation(UIImage::imageWithCGImage(kptest::makeBGRA(1, 1, {10, 20, 30, 255}))));
    ASSERT_TRUE(b);
    EXPECT_EQ(pixels(*b), (std::vector<uint8_t>{30, 20, 10, 255}));
    EXPECT_FALSE(UIImagePNGRepresentation(UIImage()));

    auto jc = UIImageJPEGRepresentation(
        UIImage::imageWithCGImage(kptest::makeRGB(16, 8, [] {
            std::vector<uint8_t> v(16 * 8 * 3);
            for (size_t i = 0; i < v.size(); i += 3) {
                v[i] = 200, v[i + 1] = 40, v[i + 2] = 10;
            }
            return v;
        }())),
        0.95);
    ASSERT_TRUE(jc);
    // Insert an APP1 EXIF block with orientation 6 (stored sideways: shown turned right).
    std::vector<uint8_t> exif{'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8, 0, 1, 0x01, 0x12, 0, 3, 0, 0, 0, 1,
                              0, 6, 0, 0, 0, 0, 0, 0};
    std::vector<uint8_t> app1{0xFF, 0xE1, 0, static_cast<uint8_t>(exif.size() + 2)};
    app1.insert(app1.end(), exif.begin(), exif.end());
    jc->insert(jc->begin() + 2, app1.begin(), app1.end());
    const auto dc = UIImage::imageWithData(*jc);
    ASSERT_TRUE(dc);
    EXPECT_EQ(dc->imageOrientation(), UIImageOrientationRight);
    EXPECT_EQ(dc->size(), CGSizeMake(8, 16)); // points follow the orientation, the bitmap stays as stored
    EXPECT_EQ(dc->CGImage()->width(), 16u);
    EXPECT_NEAR(dc->CGImage()->bytes()[0], 200, 6);
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
    const fs::path dir = scratchDir("memory");
    const std::string file = (dir / "big.bin").string();
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
        EXPECT_FALSE(CGBitmapContextCreate(nullptr, 1024, 1024, 8, 0, CGColorSpaceCreateDeviceRGB(), kKPBitmapInfoBGRA));
        UIGraphicsBeginImageContext(CGSizeMake(1024, 1024));
        EXPECT_FALSE(UIGraphicsGetImageFromCurrentImageContext());
        UIGraphicsEndImageContext();
        // Small work goes on.
        EXPECT_TRUE(CGBitmapContextCreateImage(
            CGBitmapContextCreate(nullptr, 400, 400, 8, 0, CGColorSpaceCreateDeviceRGB(), kKPBitmapInfoBGRA)));
        EXPECT_TRUE(CGImageCreateWithImageInRect(big.CGImage(), CGRectMake(0, 0, 64, 64)));
    }
    EXPECT_EQ(dataWithContentsOfFile(file)->size(), 2u << 20);
    fs::remove_all(dir);
}

TEST(ImageIO, WritesReplaceWholeFilesOrNothingAndReadsTakeOnlyRegularFiles) {
    const fs::path dir = scratchDir("write");
    const std::string path = (dir / "a.bin").string();
    const std::vector<uint8_t> first(1000, 1), second(10, 2);
    EXPECT_TRUE(writeToFile(first, path, true));
    EXPECT_TRUE(writeToFile(second, path, true));
    EXPECT_EQ(*dataWithContentsOfFile(path), second);
    EXPECT_TRUE(writeToFile(first, path, false));
    EXPECT_EQ(*dataWithContentsOfFile(path), first);
    // A missing directory or a path under a regular file fails without leaving anything behind.
    EXPECT_FALSE(writeToFile(first, (dir / "missing" / "b.bin").string(), true));
    EXPECT_FALSE(writeToFile(first, path + "/c.bin", true));
    EXPECT_FALSE(writeToFile(first, "", true));
    EXPECT_EQ(*dataWithContentsOfFile(path), first);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 1);
    // A link to a regular file is read through.
    fs::create_symlink(path, dir / "link");
    EXPECT_EQ(dataWithContentsOfFile((dir / "link").string()), first);

    // No writer ever opens the pipe: a blocking open would wait for ever.
    const std::string fifo = (dir / "pipe.png").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(dataWithContentsOfFile(fifo));
    EXPECT_FALSE(dataWithContentsOfFile("/dev/null"));
    // Nor does a direct write wait for a reader; an atomic one replaces the pipe by a file.
    EXPECT_FALSE(writeToFile(std::vector<uint8_t>{1}, fifo, false));
    EXPECT_TRUE(writeToFile(std::vector<uint8_t>{1}, fifo, true));
    EXPECT_EQ(dataWithContentsOfFile(fifo), std::vector<uint8_t>{1});
    fs::remove_all(dir);
}

TEST(SystemLog, DefaultSinkWritesToStandardError) {
    // The default sink writes "date time process[pid] message" to standard error.
    testing::internal::CaptureStderr();
    NSLog("hello %d", 7);
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_NE(line.find("[" + std::to_string(::getpid()) + "] hello 7\n"), std::string::npos) << line;
}
