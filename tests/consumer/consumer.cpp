// SPDX-License-Identifier: MIT
// A host that scores a synthetic frame with the installed library's focus measures.
#include <KPImage/KPImage.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

int main() {
    // Even rows 0, odd rows 100: a known row-alternation score of 97.
    std::vector<uint8_t> frame(kFocusFrameBytes);
    for (int y = 0; y < kFocusFrameHeight; ++y) {
        for (int x = 0; x < kFocusFrameWidth; ++x) {
            frame[static_cast<size_t>(y) * kFocusFrameWidth + x] = (y % 2) ? 100 : 0;
        }
    }
    ImageAssessInput in{frame.data()};
    ImageAssessOutput out{};
    ImageAssess(&in, &out);

    auto data = kp::CGDataProviderCreateWithData(frame);
    auto cg = kp::CGImageCreate(640, 480, 8, 8, 640, kp::CGColorSpaceCreateDeviceGray(), kp::kCGImageAlphaNone, data);
    const int32_t focus = kp::UIImage::imageWithCGImage(cg).calculateFocus();
    std::printf("rowAlternation=%d focus=%d version=%.1f\n", out.rowAlternationScore, focus, KPImageVersionNumber);
    return (out.rowAlternationScore == 97 && focus == 0) ? EXIT_SUCCESS : EXIT_FAILURE;
}
