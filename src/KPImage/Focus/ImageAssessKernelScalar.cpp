// SPDX-License-Identifier: MIT
// Portable block loop of the focus measure, built from 4 x 4 cell sums shared by overlapping blocks.
#include "KPImage/Focus/ImageAssessKernels.h"

#include <cstddef>

namespace kp::focus {

namespace {

// Blocks start every 4 pixels and are 8 wide, so every block is 2 x 2 cells of 4 x 4 pixels on the
// 39 + 4k grid, and its 4 x 4 centre is one cell of the grid shifted by 2 in both directions.
constexpr int kCells = kBlockColumns + 1;     // cells along a row of blocks
constexpr int kCellRows = kBlockRows + 1;     // cells down the frame

const uint8_t* rowAt(const uint8_t* frame, int y) { return frame + static_cast<size_t>(y) * kFrameWidth; }

// Sums (and row-alternating sums) of the cells whose top row is y; the alternation starts with +.
void cellRow(const uint8_t* frame, int y, int x0, int32_t* sums, int32_t* alternating) {
    for (int j = 0; j < kCells; ++j) {
        sums[j] = 0;
        if (alternating != nullptr) {
            alternating[j] = 0;
        }
    }
    for (int k = 0; k < 4; ++k) {
        const uint8_t* row = rowAt(frame, y + k) + x0;
        const int32_t sign = (k % 2 == 0) ? 1 : -1;
        for (int j = 0; j < kCells; ++j) {
            const uint8_t* p = row + kBlockStep * j;
            const int32_t h = p[0] + p[1] + p[2] + p[3];
            sums[j] += h;
            if (alternating != nullptr) {
                alternating[j] += sign * h;
            }
        }
    }
}

bool over(uint8_t v) { return v > kSaturationLimit; }

} // namespace

FocusSums focusSumsScalar(const uint8_t* frame) {
    FocusSums sums;
    int32_t cellSum[2][kCells];
    int32_t cellAlt[2][kCells];
    int32_t centre[kCells];

    cellRow(frame, kFirstRow, kFirstColumn, cellSum[0], cellAlt[0]);
    for (int g = 1; g < kCellRows; ++g) {
        const int i = g - 1; // the row of blocks made of cell rows i and g
        const int r = kFirstRow + kBlockStep * i;
        const int32_t* topSum = cellSum[i & 1];
        const int32_t* topAlt = cellAlt[i & 1];
        int32_t* bottomSum = cellSum[g & 1];
        int32_t* bottomAlt = cellAlt[g & 1];
        cellRow(frame, r + kBlockStep, kFirstColumn, bottomSum, bottomAlt);
        cellRow(frame, r + 2, kFirstColumn + 2, centre, nullptr);

        const uint8_t* row0 = rowAt(frame, r);
        const uint8_t* row3 = rowAt(frame, r + 3);
        const uint8_t* row4 = rowAt(frame, r + 4);
        const uint8_t* row7 = rowAt(frame, r + 7);
        for (int j = 0; j < kBlockColumns; ++j) {
            const int32_t total = topSum[j] + topSum[j + 1] + bottomSum[j] + bottomSum[j + 1];
            const int32_t A = topAlt[j] + topAlt[j + 1] + bottomAlt[j] + bottomAlt[j + 1];
            const int32_t C = 4 * centre[j] - total; // 3 I - (total - I)

            const uint32_t eC = (static_cast<uint32_t>(C) * static_cast<uint32_t>(C) + 128u) >> 8;
            const uint32_t eA = (static_cast<uint32_t>(A) * static_cast<uint32_t>(A) + 128u) >> 8;
            sums.accC += eC;
            sums.accA += eA;

            const int c = kFirstColumn + kBlockStep * j;
            const bool saturated = over(row0[c]) || over(row0[c + 4]) || over(row0[c + 7]) || over(row3[c]) ||
                                   over(row4[c + 7]) || over(row7[c]) || over(row7[c + 3]) || over(row7[c + 7]);
            if (!saturated) {
                sums.count += 1;
                sums.accOK += eC;
            }
        }
    }
    return sums;
}

} // namespace kp::focus
