// SPDX-License-Identifier: MIT
// The capture session as a state machine (every operation in every state has its documented result), its
// runtime failures, and the still output: digital zoom, a camera without frames.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureMetadataOutput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureStillImageOutput.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <mutex>
#include <string>

using namespace kp;
using kptest::FakeCaptureDevice;

namespace {

enum class State { NotRunning, Running, Reconfiguring }; // 0, 1, 2 in the traces

struct World {
    std::shared_ptr<FakeCaptureDevice> camera = std::make_shared<FakeCaptureDevice>("cam-a");
    std::shared_ptr<FakeCaptureDevice> other = std::make_shared<FakeCaptureDevice>("cam-b");
    AVCaptureDevice::Ref device = std::make_shared<AVCaptureDevice>(camera, AVCaptureDevicePositionFront);
    AVCaptureDevice::Ref otherDevice = std::make_shared<AVCaptureDevice>(other, AVCaptureDevicePositionBack);
    std::shared_ptr<AVCaptureSession> session = AVCaptureSession::create();
    std::shared_ptr<AVCaptureDeviceInput> input = AVCaptureDeviceInput::deviceInputWithDevice(device);
    std::shared_ptr<AVCaptureVideoDataOutput> frames = AVCaptureVideoDataOutput::create();
    std::shared_ptr<AVCaptureStillImageOutput> still = AVCaptureStillImageOutput::create();

    World(State run, bool withInput, bool withStill = false) {
        session->addOutput(frames);
        if (withStill) {
            session->addOutput(still);
        }
        if (withInput) {
            session->addInput(input);
        }
        if (run != State::NotRunning) {
            session->startRunning();
        }
        if (run == State::Reconfiguring) {
            session->beginConfiguration();
        }
    }
};

// A still request's outcome, filled in by the completion handler.
struct Outcome {
    std::mutex mutex;
    bool done = false;
    CMSampleBufferRef picture;
    NSErrorRef error;
};

std::shared_ptr<Outcome> request(const World& w, const std::shared_ptr<AVCaptureConnection>& connection) {
    auto outcome = std::make_shared<Outcome>();
    w.still->captureStillImageAsynchronouslyFromConnection(
        connection, [outcome](const CMSampleBufferRef& picture, const NSErrorRef& error) {
            std::lock_guard lock(outcome->mutex);
            outcome->picture = picture;
            outcome->error = error;
            outcome->done = true;
        });
    return outcome;
}

bool finished(const std::shared_ptr<Outcome>& outcome) {
    std::lock_guard lock(outcome->mutex);
    return outcome->done;
}

// The error of a request that failed without a picture.
int64_t failure(const std::shared_ptr<Outcome>& outcome) {
    std::lock_guard lock(outcome->mutex);
    EXPECT_FALSE(outcome->picture);
    return outcome->error ? outcome->error->code() : 0;
}

// A 64 x 48 BGRA frame, black with a white centre of 32 x 24.
CVPixelBufferRef centredSquare() {
    CVPixelBufferRef pixels;
    EXPECT_EQ(CVPixelBufferCreate(64, 48, kCVPixelFormatType_32BGRA, &pixels), kCVReturnSuccess);
    for (size_t y = 0; y < 48; ++y) {
        uint8_t* row = pixels->bytes() + y * pixels->plane(0).bytesPerRow;
        for (size_t x = 0; x < 64; ++x) {
            const bool inside = x >= 16 && x < 48 && y >= 12 && y < 36;
            std::memset(row + x * 4, inside ? 255 : 0, 3);
            row[x * 4 + 3] = 255;
        }
    }
    return pixels;
}

int green(const CVPixelBufferRef& pixels, size_t x, size_t y) {
    CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    const auto* base = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(pixels));
    const int value = base[y * CVPixelBufferGetBytesPerRow(pixels) + x * 4 + 1];
    CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
    return value;
}

} // namespace

TEST(CaptureSessionStates, EveryOperationInEveryState) {
    kptest::ManualMainQueue main;
    for (State run : {State::NotRunning, State::Running, State::Reconfiguring}) {
        for (bool withInput : {true, false}) {
            SCOPED_TRACE(std::to_string(static_cast<int>(run)) + (withInput ? " with input" : " without input"));
            const bool running = run != State::NotRunning;
            const bool configuring = run == State::Reconfiguring;
            const bool streaming = running && withInput; // a reconfiguring session was started before

            { // The state itself.
                World w(run, withInput);
                EXPECT_EQ(w.session->isRunning(), running);
                EXPECT_EQ(w.session->isConfiguring(), configuring);
                EXPECT_EQ(w.camera->isStreaming(), streaming);
                EXPECT_EQ(w.session->inputs().size(), withInput ? 1U : 0U);
                EXPECT_EQ(w.frames->connectionWithMediaType(AVMediaTypeVideo) != nullptr, withInput)
                    << "an output has a connection only while its session has a camera input";
            }
            { // startRunning: running; the camera streams at once, or at the commit while reconfiguring.
                World w(run, withInput);
                w.session->startRunning();
                EXPECT_TRUE(w.session->isRunning());
                EXPECT_EQ(w.camera->isStreaming(), withInput);
                w.session->commitConfiguration();
                EXPECT_EQ(w.camera->isStreaming(), withInput);
            }
            { // stopRunning: stopped and the camera off at once, even inside a transaction.
                World w(run, withInput);
                w.session->stopRunning();
                EXPECT_FALSE(w.session->isRunning());
                w.session->commitConfiguration();
                EXPECT_FALSE(w.camera->isStreaming());
            }
            { // canAddInput / addInput of another camera: only into a session without a camera input.
                World w(run, withInput);
                auto second = AVCaptureDeviceInput::deviceInputWithDevice(w.otherDevice);
                EXPECT_EQ(w.session->canAddInput(second), !withInput);
                EXPECT_EQ(w.session->canAddInput(w.input), !withInput) << "an input in a session cannot join again";
                w.session->addInput(second);
                ASSERT_EQ(w.session->inputs().size(), 1U);
                EXPECT_EQ(w.session->inputs()[0], withInput ? w.input : second);
                EXPECT_EQ(w.other->isStreaming(), !withInput && run == State::Running);
                w.session->commitConfiguration();
                EXPECT_EQ(w.other->isStreaming(), !withInput && running);
            }
            { // removeInput: the session keeps running without a camera; the camera stops (at the commit).
                World w(run, withInput);
                w.session->removeInput(w.input);
                EXPECT_TRUE(w.session->inputs().empty());
                EXPECT_EQ(w.session->isRunning(), running);
                EXPECT_EQ(w.camera->isStreaming(), streaming && configuring);
                w.session->commitConfiguration();
                EXPECT_FALSE(w.camera->isStreaming());
                // The removed input may join a session again.
                EXPECT_TRUE(w.session->canAddInput(w.input));
            }
            { // Outputs: one of each kind.
                World w(run, withInput);
                EXPECT_FALSE(w.session->canAddOutput(AVCaptureVideoDataOutput::create()));
                EXPECT_TRUE(w.session->canAddOutput(w.still));
                w.session->addOutput(w.still);
                EXPECT_EQ(w.still->session(), w.session);
                w.session->removeOutput(w.frames);
                EXPECT_EQ(w.frames->session(), nullptr);
                w.session->commitConfiguration();
                // The still output alone keeps the camera streaming while running with an input.
                EXPECT_EQ(w.camera->isStreaming(), withInput && running);
            }
            { // Presets: known presets apply (at the commit when reconfiguring); unknown ones are refused.
                World w(run, withInput);
                EXPECT_FALSE(w.session->canSetSessionPreset("AVCaptureSessionPreset352x288"));
                w.session->setSessionPreset("AVCaptureSessionPreset352x288");
                EXPECT_EQ(w.session->sessionPreset(), AVCaptureSessionPresetHigh);
                const int startsBefore = w.camera->startCount();
                w.camera->setFormat({32, 24});
                ASSERT_TRUE(w.session->canSetSessionPreset(AVCaptureSessionPreset640x480));
                w.session->setSessionPreset(AVCaptureSessionPreset640x480);
                EXPECT_EQ(w.session->sessionPreset(), AVCaptureSessionPreset640x480);
                EXPECT_EQ(w.camera->startCount(), startsBefore + (streaming && !configuring ? 1 : 0));
                w.session->commitConfiguration();
                if (withInput && running) {
                    EXPECT_EQ(w.camera->streamRequest().format, (CaptureFormat{32, 24}));
                }
            }
            { // commitConfiguration without a transaction is ignored; transactions nest.
                World w(run, withInput);
                w.session->commitConfiguration();
                w.session->beginConfiguration();
                w.session->beginConfiguration();
                w.session->commitConfiguration();
                EXPECT_TRUE(w.session->isConfiguring());
                w.session->commitConfiguration();
                EXPECT_FALSE(w.session->isConfiguring());
            }
        }
    }
}

TEST(CaptureSessionStates, RuntimeFailuresStopTheSessionAndAreReportedOnTheMainQueue) {
    kptest::ManualMainQueue main;
    std::vector<int64_t> errors;
    { // The camera refuses to start.
        World w(State::NotRunning, true);
        w.session->setRuntimeErrorHandler([&](const NSErrorRef& e) { errors.push_back(e->code()); });
        w.camera->failNextStart(
            NSError::errorWithDomain(AVFoundationErrorDomain, AVErrorDeviceAlreadyUsedByAnotherSession));
        w.session->startRunning();
        EXPECT_FALSE(w.session->isRunning());
        EXPECT_TRUE(errors.empty()) << "reported through the main queue, not from inside startRunning";
        main.drain();
        EXPECT_EQ(errors, (std::vector<int64_t>{AVErrorDeviceAlreadyUsedByAnotherSession}));
    }
    errors.clear();
    { // The camera vanishes mid-stream.
        World w(State::Running, true);
        w.session->setRuntimeErrorHandler([&](const NSErrorRef& e) { errors.push_back(e->code()); });
        ASSERT_TRUE(w.camera->isStreaming());
        w.camera->vanish();
        ASSERT_TRUE(main.drainUntil([&] { return !errors.empty(); }));
        EXPECT_EQ(errors, (std::vector<int64_t>{AVErrorDeviceWasDisconnected}));
        EXPECT_FALSE(w.session->isRunning());
        EXPECT_FALSE(w.device->isConnected());
        EXPECT_FALSE(w.session->canAddInput(AVCaptureDeviceInput::deviceInputWithDevice(w.device)));
        NSErrorRef error;
        EXPECT_EQ(AVCaptureDeviceInput::deviceInputWithDevice(w.device, &error), nullptr);
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), AVErrorDeviceNotConnected);
    }
}

TEST(CaptureSessionStates, OutputsOfferWhatTheCameraHasOnlyWithAnInput) {
    World w(State::NotRunning, false);
    auto metadata = AVCaptureMetadataOutput::create();
    w.session->addOutput(metadata);
    EXPECT_TRUE(metadata->availableMetadataObjectTypes().empty());
    metadata->setMetadataObjectTypes({AVMetadataObjectTypeFace});
    EXPECT_TRUE(metadata->metadataObjectTypes().empty()) << "types not available are ignored";
    w.session->addInput(w.input);
    metadata->setMetadataObjectTypes(
        {AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeFace, AVMetadataObjectTypePDF417Code, "unknown"});
    EXPECT_EQ(metadata->metadataObjectTypes(),
              (std::vector<AVMetadataObjectType>{AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeFace}));
}

TEST(StillImageOutput, ScaleAndCropFactorTakesTheCentreOfTheFrame) {
    kptest::ManualMainQueue main;
    World w(State::Running, true, true);
    auto connection = w.still->connectionWithMediaType(AVMediaTypeVideo);
    ASSERT_TRUE(connection);
    const auto frame = centredSquare();
    struct Case {
        double factor;
        int corner; // green of the picture's corner pixels
    };
    // The picture keeps the frame's size: the centre 1/factor of it, enlarged.
    for (const Case& c : {Case{1.0, 0}, Case{2.0, 255}, Case{1.5, 0}}) {
        SCOPED_TRACE(c.factor);
        connection->setVideoScaleAndCropFactor(c.factor);
        auto outcome = request(w, connection);
        EXPECT_TRUE(w.still->isCapturingStillImage());
        ASSERT_TRUE(main.drainUntil(
            [&] {
                w.camera->pushFrame(frame); // the request takes the first frame that starts after it
                return finished(outcome);
            },
            60.0));
        std::lock_guard lock(outcome->mutex);
        ASSERT_TRUE(outcome->picture) << (outcome->error ? outcome->error->localizedDescription() : "");
        const auto pixels = CMSampleBufferGetImageBuffer(outcome->picture);
        ASSERT_EQ(CVPixelBufferGetWidth(pixels), 64U);
        ASSERT_EQ(CVPixelBufferGetHeight(pixels), 48U);
        EXPECT_EQ(green(pixels, 0, 0), c.corner);
        EXPECT_EQ(green(pixels, 32, 24), 255);
        EXPECT_EQ(green(pixels, 63, 47), c.corner);
    }
}

TEST(StillImageOutput, ACameraWithoutFramesTimesOutWithNoDataCaptured) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the time-out is a fixed 5 s: the plain build waits for it";
#endif
    kptest::ManualMainQueue main;
    World w(State::Running, true, true);
    auto outcome = request(w, w.still->connectionWithMediaType(AVMediaTypeVideo));
    EXPECT_TRUE(w.still->isCapturingStillImage());
    ASSERT_TRUE(main.drainUntil([&] { return finished(outcome); }, 60.0));
    EXPECT_EQ(failure(outcome), AVErrorNoDataCaptured);
    EXPECT_FALSE(w.still->isCapturingStillImage());
    EXPECT_EQ(w.camera->stillRequests(), 1) << "the camera was told (a flash may fire)";
}
