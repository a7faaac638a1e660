// SPDX-License-Identifier: MIT
// SSE4.1 block loop of the focus measure: four neighbouring blocks per vector, one 32-bit lane each.
#include "KPImage/Focus/ImageAssessKernels.h"

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include <cstddef>

namespace kp::focus {

namespace {

// The same scheme as the AVX2 loop (see there) on 16-byte vectors: pair sums of each pixel row are
// formed once, cell rows of 4 pixel rows serve the two rows of blocks that share them, and saturated
// probe pixels travel as bits.
constexpr int kLanes = 4;                                        // blocks per vector
constexpr int kChunks = (kBlockColumns + kLanes - 1) / kLanes;   // 36; lanes past block column 140 are dropped
constexpr int kChunkBytes = kLanes * kBlockStep;                 // 16 pixels
constexpr int kChunkWords = kChunkBytes / 2;                     // 8 pair sums
constexpr int kChunksPerProbeWord = 64 / kChunkBytes;            // 4
constexpr int kWords = kChunks * kChunkWords + kChunkWords;      // room for the one-cell look-ahead

#define KP_SSE41 __attribute__((target("sse4.1")))

KP_SSE41 inline __m128i load(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
KP_SSE41 inline void store(void* p, __m128i v) { _mm_storeu_si128(static_cast<__m128i*>(p), v); }

// (x * x + 128) >> 8 per lane, |x| < 2^15; see the AVX2 loop for why madd of x with itself is exact here.
KP_SSE41 inline __m128i energy(__m128i x) {
    return _mm_srli_epi32(_mm_add_epi32(_mm_madd_epi16(x, x), _mm_set1_epi32(128)), 8);
}

KP_SSE41 inline uint32_t laneSum(__m128i s) {
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0x4E));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0xB1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(s));
}

struct CellRow {
    alignas(16) int16_t upper[kWords];       // rows 0 + 1
    alignas(16) int16_t lower[kWords];       // rows 2 + 3
    alignas(16) int16_t alternating[kWords]; // rows 0 - 1 + 2 - 3
    uint64_t hot0[kProbeWords];              // saturated pixels of row 0 (probe bit layout)
    uint64_t hot3[kProbeWords];              // and of row 3
};

struct UpperHalf {
    alignas(16) int16_t block[kChunks * kChunkWords];
    alignas(16) int16_t centre[kChunks * kChunkWords];
    alignas(16) int16_t alternating[kChunks * kChunkWords];
};

struct Accumulators {
    __m128i c;
    __m128i a;
    __m128i ok;
};

// Pair sums of one chunk (4 pixel rows from p); returns the saturation bits of row 0 (low 16 bits) and
// row 3 (bits 16..31).
KP_SSE41 inline uint32_t convertChunk(const uint8_t* p, int16_t* upper, int16_t* lower, int16_t* alternating) {
    const __m128i ones8 = _mm_set1_epi8(1);
    const __m128i below200 = _mm_set1_epi8(72); // x - 72 has its top bit set exactly when x >= 200
    const __m128i r0 = load(p);
    const __m128i r3 = load(p + 3 * kFrameWidth);
    const __m128i p0 = _mm_maddubs_epi16(r0, ones8);
    const __m128i p1 = _mm_maddubs_epi16(load(p + kFrameWidth), ones8);
    const __m128i p2 = _mm_maddubs_epi16(load(p + 2 * kFrameWidth), ones8);
    const __m128i p3 = _mm_maddubs_epi16(r3, ones8);
    store(upper, _mm_add_epi16(p0, p1));
    store(lower, _mm_add_epi16(p2, p3));
    store(alternating, _mm_add_epi16(_mm_sub_epi16(p0, p1), _mm_sub_epi16(p2, p3)));
    const uint32_t bits0 = static_cast<uint32_t>(_mm_movemask_epi8(_mm_subs_epu8(r0, below200)));
    const uint32_t bits3 = static_cast<uint32_t>(_mm_movemask_epi8(_mm_subs_epu8(r3, below200)));
    return bits0 | bits3 << 16;
}

// Converts the four chunks from m, which make probe word m / 4.
KP_SSE41 inline void convertQuad(const uint8_t* rows, int m, CellRow& row) {
    uint64_t bits0 = 0;
    uint64_t bits3 = 0;
    for (int n = 0; n < kChunksPerProbeWord; ++n) {
        const int k = (m + n) * kChunkWords;
        const uint32_t bits =
            convertChunk(rows + (m + n) * kChunkBytes, row.upper + k, row.lower + k, row.alternating + k);
        bits0 |= uint64_t{bits & 0xFFFFu} << (16 * n);
        bits3 |= uint64_t{bits >> 16} << (16 * n);
    }
    row.hot0[m / kChunksPerProbeWord] = bits0;
    row.hot3[m / kChunksPerProbeWord] = bits3;
}

KP_SSE41 inline void useChunk(const CellRow& row, int m, UpperHalf& half, bool blocks, uint32_t goodBits,
                              Accumulators& acc) {
    const __m128i ones16 = _mm_set1_epi16(1);
    const __m128i laneBits = _mm_setr_epi32(1, 1 << 4, 1 << 8, 1 << 12);
    const int k = m * kChunkWords;
    const __m128i blockSum = _mm_add_epi16(_mm_add_epi16(load(row.upper + k), load(row.lower + k)),
                                           _mm_add_epi16(load(row.upper + k + 2), load(row.lower + k + 2)));
    const __m128i blockAlt = _mm_add_epi16(load(row.alternating + k), load(row.alternating + k + 2));
    const __m128i centreLower = _mm_blend_epi16(load(row.lower + k + 2), load(row.lower + k), 0xAA);
    if (blocks) {
        const __m128i centreUpper = _mm_blend_epi16(load(row.upper + k + 2), load(row.upper + k), 0xAA);
        // C = 3 I - (T - I) = 4 I - T.
        const __m128i centre = _mm_add_epi16(load(half.centre + k), centreUpper);
        const __m128i cWords = _mm_sub_epi16(_mm_sub_epi16(_mm_slli_epi16(centre, 2), load(half.block + k)), blockSum);
        const __m128i aWords = _mm_add_epi16(load(half.alternating + k), blockAlt);
        const __m128i eC = energy(_mm_madd_epi16(cWords, ones16));
        const __m128i eA = energy(_mm_madd_epi16(aWords, ones16));
        const __m128i unsaturated =
            _mm_cmpeq_epi32(_mm_and_si128(_mm_set1_epi32(static_cast<int32_t>(goodBits)), laneBits), laneBits);
        acc.c = _mm_add_epi32(acc.c, eC);
        acc.a = _mm_add_epi32(acc.a, eA);
        acc.ok = _mm_add_epi32(acc.ok, _mm_and_si128(eC, unsaturated));
    }
    store(half.block + k, blockSum);
    store(half.centre + k, centreLower);
    store(half.alternating + k, blockAlt);
}

} // namespace

KP_SSE41 FocusSums focusSumsSSE41(const uint8_t* frame) {
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
    const __m128i zero = _mm_setzero_si128();
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
            for (int m = 0; m < kChunks; m += kChunksPerProbeWord) {
                convertQuad(rows, m, next);
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
        for (int m = 0; m < kChunks; m += kChunksPerProbeWord) {
            if (convert) {
                convertQuad(rows, m, next);
            }
            const uint64_t bits = good[m / kChunksPerProbeWord];
            useChunk(row, m, half, blocks, static_cast<uint32_t>(bits & 0xFFFFu), acc);
            useChunk(row, m + 1, half, blocks, static_cast<uint32_t>((bits >> 16) & 0xFFFFu), acc);
            useChunk(row, m + 2, half, blocks, static_cast<uint32_t>((bits >> 32) & 0xFFFFu), acc);
            if (m + kChunksPerProbeWord < kChunks) {
                useChunk(row, m + 3, half, blocks, static_cast<uint32_t>(bits >> 48), acc);
            } else {
                useChunk(row, m + 3, half, blocks, static_cast<uint32_t>(bits >> 48), lastChunk);
            }
        }
    }

    const __m128i lastValid =
        _mm_cmpgt_epi32(_mm_set1_epi32(kBlockColumns - (kChunks - 1) * kLanes), _mm_setr_epi32(0, 1, 2, 3));
    FocusSums sums;
    sums.accC = laneSum(_mm_add_epi32(acc.c, _mm_and_si128(lastChunk.c, lastValid)));
    sums.accA = laneSum(_mm_add_epi32(acc.a, _mm_and_si128(lastChunk.a, lastValid)));
    sums.accOK = laneSum(_mm_add_epi32(acc.ok, lastChunk.ok)); // good bits exist only for real blocks
    sums.count = count;
    return sums;
}

} // namespace kp::focus

#endif
