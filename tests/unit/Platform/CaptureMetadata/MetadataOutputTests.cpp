// SPDX-License-Identifier: MIT
// The metadata output in running sessions: the delivery contract (one batch per analysed frame with objects, one
// empty batch when they go, nothing after stopRunning or removal) and the newest-frame rule.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureMetadataOutput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/NSThread.h"
#include "support/CodePictures.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

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
    size_t count() const { return batches().size(); }

private:
    mutable std::mutex _mutex;
    std::vector<Batch> _batches;
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
    std::shared_ptr<Recorder> recorder;

    explicit FakeRig(std::shared_ptr<Recorder> shared = std::make_shared<Recorder>()) : recorder(std::move(shared)) {
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

CVPixelBufferRef centredCode() {
    return frameOf(kptest::renderCode(kptest::CodeKind::QR, kText, 640, 480, {320, 240, 0, 5}).image);
}

} // namespace

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

    for (const char frame : std::string("CCEEEC")) { // C: the code, E: nothing
        rig.pushAndWait(frame == 'C' ? withCode : empty);
    }
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
    const CVPixelBufferRef withCode = centredCode();
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

TEST(CaptureMetadataOutput, DeliversNothingAfterStopRunningOrRemoval) {
    kptest::ManualMainQueue main;
    const CVPixelBufferRef withCode = centredCode();
    auto recorder = std::make_shared<Recorder>();
    for (int round = 0; round < 4; ++round) {
        SCOPED_TRACE(round);
        FakeRig rig(recorder);
        rig.session->startRunning();
        const size_t before = recorder->count();
        ASSERT_TRUE(main.drainUntil([&] {
            rig.camera->pushFrame(withCode);
            return recorder->count() > before;
        }));
        // Batches in flight when the session stops or the output leaves it (which stops the camera) are dropped.
        rig.camera->pushFrame(withCode);
        if (round % 2 == 0) {
            rig.session->stopRunning();
        } else {
            rig.session->removeOutput(rig.output);
        }
        EXPECT_FALSE(rig.camera->pushFrame(withCode));
        NSThread::sleepForTimeInterval(0.05);
        main.drain();
    }
    for (const auto& batch : recorder->batches()) {
        EXPECT_TRUE(batch.sessionRunning);
    }
    // Without a delegate nothing is analysed.
    FakeRig rig;
    rig.output->setMetadataObjectsDelegate({}, dispatch_get_main_queue());
    rig.session->startRunning();
    rig.camera->pushFrame(withCode);
    NSThread::sleepForTimeInterval(0.05);
    EXPECT_EQ(rig.output->detectionCounts().analysed, 0U);
}
