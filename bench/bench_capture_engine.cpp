// SPDX-License-Identifier: MIT
// Process CPU time per second of wall time of a running capture engine (the sample camera at 1280 x 720, 30 fps,
// BGRA frames to a delegate, face and PDF417 detection, the preview with its overlays, the main queue drained),
// beside a plain session on the same camera with a frame output and a trivial delegate.
#include <KPImage/KPImage.h>

#include "BenchReport.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace kp;

constexpr NSInteger kPreset1280x720 = 5;
constexpr double kWarmUpSeconds = 2.0;
constexpr int kSecondsPerRun = 8;
constexpr int kRuns = 3;

/// User and system CPU time of the whole process (every thread), in seconds.
double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// The front sample camera, also on a machine with webcams.
AVCaptureDevice::Ref sampleCamera() {
    AVCaptureDevice::setDiscovery({false, "/dev", true});
    for (const auto& d : AVCaptureDevice::devicesWithMediaType(AVMediaTypeVideo)) {
        if (d->position() == AVCaptureDevicePositionFront) {
            return d;
        }
    }
    return nullptr;
}

/// Frames analysed by the detection worker per second of the measured time, by benchmark, one entry per run.
std::map<std::string, std::vector<double>> gAnalysedPerSecond;

double medianOf(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Each iteration drives the main run loop for one second of wall time and reports the process CPU time spent
/// meanwhile as its time: the figure is the number of cores the running session keeps busy.
/// The worker takes the newest frame whenever it is free, so it analyses as many frames as the CPU it gets
/// allows: the CPU figure depends on the machine's load, the CPU per analysed frame much less.
void measureCores(
    benchmark::State& state, const std::string& name, const std::function<uint64_t()>& frames,
    const std::function<uint64_t()>& analysed = [] { return uint64_t{0}; }) {
    NSRunLoop::mainRunLoop().runFor(kWarmUpSeconds);
    const uint64_t framesBefore = frames();
    const uint64_t analysedBefore = analysed();
    double wall = 0;
    for (auto _ : state) {
        const double cpuBefore = processCpuSeconds();
        const auto start = std::chrono::steady_clock::now();
        NSRunLoop::mainRunLoop().runFor(1.0);
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        wall += seconds;
        state.SetIterationTime((processCpuSeconds() - cpuBefore) / seconds);
    }
    wall = std::max(wall, 1e-9);
    state.counters["fps"] = benchmark::Counter(static_cast<double>(frames() - framesBefore) / wall);
    const double analysedPerSecond = static_cast<double>(analysed() - analysedBefore) / wall;
    state.counters["analysed/s"] = benchmark::Counter(analysedPerSecond);
    gAnalysedPerSecond[name].push_back(analysedPerSecond);
}

class EngineDelegate final : public libVideoDelegate {
public:
    void getLastSampleBuffer(const CMSampleBufferRef&, CGRect, CGFloat, CGFloat,
                             const std::optional<std::string>&) override {
        frames.fetch_add(1, std::memory_order_relaxed);
    }
    std::atomic<uint64_t> frames{0};
};

// The engine as a host runs it: preview view with the centre box, delegate, detection as chosen.
void BM_Engine(benchmark::State& state, bool detection) {
    const auto camera = sampleCamera();
    auto engine = KPVideoHelper::initWithAVCaptureSessionPreset(
        kPreset1280x720, AVCaptureDevicePositionFront, AVLayerVideoGravityResizeAspect, kCVPixelFormatType_32BGRA);
    if (!camera || !engine || engine->device() != camera) {
        state.SkipWithError("no sample camera");
        return;
    }
    if (!detection) {
        engine->setFaceFindSupport(false);
        engine->setPdf417Support(false);
    }
    auto delegate = std::make_shared<EngineDelegate>();
    engine->setDelegate(delegate);
    const auto view = engine->getPreviewView(CGRectMake(0, 0, 1280, 720), true);
    engine->startVideoCapture();
    measureCores(
        state, detection ? "EngineWithDetection" : "EngineWithoutDetection",
        [&] { return delegate->frames.load(std::memory_order_relaxed); },
        [&] { return engine->metaOutput() ? engine->metaOutput()->detectionCounts().analysed : 0; });
    engine->stopVideoCapture();
    dispatch_sync(engine->videoDataOutputQueue(), [] {});
    NSRunLoop::mainRunLoop().runFor(0.1);
}

class PlainDelegate final : public AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    void captureOutput(const std::shared_ptr<AVCaptureOutput>&, const CMSampleBufferRef&,
                       const std::shared_ptr<AVCaptureConnection>&) override {
        frames.fetch_add(1, std::memory_order_relaxed);
    }
    std::atomic<uint64_t> frames{0};
};

// The peer: the same camera in a plain session with one frame output and a delegate that only counts.
void BM_PlainSession(benchmark::State& state) {
    const auto camera = sampleCamera();
    if (!camera) {
        state.SkipWithError("no sample camera");
        return;
    }
    auto session = AVCaptureSession::create();
    session->setSessionPreset(AVCaptureSessionPreset1280x720);
    session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(camera));
    auto output = AVCaptureVideoDataOutput::create();
    output->setVideoSettings({{kCVPixelBufferPixelFormatTypeKey, kCVPixelFormatType_32BGRA}});
    output->setAlwaysDiscardsLateVideoFrames(true);
    auto delegate = std::make_shared<PlainDelegate>();
    auto queue = dispatch_queue_create("VideoDataOutputQueue", DISPATCH_QUEUE_SERIAL);
    output->setSampleBufferDelegate(delegate, queue);
    session->addOutput(output);
    session->startRunning();
    measureCores(state, "PlainSession", [&] { return delegate->frames.load(std::memory_order_relaxed); });
    session->stopRunning();
    dispatch_sync(queue, [] {});
    NSRunLoop::mainRunLoop().runFor(0.1);
}

void compare(const kpbench::Times& median) {
    const double plain = kpbench::timeOf(median, "PlainSession");
    std::printf("\nProcess CPU per second of wall time (median of the runs), 1280 x 720 at 30 fps:\n");
    for (const auto& [name, cores] : median) {
        std::printf("  %-28s %5.3f cores\n", name.c_str(), cores);
    }
    if (plain <= 0) {
        return;
    }
    for (const char* engine : {"EngineWithDetection", "EngineWithoutDetection"}) {
        if (const double ours = kpbench::timeOf(median, engine); ours > 0) {
            std::printf("  %-28s ratio %5.2f to the plain session, adds %5.3f cores%s\n", engine, ours / plain,
                        ours - plain, std::string(engine) == "EngineWithDetection" ? " (target: at most 0.35)" : "");
            if (const double rate = medianOf(gAnalysedPerSecond[engine]); rate > 0) {
                std::printf("  %-28s %.1f frames analysed per second, %.1f ms of CPU added per analysed frame\n", "",
                            rate, (ours - plain) / rate * 1e3);
            }
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    for (auto* b : {benchmark::RegisterBenchmark("EngineWithDetection", BM_Engine, true),
                    benchmark::RegisterBenchmark("EngineWithoutDetection", BM_Engine, false),
                    benchmark::RegisterBenchmark("PlainSession", BM_PlainSession)}) {
        b->UseManualTime()->Iterations(kSecondsPerRun)->Repetitions(kRuns)->Unit(benchmark::kMillisecond);
    }
    kpbench::TimesReporter reporter(kpbench::TimesReporter::Clock::Wall, compare);
    return kpbench::runBenchmarks(argc, argv, reporter);
}
