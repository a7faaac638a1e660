/* SPDX-License-Identifier: MIT */
/* The block focus measure of a 640 x 480 grey frame, and the offset-difference focus quality. C linkage. */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The focus frame: 640 x 480 bytes of 8-bit grey, row length exactly 640. */
enum { kFocusFrameWidth = 640, kFocusFrameHeight = 480, kFocusFrameBytes = 640 * 480 };

/** Input of ImageAssess: the frame to score (borrowed for the call). */
typedef struct ImageAssessInput {
    uint8_t* image;
} ImageAssessInput;

/** Output of ImageAssess: 19 signed 32-bit integers. Elements 0..15 are zeroed; each score is 0..100. */
typedef struct ImageAssessOutput {
    int32_t reserved[16];
    int32_t centerSurroundScore;
    int32_t twoPiScore;
    int32_t rowAlternationScore;
} ImageAssessOutput;

/** Scores the frame input->image points to into *output (centre-surround, two-pi and row-alternation). */
void ImageAssess(ImageAssessInput* input, ImageAssessOutput* output);

/** The two-pi score (0..100) of a focus frame. */
int32_t TwoPiFocusAssess(uint8_t* frame);

/**
 * Mean squared difference of pixel values `offset` pixels apart along rows, sampled every `step` pixels
 * inside a border of edgePercent percent. data holds height rows of width pixels of channels bytes, no row
 * padding; the green byte is used for 3 or more channels. Samples whose bytes lie outside the buffer are
 * left out. Returns 0 when nothing was sampled or step <= 0.
 */
float CalculateFocusQuality(const uint8_t* data, uint32_t width, uint32_t height, int32_t channels, int32_t offset,
                            int32_t step, uint32_t edgePercent);

#ifdef __cplusplus
}
#endif
