// SPDX-License-Identifier: MIT
// Standard directories of the platform layer (the documents directory) and path-string helpers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kp {

enum NSSearchPathDirectory : uint32_t {
    NSDocumentDirectory = 9,
    NSPicturesDirectory = 19,
};

enum NSSearchPathDomainMask : uint32_t {
    NSUserDomainMask = 1,
};

/// The directories of that kind for the domains: for the user's documents, the directory the host set with
/// setDocumentsDirectory, else XDG_DOCUMENTS_DIR of the user-dirs.dirs file in $XDG_CONFIG_HOME (default
/// ~/.config), else ~/Documents; for the user's pictures, XDG_PICTURES_DIR, else ~/Pictures. With expandTilde, a leading "~" becomes the home directory. Empty for
/// kinds or domains this platform does not have.
std::vector<std::string> NSSearchPathForDirectoriesInDomains(NSSearchPathDirectory directory,
                                                             NSSearchPathDomainMask domainMask, bool expandTilde);

/// Sets the documents directory for the whole process (thread-safe); an empty path restores the default.
/// The directory is not created.
void setDocumentsDirectory(std::string path);

/// The home directory: $HOME, else the password database's entry, else "/".
std::string NSHomeDirectory();

/// base + "/" + component, without doubling a separator already at the end of base (component as it is).
std::string stringByAppendingPathComponent(const std::string& base, const std::string& component);

/// The extension of the last path component: what follows its last ".", "" when it has none or the only
/// "." starts the name (".profile"). Trailing "/" are ignored.
std::string pathExtension(const std::string& path);

} // namespace kp
