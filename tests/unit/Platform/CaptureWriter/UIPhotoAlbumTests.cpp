// SPDX-License-Identifier: MIT
// The photo album: movies and images under new names, never overwriting, with completions on the main queue.
#include "KPImage/Platform/NSRunLoop.h"
#include "KPImage/Platform/NSSearchPath.h"
#include "KPImage/Platform/NSThread.h"
#include "KPImage/Platform/UIPhotoAlbum.h"
#include "MovieRecording.h"
#include "support/ManualMainQueue.h"
#include "support/MovieFrames.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

namespace {

namespace fs = std::filesystem;

std::string readText(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::set<std::string> names(const std::string& folder) {
    std::set<std::string> out;
    for (const auto& e : fs::directory_iterator(folder)) {
        out.insert(e.path().filename().string());
    }
    return out;
}

class PhotoAlbumTest : public ::testing::Test {
protected:
    void SetUp() override { kp::setSavedPhotosAlbumDirectory(_root.file("Album/Nested")); }
    void TearDown() override {
        kp::setSavedPhotosAlbumDirectory("");
        kp::setSavedPhotosAlbumImageFormat(kp::UIPhotoAlbumImageFormat::PNG);
    }

    // Saves the movie and waits for its completion; the error it reported and the album file it wrote.
    kp::NSErrorRef saveVideo(const std::string& path, std::string* albumFile) {
        bool called = false;
        bool onMain = false;
        kp::NSErrorRef result;
        int context = 7;
        kp::UISaveVideoAtPathToSavedPhotosAlbum(
            path, kp::UIVideoSaveCompletion([&](const std::string& saved, const kp::NSErrorRef& error, void* info) {
                called = true;
                onMain = kp::NSThread::isMainThread() && saved == path && info == &context;
                result = error;
                *albumFile = kp::savedPhotosAlbumFilePath();
            }),
            &context);
        EXPECT_TRUE(_main.drainUntil([&] { return called; }));
        EXPECT_TRUE(onMain) << "the completion runs on the main queue with the path and context";
        return result;
    }

    kptest::ScratchFolder _root{"album"};
    kptest::ManualMainQueue _main;
};

TEST_F(PhotoAlbumTest, MoviesGetNewNamesInTheAlbumWithoutExtraSpaceAndNothingIsOverwritten) {
    const std::string movie = _root.file("FrontCardData0.mov");
    const std::string album = _root.file("Album/Nested");
    std::set<std::string> expected;
    for (const char* name : {"FrontCardData0.mov", "FrontCardData0-1.mov", "FrontCardData0-2.mov"}) {
        fs::remove(movie);
        ASSERT_EQ(kptest::recordPattern(movie, kp::kCVPixelFormatType_32BGRA, 16, 16, 2 + expected.size()),
                  kp::AVAssetWriterStatusCompleted);
        std::string saved;
        EXPECT_FALSE(saveVideo(movie, &saved));
        EXPECT_EQ(saved, album + "/" + name);
        expected.insert(name);
        EXPECT_EQ(names(album), expected);
        // The same file system: the album's file is the movie itself, under a second name.
        EXPECT_TRUE(fs::equivalent(movie, saved));
    }
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(kptest::readAll(
                      album + "/" +
                          (i == 0 ? std::string("FrontCardData0.mov") : "FrontCardData0-" + std::to_string(i) + ".mov"),
                      kp::kCVPixelFormatType_32BGRA)
                      .size(),
                  2 + i);
    }
    EXPECT_TRUE(fs::exists(movie)) << "the source stays";
}

TEST_F(PhotoAlbumTest, FailuresNameTheCauseAndLeaveTheAlbumAsItWas) {
    ASSERT_EQ(kptest::recordPattern(_root.file("a.mov"), kp::kCVPixelFormatType_32BGRA, 16, 16, 2),
              kp::AVAssetWriterStatusCompleted);
    std::ofstream(_root.file("empty.mov")).flush();
    std::ofstream(_root.file("text.mov")) << "not a movie at all";
    std::ofstream(_root.file("blocked")) << "x";
    struct Case {
        std::string movie;
        std::string album;
        std::vector<std::string> said;
    };
    const std::vector<Case> cases = {
        {_root.file("missing.mov"), _root.file("Album/Nested"), {"missing.mov", "No such file"}},
        // A failed writer's empty file and any other non-movie never reach the album.
        {_root.file("empty.mov"), _root.file("Album/Nested"), {"empty.mov", "not a movie"}},
        {_root.file("text.mov"), _root.file("Album/Nested"), {"text.mov", "not a movie"}},
        {_root.path(), _root.file("Album/Nested"), {"not a movie file"}},
        // An album that is a regular file cannot take anything, whoever runs the test.
        {_root.file("a.mov"), _root.file("blocked"), {"blocked", "Not a directory"}},
    };
    for (const auto& c : cases) {
        kp::setSavedPhotosAlbumDirectory(c.album);
        std::string saved = "unset";
        const auto error = saveVideo(c.movie, &saved);
        ASSERT_TRUE(error) << c.movie;
        for (const auto& part : c.said) {
            EXPECT_NE(error->localizedDescription().find(part), std::string::npos)
                << error->localizedDescription() << " lacks " << part;
        }
        EXPECT_EQ(saved, "");
    }
    EXPECT_FALSE(fs::exists(_root.file("Album/Nested")) && !fs::is_empty(_root.file("Album/Nested")));
    EXPECT_EQ(readText(_root.file("blocked")), "x");
}

TEST_F(PhotoAlbumTest, ImagesAreStoredAsPngOrJpegAndTargetsAreCalledBack) {
    struct Target : kp::UIPhotoAlbumSaveTarget {
        int images = 0;
        kp::NSErrorRef last;
        void image(const kp::UIImage&, const kp::NSErrorRef& error, void*) override {
            ++images;
            last = error;
        }
    };
    auto target = std::make_shared<Target>();
    const auto picture = kptest::grayImage(24, 16, [](size_t x, size_t y) { return x * 9 + y * 3; });
    kp::UIImageWriteToSavedPhotosAlbum(picture, target, nullptr);
    kp::setSavedPhotosAlbumImageFormat(kp::UIPhotoAlbumImageFormat::JPEG);
    kp::UIImageWriteToSavedPhotosAlbum(picture, target, nullptr);
    kp::UIImageWriteToSavedPhotosAlbum(kp::UIImage::imageWithoutBitmap({4, 4}), target, nullptr);
    ASSERT_TRUE(_main.drainUntil([&] { return target->images == 3; }));
    ASSERT_TRUE(target->last) << "an image without a bitmap cannot be saved";

    std::set<std::string> extensions;
    for (const auto& e : fs::directory_iterator(_root.file("Album/Nested"))) {
        extensions.insert(e.path().extension().string());
        const auto back = kp::UIImage::imageWithContentsOfFile(e.path().string());
        ASSERT_TRUE(back) << e.path();
        EXPECT_EQ(back->size().width, 24);
        EXPECT_EQ(back->size().height, 16);
        EXPECT_EQ(e.path().filename().string().rfind("IMG_", 0), 0U);
    }
    EXPECT_EQ(extensions, (std::set<std::string>{".png", ".jpg"}));
}

TEST_F(PhotoAlbumTest, TheDefaultAlbumIsTheUsersPicturesFolder) {
    kp::setSavedPhotosAlbumDirectory("");
    const char* oldHome = std::getenv("HOME");
    const char* oldConfig = std::getenv("XDG_CONFIG_HOME");
    const std::string home = oldHome ? oldHome : "";
    const std::string config = oldConfig ? oldConfig : "";
    setenv("HOME", _root.path().c_str(), 1);
    setenv("XDG_CONFIG_HOME", _root.file("config").c_str(), 1);
    EXPECT_EQ(kp::savedPhotosAlbumDirectory(), _root.file("Pictures/KPImage"));
    fs::create_directories(_root.file("config"));
    std::ofstream(_root.file("config/user-dirs.dirs")) << "XDG_PICTURES_DIR=\"$HOME/Bilder\"\n";
    EXPECT_EQ(kp::savedPhotosAlbumDirectory(), _root.file("Bilder/KPImage"));
    oldHome ? setenv("HOME", home.c_str(), 1) : unsetenv("HOME");
    oldConfig ? setenv("XDG_CONFIG_HOME", config.c_str(), 1) : unsetenv("XDG_CONFIG_HOME");
}

} // namespace
