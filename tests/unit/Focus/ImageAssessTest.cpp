// SPDX-License-Identifier: MIT
// The block focus measure: known patterns, the C entry points, and every kernel against the reference.
#include "KPImage/Focus/ImageAssess.h"
#include "KPImage/Focus/ImageAssessKernels.h"
#include "KPImage/Focus/ImageAssessReference.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using kp::focus::FocusKernel;
using kp::focus::FocusSums;
using Frame = std::vector<uint8_t>;

template <typename F> Frame makeFrame(F f) {
    Frame frame(kFocusFrameBytes);
    for (int i = 0; i < kFocusFrameWidth * kFocusFrameHeight; ++i) {
        frame[size_t(i)] = static_cast<uint8_t>(f(i % kFocusFrameWidth, i / kFocusFrameWidth));
    }
    return frame;
}

bool same(const ImageAssessOutput& a, const ImageAssessOutput& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

std::string describe(const ImageAssessOutput& o) {
    return std::to_string(o.centerSurroundScore) + "/" + std::to_string(o.twoPiScore) + "/" +
           std::to_string(o.rowAlternationScore);
}

// Every available kernel and the dispatched entry point reproduce the reference exactly; returns the reference.
ImageAssessOutput checkKernels(Frame& frame, const std::string& what) {
    const FocusSums sums = kp::focus::referenceFocusSums(frame.data());
    ImageAssessOutput expected;
    kp::focus::referenceScoresFromSums(sums, &expected);
    for (FocusKernel k : {FocusKernel::Scalar, FocusKernel::SSE41, FocusKernel::AVX2, FocusKernel::AVX512}) {
        if (kp::focus::focusKernelAvailable(k)) {
            EXPECT_EQ(kp::focus::focusSumsWith(k, frame.data()), sums) << what << ", " << kp::focus::focusKernelName(k);
            ImageAssessOutput output;
            kp::focus::imageAssessWith(k, frame.data(), &output);
            EXPECT_TRUE(same(output, expected)) << what << ", " << kp::focus::focusKernelName(k);
        }
    }
    ImageAssessInput input{frame.data()};
    ImageAssessOutput dispatched;
    ImageAssess(&input, &dispatched);
    EXPECT_TRUE(same(dispatched, expected)) << what << ": " << describe(dispatched) << " not " << describe(expected);
    return expected;
}

// The wrapped 32-bit square of the final steps, to tell whether a frame really exercises the wrap.
int32_t wrappedSquare(uint32_t acc, int32_t round, int shift) {
    const int32_t v = static_cast<int32_t>(acc + static_cast<uint32_t>(round)) >> shift;
    return static_cast<int32_t>(static_cast<uint32_t>(v) * static_cast<uint32_t>(v));
}

bool inSquare(int x, int y) {
    return x % 8 >= 2 && x % 8 <= 5 && y % 8 >= 2 && y % 8 <= 5;
}

TEST(ImageAssess, KnownPatternsScoreAsDefined) {
    // Scores centre-surround / two-pi / row alternation, and the blocks that pass the saturation guard.
    const std::tuple<const char*, Frame, const char*, int32_t> cases[] = {
        {"uniform 77", makeFrame([](int, int) { return 77; }), "0/0/0", 14242},
        // Every block fails the saturation guard: textured, yet nothing reaches the two-pi measure.
        {"bright", makeFrame([](int x, int y) { return (x + 3 * y) % 7 == 0 ? 200 : 255; }), "16/0/0", 1},
        {"checkerboard", makeFrame([](int x, int y) { return (x + y) % 2 == 0 ? 90 : 110; }), "0/0/0", 14242},
        {"alternating rows", makeFrame([](int, int y) { return y % 2 == 0 ? 0 : 100; }), "0/0/97", 14242},
        {"squares", makeFrame([](int x, int y) { return inSquare(x, y) ? 120 : 100; }), "83/98/0", 14242},
    };
    for (auto [what, frame, scores, count] : cases) {
        EXPECT_EQ(describe(checkKernels(frame, what)), scores) << what;
        EXPECT_EQ(kp::focus::referenceFocusSums(frame.data()).count, count) << what;
    }
    Frame squares = std::get<1>(cases[4]);
    EXPECT_EQ(TwoPiFocusAssess(squares.data()), 98);
    EXPECT_EQ(TwoPiFocusAssess(nullptr), 0);
    // Missing input gives zero scores, whatever the record held.
    ImageAssessOutput output;
    std::memset(&output, 0xA5, sizeof output);
    ImageAssess(nullptr, &output);
    EXPECT_TRUE(same(output, ImageAssessOutput{}));
}

TEST(ImageAssess, KernelsMatchTheReferenceWhereverTheyRead) {
    std::mt19937 rng(5);
    auto noise = [&](int low, int high) {
        std::uniform_int_distribution<int> value(low, high);
        return makeFrame([&](int, int) { return value(rng); });
    };
    auto onGrid = [](int v) { return ((v - 39) % 8 + 8) % 8; };
    // Blocks alternating bright centres on dark rings and back, probes at 199: unsaturated energy beyond 2^31.
    static const uint8_t tile[8][8] = {{199, 255, 0, 0, 0, 0, 255, 199}, {255, 255, 0, 0, 0, 0, 255, 255},
                                       {0, 0, 255, 255, 255, 255, 0, 0}, {0, 0, 255, 199, 199, 255, 0, 0},
                                       {0, 0, 255, 199, 199, 255, 0, 0}, {0, 0, 255, 255, 255, 255, 0, 0},
                                       {255, 255, 0, 0, 0, 0, 255, 255}, {199, 255, 0, 0, 0, 0, 255, 199}};
    std::vector<std::pair<std::string, Frame>> frames = {
        {"noise", noise(0, 255)},
        {"faint noise", noise(96, 104)},
        {"noise about the guard", noise(196, 203)},
        {"binary noise", makeFrame([&](int, int) { return (rng() & 1) ? 255 : 0; })},
        {"columns 0/255", makeFrame([](int x, int) { return x % 2 == 0 ? 255 : 0; })},
        {"squares 255 on 0", makeFrame([&](int x, int y) { return inSquare(onGrid(x), onGrid(y)) ? 255 : 0; })},
        {"tile", makeFrame([&](int x, int y) { return tile[onGrid(y)][onGrid(x)]; })},
    };
    // Row stripes of growing contrast sweep the row-alternation square through its wrap.
    for (int contrast = 60; contrast <= 255; contrast += 15) {
        frames.emplace_back("rows 0/" + std::to_string(contrast),
                            makeFrame([&](int, int y) { return y % 2 == 0 ? 0 : contrast; }));
    }
    bool accAWrapped = false, accCWrapped = false, accOKWrapped = false, qANegative = false, qCNegative = false;
    for (auto& [what, frame] : frames) {
        checkKernels(frame, what);
        const FocusSums s = kp::focus::referenceFocusSums(frame.data());
        accAWrapped |= s.accA >= 0x80000000u;
        accCWrapped |= s.accC >= 0x80000000u;
        accOKWrapped |= s.accOK >= 0x80000000u;
        qANegative |= wrappedSquare(s.accA, 1024, 11) < 0;
        qCNegative |= wrappedSquare(s.accC, 512, 10) < 0;
    }
    EXPECT_TRUE(accAWrapped && accCWrapped && accOKWrapped && qANegative && qCNegative)
        << "the frames must keep exercising the wraps";

    // Every phase of the saturation probes, near both ends of the block area (rows and columns 39..606 x 39..446).
    Frame flat = makeFrame([](int, int) { return 199; });
    for (auto [x0, y0] : {std::pair{37, 37}, {599, 439}}) {
        for (int i = 0; i < 64; ++i) {
            uint8_t& p = flat[size_t((y0 + i / 8) * kFocusFrameWidth + x0 + i % 8)];
            p = 200;
            checkKernels(flat, "200 at " + std::to_string(x0 + i % 8) + "," + std::to_string(y0 + i / 8));
            p = 199;
        }
    }
}

TEST(ImageAssess, FinalStepsWrapRoundAndMatchReference) {
    auto scores = [](uint32_t accC, uint32_t accA, uint32_t accOK, int32_t count) {
        ImageAssessOutput out;
        kp::focus::focusScoresFromSums(FocusSums{accC, accA, accOK, count}, &out);
        return out;
    };
    // a = 65535: its square wraps to -131071, so the score goes negative; a = 65536 wraps to 0.
    EXPECT_EQ(scores(0, 65535u << 11, 0, 1).rowAlternationScore, -6);
    EXPECT_EQ(scores(65535u << 11 >> 1, 0, 0, 1).centerSurroundScore, -6);
    EXPECT_EQ(scores(0, 65536u << 11, 0, 1).rowAlternationScore, 0);

    std::mt19937 rng(99);
    const uint32_t interesting[] = {
        0u,          1u,          511u,        512u,        1023u,       1024u,           0x7FFFFBFFu,
        0x7FFFFC00u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFC00u, 0xFFFFFFFFu, 94906265u << 11, 46341u << 11};
    for (int n = 0; n < 5000; ++n) {
        const uint32_t accC = n < 196 ? interesting[n % 14] : static_cast<uint32_t>(rng());
        const uint32_t accA = n < 196 ? interesting[n / 14] : static_cast<uint32_t>(rng()) >> (n % 20);
        const FocusSums sums{accC, accA, static_cast<uint32_t>(rng()) >> (n % 32), 1 + int32_t(rng() % 14242)};
        ImageAssessOutput fast, plain;
        kp::focus::focusScoresFromSums(sums, &fast);
        kp::focus::referenceScoresFromSums(sums, &plain);
        ASSERT_TRUE(same(fast, plain)) << describe(fast) << " vs " << describe(plain);
    }
}

} // namespace
