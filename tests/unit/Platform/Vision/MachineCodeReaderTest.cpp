// SPDX-License-Identifier: MIT
// The code reader on printed codes: text, corner order at every turn, tilts, fine modules, blur, noise, types.
#include "Platform/Vision/MachineCodeReader.h"
#include "Platform/Vision/Pdf417Outline.h"

#include "support/CodePictures.h"

#include <ZXing/ReadBarcode.h>
#include <gtest/gtest.h>

#include <cmath>

using namespace kp;
using kptest::CodeKind;
using kptest::CodePlacement;

namespace {

const std::vector<AVMetadataObjectType> kCardTypes{AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode};
const std::string kQrText = "KPIMAGE SAMPLE CARD T64235789";

// Every corner within 1.5 % of the picture's width of the truth, in the same order.
::testing::AssertionResult cornersMatch(const MachineCode& code, const kptest::CodePicture& truth) {
    const double error = kptest::cornerError(code.corners, truth);
    if (error > 0.015) {
        auto failure = ::testing::AssertionFailure() << "a corner off by " << error * 100 << " % of the width:";
        for (size_t i = 0; i < 4; ++i) {
            failure << " (" << code.corners[i].x << ", " << code.corners[i].y << ") for (" << truth.corners[i].x << ", "
                    << truth.corners[i].y << ")";
        }
        return failure;
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult readsOne(const MachineCodeReader& reader, const kptest::CodePicture& pic,
                                    const AVMetadataObjectType& type, const std::string& text) {
    const auto codes = reader.read(pic.image);
    if (codes.size() != 1) {
        return ::testing::AssertionFailure() << codes.size() << " codes read";
    }
    if (codes[0].type != type) {
        return ::testing::AssertionFailure() << "type " << codes[0].type;
    }
    if (codes[0].text != text) {
        return ::testing::AssertionFailure() << "text " << codes[0].text.value_or("(nil)");
    }
    return cornersMatch(codes[0], pic);
}

// What the plain library reads in a picture, with its default hints.
std::vector<ZXing::Result> plainRead(const LumaImage& image) {
    ZXing::DecodeHints hints;
    hints.setFormats(ZXing::BarcodeFormat::PDF417 | ZXing::BarcodeFormat::QRCode);
    return ZXing::ReadBarcodes(
        ZXing::ImageView(image.pixels.data(), image.width, image.height, ZXing::ImageFormat::Lum), hints);
}

} // namespace

TEST(MachineCodeReader, ReadsTheCodeSetWithItsCornersInPlace) {
    // Each picture is the first a live reader sees, and a single picture: every code is read, with each corner
    // within 1.5 % of the picture's width of the truth in the upright code's order, at every tilt and turn.
    size_t plainReads = 0;
    const auto set = kptest::codeSet();
    for (const auto& entry : set) {
        SCOPED_TRACE(entry.name);
        const auto type = entry.kind == CodeKind::PDF417 ? AVMetadataObjectTypePDF417Code : AVMetadataObjectTypeQRCode;
        for (auto mode : {MachineCodeReader::Mode::Video, MachineCodeReader::Mode::Picture}) {
            EXPECT_TRUE(readsOne(MachineCodeReader(kCardTypes, mode), entry.picture, type, entry.text));
        }
        plainReads += plainRead(entry.picture.image).size();
    }
    // The set is hard enough that the plain library misses some of it.
    EXPECT_LT(plainReads, set.size());
}

TEST(MachineCodeReader, NeverReadsLessThanThePlainLibrary) {
    // Codes the plain library reads in a single picture: large modules on a plain background, and flat codes in
    // pictures that hold little more than the code. A single picture reads them at once, a video within the
    // frames between two full reads.
    struct Case {
        int width, height;
        double module;
        int columns;
        std::string text;
    };
    const Case cases[] = {
        {900, 260, 3.0, 12, kptest::licenceText()},
        {1280, 720, 5.0, 6, kptest::licenceText().substr(0, 120)},
        {191, 38, 1.0, 3, "KP-0042"},
        {719, 52, 2.0, 16, "KPIMAGE FLAT CODE T64235789 2026"},
        {1710, 180, 4.0, 20, "KPIMAGE FLAT CODE T64235789 2026"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.width << " x " << c.height << ", module " << c.module);
        CodePlacement placement{c.width / 2.0, c.height / 2.0, 0, c.module};
        placement.columns = c.columns;
        const auto pic = kptest::renderCode(CodeKind::PDF417, c.text, c.width, c.height, placement);
        if (plainRead(pic.image).size() != 1) {
            ADD_FAILURE() << "the plain library does not read this picture";
            continue;
        }
        EXPECT_TRUE(readsOne(MachineCodeReader(kCardTypes, MachineCodeReader::Mode::Picture), pic,
                             AVMetadataObjectTypePDF417Code, c.text));
        const MachineCodeReader live(kCardTypes);
        bool read = false;
        for (int frame = 0; frame < 32 && !read; ++frame) {
            read = readsOne(live, pic, AVMetadataObjectTypePDF417Code, c.text);
        }
        EXPECT_TRUE(read);
    }
}

TEST(MachineCodeReader, JudgesWhetherCornersCanOutlineACode) {
    using Quad = std::array<CGPoint, 4>;
    struct Case {
        const char* what;
        Quad corners;
        bool plausible;
    };
    const Case cases[] = {
        {"upright", Quad{{{0, 100}, {300, 100}, {300, 0}, {0, 0}}}, true},
        {"turned by 20 degrees", Quad{{{-34, 94}, {248, 197}, {282, 103}, {0, 0}}}, true},
        {"seen at a slant", Quad{{{0, 100}, {300, 120}, {300, -20}, {0, 0}}}, true},
        {"two right corners on one point", Quad{{{0, 100}, {300, 50}, {300, 50}, {0, 0}}}, false},
        {"right corners on the left half", Quad{{{0, 100}, {60, 0}, {80, 100}, {0, 0}}}, false},
        {"crossing sides", Quad{{{0, 100}, {300, 0}, {300, 100}, {0, 0}}}, false},
        {"mirrored", Quad{{{300, 100}, {0, 100}, {0, 0}, {300, 0}}}, false},
        {"a side far shorter than its opposite", Quad{{{0, 100}, {300, 60}, {300, 40}, {0, 0}}}, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(isPlausibleCodeOutline(c.corners), c.plausible) << c.what;
    }
}

TEST(MachineCodeReader, ReadsPdf417WithFineModules) {
    const MachineCodeReader reader(kCardTypes);
    for (double tilt : {0.0, 10.0, -20.0}) {
        SCOPED_TRACE(tilt);
        const auto pdf =
            kptest::renderCode(CodeKind::PDF417, kptest::licenceText(), 1280, 720, {640, 360, tilt, 1.5, 0.4});
        EXPECT_TRUE(readsOne(reader, pdf, AVMetadataObjectTypePDF417Code, kptest::licenceText()));
    }
}

TEST(MachineCodeReader, ReportsOnlyEnabledTypesUnderThePlatformNames) {
    const auto qr = kptest::renderCode(CodeKind::QR, kQrText, 480, 360, {240, 180, 0, 4});
    EXPECT_TRUE(MachineCodeReader({AVMetadataObjectTypePDF417Code}).read(qr.image).empty());
    EXPECT_TRUE(MachineCodeReader({AVMetadataObjectTypeFace}).empty());
    EXPECT_TRUE(MachineCodeReader({AVMetadataObjectTypeFace}).read(qr.image).empty());

    struct Case {
        CodeKind kind;
        std::string text;
        AVMetadataObjectType type;
        std::string expected;
        double moduleSize = 4;
    };
    const Case cases[] = {
        {CodeKind::DataMatrix, "DM-12345", AVMetadataObjectTypeDataMatrixCode, "DM-12345"},
        {CodeKind::Aztec, "AZTEC 42", AVMetadataObjectTypeAztecCode, "AZTEC 42", 6},
        {CodeKind::Code128, "KP-0042", AVMetadataObjectTypeCode128Code, "KP-0042"},
        {CodeKind::EAN13, "4006381333931", AVMetadataObjectTypeEAN13Code, "4006381333931"},
        // An ID card's separators are control characters; the content is text all the same.
        {CodeKind::PDF417, "@\n\x1e\rANSI 636000090002DL", AVMetadataObjectTypePDF417Code,
         "@\n\x1e\rANSI 636000090002DL", 3},
    };
    const MachineCodeReader all(MachineCodeReader::supportedTypes());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        const auto pic = kptest::renderCode(c.kind, c.text, 640, 480, {320, 240, 0, c.moduleSize});
        EXPECT_TRUE(readsOne(all, pic, c.type, c.expected));
        EXPECT_TRUE(MachineCodeReader({AVMetadataObjectTypeQRCode}).read(pic.image).empty());
    }
}

TEST(MachineCodeReader, FindsNothingWithoutCodes) {
    const MachineCodeReader reader(MachineCodeReader::supportedTypes());
    LumaImage flat;
    ASSERT_TRUE(flat.resize(640, 480));
    std::fill(flat.pixels.begin(), flat.pixels.end(), uint8_t{128});
    EXPECT_TRUE(reader.read(flat).empty());
    // Stripes and a checkerboard are textured like codes but carry none.
    LumaImage stripes = flat;
    for (int y = 0; y < stripes.height; ++y) {
        for (int x = 0; x < stripes.width; ++x) {
            stripes.row(y)[x] = ((x / 3) % 2 == 0) != (y > 240 && (y / 7) % 2 == 0) ? 30 : 220;
        }
    }
    EXPECT_TRUE(reader.read(stripes).empty());
    EXPECT_TRUE(reader.read(LumaImage{}).empty());
}

TEST(MachineCodeReader, FollowsACodeFromPictureToPicture) {
    // Each picture starts from the angle the previous one read at: a code turning on still reads, with its
    // corners where they are, not where a still skewed crop puts them.
    for (double module : {1.5, 2.0}) {
        for (double tilt = -25; tilt <= 20; tilt += 5) {
            SCOPED_TRACE(testing::Message() << "module " << module << ", tilt " << tilt);
            const MachineCodeReader reader(kCardTypes);
            const auto first = kptest::renderCode(CodeKind::PDF417, kptest::licenceText(), 1280, 720,
                                                  {640, 360, tilt, module, 0.3, 4.0, 3});
            EXPECT_TRUE(readsOne(reader, first, AVMetadataObjectTypePDF417Code, kptest::licenceText()));
            const auto next = kptest::renderCode(CodeKind::PDF417, kptest::licenceText(), 1280, 720,
                                                 {650, 365, tilt + 2.5, module, 0.3, 4.0, 4});
            EXPECT_TRUE(readsOne(reader, next, AVMetadataObjectTypePDF417Code, kptest::licenceText()));
        }
    }
}

TEST(MachineCodeReader, ReadsACodeThatAppearsWhereNoneWasWithinAFewPictures) {
    // Stripes look like a code but hold none: the region is left alone for a few pictures; a code printed there
    // meanwhile is read all the same once its rest is over.
    const MachineCodeReader reader(kCardTypes);
    LumaImage stripes;
    ASSERT_TRUE(stripes.resize(1280, 720));
    for (int y = 0; y < stripes.height; ++y) {
        for (int x = 0; x < stripes.width; ++x) {
            const bool inside = x > 440 && x < 840 && y > 260 && y < 460;
            stripes.row(y)[x] = inside && ((x / 3) % 2 == 0) != ((y / 9) % 2 == 0) ? 30 : 220;
        }
    }
    EXPECT_TRUE(reader.read(stripes).empty());
    const auto code = kptest::renderCode(CodeKind::PDF417, kptest::licenceText(), 1280, 720, {640, 360, 10, 2.0});
    bool read = false;
    for (int picture = 0; picture < 3 && !read; ++picture) {
        read = readsOne(reader, code, AVMetadataObjectTypePDF417Code, kptest::licenceText());
    }
    EXPECT_TRUE(read);
}

TEST(MachineCodeReader, LooksForKnownCodesAroundTheirPlaceAndForNewOnesEveryFewPictures) {
    const MachineCodeReader reader({AVMetadataObjectTypeQRCode, AVMetadataObjectTypeCode128Code});
    const auto left = kptest::renderCode(CodeKind::QR, kQrText, 1280, 720, {300, 360, 0, 4});
    ASSERT_TRUE(readsOne(reader, left, AVMetadataObjectTypeQRCode, kQrText));
    // Moved far away: not found around its old place, so the whole picture is read at once.
    const auto right = kptest::renderCode(CodeKind::QR, kQrText, 1280, 720, {980, 360, 0, 4});
    EXPECT_TRUE(readsOne(reader, right, AVMetadataObjectTypeQRCode, kQrText));
    // A second code (a linear one, which only the look over the whole picture reads) appears while the first
    // stays: it shows within a few pictures, and stays.
    LumaImage both = right.image;
    kptest::printCode(both, CodeKind::Code128, "KP-0042", {300, 360, 0, 3});
    int first = -1;
    for (int picture = 0; picture < 8; ++picture) {
        const auto codes = reader.read(both);
        ASSERT_GE(codes.size(), 1u);
        if (codes.size() == 2 && first < 0) {
            first = picture;
        }
        if (first >= 0) {
            EXPECT_EQ(codes.size(), 2u) << "picture " << picture;
        }
    }
    EXPECT_GE(first, 0);
    EXPECT_LT(first, 4);
}
