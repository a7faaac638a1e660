// SPDX-License-Identifier: MIT
// The block focus measure's C entry points: picks the fastest block loop once and turns its sums into scores.
#include "KPImage/Focus/ImageAssess.h"

#include "KPImage/Focus/ImageAssessKernels.h"

#include <cmath>
#include <cstring>
#include <initializer_list>

namespace kp::focus {

namespace {

// Every float step is rounded to single precision on its own: going through memory stops both excess
// precision and the fusing of a multiply and an add into one rounding, which would change scores.
float single(float v) {
    const volatile float rounded = v;
    return rounded;
}

// truncate(q * 100 / (q + 2000000) + 0.5): 50 at q = 2000000, towards 100 above.
int32_t halfAtTwoMillion(int32_t q) {
    const float scaled = single(static_cast<float>(q) * 100.0f);
    const float quotient = single(scaled / static_cast<float>(wrappingAdd(q, 2000000)));
    return truncateToInt32(single(quotient + 0.5f));
}

using SumsFunction = FocusSums (*)(const uint8_t*);

SumsFunction kernelFunction(FocusKernel kernel) {
    switch (kernel) {
#if defined(__x86_64__)
    case FocusKernel::AVX512:
        return focusSumsAVX512;
#endif
#if defined(__x86_64__) || defined(__i386__)
    case FocusKernel::AVX2:
        return focusSumsAVX2;
    case FocusKernel::SSE41:
        return focusSumsSSE41;
#endif
    default:
        return focusSumsScalar;
    }
}

SumsFunction bestKernelFunction() {
    static const SumsFunction best = kernelFunction(bestFocusKernel());
    return best;
}

void clearOutput(ImageAssessOutput* output) { std::memset(output, 0, sizeof *output); }

} // namespace

bool focusKernelAvailable(FocusKernel kernel) {
    switch (kernel) {
    case FocusKernel::Scalar:
        return true;
#if defined(__x86_64__) || defined(__i386__)
    case FocusKernel::SSE41:
        __builtin_cpu_init();
        return __builtin_cpu_supports("sse4.1");
    case FocusKernel::AVX2:
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx2");
#endif
#if defined(__x86_64__)
    case FocusKernel::AVX512:
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
               __builtin_cpu_supports("bmi2");
#endif
    default:
        return false;
    }
}

FocusKernel bestFocusKernel() {
    for (FocusKernel kernel : {FocusKernel::AVX512, FocusKernel::AVX2, FocusKernel::SSE41}) {
        if (focusKernelAvailable(kernel)) {
            return kernel;
        }
    }
    return FocusKernel::Scalar;
}

const char* focusKernelName(FocusKernel kernel) {
    switch (kernel) {
    case FocusKernel::AVX512:
        return "avx512";
    case FocusKernel::AVX2:
        return "avx2";
    case FocusKernel::SSE41:
        return "sse4.1";
    case FocusKernel::Scalar:
        break;
    }
    return "scalar";
}

FocusSums focusSumsWith(FocusKernel kernel, const uint8_t* frame) {
    return kernelFunction(focusKernelAvailable(kernel) ? kernel : FocusKernel::Scalar)(frame);
}

void focusScoresFromSums(const FocusSums& sums, ImageAssessOutput* output) {
    clearOutput(output);

    const int32_t a = wrappingAdd(static_cast<int32_t>(sums.accA), 1024) >> 11;
    output->rowAlternationScore = halfAtTwoMillion(wrappingSquare(a));

    const int32_t b = wrappingAdd(static_cast<int32_t>(sums.accC), 512) >> 10;
    output->centerSurroundScore = halfAtTwoMillion(wrappingSquare(b));

    // m = accOK * 14000 * 256 / count * 2^-16, multiplied in that order.
    float m = single(static_cast<float>(static_cast<int32_t>(sums.accOK)) * 14000.0f);
    m = single(m * 256.0f);
    m = single(m / static_cast<float>(sums.count));
    m = single(m * 1.52587890625e-05f);
    const float mm = single(m * m);
    const float scaled = single(mm * 100.0f);
    const float quotient = single(scaled / single(mm + 3311294.0f));
    output->twoPiScore = truncateToInt32(std::floor(single(quotient + 0.5f)));
}

void imageAssessWith(FocusKernel kernel, const uint8_t* frame, ImageAssessOutput* output) {
    if (output == nullptr) {
        return;
    }
    if (frame == nullptr) {
        clearOutput(output);
        return;
    }
    focusScoresFromSums(focusSumsWith(kernel, frame), output);
}

} // namespace kp::focus

extern "C" void ImageAssess(ImageAssessInput* input, ImageAssessOutput* output) {
    if (output == nullptr) {
        return;
    }
    if (input == nullptr || input->image == nullptr) {
        std::memset(output, 0, sizeof *output);
        return;
    }
    kp::focus::focusScoresFromSums(kp::focus::bestKernelFunction()(input->image), output);
}

extern "C" int32_t TwoPiFocusAssess(uint8_t* frame) {
    ImageAssessInput input{frame};
    ImageAssessOutput output;
    ImageAssess(&input, &output);
    return output.twoPiScore;
}
