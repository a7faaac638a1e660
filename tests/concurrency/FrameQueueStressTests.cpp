// SPDX-License-Identifier: MIT
// Many frames through the frame queue while the main queue reads and writes the state they share.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace kp;

namespace {
// Shares state between the frame queue (reader) and the main queue (writer) the way the capture engine does:
// relaxed atomics, no lock.
class SharingDelegate final : public AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    std::atomic<double> faceWidth{0};
    std::atomic<uint64_t> frames{0}, sawFace{0}, mainTasks{0};

    void captureOutput(const std::shared_ptr<AVCaptureOutput>&, const CMSampleBufferRef& sample,
                       const std::shared_ptr<AVCaptureConnection>&) override {
        const auto pixels = CMSampleBufferGetImageBuffer(sample); // read the pixels the way a consumer does
        CVPixelBufferLockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
        volatile uint8_t first = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddress(pixels))[0];
        (void)first;
        CVPixelBufferUnlockBaseAddress(pixels, kCVPixelBufferLock_ReadOnly);
        if (faceWidth.load(std::memory_order_relaxed) == 0) {
            // No face: ask the main queue to clear its overlay, as the engine's frame path does.
            dispatch_async(dispatch_get_main_queue(), [this] { mainTasks.fetch_add(1, std::memory_order_relaxed); });
        } else {
            sawFace.fetch_add(1, std::memory_order_relaxed);
        }
        frames.fetch_add(1, std::memory_order_relaxed);
    }
};
} // namespace

TEST(FrameQueueStress, ManyFramesWhileTheMainQueueSharesState) {
    kptest::ManualMainQueue main;
    auto fake = std::make_shared<kptest::FakeCaptureDevice>("stress");
    fake->setFormat({8, 8});
    auto session = AVCaptureSession::create();
    auto output = AVCaptureVideoDataOutput::create();
    auto delegate = std::make_shared<SharingDelegate>();
    auto queue = dispatch_queue_create("VideoDataOutputQueue", DISPATCH_QUEUE_SERIAL);
    output->setVideoSettings({{kCVPixelBufferPixelFormatTypeKey, kCVPixelFormatType_32BGRA}});
    output->setSampleBufferDelegate(delegate, queue);
    session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(
        std::make_shared<AVCaptureDevice>(fake, AVCaptureDevicePositionFront)));
    session->addOutput(output);
    session->startRunning();
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
