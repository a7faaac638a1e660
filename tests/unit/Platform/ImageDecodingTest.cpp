// SPDX-License-Identifier: MIT
// Decoding pictures: why damaged, forged and unsupported files are refused, and that the row-by-row decoders
// still read progressive and interlaced files whole.
#include "KPImage/Platform/ImageIO.h"
#include "support/MovieFrames.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <random>

using namespace kp;
namespace fs = std::filesystem;

namespace {

std::vector<uint8_t> fileBytes(const std::string& name) { return *dataWithContentsOfFile(kptest::dataPath(name)); }

/// The picture the test files hold: 96 x 64, a red disc on gradients and a blue checkerboard.
std::array<int, 3> expectedPixel(int x, int y) {
    const bool disc = (x - 48) * (x - 48) + (y - 32) * (y - 32) < 400;
    return {disc ? 220 : x * 255 / 96, disc ? 40 : y * 255 / 64, ((x / 8 + y / 8) & 1) ? 200 : 60};
}

/// The mean absolute difference of the RGBA image from that picture.
double meanError(const UIImage& image) {
    const auto& cg = image.CGImage();
    double sum = 0;
    for (int y = 0; y < 64; ++y) {
        for (int x = 0; x < 96; ++x) {
            const uint8_t* p = cg->bytes() + static_cast<size_t>(y) * cg->bytesPerRow() + static_cast<size_t>(x) * 4;
            const auto want = expectedPixel(x, y);
            for (int c = 0; c < 3; ++c) {
                sum += std::abs(p[c] - want[static_cast<size_t>(c)]);
            }
        }
    }
    return sum / (96 * 64 * 3);
}

std::vector<uint8_t> encoded(bool jpeg) {
    std::mt19937 rng(3);
    std::vector<uint8_t> grey(80 * 60);
    for (auto& v : grey) {
        v = static_cast<uint8_t>(rng());
    }
    const UIImage image = UIImage::imageWithCGImage(kptest::makeGray(80, 60, grey));
    return jpeg ? *UIImageJPEGRepresentation(image, 0.9) : *UIImagePNGRepresentation(image);
}

ImageReadError decodingError(std::span<const uint8_t> data) {
    ImageReadError error;
    EXPECT_FALSE(UIImage::imageWithData(data, &error));
    return error;
}

} // namespace

TEST(ImageDecoding, ProgressiveAndInterlacedFilesDecodeWhole) {
    for (const char* name : {"interlaced.png", "progressive.jpg"}) {
        SCOPED_TRACE(name);
        ImageReadError error{ImageReadError::Corrupt, "left from before"};
        const auto image = UIImage::imageWithContentsOfFile(kptest::dataPath(name), &error);
        ASSERT_TRUE(image);
        EXPECT_EQ(error.reason, ImageReadError::None);
        EXPECT_EQ(error.message, "");
        EXPECT_EQ(image->size(), CGSizeMake(96, 64));
        // PNG is lossless; the JPEG is within its compression error (colour halved in both directions).
        EXPECT_LE(meanError(*image), std::string(name).ends_with(".png") ? 0.0 : 9.0);
    }
}

TEST(ImageDecoding, EveryTruncationIsRefusedAsTruncated) {
    for (const bool jpeg : {true, false}) {
        const std::vector<uint8_t> whole = encoded(jpeg);
        ASSERT_TRUE(UIImage::imageWithData(whole));
        // A PNG's last 12 bytes are its end chunk, which holds no picture data.
        const size_t needed = jpeg ? whole.size() : whole.size() - 12;
        for (int percent = 1; percent <= 99; percent += 2) {
            const size_t cut = std::max<size_t>(needed * static_cast<size_t>(percent) / 100, 9);
            SCOPED_TRACE(std::string(jpeg ? "JPEG" : "PNG") + " cut at " + std::to_string(cut));
            const ImageReadError error = decodingError(std::span(whole).first(cut));
            EXPECT_EQ(error.reason, ImageReadError::Truncated) << error.message;
            EXPECT_TRUE(error.message.starts_with("truncated")) << error.message;
        }
    }
}

TEST(ImageDecoding, RefusalsSayWhatIsWrong) {
    const kptest::ScratchFolder scratch("decoding");
    const fs::path dir = scratch.path();
    ASSERT_EQ(::mkfifo((dir / "pipe.png").c_str(), 0600), 0);
    std::vector<uint8_t> badCrc = encoded(false);
    badCrc[29] ^= 0x55; // the header chunk's checksum: its data is intact

    struct Case {
        std::string file;           // read from this path, or
        std::vector<uint8_t> bytes; // decoded from these bytes
        ImageReadError::Reason reason;
        std::string message; // the message starts with this
    };
    const std::vector<Case> cases = {
        {(dir / "missing.png").string(), {}, ImageReadError::NoSuchFile, "no such file"},
        {dir.string(), {}, ImageReadError::IsADirectory, "is a directory"},
        {(dir / "pipe.png").string(), {}, ImageReadError::NotARegularFile, "not a regular file"},
        {(dir / "missing.png" / "x.png").string(), {}, ImageReadError::NoSuchFile, "no such file"},
        {"", fileBytes("forged.jpg"), ImageReadError::SizeMismatch, "claims 16000 x 16000 pixels but holds only "},
        {"", fileBytes("forged.png"), ImageReadError::SizeMismatch, "claims 30000 x 30000 pixels but holds only 110 "},
        {"", fileBytes("cmyk.jpg"), ImageReadError::Unsupported, "CMYK"},
        {"", badCrc, ImageReadError::Corrupt, "corrupt PNG data"},
        {"", {'G', 'I', 'F', '8', '9', 'a', 0, 0}, ImageReadError::UnknownFormat, "not a PNG or JPEG"},
        {"", {}, ImageReadError::UnknownFormat, "empty"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file.empty() ? c.message : c.file);
        ImageReadError error;
        const auto image = c.file.empty() ? UIImage::imageWithData(c.bytes, &error)
                                          : UIImage::imageWithContentsOfFile(c.file, &error);
        EXPECT_FALSE(image);
        EXPECT_EQ(error.reason, c.reason);
        EXPECT_TRUE(error.message.starts_with(c.message)) << error.message;
    }
    // A JPEG's damaged entropy data stops the decoder at its first warning.
    std::vector<uint8_t> jpeg = encoded(true);
    std::fill(jpeg.end() - 300, jpeg.end() - 2, 0xFF);
    EXPECT_EQ(decodingError(jpeg).reason, ImageReadError::Corrupt);
}
