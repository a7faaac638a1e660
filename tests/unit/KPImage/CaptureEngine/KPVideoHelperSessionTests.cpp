// SPDX-License-Identifier: MIT
// The capture engine end to end on the sample camera: frames and a still reach the delegate on
// "VideoDataOutputQueue" while the detection worker and the metadata handler run.
#include "KPImage/KPVideoHelper.h"
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/NSThread.h"
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

    void getLastSampleBuffer(const CMSampleBufferRef& sampleBuffer, CGRect faceRect, CGFloat, CGFloat,
                             const std::optional<std::string>&) override {
        std::lock_guard lock(_mutex);
        ++frames;
        offQueueCalls += onFrameQueue() ? 0 : 1;
        framesWithoutBuffer += sampleBuffer ? 0 : 1;
        if (!CGRectEqualToRect(faceRect, CGRectZero)) {
            lastFaceRect = faceRect;
        }
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
    int framesWithoutBuffer = 0;
    int offQueueCalls = 0;
    CGRect lastFaceRect = CGRectZero;
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
            out << "frames " << d.frames << ", stills " << d.stills;
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
