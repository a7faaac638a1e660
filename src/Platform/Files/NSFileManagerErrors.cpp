// SPDX-License-Identifier: MIT
// File-manager operations that report an NSError: removal, directory creation and standard-directory URLs.
#include "KPImage/Platform/NSFileManager.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace kp {

namespace fs = std::filesystem;

namespace {

NSErrorRef posixError(int code, const std::string& what, const std::string& path) {
    return NSError::errorWithDescription(NSPOSIXErrorDomain, code,
                                         what + " \"" + path + "\": " + std::strerror(code));
}

} // namespace

bool NSFileManager::removeItemAtPath(const std::string& path, NSErrorRef* error) const {
    std::error_code code;
    if (!fs::exists(fs::symlink_status(path, code))) {
        if (error != nullptr) {
            *error = posixError(code ? code.value() : ENOENT, "Could not remove", path);
        }
        return false;
    }
    // remove_all works on the path itself: a link is unlinked, never followed.
    const std::uintmax_t removed = fs::remove_all(path, code);
    if (code || removed == static_cast<std::uintmax_t>(-1)) {
        if (error != nullptr) {
            *error = posixError(code ? code.value() : EIO, "Could not remove", path);
        }
        return false;
    }
    return true;
}

bool NSFileManager::createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                          NSErrorRef* error) const {
    if (path.empty()) {
        if (error != nullptr) {
            *error = posixError(ENOENT, "Could not create the folder", path);
        }
        return false;
    }
    std::error_code code;
    if (withIntermediateDirectories) {
        fs::create_directories(path, code);
        if (!code && fs::is_directory(path, code)) {
            return true;
        }
        if (!code) {
            code = std::make_error_code(std::errc::not_a_directory);
        }
    } else if (::mkdir(path.c_str(), 0777) == 0) {
        return true;
    } else {
        code = std::error_code(errno, std::generic_category());
    }
    if (error != nullptr) {
        *error = posixError(code.value(), "Could not create the folder", path);
    }
    return false;
}

std::vector<NSURLRef> NSFileManager::URLsForDirectory(NSSearchPathDirectory directory,
                                                      NSSearchPathDomainMask domainMask) const {
    std::vector<NSURLRef> urls;
    for (const auto& path : NSSearchPathForDirectoriesInDomains(directory, domainMask, true)) {
        if (directory == NSDocumentDirectory) {
            // An application's documents folder always exists: a home without one (a service account, a fresh
            // container) gets it here. A folder that cannot be made is left for the caller's own operations to
            // report.
            std::error_code ignored;
            fs::create_directories(path, ignored);
        }
        if (auto url = NSURL::fileURLWithPath(path)) {
            urls.push_back(std::move(url));
        }
    }
    return urls;
}

} // namespace kp
