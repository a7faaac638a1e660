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

// The engine runs the front camera, whose preview is mirrored: the scene's head tilt is seen, and reported, the
// other way round.
constexpr double kMirroredTilt = 360.0 - SampleScene::kTiltDegrees;

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
            sawTiltedFace |= roll == kMirroredTilt;
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

// A running engine on the front sample camera with BGRA frames, a recording delegate and a 1280 x 720 preview view
// with the centre box, as a host sets it up.
struct RunningEngine {
    SampleCamerasOnly cameras;
    std::shared_ptr<KPVideoHelper> engine = KPVideoHelper::initWithAVCaptureSessionPreset(
        5, AVCaptureDevicePositionFront, AVLayerVideoGravityResizeAspect, kCVPixelFormatType_32BGRA);
    std::shared_ptr<RecordingDelegate> delegate =
        std::make_shared<RecordingDelegate>(engine ? engine->videoDataOutputQueue() : nullptr);
    std::shared_ptr<UIView> view;

    RunningEngine() {
        if (engine) {
            engine->setDelegate(delegate);
            view = engine->getPreviewView(CGRectMake(0, 0, 1280, 720), true);
            engine->startVideoCapture();
        }
    }
    ~RunningEngine() { stop(); }
    void stop() {
        if (engine) {
            engine->stopVideoCapture();
            dispatch_sync(engine->videoDataOutputQueue(), [] {});
        }
    }
    std::string summary() const {
        std::ostringstream out;
        delegate->read([&](const RecordingDelegate& d) {
            out << "frames " << d.frames << " (" << d.framesWithFace << " with a face), card " << d.sawCardText
                << ", tilted " << d.sawTiltedFace << ", stills " << d.stills;
            return 0;
        });
        return out.str();
    }
};

} // namespace

// Runs in every build, ThreadSanitizer included: the frame path, the detection worker, the metadata handler on the
// main queue and a still picture all at work together.
TEST(CaptureEngineSession, FramesAndAStillReachTheDelegateOnTheFrameQueue) {
    kptest::ManualMainQueue main;
    RunningEngine run;
    ASSERT_NE(run.engine, nullptr);
    ASSERT_NE(run.engine->device(), nullptr);
    EXPECT_EQ(run.engine->device()->position(), AVCaptureDevicePositionFront);
    const auto& delegate = run.delegate;
    ASSERT_TRUE(main.drainUntil(
        [&] { return delegate->read([](const RecordingDelegate& d) { return d.frames >= 10; }); }, 20.0))
        << run.summary();
    run.engine->takeStillPicture();
    const bool still =
        main.drainUntil([&] { return delegate->read([](const RecordingDelegate& d) { return d.stills > 0; }); }, 20.0);
    run.stop();
    main.drain();
    EXPECT_TRUE(still) << run.summary();
    delegate->read([&](const RecordingDelegate& d) {
        EXPECT_EQ(d.offQueueCalls, 0) << "every frame and still arrives on VideoDataOutputQueue";
        EXPECT_EQ(d.framesWithoutBuffer, 0);
        EXPECT_EQ(d.stills, 1);
        EXPECT_EQ(d.stillPixels, size_t{1280} * 720) << "the still is a whole 1280 x 720 picture";
        // Whatever the detector found by now is in preview points, inside the view.
        EXPECT_TRUE(CGRectEqualToRect(d.lastFaceRect, CGRectZero) ||
                    CGRectContainsRect(run.view->bounds(), d.lastFaceRect));
        return 0;
    });
}

TEST(CaptureEngineSession, SampleTimelineDrivesTheCentreBoxAndTheCardTextReachesTheDelegate) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    // The timeline runs in real time: instrumented, the detectors see too few frames of each scripted moment.
    GTEST_SKIP() << "the sample camera's timeline needs detectors at full speed";
#endif
    kptest::ManualMainQueue main;
    RunningEngine run;
    ASSERT_NE(run.engine, nullptr);
    const auto& engine = run.engine;
    const auto& delegate = run.delegate;
    const CGRect box = CGRectInset(engine->previewLayer()->frame(), 30, 50);

    // The timeline repeats every 12 s: the head upright in the middle (0-2 s), tilted by 30 degrees (2-4.5 s),
    // upright (4.5-5.5 s), turned and gone, back in the middle (11-12 s). The card lies beside it throughout.
    // The detector needs a moment to find the face, so the first green box may come in any upright stretch; the
    // tilt that follows it is at most 10 s later.
    enum Step { kWaitForGreen, kWaitForTilt, kDone };
    int step = kWaitForGreen;
    bool redWhileTilted = false;
    CGRect centredFace = CGRectZero;
    const bool finished = main.drainUntil(
        [&] {
            const auto centre = engine->centerLayer();
            if (step == kWaitForGreen && engine->isHeadCentered() && borderIs(centre, UIColor::greenColor())) {
                centredFace = engine->faceRect();
                EXPECT_EQ(engine->rollAngle(), 0.0);
                EXPECT_EQ(engine->yawAngle(), 0.0);
                EXPECT_TRUE(CGRectEqualToRect(centre->frame(), box));
                step = kWaitForTilt;
            }
            if (step == kWaitForTilt && engine->hasRollAngle() && engine->rollAngle() == kMirroredTilt &&
                !CGRectEqualToRect(engine->faceRect(), CGRectZero)) {
                // The tilted head fails the centre box at once, wherever it is.
                EXPECT_FALSE(engine->isHeadCentered());
                redWhileTilted = borderIs(centre, UIColor::redColor());
                step = kDone;
            }
            return step == kDone &&
                   delegate->read([](const RecordingDelegate& d) { return d.sawTiltedFace && d.sawCardText; });
        },
        20.0);
    run.stop();
    main.drain();

    EXPECT_TRUE(finished) << "step " << step << ", " << run.summary();
    EXPECT_TRUE(redWhileTilted) << run.summary();
    // The centred face lies inside the box, in preview points.
    EXPECT_TRUE(CGRectContainsRect(box, centredFace)) << run.summary();
    delegate->read([&](const RecordingDelegate& d) {
        EXPECT_EQ(d.offQueueCalls, 0);
        EXPECT_TRUE(d.sawUprightFace);
        EXPECT_TRUE(d.sawCardText) << "the card's PDF417 text reaches the delegate as barcodeData";
        return 0;
    });
}
