// SPDX-License-Identifier: MIT
// The PNG image store: round trips, replacement, wildcard deletion, links and unusable directories.
#include "KPImage/KPImageDictionary.h"

#include "KPImage/Platform/NSSearchPath.h"
#include "support/MovieFrames.h"
#include "support/PixelProbe.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

namespace {

namespace fs = std::filesystem;
using kp::KPImageDictionary;
using Names = std::set<std::string>;

class KPImageDictionaryTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(_docs);
        kp::setDocumentsDirectory(_docs.string());
    }
    void TearDown() override { kp::setDocumentsDirectory(""); }
    static void touch(const fs::path& path) { std::ofstream(path) << "x"; }
    Names entries() const {
        Names names;
        for (const auto& e : fs::directory_iterator(_docs)) {
            names.insert(e.path().filename().string());
        }
        return names;
    }
    kptest::ScratchFolder _scratch{"store"};
    fs::path _root = _scratch.path(), _docs = _root / "Documents";
};

std::vector<uint8_t> patternBytes(size_t count, unsigned seed) {
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>((i * 37 + seed * 11 + (i >> 3)) & 255);
    }
    return bytes;
}

// Every pixel of the stored picture equals the original's, compared as straight RGBA values.
void expectStored(const kp::CGImageRef& original, const std::string& name) {
    const auto back = KPImageDictionary::loadImageWithFileName(name);
    ASSERT_TRUE(back && back->CGImage()) << name;
    const kp::CGImageRef& b = back->CGImage();
    ASSERT_EQ(b->width(), original->width());
    ASSERT_EQ(b->height(), original->height());
    for (size_t i = 0; i < b->width() * b->height(); ++i) {
        const size_t x = i % b->width(), y = i / b->width();
        ASSERT_EQ(*kptest::pixelAt(b, x, y), *kptest::pixelAt(original, x, y)) << name << " " << x << "," << y;
    }
}

TEST_F(KPImageDictionaryTest, RoundTripsAndReplacesEveryNameThatFits) {
    const kp::CGImageRef grey = kptest::makeGray(7, 5, patternBytes(7 * 5, 1));
    const kp::CGImageRef rgb = kptest::makeRGB(6, 4, patternBytes(24 * 4, 2), 24); // padded rows stay out of the file
    std::vector<uint8_t> rgbaBytes = patternBytes(5 * 3 * 4, 3);
    rgbaBytes[3] = 0, rgbaBytes[7] = 1, rgbaBytes[11] = 128; // straight alpha, any value, survives
    const kp::CGImageRef rgba = kptest::makeRGBA(5, 3, rgbaBytes);
    const std::string longest(251, 'n'); // "NAME.png" of 255 bytes; the temporary file beside it must fit too
    for (const auto& [name, image] : {std::pair{"grey", grey}, {"rgb", rgb}, {"rgba", rgba}, {longest.c_str(), grey}}) {
        ASSERT_TRUE(KPImageDictionary::saveImageAsPNG(image, name));
        expectStored(image, name);
    }
    EXPECT_TRUE(KPImageDictionary::loadImageWithFileName("grey")->isGrayScale());
    EXPECT_FALSE(KPImageDictionary::saveImageAsPNG(grey, std::string(252, 'n')));
    KPImageDictionary::deleteImageWithFileName(longest, "png");

    ASSERT_TRUE(KPImageDictionary::saveImageAsPNG(rgb, "grey"));
    expectStored(rgb, "grey");
    EXPECT_FALSE(KPImageDictionary::saveImageAsPNG(nullptr, "grey")); // a failed save leaves the picture alone
    expectStored(rgb, "grey");
    EXPECT_EQ(entries(), (Names{"grey.png", "rgb.png", "rgba.png"})) << "no temporary file is left";
    // A name reaches into an existing subdirectory only; a file that is not a picture loads as nil.
    EXPECT_FALSE(KPImageDictionary::saveImageAsPNG(grey, "missing/inner"));
    touch(_docs / "text.png");
    EXPECT_FALSE(KPImageDictionary::loadImageWithFileName("text") || KPImageDictionary::loadImageWithFileName("never"));
}

TEST_F(KPImageDictionaryTest, WildcardDeletion) {
    for (const char* name : {"a.png", "b.png", "c.jpg", "d", "E.PNG", "a.*", "x.tar.png"}) {
        touch(_docs / name);
    }
    fs::create_directories(_docs / "folder.png" / "deep");
    KPImageDictionary::deleteImageWithFileName("*", "png");
    EXPECT_EQ(entries(), (Names{"c.jpg", "d", "E.PNG", "a.*"}));
    KPImageDictionary::deleteImageWithFileName("*", "");  // names without an extension
    KPImageDictionary::deleteImageWithFileName("a", "*"); // "*" as an extension is literal
    EXPECT_EQ(entries(), (Names{"c.jpg", "E.PNG"}));
    KPImageDictionary::deleteImageWithFileName("*", "*");
    EXPECT_TRUE(entries().empty() && fs::exists(_docs));
}

TEST_F(KPImageDictionaryTest, LinksAreRemovedOrReplacedNeverFollowed) {
    const fs::path outside = _root / "outside";
    fs::create_directories(outside / "keep.png");
    touch(outside / "keep.png" / "precious.png");
    touch(outside / "target.png");
    touch(_root / "precious.txt");
    fs::create_directory_symlink(outside / "keep.png", _docs / "dirlink.png");
    fs::create_symlink(outside / "target.png", _docs / "filelink.png");
    fs::create_symlink(_root / "dangling", _docs / "dangling.png");
    fs::create_directories(_docs / "a");
    touch(_docs / "a" / "inner.png");
    touch(_docs / "kept.png");
    fs::create_directory_symlink(outside, _docs / "a" / "escape");
    fs::create_directory_symlink(_root, _docs / "up");
    fs::create_directory_symlink("/", _docs / "root");

    // Paths that end in "/.", "/.." or "/" and name the directory or one above it remove nothing.
    const std::pair<std::string, std::string> escapes[] = {
        {".", ""},     {"", "."},  {"a/.", ""},    {"a/", "."},  {"up/", ""},           {"up/", "/"},
        {"root/", ""}, {"", "./"}, {"a/../", "."}, {"a/", "./"}, {"../precious", "txt"}};
    for (const auto& [name, extension] : escapes) {
        KPImageDictionary::deleteImageWithFileName(name, extension);
        ASSERT_TRUE(fs::exists(_root / "precious.txt") && fs::exists(_docs / "kept.png") &&
                    fs::exists(_docs / "a" / "inner.png"))
            << name << "|" << extension;
    }
    KPImageDictionary::deleteImageWithFileName("a/inner", "png");
    EXPECT_FALSE(fs::exists(_docs / "a" / "inner.png"));
    KPImageDictionary::deleteImageWithFileName("*", "png");
    EXPECT_EQ(entries(), (Names{"a", "up", "root"}));
    KPImageDictionary::deleteImageWithFileName("*", "*");
    EXPECT_TRUE(entries().empty());
    EXPECT_TRUE(fs::exists(outside / "keep.png" / "precious.png") && fs::exists(outside / "target.png"));

    // A file link pointing out is not read through, and saving replaces the link, never its target.
    fs::create_symlink(outside / "target.png", _docs / "one.png");
    EXPECT_FALSE(KPImageDictionary::loadImageWithFileName("one"));
    EXPECT_TRUE(KPImageDictionary::saveImageAsPNG(kptest::makeGray(2, 2, std::vector<uint8_t>(4, 7)), "one"));
    EXPECT_FALSE(fs::is_symlink(_docs / "one.png"));
    EXPECT_EQ(fs::file_size(outside / "target.png"), 1u);
}

} // namespace
