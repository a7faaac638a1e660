// SPDX-License-Identifier: MIT
// kpimage frames: runs a capture session and prints per-second frame counts and drops.
#include "Args.h"
#include "Camera.h"
#include "Command.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <atomic>
#include <cmath>
#include <iostream>

namespace kpcli {
namespace {

// Counts frames; optionally works on each for a while, like a slow consumer.
class Counter final : public kp::AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    explicit Counter(double work) : _work(work) {}
    void captureOutput(const std::shared_ptr<kp::AVCaptureOutput>&, const kp::CMSampleBufferRef&,
                       const std::shared_ptr<kp::AVCaptureConnection>&) override {
        kp::NSThread::sleepForTimeInterval(_work);
    }

private:
    const double _work;
};

int frames(const std::vector<std::string>& args) {
    Args a(args, {"position", "preset", "seconds", "pixel-format", "media", "delegate-ms"}, {"sample"});
    if (!a.error().empty()) {
        return fail(a.error());
    }
    const auto presetIndex = parseInt(a.value("preset", "0"));
    const auto seconds = parseInt(a.value("seconds", "5"));
    const auto delegateMs = parseNumber(a.value("delegate-ms", "0"));
    const std::string formatName = a.value("pixel-format", "BGRA");
    if (!presetIndex || !seconds || *seconds < 1 || *seconds > 3600 || !delegateMs || *delegateMs < 0) {
        return fail("--preset takes an integer, --seconds 1..3600, --delegate-ms a non-negative number");
    }
    if (formatName != "BGRA" && formatName != "420f" && formatName != "420v") {
        return fail("--pixel-format must be BGRA, 420f or 420v");
    }
    std::string error;
    auto device = cameraFromArgs(a, error);
    if (!device) {
        return fail(error);
    }
    const kp::OSType format = formatName == "BGRA"   ? kp::kCVPixelFormatType_32BGRA
                              : formatName == "420f" ? kp::kCVPixelFormatType_420YpCbCr8BiPlanarFullRange
                                                     : kp::kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;

    auto session = makeCameraSession(device, *presetIndex, error);
    if (!session) {
        return fail(error);
    }
    auto output = kp::AVCaptureVideoDataOutput::create();
    output->setVideoSettings({{kp::kCVPixelBufferPixelFormatTypeKey, format}});
    output->setAlwaysDiscardsLateVideoFrames(true);
    auto counter = std::make_shared<Counter>(*delegateMs / 1000.0);
    auto queue = kp::dispatch_queue_create("VideoDataOutputQueue", kp::DISPATCH_QUEUE_SERIAL);
    output->setSampleBufferDelegate(counter, queue);
    session->addOutput(output);
    std::string runtimeError;
    session->setRuntimeErrorHandler([&](const kp::NSErrorRef& e) {
        runtimeError = e->localizedDescription();
        kp::NSRunLoop::mainRunLoop().stop();
    });
    session->startRunning();
    kp::NSRunLoop::mainRunLoop().runFor(0); // deliver a start failure
    if (!session->isRunning()) {
        return fail(runtimeError.empty() ? "the session did not start" : runtimeError);
    }
    const auto stream = session->activeStream();

    int second = 0;
    kp::AVCaptureVideoDataOutput::FrameCounts last;
    auto timer = kp::NSTimer::scheduledTimerWithTimeInterval(1.0, true, [&](kp::NSTimer&) {
        const auto now = output->frameCounts();
        ++second;
        std::cout << JsonObject()
                         .add("second", static_cast<int32_t>(second))
                         .add("frames", now.delivered - last.delivered)
                         .add("dropped", now.dropped - last.dropped)
                         .add("produced", now.produced - last.produced)
                         .str()
                  << std::endl;
        last = now;
        if (second >= *seconds) {
            kp::NSRunLoop::mainRunLoop().stop();
        }
    });
    kp::NSRunLoop::mainRunLoop().run();
    timer->invalidate();
    session->stopRunning();
    kp::dispatch_sync(queue, [] {});
    if (!runtimeError.empty()) {
        return fail(runtimeError);
    }
    const auto total = output->frameCounts();
    JsonObject summary;
    summary.add("camera", device->uniqueID())
        .add("preset", session->sessionPreset())
        .add("width", static_cast<int32_t>(stream ? stream->format.width : 0))
        .add("height", static_cast<int32_t>(stream ? stream->format.height : 0))
        .add("pixelFormat", formatName)
        .add("seconds", static_cast<int32_t>(second))
        .add("frames", total.delivered)
        .add("dropped", total.dropped)
        .add("produced", total.produced)
        .add("fps", second > 0 ? static_cast<double>(total.delivered) / second : 0.0);
    std::cout << summary.str() << std::endl;
    return 0;
}

const Registration kFrames({"frames",
                            "  kpimage frames [--position front|back] [--preset N] [--seconds S]\n"
                            "                 [--pixel-format BGRA|420f|420v] [--delegate-ms MS] [--media FILE] [--sample]\n"
                            "      runs a capture session for S seconds (default 5) and prints\n"
                            "      {\"second\",\"frames\",\"dropped\",\"produced\"} each second, then a summary;\n"
                            "      N: 0 High, 1 Low, 2 Medium, 3 Photo, 4 640x480, 5 1280x720, 6 1920x1080;\n"
                            "      --delegate-ms makes the frame consumer take that long per frame;\n"
                            "      --sample uses the built-in sample camera even when a webcam is found",
                            frames});

} // namespace
} // namespace kpcli
