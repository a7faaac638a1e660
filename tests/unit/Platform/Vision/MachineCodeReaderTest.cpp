// SPDX-License-Identifier: MIT
// The code reader on printed codes: text, corner order at every turn, tilts, fine modules, blur, noise, types.
#include "Platform/Vision/MachineCodeReader.h"
#include "Platform/Vision/Pdf417Outline.h"

#include "support/CodePictures.h"

#include <ZXing/ReadBarcode.h>
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

using namespace kp;
using kptest::CodeKind;

namespace {

const std::vector<AVMetadataObjectType> kCardTypes{AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode};
const std::string kQrText = "KPIMAGE SAMPLE CARD T64235789";

// One code of the type and text, with every corner within 1.5 % of the picture's width of the truth, in order.
::testing::AssertionResult readsOne(const MachineCodeReader& reader, const kptest::CodePicture& pic,
                                    const AVMetadataObjectType& type, const std::string& text) {
    const auto codes = reader.read(pic.image);
    if (codes.size() != 1 || codes[0].type != type || codes[0].text != text) {
        return ::testing::AssertionFailure()
               << codes.size() << " codes read, the first " << (codes.empty() ? "" : codes[0].text.value_or("(nil)"));
    }
    const double error = kptest::cornerError(codes[0].corners, pic);
    return error <= 0.015 ? ::testing::AssertionSuccess()
                          : ::testing::AssertionFailure() << "a corner off by " << error * 100 << " % of the width";
}

// What the plain library reads in a picture, with its default hints.
std::vector<ZXing::Result> plainRead(const LumaImage& image) {
    return ZXing::ReadBarcodes(
        ZXing::ImageView(image.pixels.data(), image.width, image.height, ZXing::ImageFormat::Lum),
        ZXing::DecodeHints().setFormats(ZXing::BarcodeFormat::PDF417 | ZXing::BarcodeFormat::QRCode));
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
    const std::tuple<int, int, double, int, std::string> cases[] = {
        {900, 260, 3.0, 12, kptest::licenceText()},
        {1280, 720, 5.0, 6, kptest::licenceText().substr(0, 120)},
        {191, 38, 1.0, 3, "KP-0042"},
        {719, 52, 2.0, 16, "KPIMAGE FLAT CODE T64235789 2026"},
        {1710, 180, 4.0, 20, "KPIMAGE FLAT CODE T64235789 2026"},
    };
    for (const auto& [width, height, module, columns, text] : cases) {
        SCOPED_TRACE(testing::Message() << width << " x " << height << ", module " << module);
        const auto pic = kptest::renderCode(CodeKind::PDF417, text, width, height,
                                            {width / 2.0, height / 2.0, 0, module, 0, 0, 1, columns});
        EXPECT_EQ(plainRead(pic.image).size(), 1u) << "the plain library reads this picture";
        EXPECT_TRUE(readsOne(MachineCodeReader(kCardTypes, MachineCodeReader::Mode::Picture), pic,
                             AVMetadataObjectTypePDF417Code, text));
        const MachineCodeReader live(kCardTypes);
        bool read = false;
        for (int frame = 0; frame < 32 && !read; ++frame) {
            read = readsOne(live, pic, AVMetadataObjectTypePDF417Code, text);
        }
        EXPECT_TRUE(read);
    }
}

TEST(MachineCodeReader, JudgesWhetherCornersCanOutlineACode) {
    using Quad = std::array<CGPoint, 4>;
    const std::tuple<const char*, Quad, bool> cases[] = {
        {"upright", Quad{{{0, 100}, {300, 100}, {300, 0}, {0, 0}}}, true},
        {"turned by 20 degrees", Quad{{{-34, 94}, {248, 197}, {282, 103}, {0, 0}}}, true},
        {"seen at a slant", Quad{{{0, 100}, {300, 120}, {300, -20}, {0, 0}}}, true},
        {"two right corners on one point", Quad{{{0, 100}, {300, 50}, {300, 50}, {0, 0}}}, false},
        {"right corners on the left half", Quad{{{0, 100}, {60, 0}, {80, 100}, {0, 0}}}, false},
        {"crossing sides", Quad{{{0, 100}, {300, 0}, {300, 100}, {0, 0}}}, false},
        {"mirrored", Quad{{{300, 100}, {0, 100}, {0, 0}, {300, 0}}}, false},
        {"a side far shorter than its opposite", Quad{{{0, 100}, {300, 60}, {300, 40}, {0, 0}}}, false},
    };
    for (const auto& [what, corners, plausible] : cases) {
        EXPECT_EQ(isPlausibleCodeOutline(corners), plausible) << what;
    }
}

TEST(MachineCodeReader, ReportsOnlyEnabledTypesUnderThePlatformNames) {
    const auto qr = kptest::renderCode(CodeKind::QR, kQrText, 480, 360, {240, 180, 0, 4});
    EXPECT_TRUE(MachineCodeReader({AVMetadataObjectTypePDF417Code}).read(qr.image).empty());
    EXPECT_TRUE(MachineCodeReader({AVMetadataObjectTypeFace}).empty());
    EXPECT_TRUE(MachineCodeReader({AVMetadataObjectTypeFace}).read(qr.image).empty());

    const std::tuple<CodeKind, std::string, AVMetadataObjectType, double> cases[] = {
        {CodeKind::DataMatrix, "DM-12345", AVMetadataObjectTypeDataMatrixCode, 4},
        {CodeKind::Aztec, "AZTEC 42", AVMetadataObjectTypeAztecCode, 6},
        {CodeKind::Code128, "KP-0042", AVMetadataObjectTypeCode128Code, 4},
        {CodeKind::EAN13, "4006381333931", AVMetadataObjectTypeEAN13Code, 4},
        // An ID card's separators are control characters; the content is text all the same.
        {CodeKind::PDF417, "@\n\x1e\rANSI 636000090002DL", AVMetadataObjectTypePDF417Code, 3},
    };
    const MachineCodeReader all(MachineCodeReader::supportedTypes());
    for (const auto& [kind, text, type, moduleSize] : cases) {
        SCOPED_TRACE(type);
        const auto pic = kptest::renderCode(kind, text, 640, 480, {320, 240, 0, moduleSize});
        EXPECT_TRUE(readsOne(all, pic, type, text));
        EXPECT_TRUE(MachineCodeReader({AVMetadataObjectTypeQRCode}).read(pic.image).empty());
    }
}

TEST(MachineCodeReader, FindsNothingWithoutCodesAndReadsACodeThatAppearsWithinAFewPictures) {
    const MachineCodeReader reader(MachineCodeReader::supportedTypes());
    LumaImage flat;
    ASSERT_TRUE(flat.resize(1280, 720));
    std::fill(flat.pixels.begin(), flat.pixels.end(), uint8_t{128});
    EXPECT_TRUE(reader.read(flat).empty());
    EXPECT_TRUE(reader.read(LumaImage{}).empty());
    // Stripes and a checkerboard look like a code but hold none: the region is left alone for a few pictures; a
    // code printed there meanwhile is read all the same once its rest is over.
    LumaImage stripes = flat;
    for (int y = 260; y < 460; ++y) {
        for (int x = 440; x < 840; ++x) {
            stripes.row(y)[x] = ((x / 3) % 2 == 0) != (y > 360 && (y / 9) % 2 == 0) ? 30 : 220;
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

TEST(MachineCodeReader, FollowsACodeFromPictureToPicture) {
    // Each picture starts from the angle the previous one read at: a code turning on still reads, with its
    // corners where they are, not where a still skewed crop puts them.
    for (double module : {1.5, 2.0}) {
        for (double tilt : {-25.0, -10.0, 5.0, 20.0}) {
            SCOPED_TRACE(testing::Message() << "module " << module << ", tilt " << tilt);
            const MachineCodeReader reader(kCardTypes);
            for (const kptest::CodePlacement& at : {kptest::CodePlacement{640, 360, tilt, module, 0, 4.0, 3},
                                                    kptest::CodePlacement{650, 365, tilt + 2.5, module, 0, 4.0, 4}}) {
                const auto pic = kptest::renderCode(CodeKind::PDF417, kptest::licenceText(), 1280, 720, at);
                EXPECT_TRUE(readsOne(reader, pic, AVMetadataObjectTypePDF417Code, kptest::licenceText()));
            }
        }
    }
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
        const size_t read = reader.read(both).size();
        EXPECT_TRUE(read == 2 || (read == 1 && first < 0)) << read << " codes in picture " << picture;
        first = first < 0 && read == 2 ? picture : first;
    }
    EXPECT_TRUE(first >= 0 && first < 4) << "both codes first in picture " << first;
}
