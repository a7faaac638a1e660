// SPDX-License-Identifier: MIT
// The scores the tool prints for a picture: focus, focus score, brightness and the face.
#pragma once

#include <KPImage/KPImage.h>

#include <cstdint>

namespace kpcli {

/// One picture's scores, with the parameters every command reports them with.
struct PictureScores {
    int32_t focus = 0;      // the two-pi focus score, 0..100
    int32_t focusScore = 0; // offset 1, step 1, edge 10
    int32_t brightness = 0; // 4 channels, 10 % edge skipped
    kp::FaceFeatures face;
};

inline PictureScores scorePicture(const kp::UIImage& image) {
    return {image.calculateFocus(), image.calculateFocusScore(1, 1, 10), image.calculateBrightness(4, 10),
            image.getFaceFeaturesWithAccuracy(1)};
}

} // namespace kpcli
