// SPDX-License-Identifier: MIT
// Decoding image files into bitmaps (internal to the platform layer).
#pragma once

#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/UIImage.h"

#include <cstdint>
#include <optional>
#include <span>

namespace kp::detail {

/// Decodes PNG or JPEG bytes: grey files become 8-bit grey, colour files 32-bit straight RGBA; the EXIF
/// orientation (if any) becomes the image's orientation. Nil for anything else or any size over the limit.
std::optional<UIImage> decodeImage(std::span<const uint8_t> data);
/// decodeImage that says why it failed in *error when error is not null.
std::optional<UIImage> decodeImage(std::span<const uint8_t> data, ImageReadError* error);

/// The image orientation of an EXIF orientation tag value (1..8); up for anything else.
UIImageOrientation orientationFromExif(int exifOrientation);

} // namespace kp::detail
