// SPDX-License-Identifier: MIT
// kpimage record: records a camera through the camera-data recorder into the photo album; kpimage probe: what a
// reader finds in a movie.
#include "Args.h"
#include "Camera.h"
#include "Command.h"
#include "Json.h"
#include "Recording.h"

#include <KPImage/KPImage.h>

#include <sys/stat.h>

#include <atomic>
#include <iostream>

namespace kpcli {
namespace {

// Hands every frame to the recorder while recording, as the capture engine's frame path does.
class RecordingDelegate final : public kp::AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    explicit RecordingDelegate(std::shared_ptr<kp::KPCameraRollHelper> recorder) : _recorder(std::move(recorder)) {}
    void captureOutput(const std::shared_ptr<kp::AVCaptureOutput>&, const kp::CMSampleBufferRef& frame,
                       const std::shared_ptr<kp::AVCaptureConnection>&) override {
        if (!_recording.load(std::memory_order_relaxed)) {
            return;
        }
        // A failed movie takes no more frames: one log line says why, not one for every frame.
        if (const auto writer = _recorder->outputWriter(); writer && writer->status() == kp::AVAssetWriterStatusFailed) {
            _refused.fetch_add(1, std::memory_order_relaxed);
            if (_loggedFailure.exchange(true, std::memory_order_relaxed)) {
                return;
            }
        }
        (_recorder->appendCameraData(frame) ? _appended : _refused).fetch_add(1, std::memory_order_relaxed);
    }
    void stop() { _recording.store(false, std::memory_order_relaxed); }
    int64_t appended() const { return _appended.load(std::memory_order_relaxed); }
    int64_t refused() const { return _refused.load(std::memory_order_relaxed); }

private:
    std::shared_ptr<kp::KPCameraRollHelper> _recorder;
    std::atomic<bool> _recording{true};
    std::atomic<int64_t> _appended{0};
    std::atomic<int64_t> _refused{0};
    std::atomic<bool> _loggedFailure{false};
};

int record(const std::vector<std::string>& args) {
    Args a(args, {"position", "preset", "seconds", "media", "codec", "album", "documents"}, {});
    if (!a.error().empty()) {
        return fail(a.error());
    }
    const auto presetIndex = parseInt(a.value("preset", "5"));
    const auto seconds = parseNumber(a.value("seconds", "3"));
    if (!presetIndex || !seconds || *seconds <= 0 || *seconds > 3600) {
        return fail("--preset takes an integer, --seconds a number in (0, 3600]");
    }
    const std::string codec = a.value("codec", "raw");
    std::optional<kp::AVOutputSettings> settings;
    if (codec == "h264" || codec == "hevc" || codec == "ffv1") {
        const char* type = codec == "h264"   ? kp::AVVideoCodecTypeH264
                           : codec == "hevc" ? kp::AVVideoCodecTypeHEVC
                                             : kp::AVVideoCodecTypeFFV1;
        if (!kp::AVVideoCodecTypeIsAvailable(type)) {
            return fail("this FFmpeg has no " + codec + " encoder");
        }
        settings = kp::AVOutputSettings{{kp::AVVideoCodecKey, std::string(type)}};
    } else if (codec != "raw") {
        return fail("--codec must be raw, h264, hevc or ffv1");
    }
    if (a.has("documents")) {
        kp::setDocumentsDirectory(a.value("documents"));
    }
    if (a.has("album")) {
        kp::setSavedPhotosAlbumDirectory(a.value("album"));
    }
    const std::string album = kp::savedPhotosAlbumDirectory();
    if (const std::string problem = recordingFoldersProblem(); !problem.empty()) {
        return fail(problem);
    }
    catchInterrupts();
    std::string error;
    auto device = cameraFromArgs(a, error);
    if (!device) {
        return fail(error);
    }

    auto recorder = kp::KPCameraRollHelper::getInstance();
    recorder->setRecordingOutputSettings(settings);
    auto delegate = std::make_shared<RecordingDelegate>(recorder);
    auto frames = makeFrameSession(device, *presetIndex, kp::kCVPixelFormatType_32BGRA, delegate, error);
    if (!frames) {
        return fail(error);
    }
    const auto& session = frames->session;

    const uint32_t savesBefore = recorder->cameraDataCounter();
    recorder->startSavingCameraData();
    session->startRunning();
    kp::NSRunLoop::mainRunLoop().runFor(0);
    if (!session->isRunning()) {
        return fail(frames->runtimeError->empty() ? "the session did not start" : *frames->runtimeError);
    }
    runUntilInterrupted(*seconds);
    delegate->stop();
    kp::dispatch_sync(frames->queue, [] {});
    const bool finishing = recorder->stopSavingCameraData() && recorder->outputWriter() &&
                           recorder->outputWriter()->status() != kp::AVAssetWriterStatusUnknown;
    session->stopRunning();
    if (!finishing) {
        fail("no frame was recorded");
        return exitCodeAfterInterrupt(1);
    }
    // The album's callback arrives on the main queue.
    for (int i = 0; i < 6000 && recorder->cameraDataCounter() == savesBefore; ++i) {
        kp::NSRunLoop::mainRunLoop().runFor(0.01);
    }
    const MovieOutcome outcome = recorder->cameraDataCounter() == savesBefore
                                     ? MovieOutcome{"", "the photo album did not answer"}
                                     : movieOutcome(*recorder);
    if (!outcome.error.empty()) {
        fail(outcome.error);
        return exitCodeAfterInterrupt(1);
    }
    const std::string& saved = outcome.file;
    struct stat st {};
    stat(saved.c_str(), &st);
    const auto counts = frames->output->frameCounts();
    std::cout << JsonObject()
                     .add("file", saved)
                     .add("album", album)
                     .add("frames", delegate->appended())
                     .add("dropped", static_cast<int64_t>(counts.dropped) + delegate->refused())
                     .add("bytes", static_cast<int64_t>(st.st_size))
                     .add("seconds", *seconds)
                     .add("codec", codec)
                     .str()
              << std::endl;
    return exitCodeAfterInterrupt(0);
}

int probe(const std::vector<std::string>& args) {
    Args a(args, {}, {});
    if (!a.error().empty() || a.positional().size() != 1) {
        return fail(a.error().empty() ? "usage: kpimage probe FILE.mov" : a.error());
    }
    const std::string path = a.positional()[0];
    kp::NSErrorRef error;
    auto reader = kp::AVAssetReader::assetReaderWithURL(kp::NSURL::fileURLWithPath(path), &error);
    if (!reader) {
        return fail(error ? error->localizedDescription() : "cannot read " + path);
    }
    const auto& t = reader->videoTrack();
    std::cout << JsonObject()
                     .add("file", path)
                     .add("codec", t.codec)
                     .add("codecTag", t.codecTag)
                     .add("width", t.width)
                     .add("height", t.height)
                     .add("pixelFormat", t.pixelFormat)
                     .add("frames", t.frames)
                     .add("duration", t.duration)
                     .str()
              << std::endl;
    return 0;
}

const Registration kRecord({"record",
                            "  kpimage record [--seconds S] [--position front|back | --media FILE] [--preset N]\n"
                            "                 [--codec raw|h264|hevc|ffv1] [--album DIR] [--documents DIR]\n"
                            "      records S seconds (default 3) of the camera through the camera-data recorder\n"
                            "      (preset default 5, 1280x720), waits for the photo album and prints\n"
                            "      {\"file\",\"album\",\"frames\",\"dropped\",\"bytes\",\"seconds\",\"codec\"};\n"
                            "      raw stores the frames as delivered (BGRA). Ctrl+C or SIGTERM ends the recording\n"
                            "      early: the movie is finished and saved, then exit code 130 or 143",
                            record});

const Registration kProbe({"probe",
                           "  kpimage probe FILE.mov\n"
                           "      what a reader finds in the movie's video track:\n"
                           "      {\"file\",\"codec\",\"codecTag\",\"width\",\"height\",\"pixelFormat\",\"frames\",\"duration\"}",
                           probe});

} // namespace
} // namespace kpcli
