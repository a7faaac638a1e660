// SPDX-License-Identifier: MIT
// ImagingHelper category: the widest face of a still image, and markers and text drawn onto a copy.
#include "KPImage/UIImage+ImagingHelper.h"

#include "KPImage/Platform/CIDetector.h"
#include "KPImage/Platform/NSStringDrawing.h"
#include "KPImage/Platform/UIGraphics.h"
#include "KPImage/ImagingHelperSupport.h"
#include "Platform/Graphics/Allocation.h"

#include <cstdint>

namespace kp {

using detail::ImageContext;

FaceFeatures UIImage::getFaceFeaturesWithAccuracy(int32_t accuracy) const {
    return getFaceFeaturesWithAccuracy(accuracy, false);
}

FaceFeatures UIImage::getFaceFeaturesWithAccuracy(int32_t accuracy, bool withLogging) const {
    // The logging flag is accepted for compatibility and reports nothing.
    (void)withLogging;
    const CIImage image = CIImage::imageWithCGImage(CGImage());
    const size_t height = CGImageGetHeight(CGImage());

    // Detector space has its origin at the bottom left; T = translate(scale(1, -1), 0, -H) maps (x, y) to
    // (x, H - y). The height is negated as an integer before it becomes floating point.
    const CGAffineTransform transform =
        CGAffineTransformTranslate(CGAffineTransformMakeScale(1, -1), 0,
                                   static_cast<CGFloat>(-static_cast<int64_t>(height)));

    FaceFeatures result;
    result.faceBounds = CGRectZero;
    result.leftEyePosition = CGPointZero;
    result.rightEyePosition = CGPointZero;
    result.mouthPosition = CGPointZero;
    result.landmarksFound = 0;
    CGFloat widest = 0;

    CIDetectorOptions detectorOptions;
    detectorOptions.accuracy = accuracy != 0 ? CIDetectorAccuracyHigh : CIDetectorAccuracyLow;
    const std::shared_ptr<CIDetector> detector = CIDetector::detectorOfType(CIDetectorTypeFace, detectorOptions);
    if (!detector) {
        return result;
    }
    CIDetectorFeatureOptions featureOptions;
    featureOptions.smile = true;
    featureOptions.eyeBlink = true;
    // The detector works on a copy of the picture; a picture that does not fit in memory finds no face.
    const std::vector<CIFaceFeature> features = detail::orOnAllocationFailure(
        std::vector<CIFaceFeature>{}, [&] { return detector->featuresInImage(image, featureOptions); });

    for (const CIFaceFeature& feature : features) {
        // Every feature sets the angle, so the angle returned is the last feature's, chosen or not.
        result.faceAngle = feature.faceAngle;
        const CGRect bounds = CGRectApplyAffineTransform(feature.bounds, transform);
        if (!(bounds.size.width > widest)) {
            continue; // a tie keeps the earlier face
        }
        result.faceBounds = bounds;
        widest = bounds.size.width;
        // Landmarks the new face lacks keep the values of an earlier, narrower face.
        if (feature.hasLeftEyePosition) {
            result.leftEyePosition = CGPointApplyAffineTransform(feature.leftEyePosition, transform);
            result.leftEyeClosed = feature.leftEyeClosed;
            result.landmarksFound = 1;
        }
        if (feature.hasRightEyePosition) {
            result.rightEyePosition = CGPointApplyAffineTransform(feature.rightEyePosition, transform);
            result.rightEyeClosed = feature.rightEyeClosed;
            result.landmarksFound = 1;
        }
        if (feature.hasMouthPosition) {
            result.mouthPosition = CGPointApplyAffineTransform(feature.mouthPosition, transform);
            result.hasSmile = feature.hasSmile;
            result.landmarksFound = 1;
        }
    }
    return result;
}

std::optional<UIImage> UIImage::drawFacialLocationsLeftEye(CGPoint leftEye, CGPoint rightEye, CGPoint mouth,
                                                           CGRect faceBox) const {
    ImageContext image(size());
    const CGContextRef& context = image.context();
    if (!context) {
        return std::nullopt;
    }
    drawAtPoint(CGPointMake(0, 0));
    const auto markerAbout = [](CGPoint p) { return CGRectMake(p.x - 15, p.y - 15, 30, 30); };
    UIColor::redColor().setStroke();
    CGContextStrokeRectWithWidth(context, markerAbout(leftEye), 3.0);
    UIColor::blueColor().setStroke();
    CGContextStrokeRectWithWidth(context, markerAbout(rightEye), 3.0);
    UIColor::greenColor().setStroke();
    CGContextStrokeRectWithWidth(context, markerAbout(mouth), 3.0);
    UIColor::yellowColor().setStroke();
    CGContextStrokeRectWithWidth(context, faceBox, 3.0);
    return UIGraphicsGetImageFromCurrentImageContext();
}

std::optional<UIImage> UIImage::drawText(const std::string& text, CGPoint atPoint, const UIColor& atColor,
                                         int fontSize) const {
    const UIFont font = UIFont::boldSystemFontOfSize(fontSize);
    const CGSize imageSize = size();
    ImageContext image(imageSize);
    if (!image.context()) {
        return std::nullopt;
    }
    drawInRect(CGRectMake(0, 0, imageSize.width, imageSize.height));
    atColor.set();
    NSStringAttributes attributes;
    attributes.font = font;
    // No foreground colour: the text is drawn black, whatever colour was set above.
    attributes.baselineOffset = 1.0f;
    NSStringDrawInRect(text, CGRectIntegral(CGRectMake(atPoint.x, atPoint.y, imageSize.width, imageSize.height)),
                       attributes);
    return UIGraphicsGetImageFromCurrentImageContext();
}

} // namespace kp
