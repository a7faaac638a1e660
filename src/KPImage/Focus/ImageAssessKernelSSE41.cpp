// SPDX-License-Identifier: MIT
// SSE4.1 block loop of the focus measure: four neighbouring blocks per vector, one 32-bit lane each.
#include "KPImage/Focus/ImageAssessKernels.h"

#include <cstddef>

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

namespace kp::focus {

namespace {

// Same cell scheme as the AVX2 loop, 16 bytes (4 cells) per vector.
constexpr int kLanes = 4;
constexpr int kVectors = (kBlockColumns + kLanes - 1) / kLanes; // 36, the last one partly used
constexpr int kCells = kVectors * kLanes + kLanes;               // room for the j + 1 reads

#define KP_SSE41 __attribute__((target("sse4.1")))

KP_SSE41 inline __m128i load(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
KP_SSE41 inline __m128i load(const int32_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
KP_SSE41 inline void store(int32_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

KP_SSE41 inline __m128i pairs(const uint8_t* p) { return _mm_maddubs_epi16(load(p), _mm_set1_epi8(1)); }
KP_SSE41 inline __m128i cells(__m128i pairSums) { return _mm_madd_epi16(pairSums, _mm_set1_epi16(1)); }

KP_SSE41 void fillCellRow(const uint8_t* row, int32_t* sums, int32_t* alternating) {
    for (int v = 0; v < kVectors; ++v) {
        const uint8_t* p = row + v * kLanes * kBlockStep;
        const __m128i p0 = pairs(p);
        const __m128i p1 = pairs(p + kFrameWidth);
        const __m128i p2 = pairs(p + 2 * kFrameWidth);
        const __m128i p3 = pairs(p + 3 * kFrameWidth);
        store(sums + v * kLanes, cells(_mm_add_epi16(_mm_add_epi16(p0, p1), _mm_add_epi16(p2, p3))));
        store(alternating + v * kLanes, cells(_mm_add_epi16(_mm_sub_epi16(p0, p1), _mm_sub_epi16(p2, p3))));
    }
}

KP_SSE41 inline __m128i cellSum(const uint8_t* row) {
    const __m128i p0 = pairs(row);
    const __m128i p1 = pairs(row + kFrameWidth);
    const __m128i p2 = pairs(row + 2 * kFrameWidth);
    const __m128i p3 = pairs(row + 3 * kFrameWidth);
    return cells(_mm_add_epi16(_mm_add_epi16(p0, p1), _mm_add_epi16(p2, p3)));
}

// (x * x + 128) >> 8 per lane for |x| < 2^15: with the high half zero, madd squares the low half exactly.
KP_SSE41 inline __m128i energy(__m128i x) {
    const __m128i m = _mm_abs_epi32(x);
    return _mm_srli_epi32(_mm_add_epi32(_mm_madd_epi16(m, m), _mm_set1_epi32(128)), 8);
}

KP_SSE41 inline uint32_t laneSum(__m128i s) {
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0x4E));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0xB1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(s));
}

} // namespace

KP_SSE41 FocusSums focusSumsSSE41(const uint8_t* frame) {
    alignas(16) int32_t cellSums[2][kCells] = {};
    alignas(16) int32_t cellAlts[2][kCells] = {};

    // Bytes 0 and 3 of a cell's lane are its first and last column: the probe positions of a block.
    const __m128i byte0 = _mm_set1_epi32(0x000000FF);
    const __m128i byte3 = _mm_set1_epi32(static_cast<int32_t>(0xFF000000u));
    const __m128i bytes03 = _mm_set1_epi32(static_cast<int32_t>(0xFF0000FFu));
    const __m128i limit = _mm_set1_epi8(static_cast<char>(kSaturationLimit));
    const __m128i zero = _mm_setzero_si128();
    const __m128i lastValid =
        _mm_cmpgt_epi32(_mm_set1_epi32(kBlockColumns - (kVectors - 1) * kLanes), _mm_setr_epi32(0, 1, 2, 3));

    __m128i accC = zero;
    __m128i accA = zero;
    __m128i accOK = zero;
    __m128i good = zero; // counts down: each unsaturated block adds -1

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
            const __m128i total = _mm_add_epi32(_mm_add_epi32(load(topSum + j), load(topSum + j + 1)),
                                                _mm_add_epi32(load(bottomSum + j), load(bottomSum + j + 1)));
            const __m128i A = _mm_add_epi32(_mm_add_epi32(load(topAlt + j), load(topAlt + j + 1)),
                                            _mm_add_epi32(load(bottomAlt + j), load(bottomAlt + j + 1)));
            const __m128i centre = cellSum(p + 2 * kFrameWidth + 2);
            const __m128i C = _mm_sub_epi32(_mm_slli_epi32(centre, 2), total); // 3 I - (total - I)

            // Probes: row 0 at columns 0, 4, 7; row 3 at 0; row 4 at 7; row 7 at 0, 3, 7.
            const __m128i row0 = load(p);
            const __m128i row0next = load(p + 4);
            const __m128i row3 = load(p + 3 * kFrameWidth);
            const __m128i row4next = load(p + 4 * kFrameWidth + 4);
            const __m128i row7 = load(p + 7 * kFrameWidth);
            const __m128i row7next = load(p + 7 * kFrameWidth + 4);
            const __m128i probes = _mm_max_epu8(_mm_and_si128(_mm_max_epu8(row0, row3), byte0),
                                                _mm_max_epu8(_mm_and_si128(_mm_max_epu8(row0next, row7), bytes03),
                                                             _mm_and_si128(_mm_max_epu8(row4next, row7next), byte3)));
            __m128i unsaturated = _mm_cmpeq_epi32(_mm_subs_epu8(probes, limit), zero);

            __m128i eC = energy(C);
            __m128i eA = energy(A);
            if (v == kVectors - 1) {
                eC = _mm_and_si128(eC, lastValid);
                eA = _mm_and_si128(eA, lastValid);
                unsaturated = _mm_and_si128(unsaturated, lastValid);
            }
            accC = _mm_add_epi32(accC, eC);
            accA = _mm_add_epi32(accA, eA);
            accOK = _mm_add_epi32(accOK, _mm_and_si128(eC, unsaturated));
            good = _mm_add_epi32(good, unsaturated);
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
