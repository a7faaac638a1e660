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
class ScopedEnv {
public:
    ScopedEnv(const char* name, const std::string& value) : _name(name) {
        if (const char* old = std::getenv(name)) {
            _old = old;
        }
        setenv(name, value.c_str(), 1);
    }
    ~ScopedEnv() {
        if (_old) {
            setenv(_name, _old->c_str(), 1);
        } else {
            unsetenv(_name);
        }
    }

private:
    const char* _name;
    std::optional<std::string> _old;
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
    std::ofstream(root / "config" / "user-dirs.dirs") << "XDG_DOCUMENTS_DIR=\"/srv/docs\"\n";
    EXPECT_EQ(documents(), "/srv/docs");
    std::ofstream(root / "config" / "user-dirs.dirs") << "XDG_DOCUMENTS_DIR=relative\n";
    EXPECT_EQ(documents(), (root / "home" / "Documents").string());

    kp::setDocumentsDirectory("~/Stored");
    EXPECT_EQ(documents(), (root / "home" / "Stored").string());
    EXPECT_EQ(kp::NSSearchPathForDirectoriesInDomains(kp::NSDocumentDirectory, kp::NSUserDomainMask, false),
              std::vector<std::string>{"~/Stored"});
    kp::setDocumentsDirectory("/var/lib/app");
    EXPECT_EQ(documents(), "/var/lib/app");
    kp::setDocumentsDirectory("");
    const auto pictures = [] {
        return kp::NSSearchPathForDirectoriesInDomains(kp::NSPicturesDirectory, kp::NSUserDomainMask, true);
    };
    EXPECT_EQ(pictures(), std::vector<std::string>{(root / "home" / "Pictures").string()});
    std::ofstream(root / "config" / "user-dirs.dirs") << "XDG_PICTURES_DIR=\"$HOME/Bilder\"\n";
    EXPECT_EQ(pictures(), std::vector<std::string>{(root / "home" / "Bilder").string()});
    EXPECT_TRUE(kp::NSSearchPathForDirectoriesInDomains(static_cast<kp::NSSearchPathDirectory>(5), kp::NSUserDomainMask,
                                                        true)
                    .empty());
    fs::remove_all(root);
}

TEST(NSSearchPath, PathStrings) {
    EXPECT_EQ(kp::pathExtension("a.png"), "png");
    EXPECT_EQ(kp::pathExtension("x.tar.gz"), "gz");
    EXPECT_EQ(kp::pathExtension("d"), "");
    EXPECT_EQ(kp::pathExtension(".profile"), "");
    EXPECT_EQ(kp::pathExtension("a."), "");
    EXPECT_EQ(kp::pathExtension("a.*"), "*");
    EXPECT_EQ(kp::pathExtension("E.PNG"), "PNG");
    EXPECT_EQ(kp::pathExtension("dir.d/file"), "");
    EXPECT_EQ(kp::pathExtension("/x/y.txt/"), "txt");
    EXPECT_EQ(kp::pathExtension(""), "");
    EXPECT_EQ(kp::stringByAppendingPathComponent("/docs", "a.png"), "/docs/a.png");
    EXPECT_EQ(kp::stringByAppendingPathComponent("/docs/", "a.png"), "/docs/a.png");
    EXPECT_EQ(kp::stringByAppendingPathComponent("/docs", "sub/a.png"), "/docs/sub/a.png");
}

} // namespace
