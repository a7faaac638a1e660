// SPDX-License-Identifier: MIT
// The file manager of the platform layer on std::filesystem.
#include "KPImage/Platform/NSFileManager.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace kp {

namespace fs = std::filesystem;

NSFileManager& NSFileManager::defaultManager() {
    static NSFileManager manager;
    return manager;
}

std::optional<std::vector<std::string>> NSFileManager::contentsOfDirectoryAtPath(const std::string& path) const {
    std::error_code error;
    fs::directory_iterator it(path, error);
    if (error) {
        return std::nullopt;
    }
    std::vector<std::string> names;
    try {
        for (const fs::directory_iterator end; it != end; it.increment(error)) {
            names.push_back(it->path().filename().string());
        }
    } catch (...) {
        return std::nullopt;
    }
    if (error) {
        return std::nullopt;
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool NSFileManager::removeItemAtPath(const std::string& path) const {
    std::error_code error;
    // remove_all looks at the path itself with symlink_status: a link is unlinked, never followed, and
    // links inside a directory are unlinked as entries.
    const std::uintmax_t removed = fs::remove_all(path, error);
    return !error && removed != static_cast<std::uintmax_t>(-1) && removed > 0;
}

bool NSFileManager::fileExistsAtPath(const std::string& path) const {
    std::error_code error;
    return fs::exists(fs::symlink_status(path, error));
}

} // namespace kp
