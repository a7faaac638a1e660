// SPDX-License-Identifier: MIT
// ImagingHelper category: cropping, rotating and scaling images, and the angle conversions.
#include "KPImage/UIImage+ImagingHelper.h"

#include "KPImage/Platform/CGContext.h"
#include "KPImage/Platform/SystemLog.h"
#include "KPImage/Platform/UIGraphics.h"
#include "KPImage/ImagingHelperSupport.h"

#include <cmath>
#include <cstdint>

extern "C" {

kp::CGFloat DegreesToRadians(kp::CGFloat degrees) { return degrees * 3.141592653589793 / 180.0; }

kp::CGFloat RadiansToDegrees(kp::CGFloat radians) { return radians * 180.0 / 3.141592653589793; }

} // extern "C"

namespace kp {

using detail::ImageContext;
using detail::logMissingBitmap;
using detail::toUnsigned;

namespace {

// Source lines the error messages name; they identify the failing method in existing log analysis.
constexpr int kCropLine = 801;
constexpr int kCropViewLine = 860;
constexpr int kRotateLine = 942;


std::optional<UIImage> wrap(const CGImageRef& image) {
    if (!image) {
        return std::nullopt;
    }
    return UIImage::imageWithCGImage(image);
}

// A size measured from sines and cosines carries rounding noise (cos 90 degrees is 6e-17): snap values
// within a billionth of a whole number so a quarter turn swaps width and height exactly.
CGFloat snapNoise(CGFloat v) {
    const CGFloat nearest = std::round(v);
    return std::fabs(v - nearest) <= 1e-9 * std::fmax(1.0, std::fabs(v)) ? nearest : v;
}

enum class Proportional { Fit, Cover };

std::optional<UIImage> scaleProportionally(const UIImage& image, CGSize target, Proportional mode) {
    const CGSize size = image.size();
    CGRect drawn = CGRectMake(0, 0, target.width, target.height);
    if (!CGSizeEqualToSize(size, target)) {
        const CGFloat fw = target.width / size.width;
        const CGFloat fh = target.height / size.height;
        const CGFloat f = mode == Proportional::Fit ? std::fmin(fw, fh) : std::fmax(fw, fh);
        const CGFloat w = size.width * f;
        const CGFloat h = size.height * f;
        CGFloat x = 0;
        CGFloat y = 0;
        // Fit centres along the axis with room to spare; cover centres along the axis that overflows.
        const bool centreVertically = mode == Proportional::Fit ? fw < fh : fw > fh;
        const bool centreHorizontally = mode == Proportional::Fit ? fw > fh : fw < fh;
        if (centreVertically) {
            y = (target.height - h) * 0.5;
        } else if (centreHorizontally) {
            x = (target.width - w) * 0.5;
        }
        drawn = CGRectMake(x, y, w, h);
    }
    std::optional<UIImage> result;
    {
        ImageContext context(target);
        if (context.context()) {
            // An image without area has no finite factor: the canvas then stays transparent.
            if (std::isfinite(drawn.origin.x) && std::isfinite(drawn.origin.y) && std::isfinite(drawn.size.width) &&
                std::isfinite(drawn.size.height)) {
                image.drawInRect(drawn);
            }
            result = context.image();
        }
    }
    if (!result) {
        NSLog("could not scale image");
    }
    return result;
}

} // namespace

std::optional<UIImage> UIImage::cropImageAtCoordinates(CGRect box, float paddingPercent) const {
    const CGImageRef& bitmap = CGImage();
    if (!bitmap) {
        logMissingBitmap("-[UIImage(ImagingHelper) cropImageAtCoordinates:withPaddingPercent:]", kCropLine, *this);
        return std::nullopt;
    }
    const uint64_t imageWidth = CGImageGetWidth(bitmap);
    const uint64_t imageHeight = CGImageGetHeight(bitmap);
    double x = box.origin.x;
    double y = box.origin.y;
    double w = box.size.width;
    double h = box.size.height;
    if (paddingPercent > 0) {
        // Single precision at every step, as the padding is a float.
        const float p = paddingPercent / 100.0f;
        const float paddedWidth = static_cast<float>(w + w * p);
        const float paddedHeight = static_cast<float>(h + h * p);
        const float growX = static_cast<float>(paddedWidth - w);
        const float growY = static_cast<float>(paddedHeight - h);
        const float halfX = static_cast<float>(growX * 0.5);
        const float halfY = static_cast<float>(growY * 0.5);
        float paddedX = static_cast<float>(x - halfX);
        float paddedY = static_cast<float>(y - halfY);
        // Padding never moves the origin past the first column or row.
        paddedX = paddedX < 1.0f ? 1.0f : paddedX;
        paddedY = paddedY < 1.0f ? 1.0f : paddedY;
        x = paddedX;
        y = paddedY;
        w = paddedWidth;
        h = paddedHeight;
    }
    uint64_t cropX = toUnsigned(x);
    uint64_t cropY = toUnsigned(y);
    const uint64_t cropW = toUnsigned(w);
    const uint64_t cropH = toUnsigned(h);
    // The crop never starts at column or row 0.
    cropX = cropX == 0 ? 1 : cropX;
    cropY = cropY == 0 ? 1 : cropY;
    // Too wide falls back to the bitmap's size less one (not the room left); the cut then clips it.
    const uint64_t width = cropX + cropW < imageWidth ? cropW : imageWidth - 1;
    const uint64_t height = cropY + cropH < imageHeight ? cropH : imageHeight - 1;
    return wrap(CGImageCreateWithImageInRect(
        bitmap, CGRectMake(static_cast<CGFloat>(cropX), static_cast<CGFloat>(cropY), static_cast<CGFloat>(width),
                           static_cast<CGFloat>(height))));
}

std::optional<UIImage> UIImage::cropImageAtCoordinates(CGRect box, float paddingPercent, CGSize viewSize) const {
    (void)paddingPercent; // the view-space crop takes the box as it is
    const CGImageRef& bitmap = CGImage();
    if (!bitmap) {
        logMissingBitmap("-[UIImage(ImagingHelper) cropImageAtCoordinates:withPaddingPercent:viewSize:]",
                         kCropViewLine, *this);
        return std::nullopt;
    }
    const double sx = static_cast<double>(CGImageGetWidth(bitmap)) / viewSize.width;
    const double sy = static_cast<double>(CGImageGetHeight(bitmap)) / viewSize.height;
    const uint64_t width = toUnsigned(box.size.width * sx);
    const uint64_t height = toUnsigned(box.size.height * sy);
    // Unsigned arithmetic: a box centred left of half its width wraps to a far origin, which the cut clips
    // to nothing.
    const uint64_t x = toUnsigned(sx * CGRectGetMidX(box)) - (width >> 1);
    const uint64_t y = toUnsigned(CGRectGetMidY(box) * sy) - (height >> 1);
    return wrap(CGImageCreateWithImageInRect(
        bitmap, CGRectMake(static_cast<CGFloat>(x), static_cast<CGFloat>(y), static_cast<CGFloat>(width),
                           static_cast<CGFloat>(height))));
}

std::optional<UIImage> UIImage::imageAtRect(CGRect rect) const {
    return wrap(CGImageCreateWithImageInRect(CGImage(), rect));
}

std::optional<UIImage> UIImage::rotatedByAngle(CGFloat angle) const {
    const CGImageRef& bitmap = CGImage();
    if (!bitmap) {
        logMissingBitmap("-[UIImage(ImagingHelper) rotatedByAngle:]", kRotateLine, *this);
        return std::nullopt;
    }
    const CGFloat radians = angle * 0.017453292519943295;
    const size_t imageWidth = CGImageGetWidth(bitmap);
    const size_t imageHeight = CGImageGetHeight(bitmap);
    const CGRect rotated = CGRectApplyAffineTransform(
        CGRectMake(0, 0, static_cast<CGFloat>(imageWidth), static_cast<CGFloat>(imageHeight)),
        CGAffineTransformMakeRotation(radians));
    // Rounding half up; a non-finite angle leaves no canvas.
    const uint64_t canvasWidth = toUnsigned(rotated.size.width + 0.5);
    const uint64_t canvasHeight = toUnsigned(rotated.size.height + 0.5);
    if (canvasWidth == 0 || canvasHeight == 0 || canvasWidth > kKPMaxImagePixels ||
        canvasHeight > kKPMaxImagePixels) {
        return std::nullopt;
    }
    const CGContextRef context =
        CGBitmapContextCreate(nullptr, canvasWidth, canvasHeight, CGImageGetBitsPerComponent(bitmap),
                              canvasWidth * (CGImageGetBitsPerPixel(bitmap) / 8), CGImageGetColorSpace(bitmap),
                              CGImageGetBitmapInfo(bitmap));
    if (!context) {
        return std::nullopt;
    }
    // The centre lies floor(W / 2), floor(H / 2) from the bottom-left corner in y-up space, which is
    // H - floor(H / 2) from the top here; rotating by -r in this y-down space turns the picture
    // counter-clockwise as seen, as r does in y-up space.
    CGContextTranslateCTM(context, static_cast<CGFloat>(canvasWidth / 2),
                          static_cast<CGFloat>(canvasHeight - canvasHeight / 2));
    CGContextRotateCTM(context, -radians);
    CGContextDrawImage(context,
                       CGRectMake(-static_cast<CGFloat>(imageWidth) / 2, -static_cast<CGFloat>(imageHeight) / 2,
                                  static_cast<CGFloat>(imageWidth), static_cast<CGFloat>(imageHeight)),
                       bitmap);
    return wrap(CGBitmapContextCreateImage(context));
}

std::optional<UIImage> UIImage::resizeToSize(CGSize targetSize) const {
    ImageContext context(targetSize);
    if (!context.context()) {
        return std::nullopt;
    }
    drawInRect(CGRectMake(0, 0, targetSize.width, targetSize.height));
    return context.image();
}

std::optional<UIImage> UIImage::imageByScalingToSize(CGSize targetSize) const {
    std::optional<UIImage> result;
    {
        ImageContext context(targetSize);
        if (context.context()) {
            drawInRect(CGRectMake(0, 0, targetSize.width, targetSize.height));
            result = context.image();
        }
    }
    if (!result) {
        NSLog("could not scale image");
    }
    return result;
}

std::optional<UIImage> UIImage::imageByScalingProportionallyToSize(CGSize targetSize) const {
    return scaleProportionally(*this, targetSize, Proportional::Fit);
}

std::optional<UIImage> UIImage::imageByScalingProportionallyToMinimumSize(CGSize targetSize) const {
    return scaleProportionally(*this, targetSize, Proportional::Cover);
}

std::optional<UIImage> UIImage::imageRotatedByDegrees(CGFloat degrees) const {
    const CGFloat radians = degrees * 3.141592653589793 / 180.0;
    const CGSize pointSize = size();
    // The canvas is the frame of a view of this size turned by the angle about its centre: the bounding box
    // of the rotated rect, unrounded.
    const CGRect frame = CGRectApplyAffineTransform(CGRectMake(0, 0, pointSize.width, pointSize.height),
                                                    CGAffineTransformMakeRotation(radians));
    const CGSize canvas = CGSizeMake(snapNoise(frame.size.width), snapNoise(frame.size.height));
    ImageContext context(canvas);
    if (!context.context()) {
        return std::nullopt;
    }
    const CGContextRef& cg = context.context();
    // This context is y-down and draws images upright, so rotating by +r turns the picture clockwise as
    // seen with no flip needed (a y-up context needs scale(1, -1) for the same picture).
    CGContextTranslateCTM(cg, canvas.width / 2, canvas.height / 2);
    CGContextRotateCTM(cg, radians);
    CGContextDrawImage(cg, CGRectMake(-pointSize.width / 2, -pointSize.height / 2, pointSize.width, pointSize.height),
                       CGImage());
    return context.image();
}

std::optional<UIImage> UIImage::imageRotatedByRadians(CGFloat radians) const {
    return imageRotatedByDegrees(radians * 180.0 / 3.141592653589793);
}

} // namespace kp
