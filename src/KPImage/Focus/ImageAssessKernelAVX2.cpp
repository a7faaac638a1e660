// SPDX-License-Identifier: MIT
// AVX2 block loop of the focus measure: eight neighbouring blocks per vector, one 32-bit lane each.
#include "KPImage/Focus/ImageAssessKernels.h"

#include <cstddef>

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

namespace kp::focus {

namespace {

// A block is 2 x 2 cells of 4 x 4 pixels on the grid of block corners; a vector covers 8 cells (32
// bytes of a row), so one lane holds one block column. Cell rows are summed once and shared by the two
// rows of blocks that overlap them.
constexpr int kLanes = 8;
constexpr int kVectors = (kBlockColumns + kLanes - 1) / kLanes; // 18, the last one partly used
constexpr int kCells = kVectors * kLanes + kLanes;               // room for the j + 1 reads

#define KP_AVX2 __attribute__((target("avx2")))

KP_AVX2 inline __m256i load(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
KP_AVX2 inline __m256i load(const int32_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
KP_AVX2 inline void store(int32_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }

// Pairwise byte sums of one row segment as 16 x 16-bit.
KP_AVX2 inline __m256i pairs(const uint8_t* p) { return _mm256_maddubs_epi16(load(p), _mm256_set1_epi8(1)); }

// The 16-bit pair sums folded into one 32-bit cell sum per lane.
KP_AVX2 inline __m256i cells(__m256i pairSums) { return _mm256_madd_epi16(pairSums, _mm256_set1_epi16(1)); }

// Cell sums and row-alternating cell sums (+ - + -) of the four rows from `row`, 8 cells from `row`.
KP_AVX2 inline void cellRow(const uint8_t* row, __m256i& sum, __m256i& alternating) {
    const __m256i p0 = pairs(row);
    const __m256i p1 = pairs(row + kFrameWidth);
    const __m256i p2 = pairs(row + 2 * kFrameWidth);
    const __m256i p3 = pairs(row + 3 * kFrameWidth);
    sum = cells(_mm256_add_epi16(_mm256_add_epi16(p0, p1), _mm256_add_epi16(p2, p3)));
    alternating = cells(_mm256_add_epi16(_mm256_sub_epi16(p0, p1), _mm256_sub_epi16(p2, p3)));
}

KP_AVX2 inline __m256i cellSum(const uint8_t* row) {
    const __m256i p0 = pairs(row);
    const __m256i p1 = pairs(row + kFrameWidth);
    const __m256i p2 = pairs(row + 2 * kFrameWidth);
    const __m256i p3 = pairs(row + 3 * kFrameWidth);
    return cells(_mm256_add_epi16(_mm256_add_epi16(p0, p1), _mm256_add_epi16(p2, p3)));
}

KP_AVX2 void fillCellRow(const uint8_t* row, int32_t* sums, int32_t* alternating) {
    for (int v = 0; v < kVectors; ++v) {
        __m256i s;
        __m256i a;
        cellRow(row + v * kLanes * kBlockStep, s, a);
        store(sums + v * kLanes, s);
        store(alternating + v * kLanes, a);
    }
}

// (x * x + 128) >> 8 per lane for |x| < 2^15: with the high half zero, madd squares the low half exactly.
KP_AVX2 inline __m256i energy(__m256i x) {
    const __m256i m = _mm256_abs_epi32(x);
    return _mm256_srli_epi32(_mm256_add_epi32(_mm256_madd_epi16(m, m), _mm256_set1_epi32(128)), 8);
}

KP_AVX2 inline uint32_t laneSum(__m256i v) {
    __m128i s = _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0x4E));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0xB1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(s));
}

} // namespace

KP_AVX2 FocusSums focusSumsAVX2(const uint8_t* frame) {
    alignas(32) int32_t cellSums[2][kCells] = {};
    alignas(32) int32_t cellAlts[2][kCells] = {};

    // Bytes 0 and 3 of a cell's lane are its first and last column: the probe positions of a block.
    const __m256i byte0 = _mm256_set1_epi32(0x000000FF);
    const __m256i byte3 = _mm256_set1_epi32(static_cast<int32_t>(0xFF000000u));
    const __m256i bytes03 = _mm256_set1_epi32(static_cast<int32_t>(0xFF0000FFu));
    const __m256i limit = _mm256_set1_epi8(static_cast<char>(kSaturationLimit));
    const __m256i zero = _mm256_setzero_si256();
    const __m256i lastValid =
        _mm256_cmpgt_epi32(_mm256_set1_epi32(kBlockColumns - (kVectors - 1) * kLanes), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));

    __m256i accC = zero;
    __m256i accA = zero;
    __m256i accOK = zero;
    __m256i good = zero; // counts down: each unsaturated block adds -1

    const uint8_t* origin = frame + static_cast<size_t>(kFirstRow) * kFrameWidth + kFirstColumn;
    fillCellRow(origin, cellSums[0], cellAlts[0]);
    for (int i = 0; i < kBlockRows; ++i) {
        const uint8_t* top = origin + static_cast<size_t>(kBlockStep * i) * kFrameWidth;
        const uint8_t* bottom = top + kBlockStep * kFrameWidth;
        const int32_t* topSum = cellSums[i & 1];
        const int32_t* topAlt = cellAlts[i & 1];
        int32_t* bottomSum = cellSums[(i + 1) & 1];
        int32_t* bottomAlt = cellAlts[(i + 1) & 1];
        fillCellRow(bottom, bottomSum, bottomAlt);

        for (int v = 0; v < kVectors; ++v) {
            const int j = v * kLanes;
            const uint8_t* p = top + j * kBlockStep;
            const __m256i total = _mm256_add_epi32(
                _mm256_add_epi32(load(topSum + j), load(topSum + j + 1)),
                _mm256_add_epi32(load(bottomSum + j), load(bottomSum + j + 1)));
            const __m256i A = _mm256_add_epi32(_mm256_add_epi32(load(topAlt + j), load(topAlt + j + 1)),
                                               _mm256_add_epi32(load(bottomAlt + j), load(bottomAlt + j + 1)));
            const __m256i centre = cellSum(p + 2 * kFrameWidth + 2);
            const __m256i C = _mm256_sub_epi32(_mm256_slli_epi32(centre, 2), total); // 3 I - (total - I)

            // Probes: row 0 at columns 0, 4, 7; row 3 at 0; row 4 at 7; row 7 at 0, 3, 7.
            const __m256i row0 = load(p);
            const __m256i row0next = load(p + 4);
            const __m256i row3 = load(p + 3 * kFrameWidth);
            const __m256i row4next = load(p + 4 * kFrameWidth + 4);
            const __m256i row7 = load(p + 7 * kFrameWidth);
            const __m256i row7next = load(p + 7 * kFrameWidth + 4);
            const __m256i probes =
                _mm256_max_epu8(_mm256_and_si256(_mm256_max_epu8(row0, row3), byte0),
                                _mm256_max_epu8(_mm256_and_si256(_mm256_max_epu8(row0next, row7), bytes03),
                                                _mm256_and_si256(_mm256_max_epu8(row4next, row7next), byte3)));
            __m256i unsaturated = _mm256_cmpeq_epi32(_mm256_subs_epu8(probes, limit), zero);

            __m256i eC = energy(C);
            __m256i eA = energy(A);
            if (v == kVectors - 1) {
                eC = _mm256_and_si256(eC, lastValid);
                eA = _mm256_and_si256(eA, lastValid);
                unsaturated = _mm256_and_si256(unsaturated, lastValid);
            }
            accC = _mm256_add_epi32(accC, eC);
            accA = _mm256_add_epi32(accA, eA);
            accOK = _mm256_add_epi32(accOK, _mm256_and_si256(eC, unsaturated));
            good = _mm256_add_epi32(good, unsaturated);
        }
    }

    FocusSums sums;
    sums.accC = laneSum(accC);
    sums.accA = laneSum(accA);
    sums.accOK = laneSum(accOK);
    sums.count = static_cast<int32_t>(1u - laneSum(good));
    return sums;
}

} // namespace kp::focus

#endif
