// SPDX-License-Identifier: MIT
// Cameras, sessions and the frame queue under load: many frames while the main queue shares state with the frame
// queue, and sessions and devices let go of while frames flow, so that no camera back-end or session ends on the
// camera's thread while that thread still uses it.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureStillImageOutput.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "Platform/Capture/SampleCamera.h"
#include "Platform/Capture/V4L2Camera.h"
#include "support/FakeCaptureDevice.h"
#include "support/FakeV4L2.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <atomic>
#include <thread>

using namespace kp;

namespace {

// Reads each frame's pixels and shares state with the main queue the way the capture engine does (relaxed atomics,
// no lock): without a face it asks the main queue to clear its overlay.
class SharingDelegate final : public AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    std::atomic<double> faceWidth{0};
    std::atomic<uint64_t> frames{0}, sawFace{0}, mainTasks{0};
    void captureOutput(const std::shared_ptr<AVCaptureOutput>&, const CMSampleBufferRef& sample,
                       const std::shared_ptr<AVCaptureConnection>&) override {
        const auto pixels = CMSampleBufferGetImageBuffer(sample);
        CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
        const auto* p = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(pixels));
        volatile uint8_t first = p != nullptr ? p[0] : 0;
        (void)first;
        CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
        if (faceWidth.load(std::memory_order_relaxed) == 0) {
            dispatch_async(dispatch_get_main_queue(), [this] { mainTasks.fetch_add(1, std::memory_order_relaxed); });
        } else {
            sawFace.fetch_add(1, std::memory_order_relaxed);
        }
        frames.fetch_add(1, std::memory_order_relaxed);
    }
};

struct Running {
    std::shared_ptr<AVCaptureSession> session;
    std::shared_ptr<AVCaptureVideoDataOutput> output;
    std::shared_ptr<SharingDelegate> delegate;
};

// A running session with frame and still outputs on the device.
Running running(const AVCaptureDevice::Ref& device, const dispatch_queue_t& queue) {
    Running r{AVCaptureSession::create(), AVCaptureVideoDataOutput::create(), std::make_shared<SharingDelegate>()};
    r.output->setSampleBufferDelegate(r.delegate, queue);
    r.session->setSessionPreset(AVCaptureSessionPresetLow);
    r.session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
    r.session->addOutput(r.output);
    r.session->addOutput(AVCaptureStillImageOutput::create());
    r.session->startRunning();
    return r;
}

} // namespace

TEST(FrameQueueStress, ManyFramesWhileTheMainQueueSharesState) {
    kptest::ManualMainQueue main;
    auto fake = std::make_shared<kptest::FakeCaptureDevice>("stress");
    fake->setFormat({8, 8});
    auto queue = dispatch_queue_create("VideoDataOutputQueue", DISPATCH_QUEUE_SERIAL);
    auto [session, output, delegate] =
        running(std::make_shared<AVCaptureDevice>(fake, AVCaptureDevicePositionFront), queue);
    ASSERT_TRUE(fake->isStreaming());
    constexpr int kFrames = 20000;
    std::atomic<bool> producing{true};
    std::thread camera([&] {
        for (int i = 0; i < kFrames; ++i) {
            fake->pushFrame(static_cast<uint8_t>(i));
            if (i % 64 == 0) {
                std::this_thread::yield(); // let the frame queue take some frames
            }
        }
        producing = false;
    });
    // Main thread: the metadata side writes the shared state and reads the output's state. A frame is counted
    // produced before it is delivered or dropped, and counts only grow, whenever they are read.
    int flips = 0;
    AVCaptureVideoDataOutput::FrameCounts last;
    while (producing.load()) {
        main.drainOnce();
        delegate->faceWidth.store((++flips % 2) ? 120.0 : 0.0, std::memory_order_relaxed);
        const auto counts = output->frameCounts();
        ASSERT_LE(counts.delivered + counts.dropped, counts.produced);
        ASSERT_TRUE(counts.produced >= last.produced && counts.delivered >= last.delivered &&
                    counts.dropped >= last.dropped);
        last = counts;
        ASSERT_TRUE(output->connectionWithMediaType(AVMediaTypeVideo)->isEnabled() && session->isRunning());
    }
    camera.join();
    session->stopRunning();
    dispatch_sync(queue, [] {});
    main.drain();
    const auto counts = output->frameCounts();
    EXPECT_EQ(counts.produced, static_cast<uint64_t>(kFrames));
    EXPECT_EQ(counts.produced, counts.delivered + counts.dropped);
    EXPECT_EQ(counts.delivered, delegate->frames.load());
    EXPECT_GT(counts.delivered, 0U);
    EXPECT_EQ(delegate->mainTasks.load() + delegate->sawFace.load(), delegate->frames.load());
}

TEST(CameraLifetime, StreamsKeepTheirBackEndAliveWhenTheLastReferenceGoesInAFrame) {
    // A webcam: its stream turns streaming off, unmaps the buffers and closes the node as it ends.
    auto kernel = std::make_shared<kptest::FakeV4L2>();
    kptest::FakeV4L2::Node node;
    node.path = "/fake/video0";
    node.sizes = {{V4L2_PIX_FMT_YUYV, 64, 48}};
    kernel->addNode(node);
    auto camera = V4L2Camera::open(kernel, node.path);
    ASSERT_TRUE(camera);
    EXPECT_TRUE(kptest::LastReferenceSink::releaseInFirstFrame(
        std::move(camera), [&] { kernel->pushFrame(node.path, std::vector<uint8_t>(64 * 48 * 2, 128)); }));
    EXPECT_FALSE(kernel->isStreaming(node.path));
    EXPECT_EQ(kernel->mappedBuffers(), 0U);
    EXPECT_EQ(kernel->openDescriptors(), 0);
    // The sample camera's stream thread, stopped from inside itself, finishes before it is released.
    EXPECT_TRUE(
        kptest::LastReferenceSink::releaseInFirstFrame(std::make_shared<SampleCamera>(AVCaptureDevicePositionFront)));
}

TEST(CameraLifetime, SessionsDroppedAndDevicesRemovedWhileFramesFlow) {
    kptest::ManualMainQueue main;
    auto queue = dispatch_queue_create("VideoDataOutputQueue", DISPATCH_QUEUE_SERIAL);
    int stopsInsideFrames = 0;
    for (int round = 0; round < 24; ++round) {
        SCOPED_TRACE(round);
        // A camera fed by a thread of its own, and a sample camera with its stream thread.
        auto fake = std::make_shared<kptest::FakeCaptureDevice>("stress-" + std::to_string(round));
        auto fed = AVCaptureDevice::addDevice(fake, AVCaptureDevicePositionFront);
        auto sample = AVCaptureDevice::addDevice(std::make_shared<SampleCamera>(AVCaptureDevicePositionBack),
                                                 AVCaptureDevicePositionBack);
        auto first = running(fed, queue), second = running(sample, queue);
        std::weak_ptr<AVCaptureSession> weakFirst = first.session, weakSecond = second.session;
        ASSERT_TRUE(fake->isStreaming());
        std::atomic<bool> done{false};
        std::thread camera([&] {
            while (!done.load(std::memory_order_acquire)) {
                fake->pushFrame(static_cast<uint8_t>(round));
            }
        });
        // Another thread holds the sessions now and then, as outputs and connections do.
        std::thread holder([&] {
            while (!done.load(std::memory_order_acquire)) {
                auto a = weakFirst.lock(), b = weakSecond.lock();
                std::this_thread::yield();
            }
        });
        ASSERT_TRUE(main.drainUntil([&] { return first.delegate->frames > 0 && second.delegate->frames > 0; }, 60));
        // The host lets go of everything while frames flow: devices first or sessions first.
        if (round % 2 == 0) {
            AVCaptureDevice::removeDevice(fed);
            AVCaptureDevice::removeDevice(sample);
            fed.reset(), sample.reset(), first = {}, second = {};
        } else {
            first = {}, second = {};
            AVCaptureDevice::removeDevice(fed);
            AVCaptureDevice::removeDevice(sample);
            fed.reset(), sample.reset();
        }
        // The sessions end on the threads that held them last, never on a camera's: then the camera stops.
        ASSERT_TRUE(main.drainUntil([&] { return weakFirst.expired() && weakSecond.expired(); }, 60));
        done.store(true, std::memory_order_release);
        holder.join();
        camera.join();
        EXPECT_FALSE(fake->isStreaming());
        stopsInsideFrames += fake->stopsFromFrameCallbacks();
    }
    dispatch_sync(queue, [] {});
    EXPECT_EQ(stopsInsideFrames, 0) << "a session ended on its camera's thread, inside a frame";
}
