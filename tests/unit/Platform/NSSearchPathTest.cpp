// SPDX-License-Identifier: MIT
// The documents directory lookup (host setting, XDG user dirs, fallback), path strings and the documents URL.
#include "KPImage/Platform/NSSearchPath.h"
#include "KPImage/Platform/NSFileManager.h"
#include "KPImage/Platform/NSURL.h"
#include "support/MovieFrames.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

std::vector<std::string> lookUp(kp::NSSearchPathDirectory directory) {
    return kp::NSSearchPathForDirectoriesInDomains(directory, kp::NSUserDomainMask, true);
}

TEST(NSSearchPath, DocumentsDirectoryFromHostXdgOrHomeAndPathStrings) {
    const kptest::ScratchFolder root("xdg");
    const std::string oldHome = std::getenv("HOME") ? std::getenv("HOME") : "";
    fs::create_directories(root.file("config"));
    setenv("HOME", root.file("home").c_str(), 1);
    setenv("XDG_CONFIG_HOME", root.file("config").c_str(), 1);
    const auto documents = [] { return lookUp(kp::NSDocumentDirectory); };
    const auto dirs = [&](const std::string& text) { std::ofstream(root.file("config/user-dirs.dirs")) << text; };
    kp::setDocumentsDirectory("");
    EXPECT_EQ(documents(), std::vector{root.file("home/Documents")});
    dirs("# written by xdg-user-dirs-update\nXDG_DESKTOP_DIR=\"$HOME/Desktop\"\n  "
         "XDG_DOCUMENTS_DIR=\"$HOME/Dokumente\"\n");
    EXPECT_EQ(documents(), std::vector{root.file("home/Dokumente")});
    dirs("XDG_DOCUMENTS_DIR=relative\nXDG_PICTURES_DIR=\"$HOME/Bilder\"\n");
    EXPECT_EQ(documents(), std::vector{root.file("home/Documents")});
    EXPECT_EQ(lookUp(kp::NSPicturesDirectory), std::vector{root.file("home/Bilder")});
    kp::setDocumentsDirectory("~/Stored");
    EXPECT_EQ(documents(), std::vector{root.file("home/Stored")});
    kp::setDocumentsDirectory("");
    unsetenv("XDG_CONFIG_HOME");
    setenv("HOME", oldHome.c_str(), 1);

    for (const auto& [path, extension] : std::vector<std::pair<std::string, std::string>>{
             {"x.tar.gz", "gz"}, {".profile", ""}, {"a.", ""}, {"dir.d/file", ""}, {"/x/y.txt/", "txt"}, {"", ""}}) {
        EXPECT_EQ(kp::pathExtension(path), extension) << path;
    }
    EXPECT_EQ(kp::stringByAppendingPathComponent("/docs/", "sub/a.png"), "/docs/sub/a.png");
}

TEST(NSFileManager, TheDocumentsUrlNamesAFolderThatExists) {
    // A home without its documents folder: the lookup makes it, as the platform's always exists.
    const kptest::ScratchFolder root("files");
    const std::string documents = root.file("app home/Documents");
    kp::setDocumentsDirectory(documents);
    const auto urls =
        kp::NSFileManager::defaultManager().URLsForDirectory(kp::NSDocumentDirectory, kp::NSUserDomainMask);
    kp::setDocumentsDirectory("");
    ASSERT_EQ(urls.size(), 1U);
    EXPECT_EQ(urls[0]->path(), documents);
    EXPECT_EQ(urls[0]->absoluteString(), "file://" + root.path() + "/app%20home/Documents");
    EXPECT_TRUE(fs::is_directory(documents));
}

} // namespace
