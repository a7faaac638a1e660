// SPDX-License-Identifier: MIT
// The capture engine with everything at once: frames flowing from a camera thread, metadata batches and their
// main-queue tasks, camera switches, stills and start/stop, so the sanitizers see the fields the frame queue and
// the main thread share.
#include "KPImage/KPVideoHelper.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using namespace kp;

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

} // namespace
