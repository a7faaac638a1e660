// SPDX-License-Identifier: MIT
// Capture under stress. Sessions and devices let go of while frames flow: no camera back-end or session ends on the
// camera's thread while that thread still uses it. The capture engine with everything at once: frames flowing from a
// camera thread, metadata batches and their main-queue tasks, camera switches, stills and start/stop, so the
// sanitizers see the fields the frame queue and the main thread share.
#include "KPImage/KPVideoHelper.h"
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
    std::shared_ptr<AVCaptureVideoDataOutput> output;
    std::shared_ptr<Delegate> delegate;
};

// A running session with frame and still outputs on the device.
Running running(const AVCaptureDevice::Ref& device, const dispatch_queue_t& queue) {
    Running r{AVCaptureSession::create(), AVCaptureVideoDataOutput::create(), std::make_shared<Delegate>()};
    r.output->setSampleBufferDelegate(r.delegate, queue);
    r.session->setSessionPreset(AVCaptureSessionPresetLow);
    r.session->addInput(AVCaptureDeviceInput::deviceInputWithDevice(device));
    r.session->addOutput(r.output);
    r.session->addOutput(AVCaptureStillImageOutput::create());
    r.session->startRunning();
    return r;
}

class CountingDelegate : public libVideoDelegate {
public:
    void getLastSampleBuffer(const CMSampleBufferRef& buffer, CGRect faceRect, CGFloat yaw, CGFloat roll,
                             const std::optional<std::string>& barcode) override {
        // Read what was handed over, as a host would.
        frames += buffer && faceRect.size.width >= 0 && yaw >= 0 && roll >= 0 && barcode.value_or("").size() < 100;
    }
    void getNewStillImage(const std::optional<UIImage>&) override {}
    std::atomic<int> frames{0};
};

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
        for (int k = 0; k < 20; ++k) { // the host sets the delegate again while frames arrive
            first.output->setSampleBufferDelegate(first.delegate, queue);
        }
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

TEST(CaptureEngineRace, FramesBatchesSwitchesStillsAndRestartsTogether) {
    AVCaptureDevice::setDiscovery({false, "/dev", false});
    kptest::ManualMainQueue main;
    const std::shared_ptr<kptest::FakeCaptureDevice> cameras[] = {std::make_shared<kptest::FakeCaptureDevice>("front"),
                                                                  std::make_shared<kptest::FakeCaptureDevice>("back")};
    const auto front = AVCaptureDevice::addDevice(cameras[0], AVCaptureDevicePositionFront);
    const auto back = AVCaptureDevice::addDevice(cameras[1], AVCaptureDevicePositionBack);
    {
        auto engine = KPVideoHelper::initWithAVCaptureSessionPreset(
            0, AVCaptureDevicePositionFront, AVLayerVideoGravityResizeAspectFill, kCVPixelFormatType_32BGRA);
        auto delegate = std::make_shared<CountingDelegate>();
        engine->setDelegate(delegate);
        auto view = engine->getPreviewView(CGRectMake(0, 0, 320, 480), true);
        engine->startVideoCapture();
        std::atomic<bool> done{false};
        std::thread camera([&] {
            for (uint8_t fill = 0; !done.load(); fill = static_cast<uint8_t>(fill + 7)) {
                cameras[0]->pushFrame(fill), cameras[1]->pushFrame(fill);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        std::thread reader([&] { // a host thread reading the state the engine shares
            while (!done.load()) {
                (void)engine->faceRect(), (void)engine->parsedData(), (void)engine->isHeadCentered(), engine->device();
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
        for (int i = 0; i < 120; ++i) {
            // A face (its size, identity and roll changing) in two batches of three, a card's code in every other.
            std::vector<std::shared_ptr<AVMetadataObject>> batch;
            AVMetadataFaceObject::Fields f;
            f.bounds = CGRectMake(0.3, 0.3, 0.3 + 0.001 * (i % 10), 0.4);
            f.faceID = 1 + i / 40;
            f.hasYawAngle = f.hasRollAngle = true;
            f.rollAngle = i % 4 == 0 ? 30 : 0;
            AVMetadataMachineReadableCodeObject::Fields c;
            c.stringValue = "CARD " + std::to_string(i);
            for (CGPoint p : {CGPoint{0.1, 0.9}, CGPoint{0.9, 0.9}, CGPoint{0.9, 0.7}, CGPoint{0.1, 0.7}}) {
                c.corners.push_back(CGPointCreateDictionaryRepresentation(p));
            }
            if (i % 3 != 0) {
                batch.push_back(AVMetadataFaceObject::create(f));
            }
            if (i % 2 == 0) {
                batch.push_back(AVMetadataMachineReadableCodeObject::create(c));
            }
            engine->captureOutput(nullptr, batch, nullptr);
            if (i % 15 == 14) {
                engine->toggleCameraWithAnimation(i % 30 == 14);
            }
            if (i % 25 == 0) {
                engine->takeStillPicture();
            }
            if (i % 40 == 39) {
                engine->stopVideoCapture();
                engine->startVideoCapture();
            }
            engine->setShowFaceBoundingBox(i % 14 < 7);
            main.drainOnce();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_TRUE(main.drainUntil([&] { return delegate->frames.load() > 20; }));
        done.store(true);
        camera.join();
        reader.join();
        engine->stopVideoCapture();
        // Stills still in flight end with the stop; their tasks may still be queued.
        dispatch_sync(engine->videoDataOutputQueue(), [] {});
        main.drain();
    }
    AVCaptureDevice::removeDevice(front);
    AVCaptureDevice::removeDevice(back);
    AVCaptureDevice::setDiscovery({});
}
