// SPDX-License-Identifier: MIT
// Image files: PNG and JPEG round trips, EXIF orientation, refusal of bad or oversized data, atomic writes.
#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/SystemLog.h"
#include "KPImage/Platform/UIGraphics.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>
#include <zlib.h>

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

void putBE32(std::vector<uint8_t>& v, uint32_t x) {
    for (int s = 24; s >= 0; s -= 8) {
        v.push_back(static_cast<uint8_t>(x >> s));
    }
}
void putChunk(std::vector<uint8_t>& png, const char* type, const std::vector<uint8_t>& payload) {
    putBE32(png, static_cast<uint32_t>(payload.size()));
    std::vector<uint8_t> body(type, type + 4);
    body.insert(body.end(), payload.begin(), payload.end());
    png.insert(png.end(), body.begin(), body.end());
    putBE32(png, static_cast<uint32_t>(crc32(0, body.data(), static_cast<uInt>(body.size()))));
}

// A complete, valid PNG of 32768 x 32768 one-bit grey pixels, all 0, with a transparent grey value: about
// 130 KB of file, 4 GiB once decoded to RGBA.
const std::vector<uint8_t>& hugeZeroPng() {
    static const std::vector<uint8_t> png = [] {
        constexpr uint32_t kSide = 32768;
        std::vector<uint8_t> out{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
        std::vector<uint8_t> ihdr;
        putBE32(ihdr, kSide);
        putBE32(ihdr, kSide);
        ihdr.insert(ihdr.end(), {1, 0, 0, 0, 0}); // bit depth 1, grey, deflate, no filter, no interlace
        putChunk(out, "IHDR", ihdr);
        putChunk(out, "tRNS", {0, 1});
        // Each row is a filter byte 0 and kSide / 8 bytes of pixels, so the image data is all zeros. A
        // deflated MiB of zeros ends on a full flush (byte-aligned, no back references) and can be repeated.
        constexpr uint64_t kBytes = uint64_t{kSide} * (kSide / 8 + 1);
        constexpr uint64_t kChunk = 1u << 20;
        const auto deflated = [](uint64_t count, int flush) {
            std::vector<uint8_t> zeros(count, 0), packed(count / 100 + 1024);
            z_stream z{};
            deflateInit2(&z, 9, Z_DEFLATED, -15, 9, Z_RLE);
            z.next_in = zeros.data();
            z.avail_in = static_cast<uInt>(zeros.size());
            z.next_out = packed.data();
            z.avail_out = static_cast<uInt>(packed.size());
            deflate(&z, flush);
            packed.resize(z.total_out);
            deflateEnd(&z);
            return packed;
        };
        const std::vector<uint8_t> chunk = deflated(kChunk, Z_FULL_FLUSH);
        const std::vector<uint8_t> tail = deflated(kBytes % kChunk, Z_FINISH);
        std::vector<uint8_t> idat{0x78, 0xDA};
        for (uint64_t i = 0; i < kBytes / kChunk; ++i) {
            idat.insert(idat.end(), chunk.begin(), chunk.end());
        }
        idat.insert(idat.end(), tail.begin(), tail.end());
        // Adler-32 of zeros: the byte sum stays 1, the running sum is the count.
        putBE32(idat, static_cast<uint32_t>(((kBytes % 65521) << 16) | 1));
        putChunk(out, "IDAT", idat);
        putChunk(out, "IEND", {});
        return out;
    }();
    return png;
}

// A JPEG whose frame header announces 32768 x 32768 pixels (the scan data is that of a 16 x 16 picture).
std::vector<uint8_t> hugeJpeg() {
    auto jpeg = *UIImageJPEGRepresentation(UIImage::imageWithCGImage(kptest::makeGray(16, 16, randomBytes(256, 6))),
                                           0.9);
    for (size_t i = 2; i + 8 < jpeg.size(); ++i) {
        if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xC0) { // start of frame: length, precision, height, width
            jpeg[i + 5] = 0x80, jpeg[i + 6] = 0x00;
            jpeg[i + 7] = 0x80, jpeg[i + 8] = 0x00;
            return jpeg;
        }
    }
    ADD_FAILURE() << "no frame header";
    return jpeg;
}

// Restores the decoding limit when it goes.
struct DecodingLimit {
    explicit DecodingLimit(uint64_t pixels) { setMaximumDecodedImagePixels(pixels); }
    ~DecodingLimit() { setMaximumDecodedImagePixels(0); }
};
} // namespace

TEST(ImageIO, PngRoundTripsKeepPixelValues) {
    const auto grey = randomBytes(13 * 7, 1);
    const auto g = UIImage::imageWithData(*UIImagePNGRepresentation(UIImage::imageWithCGImage(kptest::makeGray(13, 7, grey))));
    ASSERT_TRUE(g);
    EXPECT_TRUE(g->isGrayScale());
    EXPECT_EQ(pixels(*g), grey);

    const auto rgb = randomBytes(5 * 3 * 3, 2);
    const auto c = UIImage::imageWithData(*UIImagePNGRepresentation(UIImage::imageWithCGImage(kptest::makeRGB(5, 3, rgb))));
    ASSERT_TRUE(c);
    EXPECT_EQ(c->CGImage()->bitsPerPixel(), 32u);
    EXPECT_EQ(c->CGImage()->bitmapInfo(), kKPBitmapInfoRGBA);
    for (size_t i = 0; i < 15; ++i) {
        ASSERT_EQ(c->CGImage()->bytes()[i * 4 + 0], rgb[i * 3 + 0]);
        ASSERT_EQ(c->CGImage()->bytes()[i * 4 + 2], rgb[i * 3 + 2]);
        ASSERT_EQ(c->CGImage()->bytes()[i * 4 + 3], 255);
    }

    // Straight alpha, including fully transparent pixels with colour, is exact.
    const auto rgba = randomBytes(6 * 6 * 4, 3);
    const auto a = UIImage::imageWithData(*UIImagePNGRepresentation(UIImage::imageWithCGImage(kptest::makeRGBA(6, 6, rgba))));
    ASSERT_TRUE(a);
    EXPECT_EQ(pixels(*a), rgba);

    // Opaque premultiplied BGRA comes back as RGBA.
    const auto b = UIImage::imageWithData(
        *UIImagePNGRepresentation(UIImage::imageWithCGImage(kptest::makeBGRA(1, 1, {10, 20, 30, 255}))));
    ASSERT_TRUE(b);
    EXPECT_EQ(pixels(*b), (std::vector<uint8_t>{30, 20, 10, 255}));
    EXPECT_FALSE(UIImagePNGRepresentation(UIImage()));

    // The bundled test photograph decodes as 512 x 512 colour.
    const auto photo = UIImage::imageWithContentsOfFile(kptest::dataPath("astronaut.png"));
    ASSERT_TRUE(photo);
    EXPECT_EQ(photo->size(), CGSizeMake(512, 512));
    EXPECT_FALSE(photo->isGrayScale());
}

TEST(ImageIO, JpegDecodesGreyAndColourAndReadsExifOrientation) {
    const auto grey = UIImage::imageWithCGImage(kptest::makeGray(16, 8, std::vector<uint8_t>(128, 90)));
    const auto jg = UIImageJPEGRepresentation(grey, 0.9);
    ASSERT_TRUE(jg);
    const auto dg = UIImage::imageWithData(*jg);
    ASSERT_TRUE(dg);
    EXPECT_TRUE(dg->isGrayScale());
    EXPECT_NEAR(dg->CGImage()->bytes()[37], 90, 2);

    const auto colour = UIImage::imageWithCGImage(kptest::makeRGB(16, 8, [] {
        std::vector<uint8_t> v(16 * 8 * 3);
        for (size_t i = 0; i < v.size(); i += 3) {
            v[i] = 200, v[i + 1] = 40, v[i + 2] = 10;
        }
        return v;
    }()));
    auto jc = UIImageJPEGRepresentation(colour, 0.95);
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
    EXPECT_EQ(dc->CGImage()->bytes()[3], 255);
}

TEST(ImageIO, BadOrOversizedDataGivesNil) {
    const auto png = *UIImagePNGRepresentation(UIImage::imageWithCGImage(kptest::makeGray(64, 64, randomBytes(4096, 9))));
    EXPECT_FALSE(UIImage::imageWithData(std::span(png).first(png.size() / 2)));
    EXPECT_FALSE(UIImage::imageWithData(std::span(png).first(8)));
    EXPECT_FALSE(UIImage::imageWithData(randomBytes(1000, 4)));
    EXPECT_FALSE(UIImage::imageWithData({}));
    EXPECT_FALSE(UIImage::imageWithContentsOfFile("/nonexistent/file.png"));
    EXPECT_FALSE(UIImage::imageWithContentsOfFile(fs::temp_directory_path().string())); // a directory

    // A header announcing 65536 x 65536 pixels (over the limit) is refused before any pixel is allocated.
    std::vector<uint8_t> huge{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    std::vector<uint8_t> ihdr{'I', 'H', 'D', 'R'};
    putBE32(ihdr, 65536);
    putBE32(ihdr, 65536);
    ihdr.insert(ihdr.end(), {8, 0, 0, 0, 0});
    putBE32(huge, 13);
    huge.insert(huge.end(), ihdr.begin(), ihdr.end());
    putBE32(huge, static_cast<uint32_t>(crc32(0, ihdr.data(), static_cast<uInt>(ihdr.size()))));
    huge.insert(huge.end(), png.begin() + 33, png.end()); // the rest of a real file
    EXPECT_FALSE(UIImage::imageWithData(huge));

}

TEST(ImageIO, HostCanLowerTheDecodingLimit) {
    EXPECT_EQ(maximumDecodedImagePixels(), kKPMaxImagePixels);
    const auto small = *UIImagePNGRepresentation(UIImage::imageWithCGImage(kptest::makeGray(64, 64, randomBytes(4096, 7))));
    const auto smallJpeg = *UIImageJPEGRepresentation(UIImage::imageWithCGImage(kptest::makeGray(64, 64, randomBytes(4096, 7))), 0.9);
    EXPECT_LT(hugeZeroPng().size(), 200000u);
    {
        DecodingLimit limit(uint64_t{1} << 20);
        EXPECT_EQ(maximumDecodedImagePixels(), uint64_t{1} << 20);
        EXPECT_FALSE(UIImage::imageWithData(hugeZeroPng()));
        EXPECT_FALSE(UIImage::imageWithData(hugeJpeg()));
        EXPECT_TRUE(UIImage::imageWithData(small));
    }
    {
        // The limit counts pixels, inclusive.
        DecodingLimit limit(64 * 64);
        EXPECT_TRUE(UIImage::imageWithData(small));
        EXPECT_TRUE(UIImage::imageWithData(smallJpeg));
        setMaximumDecodedImagePixels(64 * 64 - 1);
        EXPECT_FALSE(UIImage::imageWithData(small));
        EXPECT_FALSE(UIImage::imageWithData(smallJpeg));
        // It can be lowered, never raised.
        setMaximumDecodedImagePixels(kKPMaxImagePixels * 2);
        EXPECT_EQ(maximumDecodedImagePixels(), kKPMaxImagePixels);
    }
    EXPECT_EQ(maximumDecodedImagePixels(), kKPMaxImagePixels);
}

TEST(ImageIO, PicturesThatDoNotFitInMemoryGiveNil) {
    // Within the pixel limit, but memory runs out: 4 GiB of RGBA. (A JPEG header announcing that much is
    // refused before any allocation: its data cannot hold so many blocks.)
    {
        kptest::ScopedAllocationLimit memory(256u << 20);
        ImageReadError error;
        EXPECT_FALSE(UIImage::imageWithData(hugeZeroPng(), &error));
        EXPECT_EQ(error.reason, ImageReadError::OutOfMemory);
        EXPECT_FALSE(UIImage::imageWithData(hugeJpeg(), &error));
        EXPECT_EQ(error.reason, ImageReadError::SizeMismatch);
        EXPECT_GE(memory.refusals(), 1u);
    }
    // Every caller-sized buffer of the platform layer: 1 MiB and more is refused.
    const fs::path dir = scratchDir("memory");
    const std::string file = (dir / "big.bin").string();
    ASSERT_TRUE(writeToFile(std::vector<uint8_t>(2u << 20, 7), file, true));
    const UIImage big = UIImage::imageWithCGImage(kptest::makeRGBA(1024, 1024, std::vector<uint8_t>(4u << 20, 9)));
    const auto bigPng = *UIImagePNGRepresentation(big);
    {
        kptest::ScopedAllocationLimit memory(1u << 20);
        EXPECT_FALSE(dataWithContentsOfFile(file));
        EXPECT_FALSE(UIImage::imageWithContentsOfFile(file));
        EXPECT_FALSE(UIImage::imageWithData(bigPng));
        EXPECT_FALSE(UIImagePNGRepresentation(big));
        EXPECT_FALSE(UIImageJPEGRepresentation(big, 0.5));
        EXPECT_FALSE(CGImageCreateWithImageInRect(big.CGImage(), CGRectMake(0, 0, 1024, 1024)));
        EXPECT_TRUE(CGDataProviderCopyData(big.CGImage()->dataProvider()).empty());
        EXPECT_FALSE(CGBitmapContextCreate(nullptr, 1024, 1024, 8, 0, CGColorSpaceCreateDeviceRGB(), kKPBitmapInfoBGRA));
        UIGraphicsBeginImageContext(CGSizeMake(1024, 1024));
        EXPECT_FALSE(UIGraphicsGetImageFromCurrentImageContext());
        UIGraphicsEndImageContext();
        // Below the limit contexts and their images are made as usual.
        const CGContextRef context =
            CGBitmapContextCreate(nullptr, 400, 400, 8, 0, CGColorSpaceCreateDeviceRGB(), kKPBitmapInfoBGRA);
        ASSERT_TRUE(context);
        EXPECT_TRUE(CGBitmapContextCreateImage(context));
        EXPECT_GE(memory.refusals(), 9u);
        // Small work goes on.
        EXPECT_TRUE(CGImageCreateWithImageInRect(big.CGImage(), CGRectMake(0, 0, 64, 64)));
    }
    EXPECT_EQ(dataWithContentsOfFile(file)->size(), 2u << 20);
    fs::remove_all(dir);
}

TEST(ImageIO, AtomicWritesReplaceWholeFilesOrNothing) {
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
    size_t entries = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator(dir)) {
        ++entries;
    }
    EXPECT_EQ(entries, 1u);
    fs::remove_all(dir);
}

TEST(ImageIO, ReadsOnlyRegularFilesAndNeverWaits) {
    const fs::path dir = scratchDir("fifo");
    const std::string fifo = (dir / "pipe.png").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // No writer ever opens the pipe: a blocking open would wait for ever.
    EXPECT_FALSE(dataWithContentsOfFile(fifo));
    EXPECT_FALSE(UIImage::imageWithContentsOfFile(fifo));
    EXPECT_FALSE(dataWithContentsOfFile("/dev/null"));
    EXPECT_FALSE(dataWithContentsOfFile(dir.string()));
    // Nor does a direct write wait for a reader; an atomic one replaces the pipe by a file.
    EXPECT_FALSE(writeToFile(std::vector<uint8_t>{1}, fifo, false));
    EXPECT_TRUE(writeToFile(std::vector<uint8_t>{1}, fifo, true));
    EXPECT_EQ(dataWithContentsOfFile(fifo), std::vector<uint8_t>{1});
    // A link to a regular file is read through.
    const std::vector<uint8_t> bytes{1, 2, 3};
    ASSERT_TRUE(writeToFile(bytes, (dir / "plain").string(), true));
    fs::create_symlink(dir / "plain", dir / "link");
    EXPECT_EQ(dataWithContentsOfFile((dir / "link").string()), bytes);
    fs::remove_all(dir);
}

TEST(SystemLog, SinkIsReplaceableAndFormatsPrintfStyle) {
    {
        kptest::LogCapture log;
        NSLog("%s [Line %d] *** error: %s", "-[X y]", 42, "z");
        EXPECT_EQ(log.lines(), std::vector<std::string>{"-[X y] [Line 42] *** error: z"});
    }
    // The default sink writes "date time process[pid] message" to standard error.
    testing::internal::CaptureStderr();
    NSLog("hello %d", 7);
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_NE(line.find("[" + std::to_string(::getpid()) + "] hello 7\n"), std::string::npos) << line;
    EXPECT_EQ(line[4], '-');
}
