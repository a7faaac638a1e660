// SPDX-License-Identifier: MIT
// The capture engine end to end on the sample camera: frames and a still reach the delegate on
// "VideoDataOutputQueue" while the detection worker and the metadata handler run.
#include "KPImage/KPVideoHelper.h"
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/NSThread.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <atomic>

using namespace kp;

namespace {

class CountingDelegate final : public libVideoDelegate {
public:
    explicit CountingDelegate(dispatch_queue_t queue) : _queue(std::move(queue)) {}
    void getLastSampleBuffer(const CMSampleBufferRef& buffer, CGRect, CGFloat, CGFloat,
                             const std::optional<std::string>&) override {
        frames += 1;
        wrong += onQueue() && buffer ? 0 : 1;
    }
    void getNewStillImage(const std::optional<UIImage>& image) override {
        wrong += onQueue() ? 0 : 1;
        stillPixels = image && image->CGImage() ? image->CGImage()->width() * image->CGImage()->height() : 0;
        stills += 1;
    }
    std::atomic<int> frames{0}, stills{0}, wrong{0};
    std::atomic<size_t> stillPixels{0};

private:
    bool onQueue() const {
        return _queue->isCurrent() && std::string(dispatch_queue_get_label(_queue)) == "VideoDataOutputQueue" &&
               !NSThread::isMainThread();
    }
    const dispatch_queue_t _queue;
};

} // namespace

TEST(CaptureEngineSession, FramesAndAStillReachTheDelegateOnTheFrameQueue) {
    kptest::ManualMainQueue main;
    AVCaptureDevice::setDiscovery({false, "/dev", true}); // the sample cameras only
    auto engine = KPVideoHelper::initWithAVCaptureSessionPreset(5, AVCaptureDevicePositionFront,
                                                                AVLayerVideoGravityResizeAspect, kCVPixelFormatType_32BGRA);
    ASSERT_TRUE(engine && engine->device());
    auto delegate = std::make_shared<CountingDelegate>(engine->videoDataOutputQueue());
    engine->setDelegate(delegate);
    auto view = engine->getPreviewView(CGRectMake(0, 0, 1280, 720), true);
    engine->startVideoCapture();
    const bool framed = main.drainUntil([&] { return delegate->frames >= 3; }, 20.0);
    engine->takeStillPicture();
    const bool still = main.drainUntil([&] { return delegate->stills > 0; }, 20.0);
    engine->stopVideoCapture();
    dispatch_sync(engine->videoDataOutputQueue(), [] {});
    main.drain();
    AVCaptureDevice::setDiscovery({});
    EXPECT_TRUE(framed && still) << delegate->frames << " frames, " << delegate->stills << " stills";
    EXPECT_EQ(delegate->wrong, 0) << "every frame and still arrives with a buffer on VideoDataOutputQueue";
    EXPECT_EQ(delegate->stills, 1);
    EXPECT_EQ(delegate->stillPixels, size_t{1280} * 720) << "the still is a whole 1280 x 720 picture";
}
