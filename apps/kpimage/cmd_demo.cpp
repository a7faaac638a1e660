// SPDX-License-Identifier: MIT
// kpimage demo: the main job — analyses the bundled sample picture, then runs the first camera (a webcam,
// or the built-in sample camera when there is none), counts its frames, takes a still and analyses it.
#include "Args.h"
#include "Camera.h"
#include "Command.h"
#include "Json.h"
#include "Scores.h"

#include <KPImage/KPImage.h>

#include <filesystem>
#include <iostream>

namespace kpcli {

namespace {

/// The bundled data folder: the installed one, else the source tree's.
std::string dataDirectory() {
#ifdef KPIMAGE_DATADIR
    if (std::filesystem::exists(std::string(KPIMAGE_DATADIR) + "/sample-face.png")) {
        return KPIMAGE_DATADIR;
    }
#endif
    return std::string(KPIMAGE_SOURCE_DIR) + "/data";
}

/// Receives frames on "VideoDataOutputQueue"; the output itself counts them.
class FrameSink final : public kp::AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    void captureOutput(const std::shared_ptr<kp::AVCaptureOutput>&, const kp::CMSampleBufferRef&,
                       const std::shared_ptr<kp::AVCaptureConnection>&) override {}
};

/// The analysis of one picture as JSON, with a one-line summary.
struct Analysis {
    std::string json;
    std::string summary;
};

Analysis analyse(const kp::UIImage& image) {
    const auto [focus, focusScore, brightness, face] = scorePicture(image);
    const bool found = !kp::CGRectIsEmpty(face.faceBounds);
    JsonObject faceJson;
    faceJson.add("found", found)
        .add("x", face.faceBounds.origin.x)
        .add("y", face.faceBounds.origin.y)
        .add("width", face.faceBounds.size.width)
        .add("height", face.faceBounds.size.height)
        .add("smile", face.hasSmile);
    JsonObject o;
    o.add("width", static_cast<uint64_t>(image.CGImage()->width()))
        .add("height", static_cast<uint64_t>(image.CGImage()->height()))
        .add("focus", focus)
        .add("focusScore", focusScore)
        .add("brightness", brightness)
        .raw("face", faceJson.str());
    std::string summary = std::to_string(image.CGImage()->width()) + "x" + std::to_string(image.CGImage()->height()) +
                          ", focus " + std::to_string(focus) + "/100 (" + (focus >= 50 ? "sharp" : "soft") +
                          "), focus score " + std::to_string(focusScore) + "/100, brightness " +
                          std::to_string(brightness) + "/255, ";
    if (found) {
        summary += "face at " + std::to_string(static_cast<int>(face.faceBounds.origin.x)) + "," +
                   std::to_string(static_cast<int>(face.faceBounds.origin.y)) + " size " +
                   std::to_string(static_cast<int>(face.faceBounds.size.width)) +
                   (face.hasSmile ? ", smiling" : "");
    } else {
        summary += "no face";
    }
    return {o.str(), summary};
}

int runCamera(const Args& args, double seconds) {
    applySampleOption(args, true);
    const auto devices = kp::AVCaptureDevice::devicesWithMediaType(kp::AVMediaTypeVideo);
    if (devices.empty()) {
        return fail("no camera");
    }
    const auto device = devices.front(); // a webcam when there is one (without --sample)
    auto session = kp::AVCaptureSession::create();
    if (session->canSetSessionPreset(kp::AVCaptureSessionPreset1280x720)) {
        session->setSessionPreset(kp::AVCaptureSessionPreset1280x720);
    }
    auto input = kp::AVCaptureDeviceInput::deviceInputWithDevice(device);
    if (!input || !session->canAddInput(input)) {
        return fail("cannot use camera " + device->uniqueID());
    }
    session->addInput(input);
    auto frames = kp::AVCaptureVideoDataOutput::create();
    frames->setVideoSettings({{kp::kCVPixelBufferPixelFormatTypeKey, kp::kCVPixelFormatType_32BGRA}});
    auto sink = std::make_shared<FrameSink>();
    auto queue = kp::dispatch_queue_create("VideoDataOutputQueue", kp::DISPATCH_QUEUE_SERIAL);
    frames->setSampleBufferDelegate(sink, queue);
    session->addOutput(frames);
    auto stillOutput = kp::AVCaptureStillImageOutput::create();
    session->addOutput(stillOutput);
    std::string runtimeError;
    session->setRuntimeErrorHandler([&](const kp::NSErrorRef& e) {
        runtimeError = e->localizedDescription();
        kp::NSRunLoop::mainRunLoop().stop();
    });
    session->startRunning();
    kp::NSRunLoop::mainRunLoop().runFor(0);
    if (!session->isRunning()) {
        return fail(runtimeError.empty() ? "the session did not start" : runtimeError);
    }
    const auto stream = session->activeStream();
    kp::NSRunLoop::mainRunLoop().runFor(seconds);
    std::string error;
    const kp::CMSampleBufferRef picture = takeStill(stillOutput, error);
    const auto counts = frames->frameCounts();
    session->stopRunning();
    kp::dispatch_sync(queue, [] {});
    if (!picture) {
        return fail(error);
    }
    std::optional<kp::UIImage> still;
    kp::KPImagingHelper::makeUIImageFromCMSampleBuffer(picture, device->position(), &still);
    if (!still) {
        return fail("the still could not be converted");
    }
    const std::string stillPath = (std::filesystem::temp_directory_path() / "kpimage-demo-still.png").string();
    const auto png = kp::UIImagePNGRepresentation(*still);
    const bool saved = png && kp::writeToFile(*png, stillPath, true);
    const Analysis a = analyse(*still);
    JsonObject o;
    o.add("camera", device->uniqueID())
        .add("name", device->localizedName())
        .add("streamWidth", static_cast<int32_t>(stream ? stream->format.width : 0))
        .add("streamHeight", static_cast<int32_t>(stream ? stream->format.height : 0))
        .add("seconds", seconds)
        .add("frames", counts.delivered)
        .add("dropped", counts.dropped)
        .add("fps", static_cast<double>(counts.delivered) / seconds)
        .add("stillFile", saved ? stillPath : std::string())
        .raw("still", a.json);
    std::cout << o.str() << std::endl;
    char fps[32];
    std::snprintf(fps, sizeof fps, "%.1f", static_cast<double>(counts.delivered) / seconds);
    std::cout << "summary: camera " << device->localizedName() << ": " << counts.delivered << " frames in "
              << seconds << " s (" << fps << " fps, " << counts.dropped << " dropped); still " << a.summary
              << std::endl;
    return 0;
}

int demo(const std::vector<std::string>& argv) {
    Args args(argv, {"seconds"}, {"no-camera", "sample"});
    if (!args.error().empty()) {
        return fail(args.error());
    }
    const auto seconds = parseNumber(args.value("seconds", "3"));
    if (!seconds || *seconds <= 0 || *seconds > 600) {
        return fail("--seconds takes a number of seconds up to 600");
    }
    const std::string path = dataDirectory() + "/sample-face.png";
    auto image = kp::UIImage::imageWithContentsOfFile(path);
    if (!image) {
        return fail("cannot read the sample picture " + path);
    }
    const Analysis sample = analyse(*image);
    std::cout << JsonObject().add("file", path).raw("picture", sample.json).str() << std::endl;
    std::cout << "summary: sample picture " << sample.summary << std::endl;
    return args.flag("no-camera") ? 0 : runCamera(args, *seconds);
}

const Registration kDemo({"demo",
                          "  kpimage demo [--seconds S] [--no-camera] [--sample]\n"
                          "      the main job: analyses the bundled sample picture, then runs the first camera\n"
                          "      (a webcam, else or with --sample the built-in sample camera) for S seconds\n"
                          "      (default 3), takes a still and analyses it (focus, brightness, face); JSON lines\n"
                          "      and summaries",
                          demo});

} // namespace

} // namespace kpcli
