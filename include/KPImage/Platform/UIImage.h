// SPDX-License-Identifier: MIT
// The platform image: an optional bitmap with a size in points, a scale and an orientation. Also declares
// the library's ImagingHelper category methods, which are defined by the library (KPImage/UIImage+ImagingHelper).
#pragma once

#include "KPImage/Platform/CGImage.h"
#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/UIColor.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace kp {

struct FaceFeatures;
struct ImageReadError;

enum UIImageOrientation : int32_t {
    UIImageOrientationUp = 0,
    UIImageOrientationDown = 1,
    UIImageOrientationLeft = 2,
    UIImageOrientationRight = 3,
    UIImageOrientationUpMirrored = 4,
    UIImageOrientationDownMirrored = 5,
    UIImageOrientationLeftMirrored = 6,
    UIImageOrientationRightMirrored = 7,
};

/// An image value. Copies share the immutable bitmap. An image may have no bitmap at all (like an image
/// backed by something other than a bitmap); such an image still has a size.
class UIImage {
public:
    /// An image with no bitmap and a zero size.
    UIImage() = default;

    /// An image of the bitmap at scale 1, orientation up.
    static UIImage imageWithCGImage(CGImageRef image);
    static UIImage imageWithCGImage(CGImageRef image, CGFloat scale, UIImageOrientation orientation);
    /// An image with no bitmap behind it, of the given size in points.
    static UIImage imageWithoutBitmap(CGSize size);
    /// Decodes PNG or JPEG data; EXIF orientation sets imageOrientation. Nil for anything else, for a picture
    /// over maximumDecodedImagePixels() (ImageIO.h) or when its pixels do not fit in memory.
    /// Truncated or damaged data gives nil too: a picture is never returned with parts made up.
    static std::optional<UIImage> imageWithData(std::span<const uint8_t> data);
    /// imageWithData that, on failure, says why in *error (ImageIO.h) when error is not null.
    static std::optional<UIImage> imageWithData(std::span<const uint8_t> data, ImageReadError* error);
    /// Reads and decodes a PNG or JPEG file; nil when unreadable or not an image, as imageWithData.
    static std::optional<UIImage> imageWithContentsOfFile(const std::string& path);
    /// imageWithContentsOfFile that, on failure, says why in *error (ImageIO.h) when error is not null.
    static std::optional<UIImage> imageWithContentsOfFile(const std::string& path, ImageReadError* error);

    /// The bitmap; null when the image has none.
    const CGImageRef& CGImage() const { return _image; }
    /// Size in points: the bitmap's pixel size over the scale, width and height swapped for the left and
    /// right orientations.
    CGSize size() const;
    CGFloat scale() const { return _scale; }
    UIImageOrientation imageOrientation() const { return _orientation; }
    /// A one-line description for log lines: "<UIImage: 0x...> size {w, h} orientation o scale s".
    std::string description() const;

    /// Draws the image, oriented, into rect of the current image context (no-op without one).
    void drawInRect(CGRect rect) const;
    /// Draws the image at its size with its top-left corner at point.
    void drawAtPoint(CGPoint point) const;

    // Category ImagingHelper: bitmap access.
    /// A malloc'd copy of the bitmap's bytes, exactly as stored; the caller frees it. Null without a bitmap.
    uint8_t* makeDataArray() const;
    /// True exactly when the bitmap's colour model is monochrome.
    bool isGrayScale() const;
    /// The image drawn into an 8-bit grey bitmap of its size in points (scale 1, up); nil for an empty size.
    std::optional<UIImage> makeGrayScale() const;
    /// makeGrayScale for scale <= 1; otherwise the green-weighted grey reduction by the integer factor.
    std::optional<UIImage> makeGrayScaleAndScale(int32_t scale) const;

    // Category ImagingHelper: focus and brightness.
    /// The two-pi focus score (0..100) of the image brought to the 640 x 480 focus frame.
    int32_t calculateFocus() const;
    /// 3 x the RMS difference of grey values offset apart, sampled every skip pixels inside the edge; 0..100.
    int32_t calculateFocusScore(int32_t offset, int32_t skip, int32_t edgePercent) const;
    /// Mean of the grey bytes inside a 20-pixel border on a sparse grid; 0 on failure (logged).
    int32_t calculateBrightness() const;
    /// Mean of one byte per pixel inside a border of edgePercentSkip percent; 0 on failure (logged).
    int32_t calculateBrightness(int32_t channels, int32_t edgePercentSkip) const;
    /// Mean of the grey bytes in rect (pixels); 0 on failure (logged).
    int32_t calculateBrightness(CGRect rect) const;

    // Category ImagingHelper: faces and annotation.
    /// The widest face found in the image, in the bitmap's top-left pixel space.
    FaceFeatures getFaceFeaturesWithAccuracy(int32_t accuracy) const;
    FaceFeatures getFaceFeaturesWithAccuracy(int32_t accuracy, bool withLogging) const;
    /// A copy of the image with square markers at the eyes and mouth and the face box outlined.
    std::optional<UIImage> drawFacialLocationsLeftEye(CGPoint leftEye, CGPoint rightEye, CGPoint mouth,
                                                      CGRect faceBox) const;
    /// A copy of the image with text drawn at point in a bold font. The colour is made current but the text
    /// has no foreground colour, so it comes out black as on the platform.
    std::optional<UIImage> drawText(const std::string& text, CGPoint atPoint, const UIColor& atColor,
                                    int fontSize) const;

    // Category ImagingHelper: geometry.
    /// The padded box cut from the bitmap; nil (logged) without a bitmap.
    std::optional<UIImage> cropImageAtCoordinates(CGRect box, float paddingPercent) const;
    /// The box, given in a view of viewSize that shows the whole bitmap, cut from the bitmap; nil (logged)
    /// without a bitmap.
    std::optional<UIImage> cropImageAtCoordinates(CGRect box, float paddingPercent, CGSize viewSize) const;
    /// That rectangle of the bitmap (clipped); nil when nothing is left.
    std::optional<UIImage> imageAtRect(CGRect rect) const;
    /// The bitmap rotated by angle degrees (positive turns the picture counter-clockwise) on a canvas that
    /// holds it; nil (logged) without a bitmap.
    std::optional<UIImage> rotatedByAngle(CGFloat angle) const;
    std::optional<UIImage> resizeToSize(CGSize size) const;
    std::optional<UIImage> imageByScalingToSize(CGSize size) const;
    std::optional<UIImage> imageByScalingProportionallyToSize(CGSize size) const;
    std::optional<UIImage> imageByScalingProportionallyToMinimumSize(CGSize size) const;
    /// The image rotated by degrees (positive turns it clockwise) on a canvas that holds it.
    std::optional<UIImage> imageRotatedByDegrees(CGFloat degrees) const;
    std::optional<UIImage> imageRotatedByRadians(CGFloat radians) const;

private:
    CGImageRef _image;
    CGSize _sizeWithoutBitmap{};
    CGFloat _scale = 1.0;
    UIImageOrientation _orientation = UIImageOrientationUp;
};

} // namespace kp
