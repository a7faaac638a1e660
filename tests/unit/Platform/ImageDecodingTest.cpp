// SPDX-License-Identifier: MIT
// Decoding pictures: why damaged, forged and unsupported files are refused, and that the row-by-row decoders
// still read progressive and interlaced files whole.
#include "KPImage/Platform/ImageIO.h"
#include "support/MovieFrames.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <random>

using namespace kp;

namespace {

std::vector<uint8_t> encoded(bool jpeg) {
    std::mt19937 rng(3);
    std::vector<uint8_t> grey(80 * 60);
    for (auto& v : grey) {
        v = static_cast<uint8_t>(rng());
    }
    const UIImage image = UIImage::imageWithCGImage(kptest::makeGray(80, 60, grey));
    return jpeg ? *UIImageJPEGRepresentation(image, 0.9) : *UIImagePNGRepresentation(image);
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
        ASSERT_EQ(image->size(), CGSizeMake(96, 64));
        // The picture: a red disc on gradients and a blue checkerboard. PNG is lossless; the JPEG is within its
        // compression error (colour halved in both directions).
        double sum = 0;
        for (int y = 0; y < 64; ++y) {
            for (int x = 0; x < 96; ++x) {
                const uint8_t* p =
                    image->CGImage()->bytes() + size_t(y) * image->CGImage()->bytesPerRow() + size_t(x) * 4;
                const bool disc = (x - 48) * (x - 48) + (y - 32) * (y - 32) < 400;
                sum += std::abs(p[0] - (disc ? 220 : x * 255 / 96)) + std::abs(p[1] - (disc ? 40 : y * 255 / 64)) +
                       std::abs(p[2] - (((x / 8 + y / 8) & 1) ? 200 : 60));
            }
        }
        EXPECT_LE(sum / (96 * 64 * 3), std::string(name).ends_with(".png") ? 0.0 : 9.0);
    }
}

TEST(ImageDecoding, EveryTruncationIsRefusedAsTruncated) {
    for (const bool jpeg : {true, false}) {
        const std::vector<uint8_t> whole = encoded(jpeg);
        ASSERT_TRUE(UIImage::imageWithData(whole));
        // A PNG's last 12 bytes are its end chunk, which holds no picture data.
        const size_t needed = jpeg ? whole.size() : whole.size() - 12;
        for (size_t percent = 1; percent <= 99; percent += 7) {
            const size_t cut = std::max<size_t>(needed * percent / 100, 9);
            SCOPED_TRACE(std::string(jpeg ? "JPEG" : "PNG") + " cut at " + std::to_string(cut));
            ImageReadError error;
            EXPECT_FALSE(UIImage::imageWithData(std::span(whole).first(cut), &error));
            EXPECT_EQ(error.reason, ImageReadError::Truncated) << error.message;
            EXPECT_TRUE(error.message.starts_with("truncated")) << error.message;
        }
    }
}

TEST(ImageDecoding, RefusalsSayWhatIsWrong) {
    const kptest::ScratchFolder dir("decoding");
    ASSERT_EQ(::mkfifo(dir.file("pipe.png").c_str(), 0600), 0);
    const auto fileBytes = [](const char* name) { return *dataWithContentsOfFile(kptest::dataPath(name)); };
    std::vector<uint8_t> badCrc = encoded(false), badJpeg = encoded(true);
    badCrc[29] ^= 0x55;                                      // the header chunk's checksum: its data is intact
    std::fill(badJpeg.end() - 300, badJpeg.end() - 2, 0xFF); // damaged entropy data: the first warning stops it

    struct Case {
        std::string file;           // read from this path, or
        std::vector<uint8_t> bytes; // decoded from these bytes
        ImageReadError::Reason reason;
        std::string message; // the message starts with this
    };
    const std::vector<Case> cases = {
        {dir.file("missing.png"), {}, ImageReadError::NoSuchFile, "no such file"},
        {dir.path(), {}, ImageReadError::IsADirectory, "is a directory"},
        {dir.file("pipe.png"), {}, ImageReadError::NotARegularFile, "not a regular file"},
        {dir.file("missing.png/x.png"), {}, ImageReadError::NoSuchFile, "no such file"},
        {"", fileBytes("forged.jpg"), ImageReadError::SizeMismatch, "claims 16000 x 16000 pixels but holds only "},
        {"", fileBytes("forged.png"), ImageReadError::SizeMismatch, "claims 30000 x 30000 pixels but holds only 110 "},
        {"", fileBytes("cmyk.jpg"), ImageReadError::Unsupported, "CMYK"},
        {"", badCrc, ImageReadError::Corrupt, "corrupt PNG data"},
        {"", badJpeg, ImageReadError::Corrupt, ""},
        {"", {'G', 'I', 'F', '8', '9', 'a', 0, 0}, ImageReadError::UnknownFormat, "not a PNG or JPEG"},
        {"", {}, ImageReadError::UnknownFormat, "empty"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file.empty() ? c.message : c.file);
        ImageReadError error;
        EXPECT_FALSE(c.file.empty() ? UIImage::imageWithData(c.bytes, &error)
                                    : UIImage::imageWithContentsOfFile(c.file, &error));
        EXPECT_EQ(error.reason, c.reason);
        EXPECT_TRUE(error.message.starts_with(c.message)) << error.message;
    }
}
