// SPDX-License-Identifier: MIT
// The capture view on two fake cameras with a main queue drained by hand: defaults, the preview subview and the
// preview layer, video on and off, the focus timer, the camera switch and the one-shot still-picture callback.
#include "KPImage/SimpleCaptureView.h"
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/UIColor.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

using namespace kp;
using kptest::FakeCaptureDevice;

namespace {

// A back and a front fake camera, and nothing else the machine may have.
struct Cameras {
    std::shared_ptr<FakeCaptureDevice> back = std::make_shared<FakeCaptureDevice>("view-back");
    std::shared_ptr<FakeCaptureDevice> front = std::make_shared<FakeCaptureDevice>("view-front");
    AVCaptureDevice::Ref backDevice;
    AVCaptureDevice::Ref frontDevice;

    Cameras() {
        AVCaptureDevice::setDiscovery({false, "/dev", false});
        backDevice = AVCaptureDevice::addDevice(back, AVCaptureDevicePositionBack);
        frontDevice = AVCaptureDevice::addDevice(front, AVCaptureDevicePositionFront);
    }
    ~Cameras() {
        AVCaptureDevice::removeDevice(backDevice);
        AVCaptureDevice::removeDevice(frontDevice);
        AVCaptureDevice::setDiscovery({});
    }
};

// How many focus runs the camera was asked for so far.
uint32_t focusRuns(const FakeCaptureDevice& camera) {
    const auto applied = camera.appliedControls();
    return applied.empty() ? 0 : applied.back().autoFocusRequests;
}

size_t indexOfSublayer(const CALayer& parent, const std::shared_ptr<CALayer>& layer) {
    const auto& subs = parent.sublayers();
    for (size_t i = 0; i < subs.size(); ++i) {
        if (subs[i] == layer) {
            return i;
        }
    }
    return subs.size();
}

// What one still-picture callback received.
struct Received {
    std::atomic<int> calls{0};
    std::mutex mutex;
    std::optional<UIImage> picture;
    NSErrorRef error;
    dispatch_queue_t expectedQueue; // set by the test before the callback can run
    bool onExpectedQueue = false;

    SimpleCaptureView::CaptureCallback callback() {
        return [this](const std::optional<UIImage>& image, const NSErrorRef& err) {
            {
                std::lock_guard lock(mutex);
                picture = image;
                error = err;
                onExpectedQueue = expectedQueue && expectedQueue->isCurrent();
            }
            calls.fetch_add(1);
        };
    }
};

class SimpleCaptureViewTest : public ::testing::Test {
protected:
    kptest::ManualMainQueue main;
    Cameras cameras;
    std::shared_ptr<SimpleCaptureView> view = SimpleCaptureView::initWithFrame(CGRectMake(0, 0, 160, 120));

    void TearDown() override {
        // The focus timer holds the view: stop before it goes. A still picture on its way holds the engine until
        // it has been delivered: wait for that, so that nothing runs after the test.
        view->stopVideo();
        std::weak_ptr<KPVideoHelper> engine = view->videoHelper();
        view.reset();
        EXPECT_TRUE(main.drainUntil([&] { return engine.expired(); }, 30.0));
    }

    // Pushes frames until the condition holds (a still picture takes the first frame after its request).
    bool pushUntil(const std::function<bool()>& condition) {
        return main.drainUntil(
            [&] {
                cameras.back->pushFrame();
                cameras.front->pushFrame();
                return condition();
            },
            30.0);
    }
};

} // namespace

TEST_F(SimpleCaptureViewTest, DefaultsTheBackCameraWithBoxesOffAndAStillPictureDelegate) {
    const auto& engine = view->videoHelper();
    ASSERT_TRUE(engine);
    EXPECT_EQ(engine->device(), cameras.backDevice);
    EXPECT_EQ(engine->delegate(), view) << "the view is its engine's delegate";
    EXPECT_EQ(view.use_count(), 1) << "and is held weakly";
    EXPECT_FALSE(engine->showBarcodeBoundingBox());
    EXPECT_FALSE(engine->showFaceBoundingBox());
    EXPECT_FALSE(engine->showCenterBox());
    EXPECT_EQ(engine->previewLayer()->videoGravity(), AVLayerVideoGravityResizeAspectFill);

    // Frames run in 32-bit BGRA.
    view->startVideo();
    ASSERT_TRUE(cameras.back->isStreaming());
    EXPECT_EQ(cameras.back->streamRequest().pixelFormat, kCVPixelFormatType_32BGRA);
}

TEST_F(SimpleCaptureViewTest, AViewGivenASizeAnyWayShowsThePreview) {
    struct Case {
        const char* how;
        std::function<void(SimpleCaptureView&)> size; // after initWithFrame with `frame`
        CGRect frame;
    };
    const Case cases[] = {
        {"initWithFrame", [](SimpleCaptureView&) {}, CGRectMake(7, 9, 400, 300)},
        {"setFrame", [](SimpleCaptureView& v) { v.setFrame(CGRectMake(7, 9, 400, 300)); }, CGRectZero},
        {"setBounds", [](SimpleCaptureView& v) { v.setBounds(CGRectMake(0, 0, 400, 300)); }, CGRectZero},
    };
    for (const Case& c : cases) {
        auto sized = SimpleCaptureView::initWithFrame(c.frame);
        EXPECT_EQ(static_cast<bool>(sized->vwPreview()), !CGRectIsEmpty(c.frame)) << c.how;
        c.size(*sized);
        const auto preview = sized->vwPreview();
        ASSERT_TRUE(preview) << c.how;
        EXPECT_EQ(preview->superview(), sized);
        EXPECT_TRUE(CGRectEqualToRect(preview->frame(), CGRectMake(0, 0, 400, 300))) << c.how;
        // A new origin alone keeps the subview.
        sized->setFrame(CGRectMake(1, 2, 400, 300));
        EXPECT_EQ(sized->vwPreview(), preview) << c.how;

        // Video on: the preview layer goes beneath everything in vwPreview, framed to its bounds, black, unclipped.
        auto overlay = CALayer::layer();
        preview->layer()->addSublayer(overlay);
        preview->layer()->setMasksToBounds(true);
        sized->startVideo();
        const auto& layer = sized->videoHelper()->previewLayer();
        EXPECT_EQ(layer->superlayer(), preview->layer()) << c.how;
        EXPECT_EQ(indexOfSublayer(*preview->layer(), layer), 0U);
        EXPECT_EQ(indexOfSublayer(*preview->layer(), overlay), 1U);
        EXPECT_TRUE(CGRectEqualToRect(layer->frame(), CGRectMake(0, 0, 400, 300))) << c.how;
        EXPECT_EQ(layer->backgroundColor(), UIColor::blackColor().CGColor());
        EXPECT_FALSE(preview->layer()->masksToBounds());

        // Video off: the layer leaves, then the camera stops.
        sized->stopVideo();
        EXPECT_FALSE(layer->superlayer());
        EXPECT_FALSE(cameras.back->isStreaming());
        EXPECT_EQ(sized->vwPreview(), preview) << "stopping keeps the subview";
    }

    // Started while the view has no size: the camera runs but nothing shows the picture.
    auto unsized = SimpleCaptureView::initWithFrame(CGRectZero);
    unsized->startVideo();
    EXPECT_TRUE(cameras.back->isStreaming());
    EXPECT_FALSE(unsized->vwPreview());
    EXPECT_FALSE(unsized->videoHelper()->previewLayer()->superlayer());
    unsized->stopVideo();
}

TEST_F(SimpleCaptureViewTest, ResizingWhileRunningLeavesThePictureBehindUntilARestart) {
    view->setBounds(CGRectMake(0, 0, 320, 240));
    view->startVideo();
    const auto first = view->vwPreview();
    const auto& layer = view->videoHelper()->previewLayer();
    ASSERT_EQ(layer->superlayer(), first->layer());

    view->setBounds(CGRectMake(0, 0, 640, 480));
    const auto second = view->vwPreview();
    ASSERT_TRUE(second);
    EXPECT_NE(second, first);
    EXPECT_FALSE(first->superview()) << "the old subview left the view";
    EXPECT_EQ(view->subviews().size(), 1U);
    EXPECT_EQ(layer->superlayer(), first->layer()) << "the picture went with it";
    EXPECT_TRUE(second->layer()->sublayers().empty());
    EXPECT_TRUE(CGRectEqualToRect(layer->frame(), CGRectMake(0, 0, 320, 240))) << "the layer is not resized";

    view->stopVideo();
    view->startVideo();
    EXPECT_EQ(layer->superlayer(), second->layer());
    EXPECT_TRUE(CGRectEqualToRect(layer->frame(), CGRectMake(0, 0, 640, 480)));
}

TEST_F(SimpleCaptureViewTest, VideoStartsOnceAndOneFocusTimerRefocusesEveryThreeSeconds) {
    view->setBounds(CGRectMake(0, 0, 320, 240));
    view->setVideoRunning(true);
    view->setVideoRunning(true);
    EXPECT_EQ(cameras.back->startCount(), 1);
    EXPECT_FALSE(view->focusTimer()) << "setVideoRunning leaves the timer alone";

    view->startVideo();
    view->startTimers();
    const auto timer = view->focusTimer();
    ASSERT_TRUE(timer);
    EXPECT_EQ(view->focusTimer(), timer) << "a timer that exists is kept";
    EXPECT_EQ(cameras.back->startCount(), 1);

    const uint32_t before = focusRuns(*cameras.back);
    main.advance(2.9);
    main.drain();
    EXPECT_EQ(focusRuns(*cameras.back), before) << "not yet due";
    main.advance(0.2);
    main.drain();
    EXPECT_EQ(focusRuns(*cameras.back), before + 1) << "one timer, one focus run";
    main.advance(3.0);
    main.drain();
    EXPECT_EQ(focusRuns(*cameras.back), before + 2) << "it repeats";

    view->stopVideo();
    EXPECT_FALSE(timer->isValid());
    main.advance(10.0);
    main.drain();
    EXPECT_EQ(focusRuns(*cameras.back), before + 2);

    // The timer no longer holds the view.
    std::weak_ptr<SimpleCaptureView> weak = view;
    view.reset();
    main.drain();
    EXPECT_TRUE(weak.expired());
    view = SimpleCaptureView::initWithFrame(CGRectMake(0, 0, 10, 10)); // for TearDown
}

TEST_F(SimpleCaptureViewTest, SwitchingFlipsTheStateAndShowsTheBoxesForTheFrontCamera) {
    view->setBounds(CGRectMake(0, 0, 320, 240));
    view->startVideo();
    const auto& engine = view->videoHelper();

    view->toggleCameraWithAnimation(false);
    EXPECT_FALSE(view->backCameraActive());
    EXPECT_TRUE(engine->showFaceBoundingBox());
    EXPECT_TRUE(engine->showCenterBox());
    EXPECT_EQ(engine->device(), cameras.frontDevice);
    main.drain();
    EXPECT_TRUE(engine->previewLayer()->animationKeys().empty()) << "no flip without animation";

    view->toggleCameraWithAnimation(true);
    EXPECT_TRUE(view->backCameraActive());
    EXPECT_FALSE(engine->showFaceBoundingBox());
    EXPECT_FALSE(engine->centerLayer()->superlayer());
    EXPECT_EQ(engine->device(), cameras.backDevice);
    main.drain();
    EXPECT_EQ(engine->previewLayer()->animationKeys(), std::vector<std::string>{"transform"}) << "the flip";
}

TEST_F(SimpleCaptureViewTest, SwitchStateFlipsEvenWhenTheEngineFindsNoOtherCamera) {
    // Only a back camera: the engine cannot switch, the view still believes it did.
    AVCaptureDevice::removeDevice(cameras.frontDevice);
    auto lone = SimpleCaptureView::initWithFrame(CGRectMake(0, 0, 100, 100));
    lone->toggleCameraWithAnimation(false);
    EXPECT_FALSE(lone->backCameraActive());
    EXPECT_TRUE(lone->videoHelper()->showCenterBox());
    EXPECT_EQ(lone->videoHelper()->device(), cameras.backDevice);
    // The engine left its session without input; a second switch has nothing to remove and stays safe.
    EXPECT_TRUE(lone->videoHelper()->session()->inputs().empty());
    lone->toggleCameraWithAnimation(false);
    EXPECT_TRUE(lone->videoHelper()->session()->inputs().empty());
}

TEST_F(SimpleCaptureViewTest, CaptureWithoutVideoFailsAtOnceWithCode101) {
    Received received;
    view->captureImage(received.callback());
    ASSERT_EQ(received.calls.load(), 1) << "called at once, on the calling thread";
    EXPECT_FALSE(received.picture);
    ASSERT_TRUE(received.error);
    EXPECT_EQ(received.error->domain(), "Video not started");
    EXPECT_EQ(received.error->code(), 101);
    EXPECT_FALSE(view->callbackBlock()) << "not kept";
    EXPECT_EQ(cameras.back->stillRequests(), 0);

    view->captureImage(nullptr); // an empty callback is never called
    EXPECT_FALSE(view->callbackBlock());
}

TEST_F(SimpleCaptureViewTest, ANewerCallbackReplacesThePendingOneAndRunsOnceWithAPicture) {
    view->setBounds(CGRectMake(0, 0, 320, 240));
    view->startVideo();
    Received first, second;
    second.expectedQueue = view->videoHelper()->videoDataOutputQueue();
    view->captureImage(first.callback());
    view->captureImage(second.callback());
    ASSERT_TRUE(view->callbackBlock());

    ASSERT_TRUE(pushUntil([&] { return second.calls.load() > 0; }));
    // Both pictures are taken; wait for the second one too, which finds no callback.
    ASSERT_TRUE(pushUntil([&] { return !view->videoHelper()->stillImageOutput()->isCapturingStillImage(); }));
    main.drain();
    EXPECT_EQ(first.calls.load(), 0) << "a replaced callback is dropped uncalled";
    EXPECT_EQ(second.calls.load(), 1);
    EXPECT_FALSE(view->callbackBlock());
    std::lock_guard lock(second.mutex);
    EXPECT_TRUE(second.onExpectedQueue) << "on \"VideoDataOutputQueue\"";
    EXPECT_FALSE(second.error);
    ASSERT_TRUE(second.picture);
    ASSERT_TRUE(second.picture->CGImage());
    const auto& bitmap = *second.picture->CGImage();
    EXPECT_EQ(std::minmax(bitmap.width(), bitmap.height()), std::minmax<size_t>(48, 64))
        << "the fake camera's 64 x 48 frame, upright for the device's orientation";
    EXPECT_EQ(cameras.back->stillRequests(), 2);
}

TEST_F(SimpleCaptureViewTest, AFailedPictureLeavesTheCallbackWaitingForTheNextOne) {
    view->startVideo();
    const auto& engine = view->videoHelper();
    Received received;
    view->captureImage(received.callback());
    // The camera stops under the picture in flight: the picture fails and reaches nobody.
    engine->stopVideoCapture();
    ASSERT_TRUE(main.drainUntil([&] { return !engine->stillImageOutput()->isCapturingStillImage(); }));
    EXPECT_TRUE(view->callbackBlock());

    // The next picture, whoever asked for it, goes to the waiting callback.
    engine->startVideoCapture();
    engine->takeStillPicture();
    ASSERT_TRUE(pushUntil([&] { return received.calls.load() > 0; }));
    ASSERT_TRUE(pushUntil([&] { return !engine->stillImageOutput()->isCapturingStillImage(); }));
    main.drain();
    EXPECT_EQ(received.calls.load(), 1);
    std::lock_guard lock(received.mutex);
    EXPECT_TRUE(received.picture) << "the failure did not consume the callback";
    EXPECT_FALSE(received.error);
    EXPECT_FALSE(view->callbackBlock());
}
