// SPDX-License-Identifier: MIT
// Standard directories of the platform layer and path-string helpers.
#include "KPImage/Platform/NSSearchPath.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <mutex>

namespace kp {

namespace {

std::mutex& documentsMutex() {
    static std::mutex mutex;
    return mutex;
}

std::string& documentsOverride() {
    static std::string path;
    return path;
}

std::string expandTildeIn(const std::string& path) {
    if (path == "~" || path.rfind("~/", 0) == 0) {
        return NSHomeDirectory() + path.substr(1);
    }
    return path;
}

// A directory from user-dirs.dirs: lines of the form XDG_DOCUMENTS_DIR="$HOME/Documents", where the
// value is either absolute or starts with $HOME. Empty when not set.
std::string xdgUserDirectory(const std::string& name) {
    std::string configHome;
    if (const char* env = std::getenv("XDG_CONFIG_HOME"); env != nullptr && env[0] == '/') {
        configHome = env;
    } else {
        configHome = NSHomeDirectory() + "/.config";
    }
    std::ifstream file(configHome + "/user-dirs.dirs");
    std::string line;
    std::string found;
    while (std::getline(file, line)) {
        const size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line[start] == '#') {
            continue;
        }
        const std::string key = name + "=";
        if (line.compare(start, key.size(), key) != 0) {
            continue;
        }
        std::string value = line.substr(start + key.size());
        while (!value.empty() && (value.back() == ' ' || value.back() == '\t' || value.back() == '\r')) {
            value.pop_back();
        }
        if (value.size() < 2 || value.front() != '"' || value.back() != '"') {
            continue;
        }
        value = value.substr(1, value.size() - 2);
        if (value.rfind("$HOME", 0) == 0) {
            value = NSHomeDirectory() + value.substr(5);
        } else if (value.empty() || value.front() != '/') {
            continue;
        }
        found = value; // the last assignment wins, as in the shell
    }
    return found;
}

} // namespace

std::string NSHomeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') {
        return home;
    }
    struct passwd entry {};
    struct passwd* result = nullptr;
    std::string buffer(16384, '\0');
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result != nullptr &&
        result->pw_dir != nullptr) {
        return result->pw_dir;
    }
    return "/";
}

void setDocumentsDirectory(std::string path) {
    std::lock_guard lock(documentsMutex());
    documentsOverride() = std::move(path);
}

std::vector<std::string> NSSearchPathForDirectoriesInDomains(NSSearchPathDirectory directory,
                                                             NSSearchPathDomainMask domainMask, bool expandTilde) {
    if ((directory != NSDocumentDirectory && directory != NSPicturesDirectory) || (domainMask & NSUserDomainMask) == 0) {
        return {};
    }
    if (directory == NSPicturesDirectory) {
        const std::string pictures = xdgUserDirectory("XDG_PICTURES_DIR");
        return {pictures.empty() ? (expandTilde ? expandTildeIn("~/Pictures") : "~/Pictures") : pictures};
    }
    std::string path;
    {
        std::lock_guard lock(documentsMutex());
        path = documentsOverride();
    }
    if (path.empty()) {
        path = xdgUserDirectory("XDG_DOCUMENTS_DIR");
    }
    if (path.empty()) {
        path = "~/Documents";
    }
    return {expandTilde ? expandTildeIn(path) : path};
}

std::string stringByAppendingPathComponent(const std::string& base, const std::string& component) {
    if (base.empty()) {
        return component;
    }
    if (base.back() == '/') {
        return base + component;
    }
    return base + "/" + component;
}

std::string pathExtension(const std::string& path) {
    size_t end = path.size();
    while (end > 0 && path[end - 1] == '/') {
        --end;
    }
    const size_t slash = path.rfind('/', end == 0 ? 0 : end - 1);
    const size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
    const std::string name = path.substr(nameStart, end - nameStart);
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) {
        return "";
    }
    return name.substr(dot + 1);
}

} // namespace kp
