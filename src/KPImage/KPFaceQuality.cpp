// SPDX-License-Identifier: MIT
// The face region's focus score and brightness against the limits of a still worth keeping.
#include "KPImage/KPFaceQuality.h"

#include "KPImage/UIImage+ImagingHelper.h"

#include <cmath>

namespace kp {

namespace {

/// The side of the square the face is judged at, in pixels.
constexpr CGFloat kFaceSide = 64;

} // namespace

KPFaceQuality KPFaceQuality::assess(const UIImage& picture, CGRect faceBox, int32_t minFocus, int32_t minBrightness) {
    KPFaceQuality q;
    const auto& bitmap = picture.CGImage();
    if (!bitmap || CGRectIsNull(faceBox) || !std::isfinite(faceBox.origin.x) || !std::isfinite(faceBox.origin.y) ||
        !std::isfinite(faceBox.size.width) || !std::isfinite(faceBox.size.height)) {
        q.reason = "no face";
        return q;
    }
    const CGRect whole =
        CGRectMake(0, 0, static_cast<CGFloat>(bitmap->width()), static_cast<CGFloat>(bitmap->height()));
    const CGRect box = CGRectIntegral(CGRectIntersection(CGRectStandardize(faceBox), whole));
    // Below 8 pixels a side there is no face to judge (the focus score needs a few rows and columns).
    if (CGRectIsNull(box) || box.size.width < 8 || box.size.height < 8) {
        q.reason = "no face";
        return q;
    }
    // The face brought to one size, so that a limit means the same blur for a near face and a far one.
    const auto region = picture.imageAtRect(box);
    const auto scaled = region ? region->imageByScalingToSize(CGSizeMake(kFaceSide, kFaceSide)) : std::nullopt;
    const auto grey = scaled ? scaled->makeGrayScale() : std::nullopt;
    if (!grey) {
        q.reason = "no face";
        return q;
    }
    q.focusScore = grey->calculateFocusScore(1, 1, 0);
    q.brightness = grey->calculateBrightness(1, 0);
    if (q.brightness < minBrightness) {
        q.reason = "too dark";
    } else if (q.focusScore < minFocus) {
        q.reason = "hold still";
    }
    q.good = q.reason.empty();
    return q;
}

} // namespace kp
