// SPDX-License-Identifier: MIT
// A plain block-by-block implementation of the focus measure, the yardstick for the fast kernels.
#pragma once

#include "KPImage/Focus/ImageAssessKernels.h"

namespace kp::focus {

/// Block sums of a 640 x 480 frame, each 8 x 8 block summed pixel by pixel.
FocusSums referenceFocusSums(const uint8_t* frame);

/// The three scores from block sums, step by step (output elements 0..15 zeroed).
void referenceScoresFromSums(const FocusSums& sums, ImageAssessOutput* output);

/// ImageAssess of a 640 x 480 frame, computed block by block and finished step by step.
void referenceImageAssess(const uint8_t* frame, ImageAssessOutput* output);

} // namespace kp::focus
