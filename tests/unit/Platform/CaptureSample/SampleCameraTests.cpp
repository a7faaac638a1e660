// SPDX-License-Identifier: MIT
// The sample camera through a real session: frames, late-frame dropping, stills and the simulated controls.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureStillImageOutput.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "KPImage/Platform/NSThread.h"
#include "Platform/Capture/SampleScene.h"
#include "Platform/Vision/MachineCodeReader.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>
#include <vector>

using namespace kp;

namespace {

struct SampleOnly {
    SampleOnly() { AVCaptureDevice::setDiscovery({false, "/dev", true}); }
    ~SampleOnly() { AVCaptureDevice::setDiscovery({}); }
};

AVCaptureDevice::Ref sampleCamera(AVCaptureDevicePosition position) {
    for (const auto& d : AVCaptureDevice::devicesWithMediaType(AVMediaTypeVideo)) {
        if (d->position() == position) {
            return d;
        }
    }
    return nullptr;
}

class Collector final : public AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    /// holdFirst: the first frame stays with the delegate until release().
    explicit Collector(bool holdFirst = false) : _holding(holdFirst) {}
    void captureOutput(const std::shared_ptr<AVCaptureOutput>&, const CMSampleBufferRef& sample,
                       const std::shared_ptr<AVCaptureConnection>&) override {
        std::unique_lock lock(_mutex);
        if (_keep > 0) {
            _frames.push_back(sample);
            --_keep;
        }
        ++_count;
        _maxLive = std::max(_maxLive, CVPixelBufferGetLiveCount());
        _memory.insert(CMSampleBufferGetImageBuffer(sample)->bytes());
        _released.wait(lock, [&] { return !_holding; });
    }
    void release() {
        {
            std::lock_guard lock(_mutex);
            _holding = false;
        }
        _released.notify_all();
    }
    size_t count() const {
        std::lock_guard lock(_mutex);
        return _count;
    }
    std::vector<CMSampleBufferRef> frames() const {
        std::lock_guard lock(_mutex);
        return _frames;
    }
    size_t maxLive() const {
        std::lock_guard lock(_mutex);
        return _maxLive;
    }
    /// How many different pixel memories the frames had.
    size_t memoryCount() const {
        std::lock_guard lock(_mutex);
        return _memory.size();
    }
    void keep(int n) {
        std::lock_guard lock(_mutex);
        _keep = n;
    }

private:
    mutable std::mutex _mutex;
    std::condition_variable _released;
    bool _holding;
    std::vector<CMSampleBufferRef> _frames;
    int _keep = 0;
    size_t _count = 0;
    size_t _maxLive = 0;
    std::set<const uint8_t*> _memory;
};

struct Rig {
    std::shared_ptr<AVCaptureSession> session = AVCaptureSession::create();
    std::shared_ptr<AVCaptureVideoDataOutput> frames = AVCaptureVideoDataOutput::create();
    std::shared_ptr<AVCaptureStillImageOutput> still = AVCaptureStillImageOutput::create();
    dispatch_queue_t queue = dispatch_queue_create("VideoDataOutputQueue", DISPATCH_QUEUE_SERIAL);
    AVCaptureDevice::Ref device;

    Rig(AVCaptureDevicePosition position, const AVCaptureSessionPreset& preset, OSType format,
        const std::shared_ptr<Collector>& delegate) {
        device = sampleCamera(position);
        session->setSessionPreset(preset);
        session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
        frames->setVideoSettings({{kCVPixelBufferPixelFormatTypeKey, format}});
        frames->setSampleBufferDelegate(delegate, queue);
        session->addOutput(frames);
        session->addOutput(still);
    }
    ~Rig() {
        session->stopRunning();
        dispatch_sync(queue, [] {}); // let the last delivery finish
    }
};

// A still taken synchronously (the test waits on the main queue for the completion thread).
std::pair<CMSampleBufferRef, NSErrorRef> takeStill(kptest::ManualMainQueue& main, Rig& rig) {
    struct Result {
        std::mutex m;
        bool done = false;
        CMSampleBufferRef picture;
        NSErrorRef error;
    };
    auto result = std::make_shared<Result>();
    auto connection = rig.still->connectionWithMediaType(AVMediaTypeVideo);
    rig.still->captureStillImageAsynchronouslyFromConnection(
        connection, [result](const CMSampleBufferRef& picture, const NSErrorRef& error) {
            std::lock_guard lock(result->m);
            result->picture = picture;
            result->error = error;
            result->done = true;
        });
    EXPECT_TRUE(main.drainUntil(
        [&] {
            std::lock_guard lock(result->m);
            return result->done;
        },
        60.0));
    std::lock_guard lock(result->m);
    return {result->picture, result->error};
}

double meanLuma(const CVPixelBufferRef& bgra) {
    CVPixelBufferLockBaseAddress(bgra, kCVPixelBufferLock_ReadOnly);
    const auto* base = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(bgra));
    const size_t stride = CVPixelBufferGetBytesPerRow(bgra);
    double sum = 0;
    for (size_t y = 0; y < bgra->height(); y += 4) {
        for (size_t x = 0; x < bgra->width(); x += 4) {
            const uint8_t* p = base + y * stride + x * 4;
            sum += 0.114 * p[0] + 0.587 * p[1] + 0.299 * p[2];
        }
    }
    CVPixelBufferUnlockBaseAddress(bgra, kCVPixelBufferLock_ReadOnly);
    return sum / ((bgra->height() / 4.0) * (bgra->width() / 4.0));
}

} // namespace

TEST(SampleCamera, DeliversFramesOfThePresetInTheRequestedFormatInReusedMemory) {
    SampleOnly only;
    kptest::ManualMainQueue main;
    for (OSType format : {kCVPixelFormatType_32BGRA, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange}) {
        SCOPED_TRACE(format);
        auto delegate = std::make_shared<Collector>();
        delegate->keep(4);
        Rig rig(AVCaptureDevicePositionFront, AVCaptureSessionPreset640x480, format, delegate);
        rig.session->startRunning();
        ASSERT_TRUE(main.drainUntil([&] { return delegate->count() >= 30; }, 60.0));
        rig.session->stopRunning();
        dispatch_sync(rig.queue, [] {});
        // The frames in flight at once and the few kept free: not a new buffer per frame.
        EXPECT_LE(delegate->memoryCount(), 8U) << "of " << delegate->count() << " frames";
        const auto frames = delegate->frames();
        ASSERT_EQ(frames.size(), 4U);
        for (size_t i = 0; i < frames.size(); ++i) {
            const auto pixels = CMSampleBufferGetImageBuffer(frames[i]);
            EXPECT_EQ(CVPixelBufferGetPixelFormatType(pixels), format);
            EXPECT_EQ(CVPixelBufferGetWidth(pixels), 640U);
            EXPECT_EQ(CVPixelBufferGetHeight(pixels), 480U);
            EXPECT_TRUE(CMSampleBufferDataIsReady(frames[i]));
            if (i > 0) {
                EXPECT_GT(CMTimeCompare(CMSampleBufferGetPresentationTimeStamp(frames[i]),
                                        CMSampleBufferGetPresentationTimeStamp(frames[i - 1])),
                          0);
            }
        }
    }
}

TEST(SampleCamera, ASlowDelegateMakesTheOutputDropFramesNeverQueueThem) {
    SampleOnly only;
    kptest::ManualMainQueue main;
    auto delegate = std::make_shared<Collector>(true);
    Rig rig(AVCaptureDevicePositionFront, AVCaptureSessionPreset640x480, kCVPixelFormatType_32BGRA, delegate);
    const size_t liveBefore = CVPixelBufferGetLiveCount();
    rig.session->startRunning();
    // The delegate sits on its first frame while the camera makes ten more.
    ASSERT_TRUE(main.drainUntil([&] { return rig.frames->frameCounts().produced >= 11; }, 60.0));
    const auto busy = rig.frames->frameCounts();
    EXPECT_EQ(busy.delivered, 0U);
    EXPECT_EQ(busy.dropped + 1, busy.produced) << "every frame but the one with the delegate was dropped";
    EXPECT_EQ(delegate->count(), 1U);
    delegate->release();
    ASSERT_TRUE(main.drainUntil([&] { return delegate->count() >= 3; }, 60.0));
    rig.session->stopRunning();
    dispatch_sync(rig.queue, [] {});
    const auto counts = rig.frames->frameCounts();
    EXPECT_EQ(counts.produced, counts.delivered + counts.dropped);
    EXPECT_EQ(counts.delivered, delegate->count());
    // One frame with the delegate, one being rendered, a few on their way out: never a backlog.
    EXPECT_LE(delegate->maxLive(), liveBefore + 4);
}

TEST(SampleCamera, StillIsAPictureOfTheSceneAndTheTorchBrightensIt) {
    SampleOnly only;
    kptest::ManualMainQueue main;
    auto delegate = std::make_shared<Collector>();
    Rig rig(AVCaptureDevicePositionBack, AVCaptureSessionPreset1920x1080,
            kCVPixelFormatType_420YpCbCr8BiPlanarFullRange, delegate);

    // Before the session runs, a still fails with an error and no picture.
    auto [none, notRunning] = takeStill(main, rig);
    EXPECT_EQ(none, nullptr);
    ASSERT_TRUE(notRunning);
    EXPECT_EQ(notRunning->code(), AVErrorSessionNotRunning);

    rig.session->startRunning();
    auto [picture, error] = takeStill(main, rig);
    ASSERT_TRUE(picture) << (error ? error->localizedDescription() : "");
    EXPECT_FALSE(error);
    const auto pixels = CMSampleBufferGetImageBuffer(picture);
    ASSERT_EQ(CVPixelBufferGetPixelFormatType(pixels), kCVPixelFormatType_32BGRA) << "still output default is BGRA";
    EXPECT_EQ(CVPixelBufferGetWidth(pixels), 1920U);

    // The scene's ID card carries the sample PDF417 code: the still must show it readably (the card tilts, which
    // the metadata output's code reader copes with).
    kp::LumaImage luma;
    ASSERT_TRUE(kp::LumaImageFromPixelBuffer(pixels, luma));
    const kp::MachineCodeReader reader({AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode});
    bool pdf417 = false;
    bool qr = false;
    for (const auto& code : reader.read(luma)) {
        pdf417 |= code.type == AVMetadataObjectTypePDF417Code && code.text == SampleScene::pdf417Text();
        qr |= code.type == AVMetadataObjectTypeQRCode && code.text == SampleScene::qrText();
    }
    EXPECT_TRUE(pdf417);
    EXPECT_TRUE(qr);

    const double plain = meanLuma(pixels);
    ASSERT_TRUE(rig.device->lockForConfiguration());
    ASSERT_TRUE(rig.device->setTorchModeOnWithLevel(1.0F));
    rig.device->unlockForConfiguration();
    auto [lit, litError] = takeStill(main, rig);
    ASSERT_TRUE(lit);
    EXPECT_GT(meanLuma(CMSampleBufferGetImageBuffer(lit)), plain + 30);

    // A still pending when the session stops fails.
    rig.session->stopRunning();
    auto [stopped, stopError] = takeStill(main, rig);
    EXPECT_EQ(stopped, nullptr);
    EXPECT_TRUE(stopError);
}
