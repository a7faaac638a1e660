// SPDX-License-Identifier: MIT
// The platform image: factories, size in points, description and oriented drawing.
#include "KPImage/Platform/UIImage.h"

#include "KPImage/Platform/ImageIO.h"
#include "KPImage/Platform/SystemLog.h"
#include "KPImage/Platform/UIGraphics.h"
#include "Platform/Graphics/Codecs.h"

#include <cmath>
#include <numbers>

namespace kp {

UIImage UIImage::imageWithCGImage(CGImageRef image) {
    return imageWithCGImage(std::move(image), 1.0, UIImageOrientationUp);
}

UIImage UIImage::imageWithCGImage(CGImageRef image, CGFloat scale, UIImageOrientation orientation) {
    UIImage out;
    out._image = std::move(image);
    out._scale = (std::isfinite(scale) && scale > 0) ? scale : 1.0;
    out._orientation = (orientation >= UIImageOrientationUp && orientation <= UIImageOrientationRightMirrored)
                           ? orientation
                           : UIImageOrientationUp;
    return out;
}

UIImage UIImage::imageWithoutBitmap(CGSize size) {
    UIImage out;
    out._sizeWithoutBitmap = size;
    return out;
}

std::optional<UIImage> UIImage::imageWithData(std::span<const uint8_t> data) { return imageWithData(data, nullptr); }

std::optional<UIImage> UIImage::imageWithData(std::span<const uint8_t> data, ImageReadError* error) {
    return detail::decodeImage(data, error);
}

std::optional<UIImage> UIImage::imageWithContentsOfFile(const std::string& path) {
    return imageWithContentsOfFile(path, nullptr);
}

std::optional<UIImage> UIImage::imageWithContentsOfFile(const std::string& path, ImageReadError* error) {
    const auto bytes = dataWithContentsOfFile(path, error);
    if (!bytes) {
        return std::nullopt;
    }
    return detail::decodeImage(*bytes, error);
}

CGSize UIImage::size() const {
    if (!_image) {
        return _sizeWithoutBitmap;
    }
    const CGFloat w = static_cast<CGFloat>(_image->width()) / _scale;
    const CGFloat h = static_cast<CGFloat>(_image->height()) / _scale;
    switch (_orientation) {
    case UIImageOrientationLeft:
    case UIImageOrientationRight:
    case UIImageOrientationLeftMirrored:
    case UIImageOrientationRightMirrored: return {h, w};
    default: return {w, h};
    }
}

std::string UIImage::description() const {
    const CGSize s = size();
    return stringWithFormat("<UIImage: %p> size {%g, %g} orientation %d scale %g", static_cast<const void*>(_image.get()),
                            s.width, s.height, static_cast<int>(_orientation), _scale);
}

void UIImage::drawInRect(CGRect rect) const {
    CGContextRef ctx = UIGraphicsGetCurrentContext();
    if (!ctx || !_image) {
        return;
    }
    rect = CGRectStandardize(rect);
    // Rotate (positive is clockwise as seen) and mirror the bitmap about the rect's centre so that the
    // picture shows upright.
    double angle = 0;
    bool mirrored = false;
    bool quarter = false;
    switch (_orientation) {
    case UIImageOrientationUp: break;
    case UIImageOrientationDown: angle = std::numbers::pi; break;
    case UIImageOrientationLeft: angle = -std::numbers::pi / 2, quarter = true; break;
    case UIImageOrientationRight: angle = std::numbers::pi / 2, quarter = true; break;
    case UIImageOrientationUpMirrored: mirrored = true; break;
    case UIImageOrientationDownMirrored: angle = std::numbers::pi, mirrored = true; break;
    case UIImageOrientationLeftMirrored: angle = -std::numbers::pi / 2, mirrored = true, quarter = true; break;
    case UIImageOrientationRightMirrored: angle = std::numbers::pi / 2, mirrored = true, quarter = true; break;
    }
    if (angle == 0 && !mirrored) {
        ctx->drawImage(rect, _image);
        return;
    }
    const CGFloat bw = quarter ? rect.size.height : rect.size.width;
    const CGFloat bh = quarter ? rect.size.width : rect.size.height;
    ctx->saveGState();
    ctx->translateCTM(CGRectGetMidX(rect), CGRectGetMidY(rect));
    ctx->rotateCTM(angle);
    if (mirrored) {
        ctx->scaleCTM(-1, 1);
    }
    ctx->drawImage(CGRectMake(-bw / 2, -bh / 2, bw, bh), _image);
    ctx->restoreGState();
}

void UIImage::drawAtPoint(CGPoint point) const { drawInRect(CGRect{point, size()}); }

} // namespace kp
