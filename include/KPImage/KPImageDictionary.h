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
/// The documents directory is the store's container: a name that would reach outside it once "..", "." and
/// links are resolved ("../x", "a/../../x", a link inside the directory that points out of it) is refused as
/// a sandbox refuses it: a save gives NO, a load nil, a deletion removes nothing, and nothing is logged. A name
/// beginning with "/" addresses a subdirectory of that name, like any other. The check is made just before the
/// file is used, so a process that can change the directory's links between the two can still redirect one
/// use; the store guards against names, not against other writers in the same directory.
///
/// Example:
///     kp::setDocumentsDirectory("/var/lib/myapp/images");
///     kp::KPImageDictionary::saveImageAsPNG(photo.CGImage(), "front");
///     auto again = kp::KPImageDictionary::loadImageWithFileName("front");
class KPImageDictionary {
public:
    KPImageDictionary() = delete;

    /// Writes the bitmap as PNG to NAME.png atomically (an existing file, or a link, is replaced whole). False
    /// when no PNG could be made (a null bitmap), the name reaches outside the directory or the write failed;
    /// the old file is then untouched.
    static bool saveImageAsPNG(const CGImageRef& image, const std::string& fileName);

    /// The image decoded from NAME.png; nil when the file is missing, unreadable, not an image, or reached
    /// outside the directory (through the name or a link).
    static std::optional<UIImage> loadImageWithFileName(const std::string& fileName);

    /// Removes NAME.EXT. With the name "*", removes every entry of the documents directory (files and
    /// directories) whose extension is exactly EXT (case-sensitive), or every entry when EXT is "*"; entries
    /// that are symbolic links are removed themselves, never what they point to. A path outside the directory,
    /// or the directory itself (a name or extension ending in "." or "..", such as the name "." with the
    /// extension ""), is refused and nothing is removed. Failures are ignored.
    static void deleteImageWithFileName(const std::string& fileName, const std::string& fileExtension);
};

} // namespace kp
