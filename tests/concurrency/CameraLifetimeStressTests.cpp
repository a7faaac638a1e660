// SPDX-License-Identifier: MIT
// Sessions and devices let go of while frames flow: no camera back-end or session ends on the camera's thread
// while that thread still uses it.
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

// Reads each frame's pixels and, as the capture engine does without a face, asks the main queue to clear its
// overlay.
class Delegate final : public AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    std::atomic<uint64_t> frames{0};
    void captureOutput(const std::shared_ptr<AVCaptureOutput>&, const CMSampleBufferRef& sample,
                       const std::shared_ptr<AVCaptureConnection>&) override {
        const auto pixels = CMSampleBufferGetImageBuffer(sample);
        CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
        const auto* p = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(pixels));
        volatile uint8_t first = p != nullptr ? p[0] : 0;
        (void)first;
        CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
        dispatch_async(dispatch_get_main_queue(), [] {});
        frames.fetch_add(1, std::memory_order_relaxed);
    }
};

struct Running {
    std::shared_ptr<AVCaptureSession> session;
    std::shared_ptr<Delegate> delegate;
};

// A running session with frame and still outputs on the device.
Running running(const AVCaptureDevice::Ref& device, const dispatch_queue_t& queue) {
    Running r{AVCaptureSession::create(), std::make_shared<Delegate>()};
    auto output = AVCaptureVideoDataOutput::create();
    output->setSampleBufferDelegate(r.delegate, queue);
    r.session->setSessionPreset(AVCaptureSessionPresetLow);
    r.session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
    r.session->addOutput(output);
    r.session->addOutput(AVCaptureStillImageOutput::create());
    r.session->startRunning();
    return r;
}

} // namespace

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
        const auto dropSessions = [&] { first = {}, second = {}; };
        const auto dropDevices = [&] {
            AVCaptureDevice::removeDevice(fed), AVCaptureDevice::removeDevice(sample);
            fed.reset(), sample.reset();
        };
        round % 2 == 0 ? (dropDevices(), dropSessions()) : (dropSessions(), dropDevices());
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
