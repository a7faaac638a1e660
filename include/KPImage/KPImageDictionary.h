// SPDX-License-Identifier: MIT
// The image store: PNG files kept by name directly in the documents directory.
#pragma once

#include "KPImage/Platform/CGImage.h"
#include "KPImage/Platform/UIImage.h"

#include <optional>
#include <string>

namespace kp {

/// Stores images as "NAME.png" in the documents directory (NSSearchPathForDirectoriesInDomains; the host
/// may set it with setDocumentsDirectory). The directory is looked up afresh on every call and the files
/// are the only storage. Names are used unchanged: "a/b" addresses b.png in the existing subdirectory a.
///
/// Warning: since names are not checked, a name containing "/" or ".." reaches outside the directory
/// ("../x" is x.png beside it; "a/b" may pass through a link); a host that takes names from users must
/// check them itself. A removal never takes away the documents directory itself or a directory above it.
///
/// Example:
///     kp::setDocumentsDirectory("/var/lib/myapp/images");
///     kp::KPImageDictionary::saveImageAsPNG(photo.CGImage(), "front");
///     auto again = kp::KPImageDictionary::loadImageWithFileName("front");
class KPImageDictionary {
public:
    KPImageDictionary() = delete;

    /// Writes the bitmap as PNG to NAME.png atomically (an existing file is replaced whole). False when no
    /// PNG could be made (a null bitmap) or the write failed; the old file is then untouched.
    static bool saveImageAsPNG(const CGImageRef& image, const std::string& fileName);

    /// The image decoded from NAME.png; nil when the file is missing, unreadable or not an image.
    static std::optional<UIImage> loadImageWithFileName(const std::string& fileName);

    /// Removes NAME.EXT. With the name "*", removes every entry of the documents directory (files and
    /// directories) whose extension is exactly EXT (case-sensitive), or every entry when EXT is "*"; entries
    /// that are symbolic links are removed themselves, never what they point to. A path that would remove the
    /// documents directory or a directory above it (a name or extension ending in "." or "..", such as the
    /// name "." with the extension "") is refused and nothing is removed. Failures are ignored.
    static void deleteImageWithFileName(const std::string& fileName, const std::string& fileExtension);
};

} // namespace kp
