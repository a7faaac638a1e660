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

class Counter final : public AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    std::atomic<int> frames{0};
    void captureOutput(const std::shared_ptr<AVCaptureOutput>&, const CMSampleBufferRef&,
                       const std::shared_ptr<AVCaptureConnection>&) override {
        frames.fetch_add(1, std::memory_order_relaxed);
    }
};

// A running session with frame and still outputs on the device; its delegate counts the frames.
std::shared_ptr<AVCaptureSession> running(const AVCaptureDevice::Ref& device, const dispatch_queue_t& queue,
                                          const std::shared_ptr<Counter>& counter) {
    auto session = AVCaptureSession::create();
    auto frames = AVCaptureVideoDataOutput::create();
    frames->setSampleBufferDelegate(counter, queue);
    session->setSessionPreset(AVCaptureSessionPresetLow);
    session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
    session->addOutput(frames);
    session->addOutput(AVCaptureStillImageOutput::create());
    session->startRunning();
    return session;
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
        auto counters = std::make_pair(std::make_shared<Counter>(), std::make_shared<Counter>());
        auto first = running(fed, queue, counters.first), second = running(sample, queue, counters.second);
        std::weak_ptr<AVCaptureSession> weakFirst = first, weakSecond = second;
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
        ASSERT_TRUE(main.drainUntil([&] { return counters.first->frames > 0 && counters.second->frames > 0; }, 60));
        // The host lets go of everything while frames flow: devices first or sessions first.
        if (round % 2 == 0) {
            AVCaptureDevice::removeDevice(fed);
            AVCaptureDevice::removeDevice(sample);
            fed.reset(), sample.reset(), first.reset(), second.reset();
        } else {
            first.reset(), second.reset();
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
