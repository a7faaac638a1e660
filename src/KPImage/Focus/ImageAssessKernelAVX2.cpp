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

// Rows 0 and 3 of a chunk of a cell row and of the chunk after it (zero after the last).
struct EdgeRows {
    __m256i row0;
    __m256i row3;
    __m256i row0Next;
    __m256i row3Next;
};

// The next chunk's edge rows; the chunk after the last only feeds lanes that are dropped.
KP_AVX2 inline void advanceEdges(const uint8_t* rows, int m, EdgeRows& edges) {
    edges.row0 = edges.row0Next;
    edges.row3 = edges.row3Next;
    const bool last = m + 2 >= kChunks;
    edges.row0Next = last ? _mm256_setzero_si256() : load(rows + (m + 2) * kChunkBytes);
    edges.row3Next = last ? _mm256_setzero_si256() : load(rows + (m + 2) * kChunkBytes + 3 * kFrameWidth);
}

// Edge rows of the first chunk of a cell row.
KP_AVX2 inline EdgeRows firstEdges(const uint8_t* rows) {
    return {load(rows), load(rows + 3 * kFrameWidth), load(rows + kChunkBytes), load(rows + kChunkBytes + 3 * kFrameWidth)};
}

// Lanes shifted down by one 32-bit lane, the next vector's first lane entering at the top.
KP_AVX2 inline __m256i laneAhead(__m256i v, __m256i next) {
    return _mm256_alignr_epi8(_mm256_permute2x128_si256(v, next, 0x21), v, 4);
}

// Pair sums of chunk m of a cell row (4 pixel rows from `rows`); its probe maxima as the upper half of
// blocks go to `top`, as the lower half to the result. Lane j holds pixels 4j..4j+3 of a row, shifted a
// lane, pixels 4j+4..4j+7. Upper half: row 0 at columns 0, 4, 7; row 3 at column 0. Lower half (block rows
// 4 and 7): row 0 at column 7; row 3 at columns 0, 3, 7. Byte 3 of a lane gets the largest of them.
KP_AVX2 inline __m256i convertChunk(const uint8_t* rows, int m, const EdgeRows& edges, int16_t* upper, int16_t* lower,
                                    int16_t* alternating, __m256i& top) {
    const __m256i ones8 = _mm256_set1_epi8(1);
    const uint8_t* p = rows + m * kChunkBytes;
    const __m256i r0 = edges.row0;
    const __m256i r3 = edges.row3;
    const __m256i p0 = _mm256_maddubs_epi16(r0, ones8);
    const __m256i p1 = _mm256_maddubs_epi16(load(p + kFrameWidth), ones8);
    const __m256i p2 = _mm256_maddubs_epi16(load(p + 2 * kFrameWidth), ones8);
    const __m256i p3 = _mm256_maddubs_epi16(r3, ones8);
    store(upper, _mm256_add_epi16(p0, p1));
    store(lower, _mm256_add_epi16(p2, p3));
    store(alternating, _mm256_add_epi16(_mm256_sub_epi16(p0, p1), _mm256_sub_epi16(p2, p3)));
    const __m256i r0Ahead = laneAhead(r0, edges.row0Next);
    const __m256i r3Ahead = laneAhead(r3, edges.row3Next);
    top = _mm256_max_epu8(_mm256_slli_epi32(_mm256_max_epu8(_mm256_max_epu8(r0, r3), r0Ahead), 24), r0Ahead);
    return _mm256_max_epu8(_mm256_max_epu8(r0Ahead, r3Ahead), _mm256_max_epu8(r3, _mm256_slli_epi32(r3, 24)));
}

// One converted cell row.
struct CellRow {
    alignas(32) int16_t upper[kWords];       // rows 0 + 1
    alignas(32) int16_t lower[kWords];       // rows 2 + 3
    alignas(32) int16_t alternating[kWords]; // rows 0 - 1 + 2 - 3
    __m256i good[kChunks];                   // all ones in the lanes of the unsaturated blocks it ends
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

// Chunk m of a converted cell row: finishes the blocks it is the lower half of (when `blocks`), and keeps
// what the next row of blocks needs from it.
KP_AVX2 inline void useChunk(const CellRow& row, int m, UpperHalf& half, bool blocks, Accumulators& acc) {
    const __m256i ones16 = _mm256_set1_epi16(1);
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
        const __m256i okC = _mm256_and_si256(eC, row.good[m]);
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
    __m256i tops[kChunks]; // probe maxima of the last converted cell row as an upper half
    for (CellRow& row : cellRows) {
        // The look-ahead past the last chunk only feeds dropped lanes; keep what it reads defined.
        for (int k = kChunks * kChunkWords; k < kWords; ++k) {
            row.upper[k] = row.lower[k] = row.alternating[k] = 0;
        }
    }
    const __m256i zero = _mm256_setzero_si256();
    const __m256i lastValid = _mm256_cmpgt_epi32(_mm256_set1_epi32(kBlockColumns - (kChunks - 1) * kLanes),
                                                 _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    const __m256i saturationLimit = _mm256_set1_epi32(kSaturationLimit);
    Accumulators acc{zero, zero, zero};
    Accumulators lastChunk{zero, zero, zero}; // lanes past the last block column are dropped at the end
    int32_t count = 1;

    // Converts cell row g into `row`; from the second on, also marks and counts the unsaturated blocks of
    // the row of blocks it ends.
    auto convertRow = [&](const uint8_t* rows, int g, CellRow& row) KP_AVX2 {
        EdgeRows edges = firstEdges(rows);
        for (int m = 0; m < kChunks; ++m) {
            const int k = m * kChunkWords;
            __m256i top;
            const __m256i bottom = convertChunk(rows, m, edges, row.upper + k, row.lower + k, row.alternating + k, top);
            advanceEdges(rows, m, edges);
            if (g > 0) {
                const __m256i largest = _mm256_srli_epi32(_mm256_max_epu8(tops[m], bottom), 24);
                __m256i good = _mm256_andnot_si256(_mm256_cmpgt_epi32(largest, saturationLimit), _mm256_set1_epi32(-1));
                if (m + 1 == kChunks) {
                    good = _mm256_and_si256(good, lastValid);
                }
                row.good[m] = good;
                count += __builtin_popcount(static_cast<uint32_t>(_mm256_movemask_ps(_mm256_castsi256_ps(good))));
            }
            tops[m] = top;
        }
    };

    const uint8_t* origin = frame + static_cast<size_t>(kFirstRow) * kFrameWidth + kFirstColumn;
    constexpr int kCellRows = kBlockRows + 1;
    convertRow(origin, 0, cellRows[0]);
    for (int g = 1; g <= kCellRows; ++g) {
        // Cell row h = g - 1 is the lower half of block row h - 1 and then the upper half of block row h.
        const int h = g - 1;
        const CellRow& row = cellRows[h & 1];
        const bool blocks = h > 0;
        if (g < kCellRows) {
            convertRow(origin + static_cast<size_t>(kBlockStep * g) * kFrameWidth, g, cellRows[g & 1]);
        }
        for (int m = 0; m + 1 < kChunks; ++m) {
            useChunk(row, m, half, blocks, acc);
        }
        useChunk(row, kChunks - 1, half, blocks, lastChunk);
    }

    FocusSums sums;
    sums.accC = laneSum(_mm256_add_epi32(acc.c, _mm256_and_si256(lastChunk.c, lastValid)));
    sums.accA = laneSum(_mm256_add_epi32(acc.a, _mm256_and_si256(lastChunk.a, lastValid)));
    sums.accOK = laneSum(_mm256_add_epi32(acc.ok, lastChunk.ok)); // good bits exist only for real blocks
    sums.count = count;
    return sums;
}

} // namespace kp::focus

#endif
