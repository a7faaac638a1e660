// SPDX-License-Identifier: MIT
// Speed of the metadata detectors per 1280 x 720 frame against the plain library calls (dlib's HOG detector on the
// whole frame, ZXing-cpp's ReadBarcodes on the whole frame), and the read rate of tilted and fine codes.
#include "Platform/Capture/SampleScene.h"
#include "Platform/Vision/LiveFaceTracker.h"
#include "Platform/Vision/MachineCodeReader.h"
#include "support/CodePictures.h"

#include "KPImage/Platform/CIDetector.h"

#include <ZXing/ReadBarcode.h>
#include <benchmark/benchmark.h>
#include <dlib/image_processing/frontal_face_detector.h>

#include <string>
#include <vector>

namespace {

using namespace kp;

// Frames of the sample camera's timeline, five per second of its period (what a worker that analyses every sixth
// frame of a 30 fps camera sees). The detectors run through one period before they are timed, and are timed over
// whole periods: the figures are the steady state's average per analysed frame of the scene's timeline (the face
// upright, tilted, turned, leaving and absent; the card's codes swaying), not one repeated frame.
constexpr int kFramesPerSecond = 5;
constexpr int kTimedPeriods = 2;
int framesPerPeriod() {
    return static_cast<int>(SampleScene::kPeriod) * kFramesPerSecond;
}
const std::vector<LumaImage>& sceneFrames() {
    static const std::vector<LumaImage> frames = [] {
        std::vector<LumaImage> out;
        for (int i = 0; i < static_cast<int>(SampleScene::kPeriod) * kFramesPerSecond; ++i) {
            cairo_surface_t* s = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1280, 720);
            SampleScene::shared().render(s, 1280, 720, static_cast<double>(i) / kFramesPerSecond, {});
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
    }();
    return frames;
}

void BM_FacesOurTracker(benchmark::State& state) {
    LiveFaceTracker tracker(CIDetectorFaceLandmarksModelPath(), LiveFaceTracker::Mode::Video);
    const auto& frames = sceneFrames();
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
BENCHMARK(BM_FacesOurTracker)->Unit(benchmark::kMillisecond)->Iterations(kTimedPeriods * framesPerPeriod());

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
BENCHMARK(BM_FacesPlainDlibFullFrame)->Unit(benchmark::kMillisecond);

void BM_CodesOurReader(benchmark::State& state) {
    const MachineCodeReader reader({AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode});
    const auto& frames = sceneFrames();
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
BENCHMARK(BM_CodesOurReader)->Unit(benchmark::kMillisecond)->Iterations(kTimedPeriods * framesPerPeriod());

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
BENCHMARK(BM_CodesPlainZXingFullFrame)->Unit(benchmark::kMillisecond);

// The tilt set: PDF417 and QR codes tilted from -25 to 25 degrees in 5-degree steps, PDF417 with 1.5, 2 and 3 pixels
// per module, QR with 3 and 5, some blurred and noisy, each in a 1280 x 720 picture. Read rate of both readers.
void BM_TiltSetReadRate(benchmark::State& state) {
    std::vector<kptest::CodePicture> set;
    std::vector<std::string> texts;
    int index = 0;
    for (double tilt = -25; tilt <= 25; tilt += 5) {
        for (double module : {1.5, 2.0, 3.0}) {
            ++index;
            set.push_back(kptest::renderCode(
                kptest::CodeKind::PDF417, kptest::licenceText(), 1280, 720,
                {640, 360, tilt, module, (index % 3) * 0.3, (index % 2) * 4.0, static_cast<uint32_t>(index)}));
            texts.push_back(kptest::licenceText());
        }
        for (double module : {3.0, 5.0}) {
            ++index;
            set.push_back(kptest::renderCode(
                kptest::CodeKind::QR, "KPIMAGE TILT SET", 1280, 720,
                {600, 380, tilt, module, (index % 3) * 0.3, (index % 2) * 4.0, static_cast<uint32_t>(index)}));
            texts.push_back("KPIMAGE TILT SET");
        }
    }
    const MachineCodeReader reader({AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode});
    size_t ours = 0;
    size_t plain = 0;
    for (auto _ : state) {
        ours = 0;
        plain = 0;
        for (size_t i = 0; i < set.size(); ++i) {
            const auto codes = reader.read(set[i].image);
            ours += codes.size() == 1 && codes[0].text == texts[i] ? 1 : 0;
            plain += plainRead(set[i].image) == 1 ? 1 : 0;
        }
    }
    state.counters["pictures"] = static_cast<double>(set.size());
    state.counters["ourReadRate"] = static_cast<double>(ours) / static_cast<double>(set.size());
    state.counters["zxingReadRate"] = static_cast<double>(plain) / static_cast<double>(set.size());
}
BENCHMARK(BM_TiltSetReadRate)->Unit(benchmark::kMillisecond)->Iterations(1);

} // namespace

BENCHMARK_MAIN();
