// SPDX-License-Identifier: MIT
// A plain block-by-block implementation of the focus measure, the yardstick for the fast kernels.
#include "KPImage/Focus/ImageAssessReference.h"

#include <cmath>
#include <cstring>

namespace kp::focus {

FocusSums referenceFocusSums(const uint8_t* frame) {
    FocusSums sums;
    for (int r = kFirstRow; r < 440; r += kBlockStep) {
        for (int c = kFirstColumn; c < 600; c += kBlockStep) {
            auto B = [&](int i, int j) -> int32_t { return frame[(r + i) * kFrameWidth + c + j]; };

            int32_t S[8];
            for (int i = 0; i < 8; ++i) {
                S[i] = 0;
                for (int j = 0; j < 8; ++j) {
                    S[i] += B(i, j);
                }
            }
            int32_t inner = 0;
            for (int i = 2; i <= 5; ++i) {
                for (int j = 2; j <= 5; ++j) {
                    inner += B(i, j);
                }
            }
            int32_t total = 0;
            for (int32_t s : S) {
                total += s;
            }
            const int32_t ring = total - inner;
            const int32_t C = 3 * inner - ring;
            const int32_t A = S[0] - S[1] + S[2] - S[3] + S[4] - S[5] + S[6] - S[7];

            const uint32_t eC = (static_cast<uint32_t>(C) * static_cast<uint32_t>(C) + 128u) >> 8;
            const uint32_t eA = (static_cast<uint32_t>(A) * static_cast<uint32_t>(A) + 128u) >> 8;
            sums.accC += eC;
            sums.accA += eA;

            const bool saturated = B(0, 0) > kSaturationLimit || B(0, 4) > kSaturationLimit ||
                                   B(0, 7) > kSaturationLimit || B(3, 0) > kSaturationLimit ||
                                   B(4, 7) > kSaturationLimit || B(7, 0) > kSaturationLimit ||
                                   B(7, 3) > kSaturationLimit || B(7, 7) > kSaturationLimit;
            if (!saturated) {
                sums.count += 1;
                sums.accOK += eC;
            }
        }
    }
    return sums;
}

namespace {

int32_t halfScore(int32_t q) {
    const float quotient = static_cast<float>(q) * 100.0f / static_cast<float>(wrappingAdd(q, 2000000));
    return truncateToInt32(quotient + 0.5f);
}

} // namespace

void referenceScoresFromSums(const FocusSums& sums, ImageAssessOutput* output) {
    std::memset(output, 0, sizeof *output);

    const int32_t a = wrappingAdd(static_cast<int32_t>(sums.accA), 1024) >> 11;
    output->rowAlternationScore = halfScore(wrappingSquare(a));

    const int32_t b = wrappingAdd(static_cast<int32_t>(sums.accC), 512) >> 10;
    output->centerSurroundScore = halfScore(wrappingSquare(b));

    const float m = static_cast<float>(static_cast<int32_t>(sums.accOK)) * 14000.0f * 256.0f /
                    static_cast<float>(sums.count) * 1.52587890625e-05f;
    // A volatile square keeps m*m + 3311294 from being fused into one rounding.
    const volatile float mm = m * m;
    output->twoPiScore = truncateToInt32(std::floor(mm * 100.0f / (mm + 3311294.0f) + 0.5f));
}

void referenceImageAssess(const uint8_t* frame, ImageAssessOutput* output) {
    referenceScoresFromSums(referenceFocusSums(frame), output);
}

} // namespace kp::focus
