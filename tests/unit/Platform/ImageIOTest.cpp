// SPDX-License-Identifier: MIT
// Image files: PNG and JPEG round trips, EXIF orientation, progressive and interlaced files, why damaged, forged
// and unsupported files are refused, the decoding limit, memory refusals and atomic writes.
#include "KPImage/Platform/ImageIO.h"
#include "support/MovieFrames.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <random>

using namespace kp;
namespace fs = std::filesystem;

namespace {

std::vector<uint8_t> randomBytes(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> out(n);
    std::generate(out.begin(), out.end(), [&] { return static_cast<uint8_t>(rng()); });
    return out;
}

// An 80 x 60 grey noise picture as PNG or JPEG.
std::vector<uint8_t> encoded(bool jpeg) {
    const UIImage image = UIImage::imageWithCGImage(kptest::makeGray(80, 60, randomBytes(80 * 60, 3)));
    return jpeg ? *UIImageJPEGRepresentation(image, 0.9) : *UIImagePNGRepresentation(image);
}

} // namespace

TEST(ImageIO, RoundTripsKeepPixelsAndDecodersReadExifProgressiveAndInterlacedFiles) {
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
        ASSERT_TRUE(back) << image->bitsPerPixel();
        EXPECT_EQ(std::vector(back->CGImage()->bytes(), back->CGImage()->bytes() + back->CGImage()->byteCount()),
                  expected);
        EXPECT_EQ(back->isGrayScale(), image->bitsPerPixel() == 8);
    }

    // An APP1 EXIF block with orientation 6 (stored sideways: shown turned right).
    auto jpeg = encoded(true);
    const std::vector<uint8_t> app1{0xFF, 0xE1, 0, 34,   'E', 'x', 'i', 'f', 0, 0, 'M', 'M', 0, 42, 0, 0, 0, 8,
                                    0,    1,    1, 0x12, 0,   3,   0,   0,   0, 1, 0,   6,   0, 0,  0, 0, 0, 0};
    jpeg.insert(jpeg.begin() + 2, app1.begin(), app1.end());
    const auto turned = UIImage::imageWithData(jpeg);
    ASSERT_TRUE(turned);
    EXPECT_EQ(turned->imageOrientation(), UIImageOrientationRight);
    EXPECT_EQ(turned->size(), CGSizeMake(60, 80)); // points follow the orientation, the bitmap stays as stored
    EXPECT_EQ(turned->CGImage()->width(), 80u);

    // The test files: 96 x 64, a red disc on gradients and a blue checkerboard. The row-by-row decoders read them
    // whole: PNG exactly, the JPEG within its compression error (colour halved in both directions).
    for (const char* name : {"interlaced.png", "progressive.jpg"}) {
        SCOPED_TRACE(name);
        ImageReadError error{ImageReadError::Corrupt, "left from before"};
        const auto image = UIImage::imageWithContentsOfFile(kptest::dataPath(name), &error);
        ASSERT_TRUE(image && image->size() == CGSizeMake(96, 64));
        EXPECT_EQ(error.reason, ImageReadError::None);
        EXPECT_EQ(error.message, "");
        double sum = 0;
        for (int i = 0; i < 96 * 64; ++i) {
            const int x = i % 96, y = i / 96;
            const uint8_t* p = image->CGImage()->bytes() + size_t(y) * image->CGImage()->bytesPerRow() + size_t(x) * 4;
            const bool disc = (x - 48) * (x - 48) + (y - 32) * (y - 32) < 400;
            sum += std::abs(p[0] - (disc ? 220 : x * 255 / 96)) + std::abs(p[1] - (disc ? 40 : y * 255 / 64)) +
                   std::abs(p[2] - (((x / 8 + y / 8) & 1) ? 200 : 60));
        }
        EXPECT_LE(sum / (96 * 64 * 3), std::string(name).ends_with(".png") ? 0.0 : 9.0);
    }
}

TEST(ImageIO, RefusalsSayWhatIsWrong) {
    // (Missing files, folders, FIFOs, forged JPEG sizes and CMYK go through the tool's own test.)
    std::vector<uint8_t> badCrc = encoded(false), badJpeg = encoded(true);
    badCrc[29] ^= 0x55;                                      // the header chunk's checksum: its data is intact
    std::fill(badJpeg.end() - 300, badJpeg.end() - 2, 0xFF); // damaged entropy data: the first warning stops it
    std::vector<std::tuple<std::vector<uint8_t>, ImageReadError::Reason, std::string>> cases = {
        {*dataWithContentsOfFile(kptest::dataPath("forged.png")), ImageReadError::SizeMismatch,
         "claims 30000 x 30000 pixels but holds only 110 "},
        {badCrc, ImageReadError::Corrupt, "corrupt PNG data"},
        {badJpeg, ImageReadError::Corrupt, ""},
        {{'G', 'I', 'F', '8', '9', 'a', 0, 0}, ImageReadError::UnknownFormat, "not a PNG or JPEG"},
        {{}, ImageReadError::UnknownFormat, "empty"},
    };
    // Every truncation is refused as truncated; a PNG's last 12 bytes are its end chunk, which holds no picture data.
    for (const bool jpeg : {true, false}) {
        const std::vector<uint8_t> whole = encoded(jpeg);
        for (size_t percent = 1; percent <= 99; percent += 7) {
            const size_t cut = std::max<size_t>((whole.size() - (jpeg ? 0 : 12)) * percent / 100, 9);
            cases.emplace_back(std::vector(whole.begin(), whole.begin() + long(cut)), ImageReadError::Truncated,
                               "truncated");
        }
    }
    for (const auto& [bytes, reason, message] : cases) {
        SCOPED_TRACE(message + " " + std::to_string(bytes.size()));
        ImageReadError error;
        EXPECT_FALSE(UIImage::imageWithData(bytes, &error));
        EXPECT_EQ(error.reason, reason);
        EXPECT_TRUE(error.message.starts_with(message)) << error.message;
    }
}

TEST(ImageIO, HostCanLowerTheDecodingLimitInclusivelyAndBigPicturesShortOfMemoryGiveNil) {
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

    // Every caller-sized buffer of the platform layer: 1 MiB and more is refused; small work goes on.
    const kptest::ScratchFolder dir("memory");
    ASSERT_TRUE(writeToFile(std::vector<uint8_t>(2u << 20, 7), dir.file("big.bin"), true));
    const UIImage big = UIImage::imageWithCGImage(kptest::makeRGBA(1024, 1024, std::vector<uint8_t>(4u << 20, 9)));
    const auto bigPng = *UIImagePNGRepresentation(big);
    kptest::ScopedAllocationLimit memory(1u << 20);
    EXPECT_FALSE(dataWithContentsOfFile(dir.file("big.bin")));
    ImageReadError error;
    EXPECT_FALSE(UIImage::imageWithData(bigPng, &error));
    EXPECT_EQ(error.reason, ImageReadError::OutOfMemory);
    EXPECT_FALSE(UIImagePNGRepresentation(big) || UIImageJPEGRepresentation(big, 0.5));
    EXPECT_FALSE(CGImageCreateWithImageInRect(big.CGImage(), CGRectMake(0, 0, 1024, 1024)));
    EXPECT_TRUE(CGImageCreateWithImageInRect(big.CGImage(), CGRectMake(0, 0, 64, 64)));
}

TEST(ImageIO, WritesReplaceWholeFilesOrNothingAndReadsTakeOnlyRegularFiles) {
    const kptest::ScratchFolder dir("write");
    const std::string path = dir.file("a.bin"), fifo = dir.file("pipe.png");
    const std::vector<uint8_t> first(1000, 1), second(10, 2);
    EXPECT_TRUE(writeToFile(first, path, true) && writeToFile(second, path, true));
    EXPECT_EQ(*dataWithContentsOfFile(path), second);
    EXPECT_TRUE(writeToFile(first, path, false));
    // A missing directory or a path under a regular file fails without leaving anything behind.
    EXPECT_FALSE(writeToFile(first, dir.file("missing/b.bin"), true) || writeToFile(first, path + "/c.bin", true) ||
                 writeToFile(first, "", true));
    EXPECT_EQ(*dataWithContentsOfFile(path), first);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
    // A direct write does not wait for a reader of a pipe; an atomic one replaces the pipe by a file. (Reading one is
    // refused through the tool's test.)
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(writeToFile(std::vector<uint8_t>{1}, fifo, false));
    EXPECT_TRUE(writeToFile(std::vector<uint8_t>{1}, fifo, true));
    EXPECT_EQ(dataWithContentsOfFile(fifo), std::vector<uint8_t>{1});
}
