// SPDX-License-Identifier: MIT
// File URLs of the platform layer: a local path with its file:// form.
#pragma once

#include <memory>
#include <string>

namespace kp {

/// An immutable file URL. The path is kept exactly as given (a doubled separator stays doubled).
class NSURL {
public:
    /// The file URL of an absolute or relative path; nil for an empty path.
    static std::shared_ptr<const NSURL> fileURLWithPath(std::string path);

    /// The path as given.
    const std::string& path() const { return _path; }
    /// "file://" followed by the path with everything outside the unreserved characters and "/" percent-encoded.
    std::string absoluteString() const;
    /// The last path component ("" for "/").
    std::string lastPathComponent() const;

    explicit NSURL(std::string path) : _path(std::move(path)) {}

private:
    std::string _path;
};

/// nil is a null pointer.
using NSURLRef = std::shared_ptr<const NSURL>;

} // namespace kp
