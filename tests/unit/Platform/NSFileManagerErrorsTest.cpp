// SPDX-License-Identifier: MIT
// File-manager operations that report errors, and file URLs.
#include "KPImage/Platform/NSFileManager.h"
#include "KPImage/Platform/NSURL.h"
#include "support/MovieFrames.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

TEST(NSFileManagerErrors, RemovalAndCreationReportTheCause) {
    kptest::ScratchFolder root("files");
    auto& files = kp::NSFileManager::defaultManager();
    kp::NSErrorRef error;
    EXPECT_FALSE(files.removeItemAtPath(root.file("none"), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), kp::NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), ENOENT);
    EXPECT_NE(error->localizedDescription().find(root.file("none")), std::string::npos);
    EXPECT_FALSE(files.createDirectoryAtPath(root.file("a/b"), false, nullptr)) << "no intermediates";
    EXPECT_TRUE(files.createDirectoryAtPath(root.file("a/b"), true, nullptr));
    std::ofstream(root.file("a/b/c")) << "x";
    EXPECT_FALSE(files.createDirectoryAtPath(root.file("a/b/c"), true, &error)) << "a file is in the way";

    EXPECT_TRUE(files.removeItemAtPath(root.file("a"), &error));
    EXPECT_FALSE(fs::exists(root.file("a")));
}

TEST(NSFileManagerErrors, DocumentUrlsAndFileUrls) {
    // A home without its documents folder: the lookup makes it, as the platform's always exists.
    kptest::ScratchFolder root("urls");
    const std::string documents = root.file("app home/Documents");
    kp::setDocumentsDirectory(documents);
    const auto urls = kp::NSFileManager::defaultManager().URLsForDirectory(kp::NSDocumentDirectory, kp::NSUserDomainMask);
    kp::setDocumentsDirectory("");
    ASSERT_EQ(urls.size(), 1U);
    EXPECT_EQ(urls[0]->path(), documents);
    EXPECT_EQ(urls[0]->absoluteString(), "file://" + root.path() + "/app%20home/Documents");
    EXPECT_TRUE(fs::is_directory(documents));

    EXPECT_FALSE(kp::NSURL::fileURLWithPath(""));
    EXPECT_EQ(kp::NSURL::fileURLWithPath("/a/b/")->lastPathComponent(), "b");
}

} // namespace
