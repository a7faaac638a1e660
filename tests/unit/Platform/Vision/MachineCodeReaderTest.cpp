// SPDX-License-Identifier: MIT
// The code reader on printed codes: text, corner order at every turn, tilts, fine modules, blur, noise, types.
#include "Platform/Vision/MachineCodeReader.h"

#include "support/CodePictures.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace kp;
using kptest::CodeKind;
using kptest::CodePlacement;

namespace {

const std::vector<AVMetadataObjectType> kCardTypes{AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode};
const std::string kQrText = "KPIMAGE SAMPLE CARD T64235789";

// Every corner within 2 % of the picture's size of the truth, in the same order.
::testing::AssertionResult cornersMatch(const MachineCode& code, const kptest::CodePicture& truth) {
    for (size_t i = 0; i < 4; ++i) {
        const double dx = std::abs(code.corners[i].x - truth.corners[i].x) / truth.image.width;
        const double dy = std::abs(code.corners[i].y - truth.corners[i].y) / truth.image.height;
        if (dx > 0.02 || dy > 0.02) {
            return ::testing::AssertionFailure()
                   << "corner " << i << " at (" << code.corners[i].x << ", " << code.corners[i].y << "), truth ("
                   << truth.corners[i].x << ", " << truth.corners[i].y << ")";
        }
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

} // namespace

TEST(MachineCodeReader, CornerOrderFollowsTheCodeAtEveryQuarterTurn) {
    const MachineCodeReader reader(kCardTypes);
    for (double angle : {0.0, 90.0, 180.0, 270.0}) {
        SCOPED_TRACE(angle);
        const auto qr = kptest::renderCode(CodeKind::QR, kQrText, 640, 480, {300, 260, angle, 5});
        EXPECT_TRUE(readsOne(reader, qr, AVMetadataObjectTypeQRCode, kQrText));
        const auto pdf = kptest::renderCode(CodeKind::PDF417, kptest::licenceText(), 800, 800, {400, 400, angle, 2.5});
        EXPECT_TRUE(readsOne(reader, pdf, AVMetadataObjectTypePDF417Code, kptest::licenceText()));
    }
    // An upright code: bottom corners below the top ones, left of the right ones (nothing mirrored).
    const auto qr = kptest::renderCode(CodeKind::QR, kQrText, 640, 480, {320, 240, 0, 5});
    const auto codes = reader.read(qr.image);
    ASSERT_EQ(codes.size(), 1u);
    EXPECT_LT(codes[0].corners[0].x, codes[0].corners[1].x);
    EXPECT_GT(codes[0].corners[0].y, codes[0].corners[3].y);
    EXPECT_LT(codes[0].corners[3].x, codes[0].corners[2].x);
}

TEST(MachineCodeReader, ReadsTiltedCodesWithBlurAndNoise) {
    const MachineCodeReader reader(kCardTypes);
    int index = 0;
    for (double tilt = -25; tilt <= 25; tilt += 5) {
        SCOPED_TRACE(tilt);
        const double blurSigma = (index % 3) * 0.35;
        const double noise = (index % 2) * 6.0;
        ++index;
        const auto pdf = kptest::renderCode(CodeKind::PDF417, kptest::licenceText(), 1280, 720,
                                            {620, 380, tilt, 2.0, blurSigma, noise, static_cast<uint32_t>(index)});
        EXPECT_TRUE(readsOne(reader, pdf, AVMetadataObjectTypePDF417Code, kptest::licenceText()));
        const auto qr = kptest::renderCode(CodeKind::QR, kQrText, 640, 480,
                                           {330, 250, tilt, 4, blurSigma, noise, static_cast<uint32_t>(index)});
        EXPECT_TRUE(readsOne(reader, qr, AVMetadataObjectTypeQRCode, kQrText));
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
