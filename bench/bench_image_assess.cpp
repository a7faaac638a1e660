// SPDX-License-Identifier: MIT
// Speed of the block focus measure: dispatched, each kernel, the plain reference, a frame copy and a peer measure.
#include "KPImage/Focus/ImageAssess.h"
#include "KPImage/Focus/ImageAssessKernels.h"
#include "KPImage/Focus/ImageAssessReference.h"

#include "BenchReport.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kW = kFocusFrameWidth;
constexpr int kH = kFocusFrameHeight;

// A camera-like frame: a soft lighting gradient, flat and textured rectangles (a card, print, a bright
// highlight that saturates some blocks), fine sensor noise.
const std::vector<uint8_t>& sceneFrame() {
    static const std::vector<uint8_t> frame = [] {
        std::vector<uint8_t> f(kFocusFrameBytes);
        std::mt19937 rng(2024);
        std::vector<int> v(kFocusFrameBytes);
        for (int y = 0; y < kH; ++y) {
            for (int x = 0; x < kW; ++x) {
                v[y * kW + x] = 70 + (x * 60) / kW + (y * 30) / kH;
            }
        }
        std::uniform_int_distribution<int> pos(0, kW - 1), len(8, 160), level(20, 240), stripe(2, 9);
        for (int n = 0; n < 60; ++n) {
            const int x0 = pos(rng), y0 = pos(rng) % kH, w = len(rng), h = len(rng), value = level(rng);
            const int period = stripe(rng);
            const bool striped = n % 3 == 0;
            for (int y = y0; y < std::min(kH, y0 + h); ++y) {
                for (int x = x0; x < std::min(kW, x0 + w); ++x) {
                    v[y * kW + x] = striped && (x / period) % 2 == 0 ? value / 2 : value;
                }
            }
        }
        std::uniform_int_distribution<int> noise(-6, 6);
        for (int i = 0; i < kFocusFrameBytes; ++i) {
            f[i] = static_cast<uint8_t>(std::clamp(v[i] + noise(rng), 0, 255));
        }
        return f;
    }();
    return frame;
}

void BM_ImageAssess(benchmark::State& state) {
    std::vector<uint8_t> frame = sceneFrame();
    ImageAssessInput input{frame.data()};
    ImageAssessOutput output;
    for (auto _ : state) {
        ImageAssess(&input, &output);
        benchmark::DoNotOptimize(output);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kFocusFrameBytes);
    state.SetLabel(kp::focus::focusKernelName(kp::focus::bestFocusKernel()));
}

void BM_Kernel(benchmark::State& state, kp::focus::FocusKernel kernel) {
    const std::vector<uint8_t>& frame = sceneFrame();
    ImageAssessOutput output;
    for (auto _ : state) {
        kp::focus::imageAssessWith(kernel, frame.data(), &output);
        benchmark::DoNotOptimize(output);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kFocusFrameBytes);
}

void BM_Reference(benchmark::State& state) {
    const std::vector<uint8_t>& frame = sceneFrame();
    ImageAssessOutput output;
    for (auto _ : state) {
        kp::focus::referenceImageAssess(frame.data(), &output);
        benchmark::DoNotOptimize(output);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kFocusFrameBytes);
}

void BM_Memcpy(benchmark::State& state) {
    const std::vector<uint8_t>& frame = sceneFrame();
    std::vector<uint8_t> copy(kFocusFrameBytes);
    for (auto _ : state) {
        std::memcpy(copy.data(), frame.data(), kFocusFrameBytes);
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kFocusFrameBytes);
}

// The common peer sharpness measure: variance of the 3 x 3 Laplacian over the whole frame, written plainly.
double varianceOfLaplacian(const uint8_t* p) {
    int64_t sum = 0;
    int64_t sumSquares = 0;
    for (int y = 1; y < kH - 1; ++y) {
        for (int x = 1; x < kW - 1; ++x) {
            const int i = y * kW + x;
            const int64_t l = p[i - kW] + p[i + kW] + p[i - 1] + p[i + 1] - 4 * p[i];
            sum += l;
            sumSquares += l * l;
        }
    }
    const double n = static_cast<double>((kW - 2) * (kH - 2));
    const double mean = static_cast<double>(sum) / n;
    return static_cast<double>(sumSquares) / n - mean * mean;
}

void BM_VarianceOfLaplacian(benchmark::State& state) {
    const std::vector<uint8_t>& frame = sceneFrame();
    for (auto _ : state) {
        benchmark::DoNotOptimize(varianceOfLaplacian(frame.data()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kFocusFrameBytes);
}

// The ratios between the measured CPU times per frame (medians of repetitions).
void compare(const kpbench::Times& seconds) {
    auto time = [&](const std::string& name) { return kpbench::timeOf(seconds, name); };
    const double assess = time("ImageAssess");
    if (assess <= 0) {
        return;
    }
    std::printf("\nCPU time per frame (median of repetitions):\n");
    for (const auto& [name, s] : seconds) {
        std::printf("  %-28s %9.2f us\n", name.c_str(), s * 1e6);
    }
    std::printf("Ratios:\n");
    std::printf("  speedup_vs_reference   %8.2f  (reference time / ImageAssess time; target >= 7)\n",
                time("ImageAssessReference") / assess);
    std::printf("  ratio_to_memcpy        %8.2f  (ImageAssess time / memcpy of the frame; target <= 2)\n",
                assess / time("Memcpy"));
    std::printf("  ratio_to_laplacian_var %8.3f  (ImageAssess time / variance of the Laplacian)\n",
                assess / time("VarianceOfLaplacian"));
    for (const auto& [name, s] : seconds) {
        if (name.rfind("ImageAssessKernel/", 0) == 0) {
            std::printf("  %-22s %8.2f  (reference time / kernel time)\n", name.substr(18).c_str(),
                        time("ImageAssessReference") / s);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("ImageAssess", BM_ImageAssess)->Unit(benchmark::kMicrosecond);
    for (auto kernel : {kp::focus::FocusKernel::Scalar, kp::focus::FocusKernel::SSE41, kp::focus::FocusKernel::AVX2,
                        kp::focus::FocusKernel::AVX512}) {
        if (kp::focus::focusKernelAvailable(kernel)) {
            benchmark::RegisterBenchmark((std::string("ImageAssessKernel/") + kp::focus::focusKernelName(kernel)).c_str(),
                                         BM_Kernel, kernel)
                ->Unit(benchmark::kMicrosecond);
        }
    }
    benchmark::RegisterBenchmark("ImageAssessReference", BM_Reference)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("Memcpy", BM_Memcpy)->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("VarianceOfLaplacian", BM_VarianceOfLaplacian)->Unit(benchmark::kMicrosecond);

    kpbench::TimesReporter reporter(kpbench::TimesReporter::Clock::Cpu, compare);
    return kpbench::runBenchmarks(argc, argv, reporter);
}
