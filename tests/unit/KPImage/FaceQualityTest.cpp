// SPDX-License-Identifier: MIT
// Face quality on real pictures: sharp and well-lit faces pass, faces under a real Gaussian blur or darkened are
// refused with the reason the user is told.
#include "KPImage/KPFaceQuality.h"
#include "KPImage/UIImage+ImagingHelper.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace kp;

namespace {

/// The grey picture blurred by a separable Gaussian of sigma pixels (edges clamped), then its light scaled by gain.
UIImage blurredAndLit(const UIImage& grey, double sigma, double gain) {
    const auto& g = *grey.CGImage();
    const size_t w = g.width(), h = g.height(), stride = g.bytesPerRow();
    std::vector<double> a(w * h), b(w * h);
    for (size_t i = 0; i < w * h; ++i) {
        a[i] = g.bytes()[i / w * stride + i % w];
    }
    const int r = static_cast<int>(std::ceil(3 * sigma));
    auto pass = [&](const std::vector<double>& in, std::vector<double>& out, size_t dx, size_t dy) {
        for (size_t i = 0; i < w * h; ++i) {
            double v = 0, sum = 0;
            for (int k = -r; k <= r; ++k) {
                const long x = std::clamp<long>(long(i % w) + k * long(dx), 0, long(w) - 1);
                const long y = std::clamp<long>(long(i / w) + k * long(dy), 0, long(h) - 1);
                const double weight = sigma > 0 ? std::exp(-k * k / (2 * sigma * sigma)) : 1;
                v += weight * in[size_t(y) * w + size_t(x)];
                sum += weight;
            }
            out[i] = v / sum;
        }
    };
    pass(a, b, 1, 0);
    pass(b, a, 0, 1);
    std::vector<uint8_t> bytes(w * h);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(std::clamp(std::lround(a[i] * gain), 0L, 255L));
    }
    return UIImage::imageWithCGImage(kptest::makeGray(w, h, bytes));
}

TEST(FaceQuality, BlurredOrDarkenedFacesAreRefusedSharpWellLitOnesTaken) {
    // Blur in percent of the face's width, light as a gain, and the reason the user is told ("" when good).
    const std::tuple<double, double, std::string> cases[] = {
        {0, 1, ""},           {1, 1, ""}, {5, 1, "hold still"}, {8, 1, "hold still"}, {0, 0.35, "too dark"},
        {5, 0.35, "too dark"}};
    // The face boxes getFaceFeaturesWithAccuracy finds in a near and a far face (the detector takes seconds).
    const std::pair<std::string, CGRect> pictures[] = {
        {kptest::dataPath("astronaut.png"), CGRectMake(175, 76, 91, 91)},
        {kptest::dataPath("../../data/sample-face.png"), CGRectMake(88, 41, 45, 44)}};
    for (const auto& [path, face] : pictures) {
        const auto grey = UIImage::imageWithContentsOfFile(path)->makeGrayScale();
        for (const auto& [blur, gain, reason] : cases) {
            const KPFaceQuality q =
                KPFaceQuality::assess(blurredAndLit(*grey, blur * face.size.width / 100, gain), face);
            EXPECT_EQ(q.reason, reason) << path << " blur " << blur << " light " << gain;
            EXPECT_EQ(q.good, reason.empty());
        }
        EXPECT_EQ(KPFaceQuality::assess(*grey, face, 8, 250).reason, "too dark") << "a stricter light limit";
    }
    // No bitmap, or a box outside the picture: nothing to judge.
    EXPECT_EQ(KPFaceQuality::assess(UIImage(), CGRectMake(0, 0, 50, 50)).reason, "no face");
    EXPECT_EQ(
        KPFaceQuality::assess(kptest::grayImage(50, 50, [](size_t, size_t) { return 9; }), CGRectMake(60, 0, 9, 9))
            .reason,
        "no face");
}

} // namespace
