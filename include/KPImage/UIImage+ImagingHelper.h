// SPDX-License-Identifier: MIT
// The ImagingHelper category of the platform image (methods declared on kp::UIImage) and its plain functions.
#pragma once

#include "KPImage/Focus/ImageAssess.h"
#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/UIImage.h"

#include <cstdint>
#include <optional>

namespace kp {

/// The widest face of an image, in the bitmap's top-left pixel space. Zero record when no face was found.
struct FaceFeatures {
    CGRect faceBounds = CGRectZero;
    CGPoint leftEyePosition = CGPointZero;
    CGPoint rightEyePosition = CGPointZero;
    CGPoint mouthPosition = CGPointZero;
    float faceAngle = 0;
    bool hasSmile = false;
    bool leftEyeClosed = false;
    bool rightEyeClosed = false;
    int32_t landmarksFound = 0;
};

/// A copy of the image scaled (up or down) to fit 640 x 480, with the source's layout; nil without a bitmap.
std::optional<UIImage> scaleImage(const UIImage& image);
/// A new 640 x 480 focus frame holding the image's grey bytes centred (cropped or padded with 128);
/// malloc'd, the caller frees it. Null when the image has no bitmap.
uint8_t* padImage(const UIImage& image);

} // namespace kp

extern "C" {
/// degrees x 3.141592653589793 / 180.0
kp::CGFloat DegreesToRadians(kp::CGFloat degrees);
/// radians x 180.0 / 3.141592653589793
kp::CGFloat RadiansToDegrees(kp::CGFloat radians);
}
