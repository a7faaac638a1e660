// SPDX-License-Identifier: MIT
// The metadata output in running sessions: available types, the delivery contract (one batch per analysed frame
// with objects, one empty batch when they go, nothing after stopRunning, whichever thread stops), the newest-frame
// rule, and the sample camera's scripted timeline.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureMetadataOutput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/NSThread.h"
#include "Platform/Capture/SampleScene.h"
#include "support/CodePictures.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

using namespace kp;

namespace {

// Records every batch, with whether its session was still running when it arrived.
class Recorder final : public AVCaptureMetadataOutputObjectsDelegate {
public:
    struct Batch {
        std::vector<std::shared_ptr<AVMetadataObject>> objects;
        bool sessionRunning = false;
    };
    void captureOutput(const std::shared_ptr<AVCaptureOutput>& output,
                       const std::vector<std::shared_ptr<AVMetadataObject>>& objects,
                       const std::shared_ptr<AVCaptureConnection>& connection) override {
        EXPECT_TRUE(NSThread::isMainThread());
        EXPECT_TRUE(connection != nullptr);
        auto session = output->session();
        std::lock_guard lock(_mutex);
        _batches.push_back({objects, session && session->isRunning()});
    }
    std::vector<Batch> batches() const {
        std::lock_guard lock(_mutex);
        return _batches;
    }
    size_t count() const {
        std::lock_guard lock(_mutex);
        return _batches.size();
    }

private:
    mutable std::mutex _mutex;
    std::vector<Batch> _batches;
};

// Takes a while over each batch, so that a stop from another thread meets a call in progress; counts the calls
// that were still running when the stop had returned. Runs on the main thread, which the test drains.
class SlowRecorder final : public AVCaptureMetadataOutputObjectsDelegate {
public:
    void captureOutput(const std::shared_ptr<AVCaptureOutput>& /*output*/,
                       const std::vector<std::shared_ptr<AVMetadataObject>>& /*objects*/,
                       const std::shared_ptr<AVCaptureConnection>& /*connection*/) override {
        inCall = true;
        NSThread::sleepForTimeInterval(0.03);
        if (askedSession) {
            // A delegate that asks the session, which a stop on another thread holds meanwhile.
            askedSession->isRunning();
        }
        if (stopReturned) {
            ++lateCalls;
        }
        ++calls;
        inCall = false;
    }

    std::atomic<bool> inCall{false};
    std::atomic<bool> stopReturned{false};
    std::atomic<int> calls{0};
    std::atomic<int> lateCalls{0};
    std::shared_ptr<AVCaptureSession> askedSession; // set and read on the main thread only
};

// A 'BGRA' frame of a grey picture.
CVPixelBufferRef frameOf(const LumaImage& picture) {
    CVPixelBufferRef pixels;
    if (CVPixelBufferCreate(picture.width, picture.height, kCVPixelFormatType_32BGRA, &pixels) != kCVReturnSuccess) {
        return nullptr;
    }
    const size_t stride = pixels->plane(0).bytesPerRow;
    for (int y = 0; y < picture.height; ++y) {
        uint8_t* row = pixels->bytes() + static_cast<size_t>(y) * stride;
        for (int x = 0; x < picture.width; ++x) {
            const uint8_t v = picture.row(y)[x];
            row[4 * x] = row[4 * x + 1] = row[4 * x + 2] = v;
            row[4 * x + 3] = 255;
        }
    }
    return pixels;
}

struct FakeRig {
    std::shared_ptr<kptest::FakeCaptureDevice> camera = std::make_shared<kptest::FakeCaptureDevice>("meta");
    AVCaptureDevice::Ref device = std::make_shared<AVCaptureDevice>(camera, AVCaptureDevicePositionBack);
    std::shared_ptr<AVCaptureSession> session = AVCaptureSession::create();
    std::shared_ptr<AVCaptureMetadataOutput> output = AVCaptureMetadataOutput::create();
    std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();

    FakeRig() {
        camera->setFormat({640, 480});
        session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
        session->addOutput(output);
        output->setMetadataObjectsDelegate(recorder, dispatch_get_main_queue());
        output->setMetadataObjectTypes({AVMetadataObjectTypeQRCode});
    }
    ~FakeRig() { session->stopRunning(); }

    // Pushes a frame and waits until the worker has analysed it (so none replaces another).
    void pushAndWait(const CVPixelBufferRef& frame) {
        const uint64_t before = output->detectionCounts().analysed;
        ASSERT_TRUE(camera->pushFrame(frame));
        for (int i = 0; i < 2000 && output->detectionCounts().analysed == before; ++i) {
            NSThread::sleepForTimeInterval(0.005);
        }
        ASSERT_GT(output->detectionCounts().analysed, before);
    }
};

const std::string kText = "METADATA BATCH 7";

} // namespace

TEST(CaptureMetadataOutput, OffersFacesAndEveryCodeTypeTheReaderSupports) {
    FakeRig rig;
    const auto types = rig.output->availableMetadataObjectTypes();
    for (const auto& t :
         {AVMetadataObjectTypeFace, AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode,
          AVMetadataObjectTypeEAN13Code, AVMetadataObjectTypeEAN8Code, AVMetadataObjectTypeUPCECode,
          AVMetadataObjectTypeCode39Code, AVMetadataObjectTypeCode93Code, AVMetadataObjectTypeCode128Code,
          AVMetadataObjectTypeITF14Code, AVMetadataObjectTypeInterleaved2of5Code, AVMetadataObjectTypeAztecCode,
          AVMetadataObjectTypeDataMatrixCode}) {
        EXPECT_NE(std::find(types.begin(), types.end(), t), types.end()) << t;
    }
    EXPECT_EQ(rig.output->metadataObjectTypes(), (std::vector<AVMetadataObjectType>{AVMetadataObjectTypeQRCode}));
}

TEST(CaptureMetadataOutput, DeliversABatchPerFrameWithObjectsAndOneEmptyBatchWhenTheyGo) {
    kptest::ManualMainQueue main;
    FakeRig rig;
    const auto code = kptest::renderCode(kptest::CodeKind::QR, kText, 640, 480, {400, 200, 90, 5});
    const CVPixelBufferRef withCode = frameOf(code.image);
    LumaImage blank;
    blank.resize(640, 480);
    std::fill(blank.pixels.begin(), blank.pixels.end(), uint8_t{128});
    const CVPixelBufferRef empty = frameOf(blank);
    rig.session->startRunning();

    rig.pushAndWait(withCode);
    rig.pushAndWait(withCode);
    rig.pushAndWait(empty);
    rig.pushAndWait(empty);
    rig.pushAndWait(empty);
    rig.pushAndWait(withCode);
    ASSERT_TRUE(main.drainUntil([&] { return rig.recorder->count() >= 4; }));
    main.drain();
    const auto batches = rig.recorder->batches();
    ASSERT_EQ(batches.size(), 4u);
    const size_t sizes[] = {1, 1, 0, 1};
    for (size_t i = 0; i < 4; ++i) {
        ASSERT_EQ(batches[i].objects.size(), sizes[i]) << i;
    }
    const auto* qr = dynamic_cast<const AVMetadataMachineReadableCodeObject*>(batches[0].objects[0].get());
    ASSERT_NE(qr, nullptr);
    EXPECT_EQ(qr->type(), AVMetadataObjectTypeQRCode);
    EXPECT_EQ(qr->stringValue(), kText);
    EXPECT_TRUE(CMTIME_IS_VALID(qr->time()));
    // Normalised corners in upright order, whatever the code's turn (here a quarter turn clockwise).
    ASSERT_EQ(qr->corners().size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        CGPoint p;
        ASSERT_TRUE(CGPointMakeWithDictionaryRepresentation(qr->corners()[i], &p));
        EXPECT_NEAR(p.x, code.corners[i].x / 640, 0.02) << i;
        EXPECT_NEAR(p.y, code.corners[i].y / 480, 0.02) << i;
    }
    const CGRect b = qr->bounds();
    EXPECT_GT(b.size.width, 0);
    EXPECT_LE(b.origin.x + b.size.width, 1.0);
}

TEST(CaptureMetadataOutput, AnalysesTheNewestFrameAndNeverQueuesOldOnes) {
    kptest::ManualMainQueue main;
    FakeRig rig;
    const CVPixelBufferRef withCode =
        frameOf(kptest::renderCode(kptest::CodeKind::QR, kText, 640, 480, {320, 240, 0, 5}).image);
    rig.session->startRunning();
    constexpr int kPushed = 40;
    for (int i = 0; i < kPushed; ++i) {
        ASSERT_TRUE(rig.camera->pushFrame(withCode));
    }
    // Frames that arrive while the worker is busy replace the waiting one.
    ASSERT_TRUE(main.drainUntil([&] { return rig.recorder->count() >= 1; }));
    NSThread::sleepForTimeInterval(0.3);
    main.drain();
    const auto counts = rig.output->detectionCounts();
    EXPECT_LT(counts.analysed, static_cast<uint64_t>(kPushed));
    EXPECT_GE(counts.analysed, 1u);
    EXPECT_EQ(rig.recorder->count(), counts.batches);
    EXPECT_EQ(counts.batches, counts.analysed);
}

TEST(CaptureMetadataOutput, AnalysesAtMostFifteenFramesASecond) {
    // A camera far faster than the worker's rate: the worker rests between analyses, whatever arrives meanwhile.
    kptest::ManualMainQueue main;
    FakeRig rig;
    const CVPixelBufferRef withCode =
        frameOf(kptest::renderCode(kptest::CodeKind::QR, kText, 640, 480, {320, 240, 0, 5}).image);
    rig.session->startRunning();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 100; ++i) {
        rig.camera->pushFrame(withCode);
        NSThread::sleepForTimeInterval(0.005);
    }
    const uint64_t analysed = rig.output->detectionCounts().analysed;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    rig.session->stopRunning();
    main.drain();
    EXPECT_GE(analysed, 1u);
    EXPECT_LE(static_cast<double>(analysed), 15.0 * seconds + 1.0) << "in " << seconds << " s";
}

TEST(CaptureMetadataOutput, StopsPromptlyAndDeliversNothingAfterStopRunning) {
    kptest::ManualMainQueue main;
    FakeRig rig;
    const CVPixelBufferRef withCode =
        frameOf(kptest::renderCode(kptest::CodeKind::QR, kText, 640, 480, {320, 240, 0, 5}).image);
    for (int round = 0; round < 5; ++round) {
        rig.session->startRunning();
        const size_t before = rig.recorder->count();
        ASSERT_TRUE(main.drainUntil([&] {
            rig.camera->pushFrame(withCode);
            return rig.recorder->count() > before;
        }));
        // Batches in flight when the session stops are dropped.
        rig.camera->pushFrame(withCode);
        rig.session->stopRunning();
        EXPECT_FALSE(rig.camera->pushFrame(withCode));
        NSThread::sleepForTimeInterval(0.05);
        main.drain();
    }
    for (const auto& batch : rig.recorder->batches()) {
        EXPECT_TRUE(batch.sessionRunning);
    }
    // Without a delegate nothing is analysed.
    rig.output->setMetadataObjectsDelegate({}, dispatch_get_main_queue());
    rig.session->startRunning();
    const uint64_t analysed = rig.output->detectionCounts().analysed;
    rig.camera->pushFrame(withCode);
    NSThread::sleepForTimeInterval(0.05);
    EXPECT_EQ(rig.output->detectionCounts().analysed, analysed);
}

TEST(CaptureMetadataOutput, StopFromAnotherThreadEndsDeliveryBeforeItReturns) {
    kptest::ManualMainQueue main;
    FakeRig rig;
    auto slow = std::make_shared<SlowRecorder>();
    rig.output->setMetadataObjectsDelegate(slow, dispatch_get_main_queue());
    const CVPixelBufferRef withCode =
        frameOf(kptest::renderCode(kptest::CodeKind::QR, kText, 640, 480, {320, 240, 0, 5}).image);
    constexpr int kRounds = 4;
    for (int round = 0; round < kRounds; ++round) {
        // The last round's delegate asks the stopping session: the stop must not wait for it for ever.
        const bool asking = round == kRounds - 1;
        slow->askedSession = asking ? rig.session : nullptr;
        slow->stopReturned = false;
        const int lateBefore = slow->lateCalls;
        rig.session->startRunning();
        std::atomic<bool> stopped{false};
        std::thread stopper([&] {
            // Frames until a batch is being delivered on the main thread, then the stop.
            for (int i = 0; i < 2000 && !slow->inCall; ++i) {
                rig.camera->pushFrame(withCode);
                NSThread::sleepForTimeInterval(0.005);
            }
            rig.session->stopRunning();
            slow->stopReturned = true;
            stopped = true;
        });
        EXPECT_TRUE(main.drainUntil([&] { return stopped.load(); })) << "round " << round;
        stopper.join();
        NSThread::sleepForTimeInterval(0.05);
        main.drain();
        if (!asking) {
            EXPECT_EQ(slow->lateCalls, lateBefore)
                << "a batch was delivered after stopRunning returned, round " << round;
        }
    }
    EXPECT_GE(slow->calls, kRounds);
    slow->askedSession = nullptr;
}

TEST(CaptureMetadataOutput, OutputReleasedWhileBatchesAreInFlight) {
    kptest::ManualMainQueue main;
    const CVPixelBufferRef withCode =
        frameOf(kptest::renderCode(kptest::CodeKind::QR, kText, 640, 480, {320, 240, 0, 5}).image);
    auto recorder = std::make_shared<Recorder>();
    for (int round = 0; round < 3; ++round) {
        FakeRig rig;
        rig.output->setMetadataObjectsDelegate(recorder, dispatch_get_main_queue());
        rig.session->startRunning();
        for (int i = 0; i < 5; ++i) {
            rig.camera->pushFrame(withCode);
            NSThread::sleepForTimeInterval(0.01);
        }
        rig.session->removeOutput(rig.output);
        // Without outputs the session stops its camera.
        EXPECT_FALSE(rig.camera->pushFrame(withCode));
    }
    NSThread::sleepForTimeInterval(0.05);
    main.drain();
    // Batches of a removed output that were still in flight are dropped: every one delivered came while its
    // output was in a running session.
    for (const auto& batch : recorder->batches()) {
        EXPECT_TRUE(batch.sessionRunning);
    }
}

TEST(CaptureMetadataOutput, SampleCameraTimelineReportsTheScriptedEvents) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    // The script runs in real time: instrumented, the detectors see too few frames of each scripted moment.
    GTEST_SKIP() << "the sample camera's timeline needs detectors at full speed";
#endif
    kptest::ManualMainQueue main;
    AVCaptureDevice::setDiscovery({false, "/dev", true});
    AVCaptureDevice::Ref camera;
    for (const auto& d : AVCaptureDevice::devicesWithMediaType(AVMediaTypeVideo)) {
        if (d->position() == AVCaptureDevicePositionFront) {
            camera = d;
        }
    }
    ASSERT_NE(camera, nullptr);
    auto session = AVCaptureSession::create();
    session->setSessionPreset(AVCaptureSessionPreset1280x720);
    session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(camera));
    auto output = AVCaptureMetadataOutput::create();
    session->addOutput(output);
    auto recorder = std::make_shared<Recorder>();
    output->setMetadataObjectsDelegate(recorder, dispatch_get_main_queue());
    output->setMetadataObjectTypes(
        {AVMetadataObjectTypeFace, AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode});

    // Events in the order the timeline scripts them: the face and both codes, the head tilted by 30, the face gone.
    enum Step { kFaceAndCodes, kRoll30, kFaceGone, kDone };
    int step = kFaceAndCodes;
    bool sawPdf = false, sawQr = false, sawFace = false;
    NSInteger firstID = 0;
    size_t seen = 0;
    session->startRunning();
    const bool finished = main.drainUntil(
        [&] {
            const auto batches = recorder->batches();
            for (; seen < batches.size() && step != kDone; ++seen) {
                const auto& objects = batches[seen].objects;
                const AVMetadataFaceObject* face = nullptr;
                for (const auto& o : objects) {
                    if (const auto* f = dynamic_cast<const AVMetadataFaceObject*>(o.get())) {
                        face = f;
                    } else if (const auto* c = dynamic_cast<const AVMetadataMachineReadableCodeObject*>(o.get())) {
                        sawPdf |= c->type() == AVMetadataObjectTypePDF417Code &&
                                  c->stringValue() == SampleScene::pdf417Text();
                        sawQr |= c->type() == AVMetadataObjectTypeQRCode && c->stringValue() == SampleScene::qrText();
                    }
                }
                if (step == kFaceAndCodes && face != nullptr && !sawFace) {
                    sawFace = true;
                    firstID = face->faceID();
                    EXPECT_TRUE(face->hasRollAngle());
                    EXPECT_EQ(face->rollAngle(), 0.0);
                }
                if (step == kFaceAndCodes && sawFace && sawPdf && sawQr) {
                    step = kRoll30;
                }
                if (step == kRoll30 && face != nullptr && face->hasRollAngle() && face->rollAngle() == 30.0) {
                    EXPECT_EQ(face->faceID(), firstID) << "the tilting head keeps its ID";
                    step = kFaceGone;
                }
                if (step == kFaceGone && face == nullptr) {
                    step = kDone;
                }
            }
            return step == kDone;
        },
        SampleScene::kFaceAbsentUntil + 3.0);
    session->stopRunning();
    AVCaptureDevice::setDiscovery({});
    EXPECT_TRUE(finished) << "stopped at step " << step << " (face " << sawFace << ", PDF417 " << sawPdf << ", QR "
                          << sawQr << ") after " << seen << " batches";
}
