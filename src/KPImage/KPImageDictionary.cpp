// SPDX-License-Identifier: MIT
// The image store: PNG files kept by name directly in the documents directory.
#include "KPImage/KPImageDictionary.h"

#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/NSFileManager.h"
#include "KPImage/Platform/NSSearchPath.h"

namespace kp {

namespace {
std::string documentsDirectory() {
    const std::vector<std::string> paths =
        NSSearchPathForDirectoriesInDomains(NSDocumentDirectory, NSUserDomainMask, true);
    return paths.empty() ? std::string() : paths.front();
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
                manager.removeItemAtPath(stringByAppendingPathComponent(directory, entry));
            }
        }
        return;
    }
    manager.removeItemAtPath(stringByAppendingPathComponent(
        directory, fileName + "." + fileExtension));
}

} // namespace kp
