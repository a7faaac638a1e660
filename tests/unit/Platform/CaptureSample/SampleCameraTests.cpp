// SPDX-License-Identifier: MIT
// The sample camera through a real session: frames, late-frame dropping, stills and the simulated torch.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureStillImageOutput.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "Platform/Capture/SampleScene.h"
#include "Platform/Vision/MachineCodeReader.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <numeric>
#include <set>

using namespace kp;

namespace {

class Collector final : public AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    void captureOutput(const std::shared_ptr<AVCaptureOutput>&, const CMSampleBufferRef& sample,
                       const std::shared_ptr<AVCaptureConnection>&) override {
        std::unique_lock lock(mutex);
        if (frames.size() < 4) {
            frames.push_back(sample);
        }
        ++count;
        maxLive = std::max(maxLive, CVPixelBufferGetLiveCount());
        memory.insert(CMSampleBufferGetImageBuffer(sample)->bytes());
        released.wait(lock, [&] { return !holding; });
    }
    void release() {
        std::lock_guard lock(mutex);
        holding = false;
        released.notify_all();
    }
    size_t delivered() {
        std::lock_guard lock(mutex);
        return count;
    }

    std::mutex mutex;
    std::condition_variable released;
    bool holding = false; // the frame stays with the delegate until release()
    std::vector<CMSampleBufferRef> frames;
    size_t count = 0;
    size_t maxLive = 0;
    std::set<const uint8_t*> memory; // the different pixel memories the frames had
};

// A sample camera (only sample cameras are offered) with a frame output and a still output.
struct Rig {
    std::shared_ptr<AVCaptureSession> session = AVCaptureSession::create();
    std::shared_ptr<AVCaptureVideoDataOutput> frames = AVCaptureVideoDataOutput::create();
    std::shared_ptr<AVCaptureStillImageOutput> still = AVCaptureStillImageOutput::create();
    std::shared_ptr<Collector> collector = std::make_shared<Collector>();
    dispatch_queue_t queue = dispatch_queue_create("VideoDataOutputQueue", DISPATCH_QUEUE_SERIAL);
    AVCaptureDevice::Ref device;

    Rig(AVCaptureDevicePosition position, const AVCaptureSessionPreset& preset, OSType format) {
        AVCaptureDevice::setDiscovery({false, "/dev", true});
        for (const auto& d : AVCaptureDevice::devicesWithMediaType(AVMediaTypeVideo)) {
            device = d->position() == position ? d : device;
        }
        session->setSessionPreset(preset);
        session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
        frames->setVideoSettings({{kCVPixelBufferPixelFormatTypeKey, format}});
        frames->setSampleBufferDelegate(collector, queue);
        session->addOutput(frames);
        session->addOutput(still);
    }
    ~Rig() {
        stop();
        AVCaptureDevice::setDiscovery({});
    }
    void stop() {
        session->stopRunning();
        dispatch_sync(queue, [] {}); // let the last delivery finish
    }

    // A still taken synchronously (the test waits on the main queue for the completion thread).
    std::pair<CMSampleBufferRef, NSErrorRef> takeStill(kptest::ManualMainQueue& main) {
        auto result = std::make_shared<std::pair<CMSampleBufferRef, NSErrorRef>>();
        auto done = std::make_shared<std::atomic<bool>>(false);
        still->captureStillImageAsynchronouslyFromConnection(
            still->connectionWithMediaType(AVMediaTypeVideo),
            [result, done](const CMSampleBufferRef& picture, const NSErrorRef& error) {
                *result = {picture, error};
                *done = true;
            });
        EXPECT_TRUE(main.drainUntil([&] { return done->load(); }, 60.0));
        return *result;
    }
};

// The mean luma of a still, and the codes of the scene's card that it shows readably.
double meanLuma(const CMSampleBufferRef& still, std::set<std::string>* codes = nullptr) {
    LumaImage luma;
    EXPECT_TRUE(LumaImageFromPixelBuffer(CMSampleBufferGetImageBuffer(still), luma));
    for (const auto& code :
         codes ? MachineCodeReader({AVMetadataObjectTypePDF417Code, AVMetadataObjectTypeQRCode}).read(luma)
               : std::vector<MachineCode>{}) {
        codes->insert(code.text.value_or(""));
    }
    return std::accumulate(luma.pixels.begin(), luma.pixels.end(), 0.0) / static_cast<double>(luma.pixels.size());
}

} // namespace

TEST(SampleCamera, DeliversFramesOfThePresetInTheRequestedFormatInReusedMemory) {
    kptest::ManualMainQueue main;
    for (OSType format : {kCVPixelFormatType_32BGRA, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange}) {
        SCOPED_TRACE(format);
        Rig rig(AVCaptureDevicePositionFront, AVCaptureSessionPreset640x480, format);
        rig.session->startRunning();
        ASSERT_TRUE(main.drainUntil([&] { return rig.collector->delivered() >= 20; }, 60.0));
        rig.stop();
        // The frames in flight at once and the few kept free: not a new buffer per frame.
        EXPECT_LE(rig.collector->memory.size(), 8U) << "of " << rig.collector->count << " frames";
        const auto& frames = rig.collector->frames;
        for (size_t i = 0; i < frames.size(); ++i) {
            const auto pixels = CMSampleBufferGetImageBuffer(frames[i]);
            EXPECT_EQ(CVPixelBufferGetPixelFormatType(pixels), format);
            EXPECT_EQ(CVPixelBufferGetWidth(pixels), 640U);
            EXPECT_EQ(CVPixelBufferGetHeight(pixels), 480U);
            EXPECT_TRUE(CMSampleBufferDataIsReady(frames[i]));
            EXPECT_TRUE(i == 0 || CMTimeCompare(CMSampleBufferGetPresentationTimeStamp(frames[i]),
                                                CMSampleBufferGetPresentationTimeStamp(frames[i - 1])) > 0);
        }
    }
}

TEST(SampleCamera, ASlowDelegateMakesTheOutputDropFramesNeverQueueThem) {
    kptest::ManualMainQueue main;
    Rig rig(AVCaptureDevicePositionFront, AVCaptureSessionPreset640x480, kCVPixelFormatType_32BGRA);
    rig.collector->holding = true;
    const size_t liveBefore = CVPixelBufferGetLiveCount();
    rig.session->startRunning();
    // The delegate sits on its first frame while the camera makes ten more.
    ASSERT_TRUE(main.drainUntil([&] { return rig.frames->frameCounts().produced >= 11; }, 60.0));
    const auto busy = rig.frames->frameCounts();
    EXPECT_EQ(busy.delivered, 0U);
    EXPECT_EQ(busy.dropped + 1, busy.produced) << "every frame but the one with the delegate was dropped";
    rig.collector->release();
    ASSERT_TRUE(main.drainUntil([&] { return rig.collector->delivered() >= 3; }, 60.0));
    rig.stop();
    const auto counts = rig.frames->frameCounts();
    EXPECT_EQ(counts.produced, counts.delivered + counts.dropped);
    EXPECT_EQ(counts.delivered, rig.collector->count);
    // One frame with the delegate, one being rendered, a few on their way out: never a backlog.
    EXPECT_LE(rig.collector->maxLive, liveBefore + 4);
}

TEST(SampleCamera, StillIsAPictureOfTheSceneAndTheTorchBrightensIt) {
    kptest::ManualMainQueue main;
    Rig rig(AVCaptureDevicePositionBack, AVCaptureSessionPreset1920x1080,
            kCVPixelFormatType_420YpCbCr8BiPlanarFullRange);
    // Before the session runs, and while a stop ends it, a still fails with an error and no picture.
    auto [none, notRunning] = rig.takeStill(main);
    EXPECT_EQ(none, nullptr);
    ASSERT_TRUE(notRunning);
    EXPECT_EQ(notRunning->code(), AVErrorSessionNotRunning);

    rig.session->startRunning();
    auto [picture, error] = rig.takeStill(main);
    ASSERT_TRUE(picture) << (error ? error->localizedDescription() : "");
    const auto pixels = CMSampleBufferGetImageBuffer(picture);
    ASSERT_EQ(CVPixelBufferGetPixelFormatType(pixels), kCVPixelFormatType_32BGRA) << "still output default is BGRA";
    EXPECT_EQ(CVPixelBufferGetWidth(pixels), 1920U);
    // The scene's ID card carries both sample codes: the still must show them readably.
    std::set<std::string> texts;
    const double plain = meanLuma(picture, &texts);
    EXPECT_EQ(texts, (std::set<std::string>{SampleScene::pdf417Text(), SampleScene::qrText()}));
    ASSERT_TRUE(rig.device->lockForConfiguration());
    ASSERT_TRUE(rig.device->setTorchModeOnWithLevel(1.0F));
    rig.device->unlockForConfiguration();
    auto [lit, litError] = rig.takeStill(main);
    ASSERT_TRUE(lit);
    EXPECT_GT(meanLuma(lit), plain + 30);
    rig.session->stopRunning();
    auto [stopped, stopError] = rig.takeStill(main);
    EXPECT_EQ(stopped, nullptr);
    EXPECT_TRUE(stopError);
}
