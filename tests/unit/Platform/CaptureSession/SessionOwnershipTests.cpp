// SPDX-License-Identifier: MIT
// Who owns a camera: a later session takes it over, two threads contend for it.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"
#include "Platform/Capture/SampleCamera.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

using namespace kp;
using kptest::FakeCaptureDevice;

namespace {

// The fill bytes of the frames one session's output hands over.
class Counter final : public AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    void captureOutput(const std::shared_ptr<AVCaptureOutput>&, const CMSampleBufferRef& sample,
                       const std::shared_ptr<AVCaptureConnection>&) override {
        std::lock_guard lock(_mutex);
        _fills.push_back(CMSampleBufferGetImageBuffer(sample)->bytes()[0]);
    }
    std::vector<int> fills() const {
        std::lock_guard lock(_mutex);
        return _fills;
    }

private:
    mutable std::mutex _mutex;
    std::vector<int> _fills;
};

// One session with a frame output on its own queue, reporting runtime errors into a list.
struct Client {
    std::shared_ptr<AVCaptureSession> session = AVCaptureSession::create();
    std::shared_ptr<AVCaptureVideoDataOutput> output = AVCaptureVideoDataOutput::create();
    std::shared_ptr<Counter> counter = std::make_shared<Counter>();
    dispatch_queue_t queue = dispatch_queue_create("VideoDataOutputQueue", DISPATCH_QUEUE_SERIAL);
    std::vector<int64_t> errors; // main queue only

    explicit Client(const AVCaptureDevice::Ref& device) {
        output->setAlwaysDiscardsLateVideoFrames(false);
        output->setVideoSettings({{kCVPixelBufferPixelFormatTypeKey, kCVPixelFormatType_32BGRA}});
        output->setSampleBufferDelegate(counter, queue);
        session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
        session->addOutput(output);
        session->setRuntimeErrorHandler([this](const NSErrorRef& e) { errors.push_back(e->code()); });
    }
    // Waits for the frames already handed to the queue.
    std::vector<int> fills() {
        dispatch_sync(queue, [] {});
        return counter->fills();
    }
};

} // namespace

TEST(CaptureSessionOwnership, ALaterStartTakesTheCameraOverAndInterruptsTheEarlierSession) {
    kptest::ManualMainQueue main;
    auto camera = std::make_shared<FakeCaptureDevice>("shared");
    auto device = std::make_shared<AVCaptureDevice>(camera, AVCaptureDevicePositionFront);
    Client first(device);
    Client second(device);

    first.session->startRunning();
    ASSERT_TRUE(camera->pushFrame(1));
    EXPECT_EQ(first.fills(), (std::vector<int>{1}));

    second.session->startRunning();
    EXPECT_TRUE(second.session->isRunning());
    EXPECT_FALSE(first.session->isRunning()) << "an interrupted session never claims to run without frames";
    EXPECT_TRUE(first.session->isInterrupted());
    EXPECT_TRUE(first.errors.empty()) << "reported on the main queue, not from inside startRunning";
    ASSERT_TRUE(main.drainUntil([&] { return !first.errors.empty(); }));
    EXPECT_EQ(first.errors, (std::vector<int64_t>{AVErrorDeviceAlreadyUsedByAnotherSession}));

    ASSERT_TRUE(camera->pushFrame(2));
    EXPECT_EQ(second.fills(), (std::vector<int>{2}));
    EXPECT_EQ(first.fills(), (std::vector<int>{1}));

    // The interrupted session stopping leaves the new owner's stream alone.
    first.session->stopRunning();
    EXPECT_TRUE(camera->isStreaming());
    EXPECT_TRUE(second.session->isRunning());
    ASSERT_TRUE(camera->pushFrame(3));
    EXPECT_EQ(second.fills(), (std::vector<int>{2, 3}));

    // Starting again takes the camera back; now the other session is the interrupted one.
    first.session->startRunning();
    EXPECT_TRUE(first.session->isRunning());
    EXPECT_FALSE(second.session->isRunning());
    ASSERT_TRUE(camera->pushFrame(4));
    EXPECT_EQ(first.fills(), (std::vector<int>{1, 4}));
    EXPECT_EQ(second.fills(), (std::vector<int>{2, 3}));

    // The owner's own stop ends the stream; nobody is left running.
    first.session->stopRunning();
    second.session->stopRunning();
    EXPECT_FALSE(camera->isStreaming());
    main.drain();
    EXPECT_EQ(first.errors, (std::vector<int64_t>{AVErrorDeviceAlreadyUsedByAnotherSession}))
        << "a normal stop reports nothing";
}

TEST(CaptureSessionOwnership, TwoThreadsStartingAndStoppingOneCameraLeaveOneOwner) {
    kptest::ManualMainQueue main;
    // A real camera with a stream thread: starting it from two threads at once must never overlap.
    auto camera = std::make_shared<SampleCamera>(AVCaptureDevicePositionBack);
    auto device = std::make_shared<AVCaptureDevice>(camera, AVCaptureDevicePositionBack);
    Client a(device);
    Client b(device);
    auto contend = [](Client& client) {
        client.session->setSessionPreset(AVCaptureSessionPresetLow);
        for (int i = 0; i < 40; ++i) {
            client.session->startRunning();
            if (i % 3 == 2) {
                client.session->stopRunning();
            }
        }
    };
    std::thread other([&] { contend(b); });
    contend(a);
    other.join();
    // Both ended with a start; whichever came last owns the camera and the other is interrupted.
    EXPECT_NE(a.session->isRunning(), b.session->isRunning());
    Client& owner = a.session->isRunning() ? a : b;
    Client& loser = a.session->isRunning() ? b : a;
    EXPECT_TRUE(loser.session->isInterrupted());
    const size_t ownerBefore = owner.counter->fills().size();
    ASSERT_TRUE(main.drainUntil([&] { return owner.counter->fills().size() >= ownerBefore + 3; }, 60.0))
        << "the owner gets frames";
    loser.session->stopRunning();
    const size_t ownerAfter = owner.counter->fills().size();
    ASSERT_TRUE(main.drainUntil([&] { return owner.counter->fills().size() >= ownerAfter + 3; }, 60.0))
        << "the loser's stop left the owner's stream alone";
    owner.session->stopRunning();
    a.fills();
    b.fills();
}
