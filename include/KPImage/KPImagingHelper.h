// SPDX-License-Identifier: MIT
// Conversions into images: raw pixel buffers of the library's layouts, a solid colour, device orientation.
#pragma once

#include "KPImage/Platform/UIColor.h"
#include "KPImage/Platform/UIImage.h"

#include <cstdint>
#include <optional>
#include <span>

namespace kp {

/// Stateless conversions into images. Every image made here has scale 1 and orientation up.
///
/// Raw-data images: the buffer holds `height` rows of `bytesPerRow` bytes each; exactly bytesPerRow * height
/// bytes are copied, so the caller keeps the buffer and may free it at once. The image keeps the given
/// bytes per row (row padding stays in its layout). The pointer forms cannot know the buffer's length and
/// trust the caller that it holds bytesPerRow * height bytes; the span forms check it. All return nil for a
/// null buffer, a width or height that is not positive, bytes per row smaller than a row of pixels, a
/// bytesPerRow * height product that does not fit in 32 bits, or a span shorter than that product.
///
/// Example:
///     std::vector<uint8_t> grey(64 * 48);
///     auto image = kp::KPImagingHelper::makeUIImageFromGrayScaleData(std::span(grey), 64, 48, 64);
class KPImagingHelper {
public:
    KPImagingHelper() = delete;

    /// Image orientation of a camera picture taken in the device orientation: portrait gives right,
    /// upside down left, landscape left up, landscape right down, anything else right.
    static UIImageOrientation convertToImageOrientation(int32_t deviceOrientation);

    /// A 10 x 10 point image filled with the colour; nil only when no image context could be made.
    static std::optional<UIImage> imageFromColor(const UIColor& color);

    /// An 8-bit grey image of the bytes (device grey, bitmap info 0).
    static std::optional<UIImage> makeUIImageFromGrayScaleData(const uint8_t* data, int32_t width, int32_t height,
                                                               int32_t bytesPerRow);
    static std::optional<UIImage> makeUIImageFromGrayScaleData(std::span<const uint8_t> data, int32_t width,
                                                               int32_t height, int32_t bytesPerRow);
    /// A 24-bit RGB image of the bytes R, G, B (device RGB, bitmap info 0).
    static std::optional<UIImage> makeUIImageFromRGBData(const uint8_t* data, int32_t width, int32_t height,
                                                         int32_t bytesPerRow);
    static std::optional<UIImage> makeUIImageFromRGBData(std::span<const uint8_t> data, int32_t width,
                                                         int32_t height, int32_t bytesPerRow);
    /// A 32-bit image of the bytes R, G, B, A with straight alpha (bitmap info 3).
    static std::optional<UIImage> makeUIImageFromRGBAData(const uint8_t* data, int32_t width, int32_t height,
                                                          int32_t bytesPerRow);
    static std::optional<UIImage> makeUIImageFromRGBAData(std::span<const uint8_t> data, int32_t width,
                                                          int32_t height, int32_t bytesPerRow);
    /// A 32-bit image of the bytes B, G, R, A with premultiplied alpha (bitmap info 8194).
    static std::optional<UIImage> makeUIImageFromBGRAData(const uint8_t* data, int32_t width, int32_t height,
                                                          int32_t bytesPerRow);
    static std::optional<UIImage> makeUIImageFromBGRAData(std::span<const uint8_t> data, int32_t width,
                                                          int32_t height, int32_t bytesPerRow);

    /// Does nothing and returns null: no RGB copy of a BGRA buffer is made.
    static uint8_t* convertBGRAtoRGB(const uint8_t* data, int32_t width, int32_t height, int32_t bytesPerRow);
};

} // namespace kp
