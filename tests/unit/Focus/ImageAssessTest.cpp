// SPDX-License-Identifier: MIT
// Tests of the block focus measure: known patterns, the C entry points, and every kernel against the reference.
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

constexpr int kW = kFocusFrameWidth;
constexpr int kH = kFocusFrameHeight;

template <typename F> Frame makeFrame(F f) {
    Frame frame(kFocusFrameBytes);
    for (int y = 0; y < kH; ++y) {
        for (int x = 0; x < kW; ++x) {
            frame[y * kW + x] = static_cast<uint8_t>(f(x, y));
        }
    }
    return frame;
}

Frame uniformFrame(int value) {
    return makeFrame([&](int, int) { return value; });
}

// Bright and dark patches with fine noise: some blocks saturated, most not, every block textured.
Frame texturedFrame(uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> patch(10, 235);
    std::uniform_int_distribution<int> noise(-12, 12);
    std::vector<int> patches((kW / 16 + 1) * (kH / 16 + 1));
    for (int& p : patches) {
        p = patch(rng);
    }
    return makeFrame([&](int x, int y) { return std::clamp(patches[(y / 16) * (kW / 16 + 1) + x / 16] + noise(rng), 0, 255); });
}

Frame randomFrame(uint32_t seed, int low, int high) {
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> value(low, high);
    return makeFrame([&](int, int) { return value(rng); });
}

bool sameOutput(const ImageAssessOutput& a, const ImageAssessOutput& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

std::string describe(const ImageAssessOutput& o) {
    return std::to_string(o.centerSurroundScore) + "/" + std::to_string(o.twoPiScore) + "/" +
           std::to_string(o.rowAlternationScore);
}

std::string describe(const FocusSums& s) {
    return std::to_string(s.accC) + "/" + std::to_string(s.accA) + "/" + std::to_string(s.accOK) + "/" +
           std::to_string(s.count);
}

ImageAssessOutput assess(Frame& frame) {
    ImageAssessInput input{frame.data()};
    ImageAssessOutput output;
    ImageAssess(&input, &output);
    return output;
}

std::vector<FocusKernel> availableKernels() {
    std::vector<FocusKernel> kernels;
    for (FocusKernel k : {FocusKernel::Scalar, FocusKernel::SSE41, FocusKernel::AVX2, FocusKernel::AVX512}) {
        if (kp::focus::focusKernelAvailable(k)) {
            kernels.push_back(k);
        }
    }
    return kernels;
}

struct Assessed {
    FocusSums sums;
    ImageAssessOutput output;
};

// Checks that every kernel and the dispatched entry point reproduce the reference exactly (block sums and
// the whole output record); returns the reference's result.
Assessed checkKernels(Frame& frame, const std::string& what) {
    const FocusSums expectedSums = kp::focus::referenceFocusSums(frame.data());
    ImageAssessOutput expected;
    kp::focus::referenceScoresFromSums(expectedSums, &expected);
    for (FocusKernel k : availableKernels()) {
        const FocusSums sums = kp::focus::focusSumsWith(k, frame.data());
        EXPECT_EQ(sums, expectedSums) << what << ", kernel " << kp::focus::focusKernelName(k) << ": "
                                      << describe(sums) << " instead of " << describe(expectedSums);
        ImageAssessOutput output;
        kp::focus::imageAssessWith(k, frame.data(), &output);
        EXPECT_TRUE(sameOutput(output, expected)) << what << ", kernel " << kp::focus::focusKernelName(k);
    }
    const ImageAssessOutput dispatched = assess(frame);
    EXPECT_TRUE(sameOutput(dispatched, expected)) << what << ": ImageAssess gave " << describe(dispatched)
                                                  << " instead of " << describe(expected);
    return {expectedSums, expected};
}

ImageAssessOutput expectKernelsMatchReference(Frame& frame, const std::string& what) {
    return checkKernels(frame, what).output;
}

void expectScores(const ImageAssessOutput& o, int32_t centerSurround, int32_t twoPi, int32_t rowAlternation,
                  const std::string& what) {
    EXPECT_EQ(o.centerSurroundScore, centerSurround) << what;
    EXPECT_EQ(o.twoPiScore, twoPi) << what;
    EXPECT_EQ(o.rowAlternationScore, rowAlternation) << what;
}

// The wrapped 32-bit squares of the final steps, to tell whether a frame really exercises the wrap.
int32_t wrappedSquare(uint32_t acc, int32_t round, int shift) {
    const int32_t v = static_cast<int32_t>(acc + static_cast<uint32_t>(round)) >> shift;
    return static_cast<int32_t>(static_cast<uint32_t>(v) * static_cast<uint32_t>(v));
}

TEST(ImageAssess, KnownPatternsScoreAsDefined) {
    for (int value : {0, 77, 199}) {
        Frame frame = uniformFrame(value);
        const std::string what = "uniform " + std::to_string(value);
        expectScores(expectKernelsMatchReference(frame, what), 0, 0, 0, what);
        EXPECT_EQ(kp::focus::referenceFocusSums(frame.data()).count, 14242) << what;
    }
    for (int value : {200, 255}) {
        // Every block fails the saturation guard: nothing reaches the two-pi measure.
        Frame frame = makeFrame([&](int x, int y) { return (x + 3 * y) % 7 == 0 ? 455 - value : value; });
        const std::string what = "bright " + std::to_string(value);
        const FocusSums sums = kp::focus::referenceFocusSums(frame.data());
        EXPECT_EQ(sums.count, 1) << what;
        EXPECT_EQ(sums.accOK, 0u) << what;
        EXPECT_GT(sums.accC, 0u) << what; // textured, yet scored 0
        EXPECT_EQ(expectKernelsMatchReference(frame, what).twoPiScore, 0) << what;
    }

    Frame checkerboard = makeFrame([](int x, int y) { return (x + y) % 2 == 0 ? 90 : 110; });
    expectScores(expectKernelsMatchReference(checkerboard, "checkerboard"), 0, 0, 0, "checkerboard");

    Frame rows = makeFrame([](int, int y) { return y % 2 == 0 ? 0 : 100; });
    expectScores(expectKernelsMatchReference(rows, "alternating rows"), 0, 0, 97, "alternating rows");
    EXPECT_EQ(kp::focus::referenceFocusSums(rows.data()).accA, 569640000u);
    EXPECT_EQ(wrappedSquare(569640000u, 1024, 11), 55229697); // a = 278145, whose square wraps

    Frame squares = makeFrame([](int x, int y) {
        const bool inside = x % 8 >= 2 && x % 8 <= 5 && y % 8 >= 2 && y % 8 <= 5;
        return inside ? 120 : 100;
    });
    expectScores(expectKernelsMatchReference(squares, "squares"), 83, 98, 0, "squares");
    EXPECT_EQ(kp::focus::referenceFocusSums(squares.data()).count, 14242);
}

TEST(ImageAssess, OnlyRowsAndColumnsOfTheBlocksCount) {
    Frame frame = texturedFrame(7);
    const FocusSums sums = kp::focus::referenceFocusSums(frame.data());
    const ImageAssessOutput before = expectKernelsMatchReference(frame, "textured");

    std::mt19937 rng(11);
    for (int y = 0; y < kH; ++y) {
        for (int x = 0; x < kW; ++x) {
            if (y < 39 || y > 446 || x < 39 || x > 606) {
                frame[y * kW + x] = static_cast<uint8_t>(rng());
            }
        }
    }
    EXPECT_EQ(kp::focus::referenceFocusSums(frame.data()), sums);
    EXPECT_TRUE(sameOutput(expectKernelsMatchReference(frame, "scrambled outside"), before));

    // The outermost pixels that are read do count, in every kernel.
    for (auto [x, y] : {std::pair{39, 39}, {606, 39}, {39, 446}, {606, 446}}) {
        Frame changed = frame;
        changed[y * kW + x] ^= 0x80;
        const std::string what = "pixel " + std::to_string(x) + "," + std::to_string(y);
        EXPECT_NE(kp::focus::referenceFocusSums(changed.data()), sums) << what;
        expectKernelsMatchReference(changed, what);
    }
}

TEST(ImageAssess, EntryPoints) {
    Frame squares = makeFrame([](int x, int y) { return (x % 8 >= 2 && x % 8 <= 5 && y % 8 >= 2 && y % 8 <= 5) ? 120 : 100; });
    EXPECT_EQ(TwoPiFocusAssess(squares.data()), 98);

    // Elements 0..15 come back zeroed whatever the caller's record held.
    ImageAssessOutput output;
    std::memset(&output, 0xA5, sizeof output);
    ImageAssessInput input{squares.data()};
    ImageAssess(&input, &output);
    for (int32_t r : output.reserved) {
        EXPECT_EQ(r, 0);
    }
    expectScores(output, 83, 98, 0, "squares through ImageAssess");

    // Missing input gives zero scores; a missing output record is ignored.
    std::memset(&output, 0xA5, sizeof output);
    ImageAssessInput empty{nullptr};
    ImageAssess(&empty, &output);
    EXPECT_TRUE(sameOutput(output, ImageAssessOutput{}));
    std::memset(&output, 0xA5, sizeof output);
    ImageAssess(nullptr, &output);
    EXPECT_TRUE(sameOutput(output, ImageAssessOutput{}));
    ImageAssess(&input, nullptr);
    EXPECT_EQ(TwoPiFocusAssess(nullptr), 0);
}

TEST(ImageAssessKernels, MatchReferenceOnRandomFrames) {
    ASSERT_FALSE(availableKernels().empty());
    for (uint32_t seed = 1; seed <= 3; ++seed) {
        Frame textured = texturedFrame(seed * 101);
        expectKernelsMatchReference(textured, "textured " + std::to_string(seed));
        Frame noise = randomFrame(seed, 0, 255);
        expectKernelsMatchReference(noise, "noise " + std::to_string(seed));
        Frame faint = randomFrame(seed + 50, 96, 104);
        expectKernelsMatchReference(faint, "faint noise " + std::to_string(seed));
        // Values straddling the guard: about half the probes are above 199.
        Frame guard = randomFrame(seed + 100, 196, 203);
        expectKernelsMatchReference(guard, "guard noise " + std::to_string(seed));
    }
}

TEST(ImageAssessKernels, MatchReferenceWhereAccumulatorsAndSquaresWrap) {
    // An 8 x 8 tile on the block grid whose blocks alternate bright centres on dark rings and back, with
    // probe pixels at 199: unsaturated energy beyond 2^31.
    static const uint8_t tile[8][8] = {
        {199, 255, 0, 0, 0, 0, 255, 199},   {255, 255, 0, 0, 0, 0, 255, 255}, {0, 0, 255, 255, 255, 255, 0, 0},
        {0, 0, 255, 199, 199, 255, 0, 0},   {0, 0, 255, 199, 199, 255, 0, 0}, {0, 0, 255, 255, 255, 255, 0, 0},
        {255, 255, 0, 0, 0, 0, 255, 255},   {199, 255, 0, 0, 0, 0, 255, 199}};
    auto onGrid = [](int v) { return ((v - 39) % 8 + 8) % 8; };
    std::vector<std::pair<std::string, Frame>> frames = {
        {"rows 0/255", makeFrame([](int, int y) { return y % 2 == 0 ? 0 : 255; })},
        {"columns 0/255", makeFrame([](int x, int) { return x % 2 == 0 ? 255 : 0; })},
        {"squares 255 on 0", makeFrame([&](int x, int y) {
             return (onGrid(x) >= 2 && onGrid(x) <= 5 && onGrid(y) >= 2 && onGrid(y) <= 5) ? 255 : 0;
         })},
        {"tile", makeFrame([&](int x, int y) { return tile[onGrid(y)][onGrid(x)]; })},
        {"binary noise", makeFrame([rng = std::mt19937(5)](int, int) mutable { return (rng() & 1) ? 255 : 0; })},
    };
    // Row stripes of growing contrast sweep the row-alternation square through its wrap.
    for (int contrast = 60; contrast <= 255; contrast += 15) {
        frames.emplace_back("rows 0/" + std::to_string(contrast),
                            makeFrame([&](int, int y) { return y % 2 == 0 ? 0 : contrast; }));
    }

    bool accAWrapped = false, accCWrapped = false, accOKWrapped = false, qANegative = false, qCNegative = false;
    for (auto& [what, frame] : frames) {
        expectKernelsMatchReference(frame, what);
        const FocusSums s = kp::focus::referenceFocusSums(frame.data());
        accAWrapped |= s.accA >= 0x80000000u;
        accCWrapped |= s.accC >= 0x80000000u;
        accOKWrapped |= s.accOK >= 0x80000000u;
        qANegative |= wrappedSquare(s.accA, 1024, 11) < 0;
        qCNegative |= wrappedSquare(s.accC, 512, 10) < 0;
    }
    // The frames above must keep exercising every wrap, or this test would prove less than it claims.
    EXPECT_TRUE(accAWrapped);
    EXPECT_TRUE(accCWrapped);
    EXPECT_TRUE(accOKWrapped);
    EXPECT_TRUE(qANegative);
    EXPECT_TRUE(qCNegative);
}

TEST(ImageAssessKernels, SaturationGuardProbesExactPixels) {
    Frame frame = uniformFrame(199);
    auto countWith200At = [&](int x, int y) {
        frame[y * kW + x] = 200;
        const FocusSums sums = checkKernels(frame, "200 at " + std::to_string(x) + "," + std::to_string(y)).sums;
        frame[y * kW + x] = 199;
        return sums.count;
    };
    EXPECT_EQ(countWith200At(39, 39), 14241);  // the first block's corner
    EXPECT_EQ(countWith200At(46, 43), 14240);  // row 4 column 7 of the first block, row 0 column 7 below it
    EXPECT_EQ(countWith200At(41, 41), 14242);  // never a probe
    EXPECT_EQ(countWith200At(606, 446), 14241); // the last block's corner

    // Every phase of the probe pattern, near both ends of the block area.
    for (auto [x0, y0] : {std::pair{37, 37}, {599, 439}}) {
        for (int y = y0; y < y0 + 8; ++y) {
            for (int x = x0; x < x0 + 8; ++x) {
                countWith200At(x, y);
            }
        }
    }
}

TEST(ImageAssessScores, FinalStepsWrapRoundAndMatchReference) {
    auto scores = [](uint32_t accC, uint32_t accA, uint32_t accOK, int32_t count) {
        ImageAssessOutput out;
        std::memset(&out, 0x5A, sizeof out);
        kp::focus::focusScoresFromSums(FocusSums{accC, accA, accOK, count}, &out);
        for (int32_t r : out.reserved) {
            EXPECT_EQ(r, 0);
        }
        return out;
    };
    // a = 65535: its square wraps to -131071, just above -2000000, so the score goes negative.
    EXPECT_EQ(scores(0, 65535u << 11, 0, 1).rowAlternationScore, -6);
    EXPECT_EQ(scores(65535u << 11 >> 1, 0, 0, 1).centerSurroundScore, -6);
    // a = 65536: the square wraps to 0.
    EXPECT_EQ(scores(0, 65536u << 11, 0, 1).rowAlternationScore, 0);
    EXPECT_EQ(scores(0, 569640000u, 0, 14242).rowAlternationScore, 97);
    EXPECT_EQ(scores(3228625u, 0, 3228625u, 14242).twoPiScore, 98);
    EXPECT_EQ(scores(0, 0, 0, 1).twoPiScore, 0);

    std::mt19937 rng(99);
    std::vector<uint32_t> interesting = {0u, 1u, 511u, 512u, 1023u, 1024u, 0x7FFFFBFFu, 0x7FFFFC00u, 0x7FFFFFFFu,
                                         0x80000000u, 0xFFFFFC00u, 0xFFFFFFFFu, 94906265u << 11, 46341u << 11};
    for (int n = 0; n < 5000; ++n) {
        const uint32_t accC = n < 200 ? interesting[n % interesting.size()] : static_cast<uint32_t>(rng());
        const uint32_t accA = n < 200 ? interesting[(n / 14) % interesting.size()] : static_cast<uint32_t>(rng()) >> (n % 20);
        const uint32_t accOK = static_cast<uint32_t>(rng()) >> (n % 32);
        const int32_t count = 1 + static_cast<int32_t>(rng() % 14242);
        const FocusSums sums{accC, accA, accOK, count};
        ImageAssessOutput fast;
        ImageAssessOutput plain;
        kp::focus::focusScoresFromSums(sums, &fast);
        kp::focus::referenceScoresFromSums(sums, &plain);
        ASSERT_TRUE(sameOutput(fast, plain)) << describe(sums) << ": " << describe(fast) << " vs " << describe(plain);
    }
}

} // namespace
