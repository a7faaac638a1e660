// SPDX-License-Identifier: MIT
// The photo album: copies under new names, never overwriting, with completions on the main queue.
#include "KPImage/Platform/NSRunLoop.h"
#include "KPImage/Platform/NSSearchPath.h"
#include "KPImage/Platform/NSThread.h"
#include "KPImage/Platform/UIPhotoAlbum.h"
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

    // Saves the movie and waits for its completion; the error it reported.
    kp::NSErrorRef saveVideo(const std::string& path) {
        bool called = false;
        bool onMain = false;
        kp::NSErrorRef result;
        int context = 7;
        kp::UISaveVideoAtPathToSavedPhotosAlbum(
            path,
            kp::UIVideoSaveCompletion([&](const std::string& saved, const kp::NSErrorRef& error, void* info) {
                called = true;
                onMain = kp::NSThread::isMainThread() && saved == path && info == &context;
                result = error;
            }),
            &context);
        EXPECT_TRUE(_main.drainUntil([&] { return called; }));
        EXPECT_TRUE(onMain) << "the completion runs on the main queue with the path and context";
        return result;
    }

    kptest::ScratchFolder _root{"album"};
    kptest::ManualMainQueue _main;
};

TEST_F(PhotoAlbumTest, MoviesAreCopiedUnderNewNamesAndNothingIsOverwritten) {
    const std::string movie = _root.file("FrontCardData0.mov");
    std::ofstream(movie) << "first";
    EXPECT_FALSE(saveVideo(movie));
    std::ofstream(movie) << "second";
    EXPECT_FALSE(saveVideo(movie));
    const std::string album = _root.file("Album/Nested");
    EXPECT_EQ(names(album), (std::set<std::string>{"FrontCardData0.mov", "FrontCardData0-1.mov"}));
    EXPECT_EQ(readText(album + "/FrontCardData0.mov"), "first");
    EXPECT_EQ(readText(album + "/FrontCardData0-1.mov"), "second");
    EXPECT_TRUE(fs::exists(movie)) << "the source stays";
}

TEST_F(PhotoAlbumTest, FailuresNameTheCauseAndLeaveTheAlbumAsItWas) {
    const auto missing = saveVideo(_root.file("missing.mov"));
    ASSERT_TRUE(missing);
    EXPECT_NE(missing->localizedDescription().find("missing.mov"), std::string::npos);
    EXPECT_NE(missing->localizedDescription().find("No such file"), std::string::npos);

    // An album that is a regular file cannot take anything, whoever runs the test.
    std::ofstream(_root.file("blocked")) << "x";
    kp::setSavedPhotosAlbumDirectory(_root.file("blocked"));
    std::ofstream(_root.file("a.mov")) << "movie";
    const auto blocked = saveVideo(_root.file("a.mov"));
    ASSERT_TRUE(blocked);
    EXPECT_NE(blocked->localizedDescription().find("blocked"), std::string::npos);
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
