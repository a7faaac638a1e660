// SPDX-License-Identifier: MIT
// The file manager of the platform layer: listing a directory and removing items, on std::filesystem.
#pragma once

#include "KPImage/Platform/NSError.h"
#include "KPImage/Platform/NSSearchPath.h"
#include "KPImage/Platform/NSURL.h"

#include <optional>
#include <string>
#include <vector>

namespace kp {

/// File operations the library needs. Errors are values: nil or false, never exceptions.
class NSFileManager {
public:
    /// The process-wide file manager; safe from any thread.
    static NSFileManager& defaultManager();

    /// Names of the directory's entries (not recursive, without "." and ".."), sorted by name; nil when the
    /// path is not a readable directory.
    std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(const std::string& path) const;

    /// Removes the file, or the directory with everything in it. A symbolic link is removed itself, never
    /// its target, and links met inside a removed directory are not followed. False when nothing was
    /// there or the removal failed (part of a directory may then remain).
    bool removeItemAtPath(const std::string& path) const;

    /// The same; on failure *error (when given) is an NSPOSIXErrorDomain error naming the path and the cause.
    bool removeItemAtPath(const std::string& path, NSErrorRef* error) const;

    /// Creates a directory (and, with intermediates, its missing parents; an existing directory is then no
    /// failure). False with *error (NSPOSIXErrorDomain, naming the path and the cause) on failure.
    bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories, NSErrorRef* error) const;

    /// File URLs of the standard directories (see NSSearchPathForDirectoriesInDomains); empty for kinds this
    /// platform does not have. The documents folder is created (with its parents) when it is missing.
    std::vector<NSURLRef> URLsForDirectory(NSSearchPathDirectory directory, NSSearchPathDomainMask domainMask) const;

    /// True when something (a link counts, even a dangling one) exists at path.
    bool fileExistsAtPath(const std::string& path) const;

    NSFileManager(const NSFileManager&) = delete;
    NSFileManager& operator=(const NSFileManager&) = delete;

private:
    NSFileManager() = default;
};

} // namespace kp
