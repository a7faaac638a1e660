// SPDX-License-Identifier: MIT
// kpimage capture: the main job. Runs the capture engine on the default camera with face, PDF417 and QR detection
// and the centre box, prints the detection state as it changes, guides the user, takes a still picture once the
// head has stayed centred, keeps it when its face is sharp and lit well, saves it with a rendering of the preview,
// and prints the card's data (redacted unless asked).
#include "Args.h"
#include "Camera.h"
#include "CardJson.h"
#include "Command.h"
#include "Json.h"
#include "Recording.h"
#include "Scores.h"

#include <KPImage/KPImage.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <set>

namespace kpcli {

namespace {

/// How long the head must stay centred before a still picture is taken.
constexpr double kHoldSeconds = 0.5;
/// How often the main thread looks at the capture's progress.
constexpr double kTickSeconds = 0.05;
/// How long a requested still picture may take to arrive.
constexpr double kStillTimeoutSeconds = 5.0;
/// How long the end of the run waits for stills in flight and the photo album.
constexpr double kFinishTimeoutSeconds = 20.0;
/// How long the camera keeps running at the end for a still asked for in the run's last moments.
constexpr double kStillInFlightSeconds = 1.0;
/// What the state lines and the summary show for a card's text unless --show-card-data asks for it.
constexpr std::string_view kHiddenCardText = "(card data hidden)";

using Clock = std::chrono::steady_clock;

/// What the delegate sees of the detection, as printed: the face rectangle rounded to whole preview points.
struct DetectionState {
    kp::CGRect faceRect = kp::CGRectZero;
    kp::CGFloat yawAngle = 0;
    kp::CGFloat rollAngle = 0;
    bool isHeadCentered = false;
    std::optional<std::string> barcodeData = std::string();

    bool hasFace() const { return !kp::CGRectEqualToRect(faceRect, kp::CGRectZero); }
    friend bool operator==(const DetectionState&, const DetectionState&) = default;
};

std::string formatSeconds(double seconds) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", seconds);
    return buf;
}

std::string jsonString(const std::optional<std::string>& s) {
    return s ? "\"" + jsonEscape(*s) + "\"" : "null";
}

std::string jsonStateLine(double time, const DetectionState& s) {
    JsonObject o;
    o.raw("time", formatSeconds(time));
    if (s.hasFace()) {
        o.raw("faceRect", JsonObject()
                              .add("x", static_cast<int64_t>(s.faceRect.origin.x))
                              .add("y", static_cast<int64_t>(s.faceRect.origin.y))
                              .add("width", static_cast<int64_t>(s.faceRect.size.width))
                              .add("height", static_cast<int64_t>(s.faceRect.size.height))
                              .str());
    } else {
        o.raw("faceRect", "null");
    }
    return o.add("yawAngle", s.yawAngle)
        .add("rollAngle", s.rollAngle)
        .add("isHeadCentered", s.isHeadCentered)
        .raw("barcodeData", jsonString(s.barcodeData))
        .str();
}

/// A one-line description of a code's text for the user.
std::string describeCode(const std::string& text, bool showCardData) {
    if (const auto card = kp::CardData::parse(text); card.isCard) {
        return "card read: " + describeCard(card, showCardData);
    }
    std::string shown = text.substr(0, 60);
    for (char& c : shown) {
        if (static_cast<unsigned char>(c) < 0x20) {
            c = ' ';
        }
    }
    return "code read: " + shown;
}

/// Receives the engine's frames and stills on "VideoDataOutputQueue". Frames are compared with the previous
/// detection state there; changes and stills go to the main thread, which does all printing.
class CaptureDelegate final : public kp::libVideoDelegate {
public:
    using StateHandler = std::function<void(double time, const DetectionState& state)>;
    using StillHandler = std::function<void(double time, const std::optional<kp::UIImage>& image)>;

    CaptureDelegate(std::weak_ptr<kp::KPVideoHelper> engine, Clock::time_point start, StateHandler onState,
                    StillHandler onStill)
        : _engine(std::move(engine)), _start(start), _onState(std::move(onState)), _onStill(std::move(onStill)) {}

    void getLastSampleBuffer(const kp::CMSampleBufferRef&, kp::CGRect faceRect, kp::CGFloat faceYawAngle,
                             kp::CGFloat faceRollAngle, const std::optional<std::string>& barcodeData) override {
        _frames.fetch_add(1, std::memory_order_relaxed);
        const auto engine = _engine.lock();
        DetectionState state;
        state.faceRect = kp::CGRectMake(std::round(faceRect.origin.x), std::round(faceRect.origin.y),
                                        std::round(faceRect.size.width), std::round(faceRect.size.height));
        state.yawAngle = faceYawAngle;
        state.rollAngle = faceRollAngle;
        state.isHeadCentered = engine && engine->isHeadCentered();
        state.barcodeData = barcodeData;
        // Only this queue touches _last.
        if (_first || !(state == _last)) {
            _first = false;
            _last = state;
            kp::dispatch_async(kp::dispatch_get_main_queue(),
                               [handler = _onState, time = secondsNow(), state] { handler(time, state); });
        }
    }

    void getNewStillImage(const std::optional<kp::UIImage>& image) override {
        kp::dispatch_async(kp::dispatch_get_main_queue(),
                           [handler = _onStill, time = secondsNow(), image] { handler(time, image); });
    }

    uint64_t frames() const { return _frames.load(std::memory_order_relaxed); }

private:
    double secondsNow() const { return std::chrono::duration<double>(Clock::now() - _start).count(); }

    std::weak_ptr<kp::KPVideoHelper> _engine;
    const Clock::time_point _start;
    StateHandler _onState;
    StillHandler _onStill;
    std::atomic<uint64_t> _frames{0};
    bool _first = true;
    DetectionState _last;
};

/// A still's scores and files, as printed.
std::string scoreAndSave(const kp::UIImage& still, const PictureScores& scores,
                         const std::optional<kp::UIImage>& preview, const std::string& base, std::string& stillFile) {
    const auto& [focus, focusScore, brightness, face] = scores;
    auto save = [](const kp::UIImage& image, const std::string& path) {
        const auto png = kp::UIImagePNGRepresentation(image);
        return png && kp::writeToFile(*png, path, true);
    };
    stillFile = save(still, base + ".png") ? base + ".png" : std::string();
    const std::string previewFile = preview && save(*preview, base + "-preview.png") ? base + "-preview.png" : "";
    JsonObject faceJson;
    faceJson.add("found", !kp::CGRectIsEmpty(face.faceBounds));
    if (!kp::CGRectIsEmpty(face.faceBounds)) {
        faceJson.add("x", static_cast<int64_t>(std::lround(face.faceBounds.origin.x)))
            .add("y", static_cast<int64_t>(std::lround(face.faceBounds.origin.y)))
            .add("width", static_cast<int64_t>(std::lround(face.faceBounds.size.width)))
            .add("height", static_cast<int64_t>(std::lround(face.faceBounds.size.height)))
            .add("smile", face.hasSmile)
            .add("leftEyeClosed", face.leftEyeClosed)
            .add("rightEyeClosed", face.rightEyeClosed);
    }
    return JsonObject()
        .add("file", stillFile)
        .add("preview", previewFile)
        .add("width", static_cast<uint64_t>(still.CGImage() ? still.CGImage()->width() : 0))
        .add("height", static_cast<uint64_t>(still.CGImage() ? still.CGImage()->height() : 0))
        .add("focus", focus)
        .add("focusScore", focusScore)
        .add("brightness", brightness)
        .raw("face", faceJson.str())
        .str();
}

/// What the user is asked to do, from the detection state.
std::string guidanceFor(const DetectionState& s) {
    if (!s.hasFace()) {
        return "move your head into the box";
    }
    if (s.isHeadCentered) {
        return "hold still";
    }
    if (s.rollAngle != 0) {
        return "hold your head upright";
    }
    if (s.yawAngle != 0) {
        return "look straight at the camera";
    }
    return "move your head into the box";
}

/// The run's state on the main thread.
class Capture {
public:
    Capture(bool guidance, bool progress, std::string outDir, double seconds)
        : _guidance(guidance), _progress(progress), _outDir(std::move(outDir)), _seconds(seconds) {}

    /// Card data in full (else redacted, its text hidden), and the face limits of a still worth keeping.
    bool showCardData = false;
    int32_t minFocus = kp::KPFaceQuality::kDefaultMinFocus;
    int32_t minBrightness = kp::KPFaceQuality::kDefaultMinBrightness;

    std::shared_ptr<kp::KPVideoHelper> engine;
    std::shared_ptr<kp::UIView> view;
    std::shared_ptr<CaptureDelegate> delegate;
    kp::dispatch_queue_t stillQueue = kp::dispatch_queue_create("kpimage.capture.still", kp::DISPATCH_QUEUE_SERIAL);

    void onState(double time, const DetectionState& state) {
        DetectionState shown = state;
        if (shown.barcodeData) {
            shown.barcodeData = shownText(*shown.barcodeData);
        }
        std::cout << jsonStateLine(time, shown) << std::endl;
        const bool centred = state.isHeadCentered && state.hasFace();
        if (centred && !_centred) {
            _centredSince = time;
        } else if (!centred && _centred) {
            _centredSeconds += time - _centredSince;
            _stillThisStretch = false;
        }
        _centred = centred;
        _lastTime = time;
        say(guidanceFor(state));
        if (state.barcodeData && !state.barcodeData->empty() && _codes.insert(*state.barcodeData).second) {
            const kp::CardData card = kp::CardData::parse(*state.barcodeData);
            JsonObject line;
            line.raw("time", formatSeconds(time));
            if (card.isCard) {
                JsonObject cardJson;
                addCardJson(cardJson, card, cardToday(), showCardData);
                line.raw("card", cardJson.str());
            } else {
                line.add("code", *state.barcodeData);
            }
            std::cout << line.str() << std::endl;
            if (card.isCard && _cardData.empty()) {
                _cardData = *state.barcodeData;
            }
            _lastCode = *state.barcodeData;
            say(describeCode(*state.barcodeData, showCardData), true);
        }
    }

    void onStill(double time, const std::optional<kp::UIImage>& image) {
        _awaitingStill = false;
        if (!image) {
            error("the picture could not be converted");
            return;
        }
        ++_saving;
        // The preview as the user sees it now, with the centre box and the detection overlays.
        std::optional<kp::UIImage> preview;
        if (view) {
            preview = kp::UIViewRenderToImage(view, view->bounds().size, 1);
        }
        kp::dispatch_async(stillQueue, [this, time, still = *image, preview] {
            // A still is kept only when its face is sharp and lit well enough; else the user hears why and the
            // capture waits for the next one.
            const PictureScores scores = scorePicture(still);
            const auto quality = kp::KPFaceQuality::assess(still, scores.face.faceBounds, minFocus, minBrightness);
            if (!quality.good) {
                const std::string json = JsonObject()
                                             .add("focusScore", quality.focusScore)
                                             .add("brightness", quality.brightness)
                                             .add("reason", quality.reason)
                                             .str();
                kp::dispatch_async(kp::dispatch_get_main_queue(), [this, time, json, reason = quality.reason] {
                    std::cout << JsonObject().raw("time", formatSeconds(time)).raw("refused", json).str() << std::endl;
                    --_saving;
                    _stillThisStretch = false;
                    _centredSince = _lastTick;
                    say(reason == "no face" ? "move your head into the box" : reason, true);
                });
                return;
            }
            // Only this queue numbers the stills.
            const std::string base =
                (std::filesystem::path(_outDir) / ("still-" + std::to_string(++_stillNumber))).string();
            std::string file;
            const std::string json = scoreAndSave(still, scores, preview, base, file);
            kp::dispatch_async(kp::dispatch_get_main_queue(), [this, time, json, file] {
                std::cout << JsonObject().raw("time", formatSeconds(time)).raw("still", json).str() << std::endl;
                if (!file.empty()) {
                    _stills.push_back(file);
                }
                --_saving;
                if (file.empty()) {
                    error("the picture could not be saved to " + _outDir);
                } else {
                    say("picture saved: " + file, true);
                }
            });
        });
    }

    /// Every tick on the main thread: takes the still once the head has stayed centred, and shows the progress.
    void tick(double now) {
        _lastTick = now;
        expireStill(now);
        if (_centred && !_stillThisStretch && !_awaitingStill && now - _centredSince >= kHoldSeconds) {
            _stillThisStretch = true;
            _awaitingStill = true;
            _stillRequestedAt = now;
            say("taking a picture", true);
            engine->takeStillPicture();
        }
        if (_progress && std::floor(now) != _shownSecond) {
            _shownSecond = std::floor(now);
            showProgress(now);
        }
    }

    /// A still picture that fails reaches nobody: stops waiting for one requested too long ago.
    void expireStill(double now) {
        if (_awaitingStill && now - _stillRequestedAt > kStillTimeoutSeconds) {
            abandonStill();
        }
    }

    /// The camera has stopped: a still it has not delivered will not come.
    void abandonStill() {
        if (_awaitingStill) {
            _awaitingStill = false;
            error("the camera did not deliver the picture");
        }
    }

    bool awaitingStill() const { return _awaitingStill; }

    /// Stills already in the folder keep their names: this run's are numbered on from the highest one there.
    void numberStillsAfterExisting() {
        std::error_code ec;
        for (std::filesystem::directory_iterator it(_outDir, ec), end; !ec && it != end; it.increment(ec)) {
            const std::string name = it->path().filename().string();
            if (name.rfind("still-", 0) != 0) {
                continue;
            }
            const size_t digits = name.find_first_not_of("0123456789", 6);
            if (digits == 6 || digits == std::string::npos || digits - 6 > 9) {
                continue;
            }
            _stillNumber = std::max(_stillNumber, std::stoi(name.substr(6, digits - 6)));
        }
    }

    void finish(double end) {
        if (_centred) {
            _centredSeconds += std::max(0.0, end - _centredSince);
            _centred = false;
        }
        if (_progress) {
            std::cerr << "\r\033[K" << std::flush;
            _progress = false;
        }
    }

    /// Stills requested and not yet arrived (for a few seconds at most) or not yet saved.
    bool stillsPending() const { return _awaitingStill || _saving > 0; }
    const std::vector<std::string>& stills() const { return _stills; }
    double centredSeconds() const { return _centredSeconds; }
    /// The card's data when read, else the last code's text, else "" (a card's text hidden unless asked).
    std::string barcodeData() const { return shownText(_cardData.empty() ? _lastCode : _cardData); }
    /// The card read, as the summary's "card" object; null when none was read.
    std::string cardJson() const {
        if (_cardData.empty()) {
            return "null";
        }
        JsonObject o;
        addCardJson(o, kp::CardData::parse(_cardData), cardToday(), showCardData);
        return o.str();
    }
    /// A code's text as printed: a card's only with showCardData.
    std::string shownText(const std::string& text) const {
        return showCardData || !kp::CardData::parse(text).isCard ? text : std::string(kHiddenCardText);
    }

    /// Something asked for was lost: told on standard error even with --no-guidance, and counted.
    void error(const std::string& line) {
        ++_lost;
        std::cerr << (_progress ? "\r\033[K" : "") << "kpimage capture: " << line << "\n";
        if (_progress) {
            showProgress(_lastTime);
        }
        std::cerr << std::flush;
    }
    /// How many stills (or movies) asked for were lost.
    int lost() const { return _lost; }

    void say(const std::string& line, bool always = false) {
        if (!_guidance || (!always && line == _lastGuidance)) {
            return;
        }
        if (!always) {
            _lastGuidance = line;
        }
        std::cerr << (_progress ? "\r\033[K" : "") << line << "\n";
        if (_progress) {
            showProgress(_lastTime);
        }
        std::cerr << std::flush;
    }

private:
    void showProgress(double now) {
        const int width = 20;
        const int done = static_cast<int>(std::clamp(now / _seconds, 0.0, 1.0) * width);
        std::cerr << "\r\033[K[" << std::string(static_cast<size_t>(done), '#')
                  << std::string(static_cast<size_t>(width - done), '.') << "] " << static_cast<int>(now) << "/"
                  << static_cast<int>(std::ceil(_seconds)) << " s  frames " << (delegate ? delegate->frames() : 0)
                  << "  head " << (_centred ? "centred" : "not centred") << "  stills " << _stills.size() << "  card "
                  << (_cardData.empty() ? "not read" : "read") << std::flush;
    }

    const bool _guidance;
    bool _progress;
    const std::string _outDir;
    const double _seconds;
    bool _centred = false;
    double _centredSince = 0;
    double _centredSeconds = 0;
    double _lastTime = 0;
    bool _stillThisStretch = false;
    bool _awaitingStill = false;
    double _stillRequestedAt = 0;
    int _saving = 0;
    int _stillNumber = 0; // on stillQueue
    int _lost = 0;
    double _lastTick = 0;
    double _shownSecond = -1;
    std::string _lastGuidance;
    std::vector<std::string> _stills;
    std::set<std::string> _codes;
    std::string _cardData;
    std::string _lastCode;
};

/// Runs the main run loop until the condition holds or the time is up; true when it held.
bool runUntil(const std::function<bool()>& condition, double timeoutSeconds) {
    const auto deadline = Clock::now() + std::chrono::duration<double>(timeoutSeconds);
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        kp::NSRunLoop::mainRunLoop().runFor(0.02);
    }
    return true;
}

int capture(const std::vector<std::string>& args) {
    Args a(args, {"seconds", "position", "media", "out", "view", "preset", "min-focus", "min-brightness"},
           {"record", "no-guidance", "sample", "show-card-data"});
    if (!a.error().empty()) {
        return fail(a.error());
    }
    if (!a.positional().empty()) {
        return fail("unexpected argument " + a.positional().front());
    }
    const auto seconds = parseNumber(a.value("seconds", "12"));
    if (!seconds || *seconds <= 0 || *seconds > 3600) {
        return fail("--seconds takes a number in (0, 3600]");
    }
    const auto presetIndex = parseInt(a.value("preset", "5"));
    if (!presetIndex) {
        return fail("--preset takes an integer (see kpimage --help)");
    }
    std::optional<std::vector<double>> viewSize;
    if (a.has("view")) {
        viewSize = parseNumbers(a.value("view"), 2);
        if (!viewSize || (*viewSize)[0] < 1 || (*viewSize)[1] < 1 || (*viewSize)[0] > 8192 || (*viewSize)[1] > 8192) {
            return fail("--view takes W,H in points, each 1 to 8192");
        }
    }
    const auto minFocus = parseInt(a.value("min-focus", std::to_string(kp::KPFaceQuality::kDefaultMinFocus)));
    const auto minBrightness =
        parseInt(a.value("min-brightness", std::to_string(kp::KPFaceQuality::kDefaultMinBrightness)));
    if (!minFocus || *minFocus < 0 || *minFocus > 100 || !minBrightness || *minBrightness < 0 ||
        *minBrightness > 255) {
        return fail("--min-focus takes 0 to 100, --min-brightness 0 to 255");
    }
    const std::string outDir = a.value("out", "kpimage-capture");
    if (const std::string problem = folderProblem(outDir, "output"); !problem.empty()) {
        return fail(problem);
    }
    if (a.flag("record")) {
        // The movie lands in the output folder; the recorder's working folder is made inside it.
        kp::setDocumentsDirectory(outDir);
        kp::setSavedPhotosAlbumDirectory(outDir);
        if (const std::string problem = recordingFoldersProblem(); !problem.empty()) {
            return fail(problem);
        }
        auto recorder = kp::KPCameraRollHelper::getInstance();
        for (const char* codec : {kp::AVVideoCodecTypeH264, kp::AVVideoCodecTypeFFV1}) {
            if (kp::AVVideoCodecTypeIsAvailable(codec)) {
                recorder->setRecordingOutputSettings(kp::AVOutputSettings{{kp::AVVideoCodecKey, std::string(codec)}});
                break;
            }
        }
    }

    catchInterrupts();
    std::string error;
    const auto device = cameraFromArgs(a, error);
    if (!device) {
        return fail(error);
    }
    const auto preset = kp::KPVideoHelper::avPreset(*presetIndex);
    auto engine = kp::KPVideoHelper::initWithAVCaptureSessionPreset(
        device->supportsAVCaptureSessionPreset(preset) ? *presetIndex : 0, device->position(),
        kp::AVLayerVideoGravityResizeAspect, kp::kCVPixelFormatType_32BGRA);
    if (!engine || engine->device() != device) {
        return fail("the capture engine cannot use camera " + device->uniqueID());
    }
    // A desktop camera stands in landscape: report the orientation in which this camera's stills come out
    // upright (the device's default, portrait, would turn them by a quarter).
    kp::UIDevice::currentDevice().setOrientation(device->position() == kp::AVCaptureDevicePositionBack
                                                     ? kp::UIDeviceOrientationLandscapeLeft
                                                     : kp::UIDeviceOrientationLandscapeRight);
    engine->setQrCodeSupport(true);
    engine->setRecordCameraData(a.flag("record"));

    // The preview: by default as large as the picture the camera streams.
    kp::CGSize size = kp::CGSizeMake(1280, 720);
    if (viewSize) {
        size = kp::CGSizeMake((*viewSize)[0], (*viewSize)[1]);
    } else if (const auto format = device->backend()->formatForPreset(engine->session()->sessionPreset());
               format.width > 0 && format.height > 0) {
        size = kp::CGSizeMake(format.width, format.height);
    }

    const bool progress = ::isatty(STDERR_FILENO) != 0;
    Capture run(!a.flag("no-guidance"), progress, outDir, *seconds);
    run.numberStillsAfterExisting();
    run.engine = engine;
    run.showCardData = a.flag("show-card-data");
    run.minFocus = *minFocus;
    run.minBrightness = *minBrightness;
    run.view = engine->getPreviewView(kp::CGRectMake(0, 0, size.width, size.height), true);
    const auto start = Clock::now();
    auto elapsed = [start] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    run.delegate = std::make_shared<CaptureDelegate>(
        engine, start, [&run](double t, const DetectionState& s) { run.onState(t, s); },
        [&run](double t, const std::optional<kp::UIImage>& image) { run.onStill(t, image); });
    engine->setDelegate(run.delegate);

    std::string runtimeError;
    engine->session()->setRuntimeErrorHandler([&](const kp::NSErrorRef& e) {
        runtimeError = e->localizedDescription();
        kp::NSRunLoop::mainRunLoop().stop();
    });
    std::cerr << "kpimage capture: camera " << device->localizedName() << " (" << device->uniqueID() << "), "
              << *seconds << " s, pictures go to " << std::filesystem::absolute(outDir).lexically_normal().string()
              << std::endl;
    const uint32_t moviesBefore = kp::KPCameraRollHelper::getInstance()->cameraDataCounter();
    engine->startVideoCapture();
    auto timer =
        kp::NSTimer::scheduledTimerWithTimeInterval(kTickSeconds, true, [&](kp::NSTimer&) { run.tick(elapsed()); });
    run.say("move your head into the box");
    runUntilInterrupted(*seconds);
    const double ranFor = elapsed();
    timer->invalidate();
    // A still asked for in the last moments comes from the running camera.
    if (runtimeError.empty()) {
        runUntil([&] { return !run.awaitingStill() || interruptSignal() != 0; }, kStillInFlightSeconds);
    }
    engine->stopVideoCapture();
    // Frames already on the frame queue still arrive; then everything they queued for the main thread runs.
    kp::dispatch_sync(engine->videoDataOutputQueue(), [] {});
    kp::NSRunLoop::mainRunLoop().runFor(0);
    run.finish(ranFor);
    if (!runtimeError.empty()) {
        return fail(runtimeError);
    }
    run.abandonStill();
    runUntil([&] { return !run.stillsPending(); }, kFinishTimeoutSeconds);
    kp::dispatch_sync(run.stillQueue, [] {}); // a still being saved refers to run
    std::string movie;
    if (a.flag("record")) {
        auto recorder = kp::KPCameraRollHelper::getInstance();
        const auto writer = recorder->outputWriter();
        const bool noFrame = !writer || writer->status() == kp::AVAssetWriterStatusUnknown;
        const bool answered =
            !noFrame && runUntil([&] { return recorder->cameraDataCounter() != moviesBefore; }, kFinishTimeoutSeconds);
        const MovieOutcome outcome = noFrame    ? MovieOutcome{"", "the recording did not complete: no frame was recorded"}
                                     : answered ? movieOutcome(*recorder)
                                                : MovieOutcome{"", "the photo album did not answer"};
        movie = outcome.file;
        if (!outcome.error.empty()) {
            run.error(outcome.error);
        }
    }

    std::string stills = "[";
    for (const auto& file : run.stills()) {
        stills += (stills.size() > 1 ? ",\"" : "\"") + jsonEscape(file) + "\"";
    }
    stills += "]";
    JsonObject summary;
    summary.add("camera", device->uniqueID())
        .raw("seconds", formatSeconds(ranFor))
        .add("frames", run.delegate->frames())
        .raw("stills", stills)
        .add("barcodeData", run.barcodeData())
        .raw("card", run.cardJson())
        .raw("headCenteredSeconds", formatSeconds(run.centredSeconds()));
    if (a.flag("record")) {
        summary.add("movie", movie);
    }
    std::cout << JsonObject().raw("summary", summary.str()).str() << std::endl;
    return exitCodeAfterInterrupt(run.lost() > 0 ? 1 : 0);
}

const Registration kCapture(
    {"capture",
     "  kpimage capture [--seconds S] [--position front|back] [--media FILE] [--sample] [--preset N]\n"
     "                  [--view W,H] [--out DIR] [--record] [--no-guidance] [--show-card-data]\n"
     "                  [--min-focus F] [--min-brightness B]\n"
     "      the main job: runs the capture engine on the default camera (a webcam, else or with --sample the\n"
     "      built-in sample camera; --media plays a video file as the camera) for S seconds (default 12) with\n"
     "      face, PDF417 and QR detection and the centre box on a preview of W,H points (default: the\n"
     "      picture's size). Prints a JSON line whenever the detection state changes: {\"time\",\"faceRect\":\n"
     "      {\"x\",\"y\",\"width\",\"height\"} (preview points; null without a face),\"yawAngle\",\"rollAngle\",\n"
     "      \"isHeadCentered\",\"barcodeData\"}; {\"time\",\"card\":{...}} (as kpimage card prints it) or {\"time\",\n"
     "      \"code\"} for each new code text. Card data is redacted and its text shown as \"(card data hidden)\"\n"
     "      unless --show-card-data. Once the head has stayed centred for 0.5 s it takes a still; one whose face\n"
     "      scores under --min-focus (default 40) or --min-brightness (default 70) is refused with\n"
     "      {\"time\",\"refused\":{\"focusScore\",\"brightness\",\"reason\"}} and the capture waits again; a good one\n"
     "      prints {\"time\",\"still\":{\"file\",\n"
     "      \"preview\",\"width\",\"height\",\"focus\",\"focusScore\",\"brightness\",\"face\"}} (the still and the\n"
     "      rendered preview with its overlays are written as PNG into DIR, default ./kpimage-capture);\n"
     "      ends with "
     "{\"summary\":{\"camera\",\"seconds\",\"frames\",\"stills\",\"barcodeData\",\"card\",\"headCenteredSeconds\"}}.\n"
     "      Guidance goes to standard error (--no-guidance: none), with a progress line when it is a terminal.\n"
     "      --record records the camera with the camera-data recorder into DIR (H.264 when available) and adds\n"
     "      \"movie\" to the summary (the file the album wrote; \"\" when lost); --preset picks the session preset\n"
     "      (default 5, 1280x720). Stills are numbered on from the highest still-N.png in DIR. Exit code 1 when a\n"
     "      still or the movie asked for is lost (the reason goes to standard error even with --no-guidance);\n"
     "      Ctrl+C or SIGTERM ends the run cleanly (the movie is finished and saved, the summary printed) with\n"
     "      exit code 130 or 143; a second one stops at once",
     capture});

} // namespace

} // namespace kpcli
