// SPDX-License-Identifier: MIT
// The documents directory lookup (host setting, XDG user dirs, fallback) and the path-string helpers.
#include "KPImage/Platform/NSSearchPath.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

// Sets an environment variable for the scope and restores it after.
struct ScopedEnv {
    ScopedEnv(const char* variable, const std::string& value)
        : name(variable), old(std::getenv(variable) ? std::getenv(variable) : "") {
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() { old.empty() ? unsetenv(name) : setenv(name, old.c_str(), 1); }
    const char* name;
    std::string old;
};

std::string documents() {
    const auto paths = kp::NSSearchPathForDirectoriesInDomains(kp::NSDocumentDirectory, kp::NSUserDomainMask, true);
    return paths.size() == 1 ? paths[0] : "<" + std::to_string(paths.size()) + " paths>";
}

TEST(NSSearchPath, DocumentsDirectoryFromHostXdgOrHome) {
    const fs::path root = fs::temp_directory_path() / ("kpimage-xdg-" + std::to_string(getpid()));
    fs::create_directories(root / "config");
    ScopedEnv home("HOME", (root / "home").string());
    ScopedEnv config("XDG_CONFIG_HOME", (root / "config").string());

    kp::setDocumentsDirectory("");
    EXPECT_EQ(documents(), (root / "home" / "Documents").string());

    std::ofstream(root / "config" / "user-dirs.dirs") << "# written by xdg-user-dirs-update\n"
                                                        << "XDG_DESKTOP_DIR=\"$HOME/Desktop\"\n"
                                                        << "  XDG_DOCUMENTS_DIR=\"$HOME/Dokumente\"\n";
    EXPECT_EQ(documents(), (root / "home" / "Dokumente").string());
    std::ofstream(root / "config" / "user-dirs.dirs") << "XDG_DOCUMENTS_DIR=relative\n";
    EXPECT_EQ(documents(), (root / "home" / "Documents").string());

    kp::setDocumentsDirectory("~/Stored");
    EXPECT_EQ(documents(), (root / "home" / "Stored").string());
    kp::setDocumentsDirectory("");
    const auto pictures = [] {
        return kp::NSSearchPathForDirectoriesInDomains(kp::NSPicturesDirectory, kp::NSUserDomainMask, true);
    };
    std::ofstream(root / "config" / "user-dirs.dirs") << "XDG_PICTURES_DIR=\"$HOME/Bilder\"\n";
    EXPECT_EQ(pictures(), std::vector<std::string>{(root / "home" / "Bilder").string()});
    EXPECT_TRUE(kp::NSSearchPathForDirectoriesInDomains(static_cast<kp::NSSearchPathDirectory>(5), kp::NSUserDomainMask,
                                                        true)
                    .empty());
    fs::remove_all(root);
}

TEST(NSSearchPath, PathStrings) {
    for (const auto& [path, extension] : std::vector<std::pair<std::string, std::string>>{
             {"x.tar.gz", "gz"}, {".profile", ""}, {"a.", ""}, {"dir.d/file", ""}, {"/x/y.txt/", "txt"}, {"", ""}}) {
        EXPECT_EQ(kp::pathExtension(path), extension) << path;
    }
    EXPECT_EQ(kp::stringByAppendingPathComponent("/docs/", "a.png"), "/docs/a.png");
    EXPECT_EQ(kp::stringByAppendingPathComponent("/docs", "sub/a.png"), "/docs/sub/a.png");
}

} // namespace
