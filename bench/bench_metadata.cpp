// SPDX-License-Identifier: MIT
// Speed of the metadata detectors per 1280 x 720 frame against the plain library calls (dlib's HOG detector on the
// whole frame, ZXing-cpp's ReadBarcodes on the whole frame), and the read rate and corner error on a code set. Run with
// --benchmark_repetitions=5 for medians; the comparison after the table uses CPU time.
#include "BenchReport.h"

#include "Platform/Capture/SampleScene.h"
#include "Platform/Vision/LiveFaceTracker.h"
#include "Platform/Vision/MachineCodeReader.h"
#include "support/CodePictures.h"

#include "KPImage/Platform/CIDetector.h"

#include <ZXing/ReadBarcode.h>
#include <benchmark/benchmark.h>
#include <dlib/image_processing/frontal_face_detector.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace kp;

// Frames of the sample camera's timeline at a number of frames per second of its period: 15 is what the metadata
// worker analyses of a 30 fps camera at most, 5 a slower worker (larger moves between analysed frames). The
// detectors run through one period before they are timed, and are timed over whole periods: the figures are the
// steady state's average per analysed frame of the scene's timeline (the face upright, tilted, turned, leaving and
// absent; the card's codes swaying), not one repeated frame.
constexpr int kTimedPeriods = 2;
int framesPerPeriod(int perSecond) {
    return static_cast<int>(SampleScene::kPeriod) * perSecond;
}
const std::vector<LumaImage>& sceneFrames(int perSecond) {
    static std::map<int, std::vector<LumaImage>> cache;
    auto& out = cache[perSecond];
    if (!out.empty()) {
        return out;
    }
    for (int i = 0; i < framesPerPeriod(perSecond); ++i) {
        cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1280, 720);
        SampleScene::shared().render(s, 1280, 720, static_cast<double>(i) / perSecond, {});
        LumaImage l;
        l.resize(1280, 720);
        const uint8_t* d = cairo_image_surface_get_data(s);
        const int stride = cairo_image_surface_get_stride(s);
        for (int y = 0; y < 720; ++y) {
            for (int x = 0; x < 1280; ++x) {
                const uint8_t* p = d + y * stride + 4 * x;
                l.row(y)[x] = static_cast<uint8_t>((77u * p[2] + 150u * p[1] + 29u * p[0] + 128u) >> 8);
            }
        }
        cairo_surface_destroy(s);
        out.push_back(std::move(l));
    }
    return out;
}
const std::vector<LumaImage>& sceneFrames() {
    return sceneFrames(5);
}

void BM_FacesOurTracker(benchmark::State& state, int perSecond) {
    LiveFaceTracker tracker(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Video);
    const auto& frames = sceneFrames(perSecond);
    for (const LumaImage& f : frames) {
        benchmark::DoNotOptimize(tracker.track(f));
    }
    size_t i = 0;
    size_t faces = 0;
    for (auto _ : state) {
        faces += tracker.track(frames[i++ % frames.size()]).size();
    }
    state.counters["facesPerFrame"] = static_cast<double>(faces) / static_cast<double>(i);
}

void BM_FacesPlainDlibFullFrame(benchmark::State& state) {
    dlib::frontal_face_detector detector = dlib::get_frontal_face_detector();
    const auto& frames = sceneFrames();
    size_t i = 0;
    size_t faces = 0;
    for (auto _ : state) {
        const LumaImage& f = frames[i++ % frames.size()];
        dlib::array2d<unsigned char> gray(f.height, f.width);
        for (int y = 0; y < f.height; ++y) {
            std::copy(f.row(y), f.row(y) + f.width, &gray[y][0]);
        }
        faces += detector(gray).size();
    }
    state.counters["facesPerFrame"] = static_cast<double>(faces) / static_cast<double>(i);
}

void BM_CodesOurReader(benchmark::State& state, int perSecond) {
    const MachineCodeReader reader({AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode});
    const auto& frames = sceneFrames(perSecond);
    for (const LumaImage& f : frames) {
        benchmark::DoNotOptimize(reader.read(f));
    }
    size_t i = 0;
    size_t codes = 0;
    for (auto _ : state) {
        codes += reader.read(frames[i++ % frames.size()]).size();
    }
    state.counters["codesPerFrame"] = static_cast<double>(codes) / static_cast<double>(i);
}

size_t plainRead(const LumaImage& image) {
    ZXing::DecodeHints hints;
    hints.setFormats(ZXing::BarcodeFormat::PDF417 | ZXing::BarcodeFormat::QRCode);
    return ZXing::ReadBarcodes(
               ZXing::ImageView(image.pixels.data(), image.width, image.height, ZXing::ImageFormat::Lum), hints)
        .size();
}

void BM_CodesPlainZXingFullFrame(benchmark::State& state) {
    const auto& frames = sceneFrames();
    size_t i = 0;
    size_t codes = 0;
    for (auto _ : state) {
        codes += plainRead(frames[i++ % frames.size()]);
    }
    state.counters["codesPerFrame"] = static_cast<double>(codes) / static_cast<double>(i);
}
// The worker's own share of a frame: its luminance from the camera's 'BGRA' buffer.
void BM_LumaFromFrame(benchmark::State& state) {
    CVPixelBufferRef buffer;
    if (CVPixelBufferCreate(1280, 720, kCVPixelFormatType_32BGRA, &buffer) != kCVReturnSuccess) {
        state.SkipWithError("no pixel buffer");
        return;
    }
    LumaImage luma;
    for (auto _ : state) {
        benchmark::DoNotOptimize(LumaImageFromPixelBuffer(buffer, luma));
    }
}

double gOurReadRate = -1;
double gPlainReadRate = -1;
double gWorstCornerError = -1;

// The code set: PDF417 and QR codes at two module sizes each, tilted by up to 24 degrees on every quarter turn, some
// blurred and noisy, each in a 1280 x 720 picture, read as the first frame of a live reader. Read rate of both
// readers, and our worst corner error as a share of the picture's width.
void BM_CodeSetReadRate(benchmark::State& state) {
    const auto set = kptest::codeSet();
    size_t ours = 0;
    size_t plain = 0;
    double worst = 0;
    for (auto _ : state) {
        ours = 0;
        plain = 0;
        worst = 0;
        for (const auto& entry : set) {
            const MachineCodeReader reader({AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode});
            const auto codes = reader.read(entry.picture.image);
            if (codes.size() == 1 && codes[0].text == entry.text) {
                ++ours;
                worst = std::max(worst, kptest::cornerError(codes[0].corners, entry.picture));
            }
            plain += plainRead(entry.picture.image) == 1 ? 1 : 0;
        }
    }
    state.counters["pictures"] = static_cast<double>(set.size());
    gOurReadRate = static_cast<double>(ours) / static_cast<double>(set.size());
    gPlainReadRate = static_cast<double>(plain) / static_cast<double>(set.size());
    gWorstCornerError = worst;
    state.counters["ourReadRate"] = gOurReadRate;
    state.counters["zxingReadRate"] = gPlainReadRate;
    state.counters["worstCornerError"] = gWorstCornerError;
}

// CPU milliseconds per analysed frame (medians of repetitions), the ratios to the peers, and what the worker costs.
void compare(const kpbench::Times& seconds) {
    auto ms = [&](const std::string& name) { return kpbench::timeOf(seconds, name) * 1e3; };
    std::printf("\nCPU time per analysed 1280 x 720 frame (median of repetitions):\n");
    for (const auto& [name, s] : seconds) {
        if (name != "CodeSetReadRate") {
            std::printf("  %-34s %8.2f ms\n", name.c_str(), s * 1e3);
        }
    }
    const double faces = ms("FacesOurTracker/15fps");
    const double codes = ms("CodesOurReader/15fps");
    if (faces > 0 && codes > 0) {
        std::printf("Ratios and targets (timeline at 15 analysed frames a second):\n");
        std::printf("  faces   %6.2f ms (target <= 8)   plain dlib / ours   %6.2f\n", faces,
                    ms("FacesPlainDlibFullFrame") / faces);
        std::printf("  codes   %6.2f ms (target <= 10)  plain ZXing / ours  %6.2f\n", codes,
                    ms("CodesPlainZXingFullFrame") / codes);
        // The worker analyses at most 15 frames a second and rests so that it uses at most a fifth of a core.
        const double frame = faces + codes + ms("LumaFromFrame");
        const double rate = std::min(15.0, 0.2 / (frame / 1e3));
        std::printf("  worker  %6.2f ms per analysed frame: %.1f analysed frames a second, %.2f of a core\n", frame,
                    rate, rate * frame / 1e3);
    }
    if (gOurReadRate >= 0) {
        std::printf("  code set read rate: ours %.1f %%, plain ZXing %.1f %%; our worst corner error %.2f %% of the "
                    "width (target <= 1.5)\n",
                    gOurReadRate * 100, gPlainReadRate * 100, gWorstCornerError * 100);
    }
}

} // namespace

int main(int argc, char** argv) {
    for (int perSecond : {15, 5}) {
        benchmark::RegisterBenchmark(("FacesOurTracker/" + std::to_string(perSecond) + "fps").c_str(),
                                     BM_FacesOurTracker, perSecond)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(kTimedPeriods * framesPerPeriod(perSecond));
    }
    benchmark::RegisterBenchmark("FacesPlainDlibFullFrame", BM_FacesPlainDlibFullFrame)->Unit(benchmark::kMillisecond);
    for (int perSecond : {15, 5}) {
        benchmark::RegisterBenchmark(("CodesOurReader/" + std::to_string(perSecond) + "fps").c_str(), BM_CodesOurReader,
                                     perSecond)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(kTimedPeriods * framesPerPeriod(perSecond));
    }
    benchmark::RegisterBenchmark("CodesPlainZXingFullFrame", BM_CodesPlainZXingFullFrame)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("LumaFromFrame", BM_LumaFromFrame)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("CodeSetReadRate", BM_CodeSetReadRate)->Unit(benchmark::kMillisecond)->Iterations(1);
    kpbench::TimesReporter reporter(kpbench::TimesReporter::Clock::Cpu, compare);
    return kpbench::runBenchmarks(argc, argv, reporter);
}
