// SPDX-License-Identifier: MIT
// The capture engine end to end on the sample camera's timeline: frames and stills reach the delegate on
// "VideoDataOutputQueue" with the face and card the scene shows, and the centre box follows the head.
#include "KPImage/KPVideoHelper.h"
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/NSThread.h"
#include "KPImage/Platform/UIColor.h"
#include "Platform/Capture/SampleScene.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <mutex>
#include <sstream>

using namespace kp;

namespace {

// Records what the engine hands over, checking that every call runs on the engine's frame queue.
class RecordingDelegate final : public libVideoDelegate {
public:
    explicit RecordingDelegate(dispatch_queue_t frameQueue) : _frameQueue(std::move(frameQueue)) {}

    void getLastSampleBuffer(const CMSampleBufferRef& sampleBuffer, CGRect faceRect, CGFloat yaw, CGFloat roll,
                             const std::optional<std::string>& barcodeData) override {
        std::lock_guard lock(_mutex);
        ++frames;
        offQueueCalls += onFrameQueue() ? 0 : 1;
        framesWithoutBuffer += sampleBuffer ? 0 : 1;
        if (!CGRectEqualToRect(faceRect, CGRectZero)) {
            ++framesWithFace;
            lastFaceRect = faceRect;
            sawUprightFace |= yaw == 0 && roll == 0;
            sawTiltedFace |= roll == SampleScene::kTiltDegrees;
        }
        sawCardText |= barcodeData == SampleScene::pdf417Text();
    }

    void getNewStillImage(const std::optional<UIImage>& image) override {
        std::lock_guard lock(_mutex);
        ++stills;
        offQueueCalls += onFrameQueue() ? 0 : 1;
        if (image && image->CGImage()) {
            stillPixels = image->CGImage()->width() * image->CGImage()->height();
        }
    }

    template <typename F> auto read(F f) const {
        std::lock_guard lock(_mutex);
        return f(*this);
    }

    int frames = 0;
    int framesWithFace = 0;
    int framesWithoutBuffer = 0;
    int offQueueCalls = 0;
    CGRect lastFaceRect = CGRectZero;
    bool sawUprightFace = false;
    bool sawTiltedFace = false;
    bool sawCardText = false;
    int stills = 0;
    size_t stillPixels = 0;

private:
    bool onFrameQueue() const {
        return _frameQueue && _frameQueue->isCurrent() &&
               std::string(dispatch_queue_get_label(_frameQueue)) == "VideoDataOutputQueue" &&
               !NSThread::isMainThread();
    }

    const dispatch_queue_t _frameQueue;
    mutable std::mutex _mutex;
};

bool borderIs(const std::shared_ptr<CALayer>& layer, const UIColor& colour) {
    return layer && layer->borderColor() == colour.CGColor();
}

// The sample cameras only, also on a machine with webcams; the usual discovery again afterwards.
struct SampleCamerasOnly {
    SampleCamerasOnly() { AVCaptureDevice::setDiscovery({false, "/dev", true}); }
    ~SampleCamerasOnly() { AVCaptureDevice::setDiscovery({}); }
};

} // namespace

TEST(CaptureEngineSession, SampleTimelineDrivesTheCentreBoxTheCardTextAndAStill) {
    kptest::ManualMainQueue main;
    SampleCamerasOnly cameras;
    auto engine = KPVideoHelper::initWithAVCaptureSessionPreset(5, AVCaptureDevicePositionFront,
                                                                AVLayerVideoGravityResizeAspect,
                                                                kCVPixelFormatType_32BGRA);
    ASSERT_NE(engine, nullptr);
    ASSERT_NE(engine->device(), nullptr);
    EXPECT_EQ(engine->device()->position(), AVCaptureDevicePositionFront);
    auto delegate = std::make_shared<RecordingDelegate>(engine->videoDataOutputQueue());
    engine->setDelegate(delegate);
    const auto view = engine->getPreviewView(CGRectMake(0, 0, 1280, 720), true);
    const CGRect box = CGRectInset(engine->previewLayer()->frame(), 30, 50);

    // The timeline: the head upright in the middle (0-2 s), tilted by 30 degrees (2-4.5 s), turned and gone
    // later. The card lies beside it throughout.
    enum Step { kWaitForGreen, kWaitForTilt, kDone };
    int step = kWaitForGreen;
    bool greenWhileCentred = false, redWhileTilted = false, stillRequested = false;
    CGRect centredFace = CGRectZero;
    engine->startVideoCapture();
    const bool finished = main.drainUntil(
        [&] {
            const auto centre = engine->centerLayer();
            if (step == kWaitForGreen && engine->isHeadCentered() && borderIs(centre, UIColor::greenColor())) {
                greenWhileCentred = true;
                centredFace = engine->faceRect();
                EXPECT_EQ(engine->rollAngle(), 0.0);
                EXPECT_EQ(engine->yawAngle(), 0.0);
                EXPECT_TRUE(CGRectEqualToRect(centre->frame(), box));
                if (!stillRequested) {
                    stillRequested = true;
                    engine->takeStillPicture();
                }
                step = kWaitForTilt;
            }
            if (step == kWaitForTilt && engine->hasRollAngle() && engine->rollAngle() == SampleScene::kTiltDegrees &&
                !CGRectEqualToRect(engine->faceRect(), CGRectZero)) {
                // The tilted head fails the centre box at once, whatever its place.
                EXPECT_FALSE(engine->isHeadCentered());
                redWhileTilted = borderIs(centre, UIColor::redColor());
                step = kDone;
            }
            return step == kDone && delegate->read([](const RecordingDelegate& d) {
                return d.sawTiltedFace && d.sawCardText && d.stills > 0;
            });
        },
        15.0);
    engine->stopVideoCapture();
    dispatch_sync(engine->videoDataOutputQueue(), [] {});
    main.drain();

    std::ostringstream where;
    delegate->read([&](const RecordingDelegate& d) {
        where << "step " << step << ", frames " << d.frames << " (" << d.framesWithFace << " with a face), card "
              << d.sawCardText << ", tilted " << d.sawTiltedFace << ", stills " << d.stills;
        return 0;
    });
    EXPECT_TRUE(finished) << where.str();
    EXPECT_TRUE(greenWhileCentred) << where.str();
    EXPECT_TRUE(redWhileTilted) << where.str();
    // The centred face lies inside the box, in preview points.
    EXPECT_TRUE(CGRectContainsRect(box, centredFace)) << where.str();
    delegate->read([&](const RecordingDelegate& d) {
        EXPECT_GT(d.frames, 0);
        EXPECT_EQ(d.offQueueCalls, 0) << "every frame and still arrives on VideoDataOutputQueue";
        EXPECT_EQ(d.framesWithoutBuffer, 0);
        EXPECT_TRUE(d.sawUprightFace);
        EXPECT_TRUE(d.sawCardText) << "the card's PDF417 text reaches the delegate as barcodeData";
        EXPECT_EQ(d.stills, 1);
        EXPECT_EQ(d.stillPixels, size_t{1280} * 720) << "the still is a whole 1280 x 720 picture";
        return 0;
    });
}
