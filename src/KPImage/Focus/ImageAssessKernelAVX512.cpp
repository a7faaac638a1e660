// SPDX-License-Identifier: MIT
// AVX-512 block loop of the focus measure: sixteen neighbouring blocks per vector, one 32-bit lane each.
#include "KPImage/Focus/ImageAssessKernels.h"

#if defined(__x86_64__)

#include <immintrin.h>

#include <cstddef>

// The compiler's own AVX-512 intrinsics start some results from a deliberately undefined vector, which
// its uninitialised-use analysis then reports once they are inlined here.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace kp::focus {

namespace {

// The scheme of the AVX2 loop (see there) on 64-byte vectors. A chunk of 64 pixels is exactly one probe
// word, so a byte compare gives the saturation bits of a row directly, and the unsaturated blocks of a
// chunk select their energies through a lane mask instead of a blend.
constexpr int kLanes = 16;                                       // blocks per vector
constexpr int kChunks = (kBlockColumns + kLanes - 1) / kLanes;   // 9; lanes past block column 140 are dropped
constexpr int kChunkBytes = kLanes * kBlockStep;                 // 64 pixels, one probe word
constexpr int kChunkWords = kChunkBytes / 2;                     // 32 pair sums
constexpr int kWords = kChunks * kChunkWords + kChunkWords;      // room for the one-cell look-ahead
constexpr __mmask16 kLastChunkLanes = (1u << (kBlockColumns - (kChunks - 1) * kLanes)) - 1;

// The block columns of chunk m that exist.
constexpr __mmask16 chunkLanes(int m) { return m + 1 < kChunks ? __mmask16{0xFFFF} : kLastChunkLanes; }

#define KP_AVX512 __attribute__((target("avx512f,avx512bw")))

KP_AVX512 inline __m512i load(const void* p) { return _mm512_loadu_si512(p); }
KP_AVX512 inline void store(void* p, __m512i v) { _mm512_storeu_si512(p, v); }

// (x * x + 128) >> 8 per lane, |x| < 2^15; see the AVX2 loop for why madd of x with itself is exact here.
KP_AVX512 inline __m512i energy(__m512i x) {
    return _mm512_srli_epi32(_mm512_add_epi32(_mm512_madd_epi16(x, x), _mm512_set1_epi32(128)), 8);
}

// Wrapping sum of the lanes (the library reduction may add them as signed scalars, which must not overflow).
KP_AVX512 inline uint32_t laneSum(__m512i v) {
    const __m256i h = _mm256_add_epi32(_mm512_castsi512_si256(v), _mm512_extracti64x4_epi64(v, 1));
    __m128i q = _mm_add_epi32(_mm256_castsi256_si128(h), _mm256_extracti128_si256(h, 1));
    q = _mm_add_epi32(q, _mm_shuffle_epi32(q, 0x4E));
    q = _mm_add_epi32(q, _mm_shuffle_epi32(q, 0xB1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(q));
}

// One converted cell row.
struct CellRow {
    alignas(64) int16_t upper[kWords];       // rows 0 + 1
    alignas(64) int16_t lower[kWords];       // rows 2 + 3
    alignas(64) int16_t alternating[kWords]; // rows 0 - 1 + 2 - 3
};

// What a cell row leaves for the row of blocks below it (it is then their upper half).
struct UpperHalf {
    alignas(64) int16_t block[kChunks * kChunkWords];       // block-wide pair sums
    alignas(64) int16_t centre[kChunks * kChunkWords];      // centre-column pair sums of rows 2 + 3
    alignas(64) int16_t alternating[kChunks * kChunkWords]; // block-wide alternating pair sums
};

// Saturated probes. Lane j of a chunk's vector stands for its block column j; byte 3 of the lane holds the
// largest probe pixel of the cell row's part of that block.
struct Probes {
    __m512i top[kChunks];       // the cell row as the upper half of its blocks
    __mmask16 good[2][kChunks]; // unsaturated blocks of the row of blocks the cell row ends
};

struct Accumulators {
    __m512i c;
    __m512i a;
    __m512i ok;
};

// Rows 0 and 3 of a chunk of a cell row and of the chunk after it (zero after the last).
struct EdgeRows {
    __m512i row0;
    __m512i row3;
    __m512i row0Next;
    __m512i row3Next;
};

// The next chunk's edge rows; the chunk after the last only feeds lanes that are dropped.
KP_AVX512 inline void advanceEdges(const uint8_t* rows, int m, EdgeRows& edges) {
    edges.row0 = edges.row0Next;
    edges.row3 = edges.row3Next;
    const bool last = m + 2 >= kChunks;
    edges.row0Next = last ? _mm512_setzero_si512() : load(rows + (m + 2) * kChunkBytes);
    edges.row3Next = last ? _mm512_setzero_si512() : load(rows + (m + 2) * kChunkBytes + 3 * kFrameWidth);
}

// Edge rows of the first chunk of a cell row.
KP_AVX512 inline EdgeRows firstEdges(const uint8_t* rows) {
    return {load(rows), load(rows + 3 * kFrameWidth), load(rows + kChunkBytes), load(rows + kChunkBytes + 3 * kFrameWidth)};
}

// Pair sums of chunk m of cell row g (first pixel row `rows`) and its probes; from the second cell row on,
// the unsaturated blocks (among `lanes`) of the row of blocks it ends, which are also counted.
KP_AVX512 inline void convertChunk(const uint8_t* rows, int g, int m, const EdgeRows& edges, __mmask16 lanes,
                                   CellRow& row, Probes& probes, int32_t& count) {
    const __m512i ones8 = _mm512_set1_epi8(1);
    const __m512i limit = _mm512_set1_epi32(static_cast<int32_t>((uint32_t{kSaturationLimit} << 24) | 0xFFFFFFu));
    const uint8_t* p = rows + m * kChunkBytes;
    const int k = m * kChunkWords;
    const __m512i r0 = edges.row0;
    const __m512i r3 = edges.row3;
    const __m512i p0 = _mm512_maddubs_epi16(r0, ones8);
    const __m512i p1 = _mm512_maddubs_epi16(load(p + kFrameWidth), ones8);
    const __m512i p2 = _mm512_maddubs_epi16(load(p + 2 * kFrameWidth), ones8);
    const __m512i p3 = _mm512_maddubs_epi16(r3, ones8);
    store(row.upper + k, _mm512_add_epi16(p0, p1));
    store(row.lower + k, _mm512_add_epi16(p2, p3));
    store(row.alternating + k, _mm512_add_epi16(_mm512_sub_epi16(p0, p1), _mm512_sub_epi16(p2, p3)));

    // Lane j holds pixels 4j..4j+3 of a row; shifted by a lane, pixels 4j+4..4j+7. Upper half: row 0 at
    // columns 0, 4, 7; row 3 at column 0. Lower half (block rows 4 and 7): row 0 at column 7; row 3 at
    // columns 0, 3, 7. Byte 0 moves to byte 3 by a lane shift.
    const __m512i r0Ahead = _mm512_alignr_epi32(edges.row0Next, r0, 1);
    const __m512i r3Ahead = _mm512_alignr_epi32(edges.row3Next, r3, 1);
    const __m512i top =
        _mm512_max_epu8(_mm512_slli_epi32(_mm512_max_epu8(_mm512_max_epu8(r0, r3), r0Ahead), 24), r0Ahead);
    const __m512i bottom = _mm512_max_epu8(_mm512_max_epu8(r0Ahead, r3Ahead), _mm512_max_epu8(r3, _mm512_slli_epi32(r3, 24)));
    if (g > 0) {
        // Byte 3 above 199 and any lower bytes: the lane exceeds 0xC7FFFFFF.
        const __mmask16 saturated = _mm512_cmpgt_epu32_mask(_mm512_max_epu8(probes.top[m], bottom), limit);
        const __mmask16 good = static_cast<__mmask16>(~saturated & lanes);
        probes.good[g & 1][m] = good;
        count += __builtin_popcount(good);
    }
    probes.top[m] = top;
}

// Chunk m of a converted cell row: finishes the blocks it is the lower half of (when `blocks`), and keeps
// what the next row of blocks needs from it. `lanes` are the block columns that exist, `good` the
// unsaturated ones among them.
KP_AVX512 inline void useChunk(const CellRow& row, int m, UpperHalf& half, bool blocks, __mmask16 lanes,
                               __mmask16 good, Accumulators& acc) {
    const __m512i ones16 = _mm512_set1_epi16(1);
    constexpr __mmask32 kOddWords = 0xAAAAAAAAu;
    const int k = m * kChunkWords;
    // Words 2j..2j+3 of block column j: this chunk's and, two words on, the next cell's.
    const __m512i blockSum = _mm512_add_epi16(_mm512_add_epi16(load(row.upper + k), load(row.lower + k)),
                                              _mm512_add_epi16(load(row.upper + k + 2), load(row.lower + k + 2)));
    const __m512i blockAlt = _mm512_add_epi16(load(row.alternating + k), load(row.alternating + k + 2));
    // Words 2j+1 and 2j+2: the centre columns.
    const __m512i centreLower = _mm512_mask_blend_epi16(kOddWords, load(row.lower + k + 2), load(row.lower + k));
    if (blocks) {
        const __m512i centreUpper =
            _mm512_mask_blend_epi16(kOddWords, load(row.upper + k + 2), load(row.upper + k));
        // C = 3 I - (T - I) = 4 I - T; the word sums stay within 16 bits, madd folds each pair.
        const __m512i centre = _mm512_add_epi16(load(half.centre + k), centreUpper);
        const __m512i cWords =
            _mm512_sub_epi16(_mm512_sub_epi16(_mm512_slli_epi16(centre, 2), load(half.block + k)), blockSum);
        const __m512i aWords = _mm512_add_epi16(load(half.alternating + k), blockAlt);
        const __m512i eC = energy(_mm512_madd_epi16(cWords, ones16));
        const __m512i eA = energy(_mm512_madd_epi16(aWords, ones16));
        acc.c = _mm512_mask_add_epi32(acc.c, lanes, acc.c, eC);
        acc.a = _mm512_mask_add_epi32(acc.a, lanes, acc.a, eA);
        acc.ok = _mm512_mask_add_epi32(acc.ok, good, acc.ok, eC);
    }
    store(half.block + k, blockSum);
    store(half.centre + k, centreLower);
    store(half.alternating + k, blockAlt);
}

} // namespace

KP_AVX512 FocusSums focusSumsAVX512(const uint8_t* frame) {
    // Cell row g is converted while cell row g - 1 is used, so that no load waits on a recent store.
    CellRow cellRows[2];
    UpperHalf half;
    Probes probes;
    for (CellRow& row : cellRows) {
        // The look-ahead past the last chunk only feeds dropped lanes; keep what it reads defined.
        for (int k = kChunks * kChunkWords; k < kWords; ++k) {
            row.upper[k] = row.lower[k] = row.alternating[k] = 0;
        }
    }
    const __m512i zero = _mm512_setzero_si512();
    Accumulators acc{zero, zero, zero};
    int32_t count = 1;

    const uint8_t* origin = frame + static_cast<size_t>(kFirstRow) * kFrameWidth + kFirstColumn;
    constexpr int kCellRows = kBlockRows + 1;
    EdgeRows firstRowEdges = firstEdges(origin);
    for (int m = 0; m < kChunks; ++m) {
        convertChunk(origin, 0, m, firstRowEdges, chunkLanes(m), cellRows[0], probes, count);
        advanceEdges(origin, m, firstRowEdges);
    }
    for (int g = 1; g <= kCellRows; ++g) {
        const bool convert = g < kCellRows;
        const uint8_t* rows = origin + static_cast<size_t>(kBlockStep * g) * kFrameWidth;
        // Cell row h = g - 1 is the lower half of block row h - 1 and then the upper half of block row h.
        const int h = g - 1;
        const CellRow& row = cellRows[h & 1];
        const bool blocks = h > 0;
        EdgeRows edges = convert ? firstEdges(rows) : EdgeRows{};
        for (int m = 0; m < kChunks; ++m) {
            if (convert) {
                convertChunk(rows, g, m, edges, chunkLanes(m), cellRows[g & 1], probes, count);
                advanceEdges(rows, m, edges);
            }
            useChunk(row, m, half, blocks, chunkLanes(m), blocks ? probes.good[h & 1][m] : __mmask16{0}, acc);
        }
    }

    FocusSums sums;
    sums.accC = laneSum(acc.c);
    sums.accA = laneSum(acc.a);
    sums.accOK = laneSum(acc.ok);
    sums.count = count;
    return sums;
}

} // namespace kp::focus

#endif
