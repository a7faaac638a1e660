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
    std::vector<std::string> names;
    std::error_code error;
    try {
        fs::directory_iterator it(path, error);
        for (const fs::directory_iterator end; !error && it != end; it.increment(error)) {
            names.push_back(it->path().filename().string());
        }
    } catch (...) {
        // Out of memory for the names, or an entry that cannot be read: no listing.
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
    std::uintmax_t removed = 0;
    try {
        removed = fs::remove_all(path, error);
    } catch (...) {
        return false; // out of memory part way: what was removed stays removed
    }
    return !error && removed != static_cast<std::uintmax_t>(-1) && removed > 0;
}

bool NSFileManager::fileExistsAtPath(const std::string& path) const {
    std::error_code error;
    return fs::exists(fs::symlink_status(path, error));
}

} // namespace kp
