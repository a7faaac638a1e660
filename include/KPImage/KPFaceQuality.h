// SPDX-License-Identifier: MIT
// Whether a picture's face is good enough to keep: the face region's focus score and brightness against limits.
#pragma once

#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/UIImage.h"

#include <cstdint>
#include <string>

namespace kp {

/// The face region of a picture judged with the library's own measures: its focus score (calculateFocusScore
/// with offset 1, step 1 and no border, 0..100) and its brightness (calculateBrightness with one channel and no
/// border, 0..255), both on the face's box scaled to 64 x 64 grey pixels, so that a limit means the same for a
/// near face and a far one.
///
/// Default limits: focus score at least 40 (sharp faces score about 55 to 65; a face under a Gaussian blur of
/// about 4 % of its width scores below 40) and brightness at least 70 (well-lit faces read about 190; a third of
/// that light reads below 70).
///
/// Example:
///     const auto q = kp::KPFaceQuality::assess(still, face.faceBounds);
///     if (!q.good) { std::cerr << q.reason << "\n"; }   // "too dark", "hold still", ...
struct KPFaceQuality {
    static constexpr int32_t kDefaultMinFocus = 40;
    static constexpr int32_t kDefaultMinBrightness = 70;

    int32_t focusScore = 0;
    int32_t brightness = 0;
    /// Within every limit.
    bool good = false;
    /// Why not, for the user: "no face", "too dark" or "hold still" (blurred); "" when good.
    std::string reason;

    /// Judges the face's box (bitmap pixels, top-left origin; clipped to the picture). A picture without a
    /// bitmap or a box under 8 pixels a side after clipping gives "no face". Too dark comes before blurred: less
    /// light lowers the focus score too. Runs on any thread.
    static KPFaceQuality assess(const UIImage& picture, CGRect faceBox, int32_t minFocus = kDefaultMinFocus,
                                int32_t minBrightness = kDefaultMinBrightness);
};

} // namespace kp
