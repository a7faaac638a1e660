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

/// The path in normal form without a trailing separator, so that components compare one for one.
fs::path normalised(const fs::path& path) {
    fs::path out = path.lexically_normal();
    if (out.has_relative_path() && out.filename().empty()) {
        out = out.parent_path();
    }
    return out;
}

/// The location a removal of path would act on, with links and "." and ".." resolved as the removal meets
/// them: a path ending in a plain name removes that entry of its (resolved) parent and does not follow it;
/// a path ending in ".", ".." or "/" is followed to the directory it names.
fs::path removalTarget(const fs::path& path, std::error_code& error) {
    const fs::path absolute = fs::absolute(path, error);
    if (error) {
        return {};
    }
    const fs::path name = absolute.filename();
    if (name.empty() || name == "." || name == "..") {
        return fs::weakly_canonical(absolute, error);
    }
    return fs::weakly_canonical(absolute.parent_path(), error) / name;
}

/// Whether removing path leaves the documents directory and every directory above it in place. Names are
/// used unchanged, so "..", "." or a trailing "/" can make a path name the directory itself or an ancestor;
/// such a removal is refused. False also when either location cannot be resolved.
bool removalKeepsDirectory(const std::string& directory, const std::string& path) {
    std::error_code error;
    const fs::path target = normalised(removalTarget(path, error));
    if (error) {
        return false;
    }
    const fs::path absoluteRoot = fs::absolute(directory.empty() ? "." : directory, error);
    if (error) {
        return false;
    }
    const fs::path root = normalised(fs::weakly_canonical(absoluteRoot, error));
    if (error) {
        return false;
    }
    // Compare component by component: target is refused when it is root or a prefix of it.
    auto t = target.begin();
    auto r = root.begin();
    for (; t != target.end() && r != root.end(); ++t, ++r) {
        if (*t != *r) {
            return true;
        }
    }
    return t != target.end();
}

void removeInside(NSFileManager& manager, const std::string& directory, const std::string& path) {
    if (detail::orOnAllocationFailure(false, [&] { return removalKeepsDirectory(directory, path); })) {
        manager.removeItemAtPath(path);
    }
}
} // namespace

bool KPImageDictionary::saveImageAsPNG(const CGImageRef& image, const std::string& fileName) {
    const UIImage wrapped = UIImage::imageWithCGImage(image);
    const std::string path =
        stringByAppendingPathComponent(documentsDirectory(), fileName + ".png");
    const std::optional<std::vector<uint8_t>> png = UIImagePNGRepresentation(wrapped);
    if (!png) {
        return false;
    }
    return writeToFile(*png, path, true);
}

std::optional<UIImage> KPImageDictionary::loadImageWithFileName(const std::string& fileName) {
    const std::string path =
        stringByAppendingPathComponent(documentsDirectory(), fileName + ".png");
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
                removeInside(manager, directory, stringByAppendingPathComponent(directory, entry));
            }
        }
        return;
    }
    removeInside(manager, directory, stringByAppendingPathComponent(directory, fileName + "." + fileExtension));
}

} // namespace kp
