// SPDX-License-Identifier: MIT
// Private interface of the block focus measure: the block geometry, the kernels and a way to force one.
#pragma once

#include "KPImage/Focus/ImageAssess.h"

#include <cstdint>

namespace kp::focus {

/// Block geometry of the focus frame: 8 x 8 blocks every 4 pixels, corners from (39, 39).
inline constexpr int kFrameWidth = 640;
inline constexpr int kFirstRow = 39;
inline constexpr int kFirstColumn = 39;
inline constexpr int kBlockStep = 4;
inline constexpr int kBlockRows = 101;    // corners 39, 43, ..., 439
inline constexpr int kBlockColumns = 141; // corners 39, 43, ..., 599
/// A block counts towards the two-pi score only when none of its probe pixels exceeds this.
inline constexpr int kSaturationLimit = 199;

/// The integer state left after visiting every block; the three scores follow from it alone.
struct FocusSums {
    uint32_t accC = 0;  ///< Sum of centre-surround energies (wraps).
    uint32_t accA = 0;  ///< Sum of row-alternation energies (wraps).
    uint32_t accOK = 0; ///< Sum of centre-surround energies of unsaturated blocks (wraps).
    int32_t count = 1;  ///< 1 + number of unsaturated blocks.

    friend bool operator==(const FocusSums&, const FocusSums&) = default;
};

/// The implementations of the block loop.
enum class FocusKernel { Scalar, SSE41, AVX2 };

/// True when this build and this processor can run kernel.
bool focusKernelAvailable(FocusKernel kernel);

/// The fastest kernel available here (what ImageAssess uses).
FocusKernel bestFocusKernel();

/// A short name of the kernel ("scalar", "sse4.1", "avx2").
const char* focusKernelName(FocusKernel kernel);

/// Block sums of a 640 x 480 frame with the given kernel; falls back to the scalar one when it is unavailable.
FocusSums focusSumsWith(FocusKernel kernel, const uint8_t* frame);

/// The three scores from the block sums; output elements 0..15 are zeroed.
void focusScoresFromSums(const FocusSums& sums, ImageAssessOutput* output);

/// ImageAssess of a 640 x 480 frame with the given kernel.
void imageAssessWith(FocusKernel kernel, const uint8_t* frame, ImageAssessOutput* output);

// The kernels themselves; each reads rows 39..446, columns 39..618 of the frame (always inside it).
FocusSums focusSumsScalar(const uint8_t* frame);
#if defined(__x86_64__) || defined(__i386__)
FocusSums focusSumsSSE41(const uint8_t* frame);
FocusSums focusSumsAVX2(const uint8_t* frame);
#endif

} // namespace kp::focus
