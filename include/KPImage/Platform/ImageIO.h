// SPDX-License-Identifier: MIT
// Image file codecs of the platform layer: PNG (libspng) and JPEG (libjpeg-turbo) with size limits.
#pragma once

#include "KPImage/Platform/UIImage.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kp {

/// The PNG encoding of the image's bitmap (grey stays grey, RGB stays RGB, 32-bit becomes straight RGBA);
/// nil without a bitmap or for a layout PNG cannot hold.
std::optional<std::vector<uint8_t>> UIImagePNGRepresentation(const UIImage& image);
/// The JPEG encoding of the bitmap at quality 0..1 (grey or RGB); nil without a bitmap.
std::optional<std::vector<uint8_t>> UIImageJPEGRepresentation(const UIImage& image, CGFloat quality);

/// Reads a whole regular file; nil when it cannot be read, is over 2 GiB or is not a regular file (a FIFO,
/// device or directory is refused at once, never waited on).
std::optional<std::vector<uint8_t>> dataWithContentsOfFile(const std::string& path);
/// Writes bytes to path. Atomically: into a temporary file of a short fixed-length name (".kptmp-" and six
/// random characters) in the same directory, flushed, then renamed over path, so path holds either the old
/// or the new bytes and every name the file system takes can be written. Returns false on any failure.
bool writeToFile(std::span<const uint8_t> bytes, const std::string& path, bool atomically);

} // namespace kp
