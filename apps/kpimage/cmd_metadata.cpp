// SPDX-License-Identifier: MIT
// kpimage metadata: runs a session with a metadata output and prints every batch it delivers, then a summary.
#include "Args.h"
#include "Camera.h"
#include "Command.h"
#include "MetadataTypes.h"

#include <algorithm>
#include <cmath>
#include <iostream>

namespace kpcli {

namespace {

// Prints each batch on the main thread as it arrives and keeps the detection latencies.
class BatchPrinter final : public kp::AVCaptureMetadataOutputObjectsDelegate {
public:
    void captureOutput(const std::shared_ptr<kp::AVCaptureOutput>&,
                       const std::vector<std::shared_ptr<kp::AVMetadataObject>>& objects,
                       const std::shared_ptr<kp::AVCaptureConnection>&) override {
        ++batches;
        JsonObject line;
        if (!objects.empty() && CMTIME_IS_VALID(objects.front()->time())) {
            const double frameTime = kp::CMTimeGetSeconds(objects.front()->time());
            const double latency = kp::CMTimeGetSeconds(kp::CMClockGetHostTimeNow()) - frameTime;
            latencies.push_back(latency);
            line.add("time", frameTime).add("latencyMs", latency * 1000.0);
        } else {
            line.raw("time", "null");
        }
        std::string faces;
        std::string codes;
        jsonObjects(objects, faces, codes);
        std::cout << line.raw("faces", faces).raw("codes", codes).str() << std::endl;
    }
    uint64_t batches = 0;
    std::vector<double> latencies;
};

int metadata(const std::vector<std::string>& args) {
    Args a(args, {"position", "preset", "seconds", "media", "types", "model"}, {});
    if (!a.error().empty()) {
        return fail(a.error());
    }
    const auto presetIndex = parseInt(a.value("preset", "5"));
    const auto seconds = parseNumber(a.value("seconds", "5"));
    if (!presetIndex || !seconds || *seconds <= 0 || *seconds > 3600) {
        return fail("--preset takes an integer, --seconds a number in (0, 3600]");
    }
    std::vector<kp::AVMetadataObjectType> types;
    std::string error;
    if (!metadataTypesFromList(a.value("types"), types, error)) {
        return fail(error);
    }
    if (a.has("model")) {
        kp::CIDetectorSetFaceLandmarksModelPath(a.value("model"));
    }
    auto device = cameraFromArgs(a, error);
    if (!device) {
        return fail(error);
    }
    auto session = makeCameraSession(device, *presetIndex, error);
    if (!session) {
        return fail(error);
    }
    auto output = kp::AVCaptureMetadataOutput::create();
    session->addOutput(output);
    auto printer = std::make_shared<BatchPrinter>();
    output->setMetadataObjectsDelegate(printer, kp::dispatch_get_main_queue());
    output->setMetadataObjectTypes(types);
    std::string runtimeError;
    session->setRuntimeErrorHandler([&](const kp::NSErrorRef& e) {
        runtimeError = e->localizedDescription();
        kp::NSRunLoop::mainRunLoop().stop();
    });
    session->startRunning();
    kp::NSRunLoop::mainRunLoop().runFor(*seconds);
    session->stopRunning();
    if (!runtimeError.empty()) {
        return fail(runtimeError);
    }
    auto sorted = printer->latencies;
    std::sort(sorted.begin(), sorted.end());
    double mean = 0;
    for (double l : sorted) {
        mean += l;
    }
    mean = sorted.empty() ? 0.0 : mean / static_cast<double>(sorted.size());
    const double p95 =
        sorted.empty() ? 0.0
                       : sorted[std::min(sorted.size() - 1, static_cast<size_t>(std::ceil(0.95 * sorted.size())) - 1)];
    const auto counts = output->detectionCounts();
    std::cout << JsonObject()
                     .add("summary", true)
                     .add("camera", device->uniqueID())
                     .add("framesAnalysed", counts.analysed)
                     .add("batches", printer->batches)
                     .add("meanLatencyMs", mean * 1000.0)
                     .add("p95LatencyMs", p95 * 1000.0)
                     .str()
              << std::endl;
    return 0;
}

const Registration kMetadata({"metadata",
                              "  kpimage metadata [--media FILE | --position front|back] [--preset N] [--seconds S]"
                              " [--types face,pdf417,qr,...]\n"
                              "      runs a session with a metadata output (default preset 5, 1280x720) and prints"
                              " one JSON line per\n      delivered batch ({\"time\",\"latencyMs\",\"faces\","
                              "\"codes\"}, as kpimage detect), then {\"summary\":true,\"framesAnalysed\",\"batches\","
                              "\n      \"meanLatencyMs\",\"p95LatencyMs\"}: latency from the frame's time to delivery",
                              metadata});

} // namespace

} // namespace kpcli
