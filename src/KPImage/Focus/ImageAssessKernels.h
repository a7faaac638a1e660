// SPDX-License-Identifier: MIT
// Private interface of the block focus measure: the block geometry, the kernels and a way to force one.
#pragma once

#include "KPImage/Focus/ImageAssess.h"

#include <array>
#include <cmath>
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

/// 32-bit signed arithmetic of the scores' final steps, wrapping the way the scores are defined instead of
/// overflowing.
inline int32_t wrappingAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t wrappingSquare(int32_t a) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(a));
}

/// Float to int32 toward zero. Wrapped squares can push a quotient out of range (or make it NaN); such values
/// saturate and NaN gives 0, instead of being undefined.
inline int32_t truncateToInt32(float v) {
    if (std::isnan(v)) {
        return 0;
    }
    if (v >= 2147483648.0f) {
        return INT32_MAX;
    }
    if (v < -2147483648.0f) {
        return INT32_MIN;
    }
    return static_cast<int32_t>(v);
}

/// The implementations of the block loop.
enum class FocusKernel { Scalar, SSE41, AVX2, AVX512 };

/// True when this build and this processor can run kernel.
bool focusKernelAvailable(FocusKernel kernel);

/// The fastest kernel available here (what ImageAssess uses).
FocusKernel bestFocusKernel();

/// A short name of the kernel ("scalar", "sse4.1", "avx2", "avx512").
const char* focusKernelName(FocusKernel kernel);

/// Block sums of a 640 x 480 frame with the given kernel; falls back to the scalar one when it is unavailable.
FocusSums focusSumsWith(FocusKernel kernel, const uint8_t* frame);

/// The three scores from the block sums; output elements 0..15 are zeroed.
void focusScoresFromSums(const FocusSums& sums, ImageAssessOutput* output);

/// ImageAssess of a 640 x 480 frame with the given kernel.
void imageAssessWith(FocusKernel kernel, const uint8_t* frame, ImageAssessOutput* output);

/// Probe pixels of a row of cells as bits: bit t of a word array stands for column 39 + t, and the
/// SSE4.1 kernel sets it when that pixel exceeds the saturation limit. A block's probes sit in its corner cells'
/// first and last columns (cell j spans bits 4j..4j+3) on rows 0 and 3 of its two cell rows.
inline constexpr int kProbeWords = 10; // 576 columns and a zero word for the look-ahead

/// Bits 4j of the probe words that stand for existing block columns (0..140).
inline constexpr std::array<uint64_t, kProbeWords> kProbeLanes = [] {
    std::array<uint64_t, kProbeWords> lanes{};
    for (int t = 0; t < 64 * kProbeWords; t += kBlockStep) {
        if (t / kBlockStep < kBlockColumns) {
            lanes[t / 64] |= uint64_t{1} << (t % 64);
        }
    }
    return lanes;
}();

/// Bits 4j of `top` (the cell row as a block's upper half) and `bottom` (as its lower half) are set when block
/// column j has a saturated probe there; row0 and row3 hold the cell row's first and last pixel rows.
inline void probeBits(const uint64_t* row0, const uint64_t* row3, uint64_t* top, uint64_t* bottom) {
    auto ahead = [](const uint64_t* bits, int w, int k) { return (bits[w] >> k) | (bits[w + 1] << (64 - k)); };
    for (int w = 0; w + 1 < kProbeWords; ++w) {
        // Upper half: row 0 at columns 0, 4, 7; row 3 at column 0.
        top[w] = row0[w] | row3[w] | ahead(row0, w, 4) | ahead(row0, w, 7);
        // Lower half (block rows 4 and 7): row 0 at column 7; row 3 at columns 0, 3, 7.
        bottom[w] = row3[w] | ahead(row3, w, 3) | ahead(row0, w, 7) | ahead(row3, w, 7);
    }
}

// The kernels themselves; each reads rows 39..446, columns 39..614 of the frame (always inside it).
FocusSums focusSumsScalar(const uint8_t* frame);
#if defined(__x86_64__) || defined(__i386__)
FocusSums focusSumsSSE41(const uint8_t* frame);
FocusSums focusSumsAVX2(const uint8_t* frame);
#endif
#if defined(__x86_64__)
FocusSums focusSumsAVX512(const uint8_t* frame); // needs AVX-512 F and BW, and BMI2
#endif

} // namespace kp::focus
