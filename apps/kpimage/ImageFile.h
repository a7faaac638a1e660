// SPDX-License-Identifier: MIT
// Reading a picture for a command: the image, or one line on standard error saying what is wrong with the file.
#pragma once

#include "Command.h"

#include <KPImage/KPImage.h>

#include <optional>
#include <string>

namespace kpcli {

/// The decoded picture at path; nil after writing "kpimage: cannot read an image from PATH: WHY" (no such
/// file, is a directory, truncated, CMYK not supported, claims W x H pixels but holds only N bytes, ...).
inline std::optional<kp::UIImage> readImageFile(const std::string& path) {
    kp::ImageReadError error;
    auto image = kp::UIImage::imageWithContentsOfFile(path, &error);
    if (!image) {
        fail("cannot read an image from " + path + (error.message.empty() ? "" : ": " + error.message));
    }
    return image;
}

} // namespace kpcli
