// SPDX-License-Identifier: MIT
// The PNG image store: round trips, replacement, wildcard deletion, links and unusable directories.
#include "KPImage/KPImageDictionary.h"

#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/NSSearchPath.h"
#include "support/PixelProbe.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>

namespace {

namespace fs = std::filesystem;
using kp::KPImageDictionary;

class KPImageDictionaryTest : public ::testing::Test {
protected:
    void SetUp() override {
        _root = fs::temp_directory_path() / ("kpimage-store-" + std::to_string(getpid()) + "-" +
                                             ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(_root);
        _docs = _root / "Documents";
        fs::create_directories(_docs);
        kp::setDocumentsDirectory(_docs.string());
    }
    void TearDown() override {
        kp::setDocumentsDirectory("");
        fs::remove_all(_root);
    }
    void touch(const fs::path& path, const std::string& text = "x") { std::ofstream(path) << text; }
    std::set<std::string> entries() const {
        std::set<std::string> names;
        for (const auto& e : fs::directory_iterator(_docs)) {
            names.insert(e.path().filename().string());
        }
        return names;
    }

    fs::path _root;
    fs::path _docs;
};

std::vector<uint8_t> pattern(size_t count, unsigned seed) {
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>((i * 37 + seed * 11 + (i >> 3)) & 255);
    }
    return bytes;
}

// Every pixel of b equals a's, compared as straight RGBA values.
void expectSamePixels(const kp::CGImageRef& a, const kp::CGImageRef& b) {
    ASSERT_TRUE(a && b);
    ASSERT_EQ(a->width(), b->width());
    ASSERT_EQ(a->height(), b->height());
    for (size_t y = 0; y < a->height(); ++y) {
        for (size_t x = 0; x < a->width(); ++x) {
            ASSERT_EQ(*kptest::pixelAt(a, x, y), *kptest::pixelAt(b, x, y)) << x << "," << y;
        }
    }
}

TEST_F(KPImageDictionaryTest, RoundTripsGreyRgbAndRgba) {
    const kp::CGImageRef grey = kptest::makeGray(7, 5, pattern(7 * 5, 1));
    // Padded rows must not leak into the file.
    const kp::CGImageRef rgb = kptest::makeRGB(6, 4, pattern(24 * 4, 2), 24);
    std::vector<uint8_t> rgbaBytes = pattern(5 * 3 * 4, 3);
    rgbaBytes[3] = 0;
    rgbaBytes[7] = 1;
    rgbaBytes[11] = 128; // straight alpha, any value, survives
    const kp::CGImageRef rgba = kptest::makeRGBA(5, 3, rgbaBytes);
    ASSERT_TRUE(KPImageDictionary::saveImageAsPNG(grey, "grey"));
    ASSERT_TRUE(KPImageDictionary::saveImageAsPNG(rgb, "rgb"));
    ASSERT_TRUE(KPImageDictionary::saveImageAsPNG(rgba, "rgba"));
    EXPECT_EQ(entries(), (std::set<std::string>{"grey.png", "rgb.png", "rgba.png"}));

    const auto greyBack = KPImageDictionary::loadImageWithFileName("grey");
    ASSERT_TRUE(greyBack);
    EXPECT_TRUE(greyBack->isGrayScale());
    EXPECT_EQ(greyBack->scale(), 1.0);
    expectSamePixels(grey, greyBack->CGImage());
    for (const auto& [name, original] : {std::pair{"rgb", rgb}, std::pair{"rgba", rgba}}) {
        SCOPED_TRACE(name);
        const auto back = KPImageDictionary::loadImageWithFileName(name);
        ASSERT_TRUE(back);
        EXPECT_EQ(kp::CGImageGetBitsPerPixel(back->CGImage()), 32u);
        expectSamePixels(original, back->CGImage());
    }
}

TEST_F(KPImageDictionaryTest, SavingAgainReplacesAndLeavesNoTemporaryFiles) {
    const kp::CGImageRef first = kptest::makeGray(4, 4, std::vector<uint8_t>(16, 10));
    const kp::CGImageRef second = kptest::makeGray(8, 2, std::vector<uint8_t>(16, 200));
    ASSERT_TRUE(KPImageDictionary::saveImageAsPNG(first, "card"));
    ASSERT_TRUE(KPImageDictionary::saveImageAsPNG(second, "card"));
    expectSamePixels(second, KPImageDictionary::loadImageWithFileName("card")->CGImage());
    EXPECT_EQ(entries(), (std::set<std::string>{"card.png"}));
    EXPECT_FALSE(KPImageDictionary::loadImageWithFileName("never-saved"));

    // A failed save (no bitmap: no PNG) leaves the stored picture alone.
    EXPECT_FALSE(KPImageDictionary::saveImageAsPNG(nullptr, "card"));
    expectSamePixels(second, KPImageDictionary::loadImageWithFileName("card")->CGImage());

    // Names are used as they are: "/" reaches into an existing subdirectory only.
    fs::create_directory(_docs / "sub");
    EXPECT_TRUE(KPImageDictionary::saveImageAsPNG(first, "sub/inner"));
    EXPECT_TRUE(fs::exists(_docs / "sub" / "inner.png"));
    EXPECT_FALSE(KPImageDictionary::saveImageAsPNG(first, "missing/inner"));
    // A file that is not a picture loads as nil.
    touch(_docs / "text.png", "not a png");
    EXPECT_FALSE(KPImageDictionary::loadImageWithFileName("text"));
}

TEST_F(KPImageDictionaryTest, EveryNameThatFitsTheFileSystemSaves) {
    const kp::CGImageRef image = kptest::makeGray(3, 2, pattern(6, 4));
    // "NAME.png" of up to 255 bytes is a valid file name; the temporary file beside it must be too.
    const std::string longest(251, 'n');
    ASSERT_TRUE(KPImageDictionary::saveImageAsPNG(image, longest));
    ASSERT_TRUE(KPImageDictionary::saveImageAsPNG(image, longest)); // replacing works too
    expectSamePixels(image, KPImageDictionary::loadImageWithFileName(longest)->CGImage());
    KPImageDictionary::deleteImageWithFileName(longest, "png");
    EXPECT_FALSE(KPImageDictionary::saveImageAsPNG(image, std::string(252, 'n')));
    EXPECT_TRUE(entries().empty());
}

TEST_F(KPImageDictionaryTest, RunningOutOfMemoryGivesNoAndNil) {
    const kp::CGImageRef big = kptest::makeRGBA(512, 512, pattern(512 * 512 * 4, 5)); // 1 MiB
    ASSERT_TRUE(KPImageDictionary::saveImageAsPNG(big, "big"));
    kptest::ScopedAllocationLimit memory(256u << 10);
    EXPECT_FALSE(KPImageDictionary::saveImageAsPNG(big, "other"));
    EXPECT_FALSE(KPImageDictionary::loadImageWithFileName("big"));
    EXPECT_GE(memory.refusals(), 2u);
    EXPECT_EQ(entries(), (std::set<std::string>{"big.png"}));
}

TEST_F(KPImageDictionaryTest, WildcardDeletion) {
    const auto populate = [&] {
        for (const char* name : {"a.png", "b.png", "c.jpg", "d", "E.PNG", "a.*", "x.tar.png"}) {
            touch(_docs / name);
        }
        fs::create_directories(_docs / "folder.png" / "deep");
        touch(_docs / "folder.png" / "deep" / "f.txt");
    };
    populate();
    KPImageDictionary::deleteImageWithFileName("*", "png");
    EXPECT_EQ(entries(), (std::set<std::string>{"c.jpg", "d", "E.PNG", "a.*"}));

    KPImageDictionary::deleteImageWithFileName("*", "");
    EXPECT_EQ(entries(), (std::set<std::string>{"c.jpg", "E.PNG", "a.*"}));

    // A name with "*" as extension means the file literally called a.*; "*" is not special there.
    touch(_docs / "a.png");
    KPImageDictionary::deleteImageWithFileName("a", "*");
    EXPECT_EQ(entries(), (std::set<std::string>{"c.jpg", "E.PNG", "a.png"}));
    KPImageDictionary::deleteImageWithFileName("a", "png");
    EXPECT_EQ(entries(), (std::set<std::string>{"c.jpg", "E.PNG"}));
    KPImageDictionary::deleteImageWithFileName("a", "png"); // already gone: ignored

    populate();
    KPImageDictionary::deleteImageWithFileName("*", "*");
    EXPECT_TRUE(entries().empty());
    EXPECT_TRUE(fs::exists(_docs));
}

TEST_F(KPImageDictionaryTest, DeletionRemovesLinksNeverTheirTargets) {
    const fs::path outside = _root / "outside";
    fs::create_directories(outside / "keep.png");
    touch(outside / "keep.png" / "precious.png");
    touch(outside / "target.png");
    fs::create_directory_symlink(outside / "keep.png", _docs / "dirlink.png");
    fs::create_symlink(outside / "target.png", _docs / "filelink.png");
    fs::create_symlink(_root / "dangling", _docs / "dangling.png");
    fs::create_directory(_docs / "inner");
    fs::create_directory_symlink(outside, _docs / "inner" / "escape");

    KPImageDictionary::deleteImageWithFileName("*", "png");
    EXPECT_EQ(entries(), (std::set<std::string>{"inner"}));
    KPImageDictionary::deleteImageWithFileName("*", "*"); // removes inner with the link inside it
    EXPECT_TRUE(entries().empty());
    EXPECT_TRUE(fs::exists(outside / "keep.png" / "precious.png"));
    EXPECT_TRUE(fs::exists(outside / "target.png"));

    // A file link pointing out is not read through, and saving replaces the link, never its target.
    fs::create_symlink(outside / "target.png", _docs / "one.png");
    EXPECT_FALSE(KPImageDictionary::loadImageWithFileName("one"));
    EXPECT_TRUE(KPImageDictionary::saveImageAsPNG(kptest::makeGray(2, 2, std::vector<uint8_t>(4, 7)), "one"));
    EXPECT_FALSE(fs::is_symlink(_docs / "one.png"));
    EXPECT_EQ(fs::file_size(outside / "target.png"), 1u);
}

TEST_F(KPImageDictionaryTest, RemovalNeverTakesTheDirectoryOrWhatIsAboveIt) {
    const fs::path home = _root;
    const fs::path docs = _docs;
    fs::create_directories(docs / "a");
    touch(home / "precious.txt");
    touch(docs / "kept.png");
    touch(docs / "a" / "inner.png");
    fs::create_directory_symlink(home, docs / "up");
    fs::create_directory_symlink("/", docs / "root");

    // Each of these builds a path that ends in "/.", "/.." or "/" and names the directory or one above it.
    for (const auto& [name, extension] : std::vector<std::pair<std::string, std::string>>{
             {".", ""}, {"", "."}, {"a/.", ""}, {"a/", "."}, {"up/", ""}, {"up/", "/"}, {"root/", ""},
             {"a/../", "."}, {"", "./"}, {"a/", "./"}}) {
        SCOPED_TRACE(name + "|" + extension);
        KPImageDictionary::deleteImageWithFileName(name, extension);
        ASSERT_TRUE(fs::exists(home / "precious.txt"));
        ASSERT_TRUE(fs::exists(docs / "kept.png"));
        ASSERT_TRUE(fs::exists(docs / "a" / "inner.png"));
    }
    // Names still reach into subdirectories, never beside the directory.
    KPImageDictionary::deleteImageWithFileName("a/inner", "png");
    EXPECT_FALSE(fs::exists(docs / "a" / "inner.png"));
    KPImageDictionary::deleteImageWithFileName("../precious", "txt");
    EXPECT_TRUE(fs::exists(home / "precious.txt"));
    // The wildcard removes the links themselves and keeps the directory.
    KPImageDictionary::deleteImageWithFileName("*", "*");
    EXPECT_TRUE(fs::is_directory(docs));
    EXPECT_TRUE(fs::is_empty(docs));
    EXPECT_TRUE(fs::is_directory(home));
}

TEST_F(KPImageDictionaryTest, UnusableDirectoryGivesNoAndNil) {
    const kp::CGImageRef image = kptest::makeGray(4, 4, std::vector<uint8_t>(16, 7));
    ASSERT_TRUE(KPImageDictionary::saveImageAsPNG(image, "kept"));
    // Unwritable even for root: a directory path whose parent is a regular file.
    touch(_root / "plainfile", "stays");
    kp::setDocumentsDirectory((_root / "plainfile" / "Documents").string());
    EXPECT_FALSE(KPImageDictionary::saveImageAsPNG(image, "x"));
    EXPECT_FALSE(KPImageDictionary::loadImageWithFileName("x"));
    KPImageDictionary::deleteImageWithFileName("*", "*");
    KPImageDictionary::deleteImageWithFileName("x", "png");
    // Missing directory.
    kp::setDocumentsDirectory((_root / "missing").string());
    EXPECT_FALSE(KPImageDictionary::saveImageAsPNG(image, "x"));
    EXPECT_FALSE(KPImageDictionary::loadImageWithFileName("kept"));
    KPImageDictionary::deleteImageWithFileName("*", "*");
    EXPECT_FALSE(fs::exists(_root / "missing"));
    EXPECT_TRUE(fs::is_regular_file(_root / "plainfile"));
    kp::setDocumentsDirectory(_docs.string());
    expectSamePixels(image, KPImageDictionary::loadImageWithFileName("kept")->CGImage());
    EXPECT_EQ(entries(), (std::set<std::string>{"kept.png"}));
}

} // namespace
