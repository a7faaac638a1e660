// SPDX-License-Identifier: MIT
// AVX2 block loop of the focus measure: eight neighbouring blocks per vector, one 32-bit lane each.
#include "KPImage/Focus/ImageAssessKernels.h"

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include <cstddef>

namespace kp::focus {

namespace {

// Layout. The frame is read in cell rows of 4 pixel rows starting at row 39; a block is made of two cell
// rows (its upper and lower half). Within a row, pixels are summed in horizontal pairs starting at column
// 39, so block column j covers pair words 2j..2j+3 and its 4 x 4 centre covers words 2j+1 and 2j+2 on the
// lower half of the upper cell row and the upper half of the lower one. Every pixel row is converted once;
// each cell row's sums serve both rows of blocks that share it.
constexpr int kLanes = 8;                                        // blocks per vector
constexpr int kChunks = (kBlockColumns + kLanes - 1) / kLanes;   // 18; lanes past block column 140 are dropped
constexpr int kChunkBytes = kLanes * kBlockStep;                 // 32 pixels
constexpr int kChunkWords = kChunkBytes / 2;                     // 16 pair sums
constexpr int kWords = kChunks * kChunkWords + kChunkWords;      // room for the one-cell look-ahead

#define KP_AVX2 __attribute__((target("avx2")))

KP_AVX2 inline __m256i load(const void* p) { return _mm256_loadu_si256(static_cast<const __m256i*>(p)); }
KP_AVX2 inline void store(void* p, __m256i v) { _mm256_storeu_si256(static_cast<__m256i*>(p), v); }

// (x * x + 128) >> 8 per lane, |x| < 2^15. madd of x with itself gives x^2 plus 1 for negative x (the high
// half is then all ones); a square is never 127 modulo 256, so the extra 1 never changes the shifted result.
KP_AVX2 inline __m256i energy(__m256i x) {
    return _mm256_srli_epi32(_mm256_add_epi32(_mm256_madd_epi16(x, x), _mm256_set1_epi32(128)), 8);
}

KP_AVX2 inline uint32_t laneSum(__m256i v) {
    __m128i s = _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0x4E));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0xB1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(s));
}

// Pair sums of one chunk of a cell row (4 pixel rows from p); returns the saturation bits of its row 0 (low
// half) and row 3 (high half).
KP_AVX2 inline uint64_t convertChunk(const uint8_t* p, int16_t* upper, int16_t* lower, int16_t* alternating) {
    const __m256i ones8 = _mm256_set1_epi8(1);
    const __m256i below200 = _mm256_set1_epi8(72); // x - 72 has its top bit set exactly when x >= 200
    const __m256i r0 = load(p);
    const __m256i r3 = load(p + 3 * kFrameWidth);
    const __m256i p0 = _mm256_maddubs_epi16(r0, ones8);
    const __m256i p1 = _mm256_maddubs_epi16(load(p + kFrameWidth), ones8);
    const __m256i p2 = _mm256_maddubs_epi16(load(p + 2 * kFrameWidth), ones8);
    const __m256i p3 = _mm256_maddubs_epi16(r3, ones8);
    const __m256i u = _mm256_add_epi16(p0, p1);
    const __m256i l = _mm256_add_epi16(p2, p3);
    store(upper, u);
    store(lower, l);
    store(alternating, _mm256_add_epi16(_mm256_sub_epi16(p0, p1), _mm256_sub_epi16(p2, p3)));
    const uint32_t bits0 = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_subs_epu8(r0, below200)));
    const uint32_t bits3 = static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_subs_epu8(r3, below200)));
    return bits0 | uint64_t{bits3} << 32;
}


// One converted cell row.
struct CellRow {
    alignas(32) int16_t upper[kWords];       // rows 0 + 1
    alignas(32) int16_t lower[kWords];       // rows 2 + 3
    alignas(32) int16_t alternating[kWords]; // rows 0 - 1 + 2 - 3
    uint64_t hot0[kProbeWords];              // saturated pixels of row 0 (probe bit layout)
    uint64_t hot3[kProbeWords];              // and of row 3
};

// What a cell row leaves for the row of blocks below it (it is then their upper half).
struct UpperHalf {
    alignas(32) int16_t block[kChunks * kChunkWords];       // block-wide pair sums
    alignas(32) int16_t centre[kChunks * kChunkWords];      // centre-column pair sums of rows 2 + 3
    alignas(32) int16_t alternating[kChunks * kChunkWords]; // block-wide alternating pair sums
};

struct Accumulators {
    __m256i c;
    __m256i a;
    __m256i ok;
};

// Converts chunks m and m + 1 of the cell row whose first pixel row is `rows`.
KP_AVX2 inline void convertPair(const uint8_t* rows, int m, CellRow& row) {
    const int k = m * kChunkWords;
    const uint64_t first = convertChunk(rows + m * kChunkBytes, row.upper + k, row.lower + k, row.alternating + k);
    const uint64_t second = convertChunk(rows + (m + 1) * kChunkBytes, row.upper + k + kChunkWords,
                                         row.lower + k + kChunkWords, row.alternating + k + kChunkWords);
    row.hot0[m / 2] = (first & 0xFFFFFFFFu) | (second << 32);
    row.hot3[m / 2] = (first >> 32) | (second & 0xFFFFFFFF00000000u);
}

// Chunk m of a converted cell row: finishes the blocks it is the lower half of (when `blocks`), and keeps
// what the next row of blocks needs from it.
KP_AVX2 inline void useChunk(const CellRow& row, int m, UpperHalf& half, bool blocks, uint32_t goodBits,
                             Accumulators& acc) {
    const __m256i ones16 = _mm256_set1_epi16(1);
    const __m256i laneShift = _mm256_setr_epi32(31, 27, 23, 19, 15, 11, 7, 3);
    const int k = m * kChunkWords;
    // Words 2j..2j+3 of block column j: this chunk's and, two words on, the next cell's.
    const __m256i blockSum = _mm256_add_epi16(_mm256_add_epi16(load(row.upper + k), load(row.lower + k)),
                                              _mm256_add_epi16(load(row.upper + k + 2), load(row.lower + k + 2)));
    const __m256i blockAlt = _mm256_add_epi16(load(row.alternating + k), load(row.alternating + k + 2));
    // Words 2j+1 and 2j+2: the centre columns.
    const __m256i centreLower = _mm256_blend_epi16(load(row.lower + k + 2), load(row.lower + k), 0xAA);
    if (blocks) {
        const __m256i centreUpper = _mm256_blend_epi16(load(row.upper + k + 2), load(row.upper + k), 0xAA);
        // C = 3 I - (T - I) = 4 I - T; the word sums stay within 16 bits, madd folds each pair.
        const __m256i centre = _mm256_add_epi16(load(half.centre + k), centreUpper);
        const __m256i cWords =
            _mm256_sub_epi16(_mm256_sub_epi16(_mm256_slli_epi16(centre, 2), load(half.block + k)), blockSum);
        const __m256i aWords = _mm256_add_epi16(load(half.alternating + k), blockAlt);
        const __m256i eC = energy(_mm256_madd_epi16(cWords, ones16));
        const __m256i eA = energy(_mm256_madd_epi16(aWords, ones16));
        // Bit 4j of goodBits moved to the sign bit of lane j selects the energies of unsaturated blocks.
        const __m256i unsaturated = _mm256_sllv_epi32(_mm256_set1_epi32(static_cast<int32_t>(goodBits)), laneShift);
        const __m256i okC = _mm256_castps_si256(_mm256_blendv_ps(
            _mm256_setzero_ps(), _mm256_castsi256_ps(eC), _mm256_castsi256_ps(unsaturated)));
        acc.c = _mm256_add_epi32(acc.c, eC);
        acc.a = _mm256_add_epi32(acc.a, eA);
        acc.ok = _mm256_add_epi32(acc.ok, okC);
    }
    store(half.block + k, blockSum);
    store(half.centre + k, centreLower);
    store(half.alternating + k, blockAlt);
}

} // namespace

KP_AVX2 FocusSums focusSumsAVX2(const uint8_t* frame) {
    // Cell row g is converted while cell row g - 1 is used, so that no load waits on a recent store.
    CellRow cellRows[2];
    UpperHalf half;
    uint64_t tops[2][kProbeWords] = {};
    uint64_t bottom[kProbeWords] = {};
    for (CellRow& row : cellRows) {
        // The look-ahead past the last chunk only feeds dropped lanes; keep what it reads defined.
        for (int k = kChunks * kChunkWords; k < kWords; ++k) {
            row.upper[k] = row.lower[k] = row.alternating[k] = 0;
        }
        row.hot0[kProbeWords - 1] = 0;
        row.hot3[kProbeWords - 1] = 0;
    }
    const __m256i zero = _mm256_setzero_si256();
    Accumulators acc{zero, zero, zero};
    Accumulators lastChunk{zero, zero, zero}; // lanes past the last block column are dropped at the end
    int32_t count = 1;

    const uint8_t* origin = frame + static_cast<size_t>(kFirstRow) * kFrameWidth + kFirstColumn;
    constexpr int kCellRows = kBlockRows + 1;
    for (int g = 0; g <= kCellRows; ++g) {
        const bool convert = g < kCellRows;
        const uint8_t* rows = origin + static_cast<size_t>(kBlockStep * g) * kFrameWidth;
        CellRow& next = cellRows[g & 1];
        if (g == 0) {
            for (int m = 0; m < kChunks; m += 2) {
                convertPair(rows, m, next);
            }
            continue;
        }

        // Cell row h = g - 1 is the lower half of block row h - 1 and then the upper half of block row h.
        const int h = g - 1;
        const CellRow& row = cellRows[h & 1];
        uint64_t* top = tops[h & 1];
        const uint64_t* prevTop = tops[(h & 1) ^ 1];
        probeBits(row.hot0, row.hot3, top, bottom);
        const bool blocks = h > 0;
        uint64_t good[kProbeWords] = {};
        if (blocks) {
            for (int w = 0; w + 1 < kProbeWords; ++w) {
                good[w] = ~(prevTop[w] | bottom[w]) & kProbeLanes[w];
                count += __builtin_popcountll(good[w]);
            }
        }
        for (int m = 0; m < kChunks; m += 2) {
            if (convert) {
                convertPair(rows, m, next);
            }
            useChunk(row, m, half, blocks, static_cast<uint32_t>(good[m / 2]), acc);
            if (m + 2 < kChunks) {
                useChunk(row, m + 1, half, blocks, static_cast<uint32_t>(good[m / 2] >> 32), acc);
            } else {
                useChunk(row, m + 1, half, blocks, static_cast<uint32_t>(good[m / 2] >> 32), lastChunk);
            }
        }
    }

    const __m256i lastValid = _mm256_cmpgt_epi32(_mm256_set1_epi32(kBlockColumns - (kChunks - 1) * kLanes),
                                                 _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    FocusSums sums;
    sums.accC = laneSum(_mm256_add_epi32(acc.c, _mm256_and_si256(lastChunk.c, lastValid)));
    sums.accA = laneSum(_mm256_add_epi32(acc.a, _mm256_and_si256(lastChunk.a, lastValid)));
    sums.accOK = laneSum(_mm256_add_epi32(acc.ok, lastChunk.ok)); // good bits exist only for real blocks
    sums.count = count;
    return sums;
}

} // namespace kp::focus

#endif
