// SPDX-License-Identifier: MIT
// The image store: PNG files kept by name directly in the documents directory.
#include "KPImage/KPImageDictionary.h"

#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/NSFileManager.h"
#include "KPImage/Platform/NSSearchPath.h"
#include "Platform/Graphics/Allocation.h"

#include <filesystem>
#include <system_error>

namespace kp {

namespace {
std::string documentsDirectory() {
    const std::vector<std::string> paths =
        NSSearchPathForDirectoriesInDomains(NSDocumentDirectory, NSUserDomainMask, true);
    return paths.empty() ? std::string() : paths.front();
}

namespace fs = std::filesystem;

/// Whether inner is outer or lies below it; both canonical.
bool within(const fs::path& inner, const fs::path& outer) {
    auto i = inner.begin();
    for (auto o = outer.begin(); o != outer.end(); ++o, ++i) {
        if (i == inner.end() || *i != *o) {
            return false;
        }
    }
    return true;
}

/// How a use of a path meets its last component.
enum class LastComponent {
    Followed, ///< read through: a link there must point inside too
    Replaced, ///< written by renaming onto it or removed: a link there is acted on itself
};

/// Whether the path built from the documents directory and a name stays inside the directory once "..",
/// "." and links are resolved, as an application's sandbox keeps it inside its container. A path that names
/// the directory itself is refused as well (nothing may replace or remove it), and so is anything that
/// cannot be resolved (a missing subdirectory: the use would fail anyway).
bool staysInside(const std::string& directory, const std::string& path, LastComponent last) {
    std::error_code error;
    const fs::path root = fs::canonical(directory.empty() ? fs::path(".") : fs::path(directory), error);
    if (error) {
        return false;
    }
    const fs::path absolute = fs::absolute(path, error);
    if (error) {
        return false;
    }
    const fs::path name = absolute.filename();
    fs::path target;
    if (name.empty() || name == "." || name == "..") {
        // The path names a directory through its last component: that directory is what would be used.
        target = fs::canonical(absolute, error);
    } else {
        target = fs::canonical(absolute.parent_path(), error) / name;
        if (!error && last == LastComponent::Followed && fs::is_symlink(fs::symlink_status(target, error))) {
            target = fs::canonical(target, error);
        }
    }
    return !error && target != root && within(target, root);
}

std::string pathOf(const std::string& directory, const std::string& fileName, LastComponent last) {
    const std::string path = stringByAppendingPathComponent(directory, fileName);
    return detail::orOnAllocationFailure(false, [&] { return staysInside(directory, path, last); }) ? path
                                                                                                   : std::string();
}
} // namespace

bool KPImageDictionary::saveImageAsPNG(const CGImageRef& image, const std::string& fileName) {
    const UIImage wrapped = UIImage::imageWithCGImage(image);
    const std::optional<std::vector<uint8_t>> png = UIImagePNGRepresentation(wrapped);
    if (!png) {
        return false;
    }
    // The file is written beside the name and renamed onto it: a link there is replaced, never followed.
    const std::string path = pathOf(documentsDirectory(), fileName + ".png", LastComponent::Replaced);
    return !path.empty() && writeToFile(*png, path, true);
}

std::optional<UIImage> KPImageDictionary::loadImageWithFileName(const std::string& fileName) {
    const std::string path = pathOf(documentsDirectory(), fileName + ".png", LastComponent::Followed);
    if (path.empty()) {
        return std::nullopt;
    }
    const std::optional<std::vector<uint8_t>> data = dataWithContentsOfFile(path);
    if (!data) {
        return std::nullopt;
    }
    return UIImage::imageWithData(*data);
}

void KPImageDictionary::deleteImageWithFileName(const std::string& fileName, const std::string& fileExtension) {
    const std::string directory = documentsDirectory();
    NSFileManager& manager = NSFileManager::defaultManager();
    // The listing is taken in every case; a directory that cannot be listed leaves nothing to remove.
    const std::vector<std::string> entries = manager.contentsOfDirectoryAtPath(directory).value_or(
        std::vector<std::string>{});
    if (fileName == "*") {
        for (const std::string& entry : entries) {
            if (fileExtension == "*" || pathExtension(entry) == fileExtension) {
                manager.removeItemAtPath(stringByAppendingPathComponent(directory, entry));
            }
        }
        return;
    }
    // A removal acts on a link itself, never on what it points to.
    const std::string path = pathOf(directory, fileName + "." + fileExtension, LastComponent::Replaced);
    if (!path.empty()) {
        manager.removeItemAtPath(path);
    }
}

} // namespace kp
