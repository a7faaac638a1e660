// SPDX-License-Identifier: MIT
// Private helpers shared by the ImagingHelper category's source files.
#pragma once

#include "KPImage/Platform/SystemLog.h"
#include "KPImage/Platform/UIGraphics.h"
#include "KPImage/Platform/UIImage.h"

#include <cstdint>
#include <optional>

namespace kp::detail {

/// Logs "<method> [Line <line>] *** error: image must be backed by a CGImage: <image>".
inline void logMissingBitmap(const char* method, int line, const UIImage& image) {
    NSLog("%s [Line %d] *** error: image must be backed by a CGImage: %s", method, line, image.description().c_str());
}

/// Floating point to unsigned the way the library's 64-bit ARM home converts it: truncation, NaN and
/// negatives give 0, values past the range saturate (defined where a plain cast would not be).
inline uint64_t toUnsigned(double v) {
    if (!(v > 0)) {
        return 0;
    }
    if (v >= 18446744073709551616.0) {
        return UINT64_MAX;
    }
    return static_cast<uint64_t>(v);
}

/// An image context (not opaque, scale 1) open for the object's life. A begin always pushes an entry, null
/// when the size cannot make a bitmap, so the end is always paired with it.
class ImageContext {
public:
    explicit ImageContext(CGSize size) {
        UIGraphicsBeginImageContextWithOptions(size, false, 1.0);
        _context = UIGraphicsGetCurrentContext();
    }
    ~ImageContext() { UIGraphicsEndImageContext(); }
    ImageContext(const ImageContext&) = delete;
    ImageContext& operator=(const ImageContext&) = delete;
    /// Null when no bitmap could be made: nothing is drawn and no image comes out.
    const CGContextRef& context() const { return _context; }
    std::optional<UIImage> image() const {
        return _context ? UIGraphicsGetImageFromCurrentImageContext() : std::nullopt;
    }

private:
    CGContextRef _context;
};

} // namespace kp::detail
