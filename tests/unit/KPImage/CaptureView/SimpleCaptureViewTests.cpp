// SPDX-License-Identifier: MIT
// The capture view on two fake cameras with a main queue drained by hand: defaults, the preview subview and layer,
// video on and off, the focus timer, the camera switch and the one-shot still-picture callback, also while
// pictures arrive on other threads.
#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/SimpleCaptureView.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

using namespace kp;
using kptest::FakeCaptureDevice;

namespace {

// What one still-picture callback received.
struct Received {
    std::atomic<int> calls{0};
    std::mutex mutex;
    std::optional<UIImage> picture;
    NSErrorRef error;
    dispatch_queue_t queue; // where it should run
    bool onQueue = false;
    SimpleCaptureView::CaptureCallback callback() {
        return [this](const std::optional<UIImage>& image, const NSErrorRef& err) {
            std::lock_guard lock(mutex);
            picture = image, error = err, onQueue = queue && queue->isCurrent();
            calls.fetch_add(1);
        };
    }
};

class SimpleCaptureViewTest : public ::testing::Test {
protected:
    kptest::ManualMainQueue main;
    std::shared_ptr<FakeCaptureDevice> back = std::make_shared<FakeCaptureDevice>("view-back");
    std::shared_ptr<FakeCaptureDevice> front = std::make_shared<FakeCaptureDevice>("view-front");
    AVCaptureDevice::Ref backDevice, frontDevice;
    std::shared_ptr<SimpleCaptureView> view;

    void SetUp() override {
        AVCaptureDevice::setDiscovery({false, "/dev", false});
        backDevice = AVCaptureDevice::addDevice(back, AVCaptureDevicePositionBack);
        frontDevice = AVCaptureDevice::addDevice(front, AVCaptureDevicePositionFront);
        view = SimpleCaptureView::initWithFrame(CGRectMake(0, 0, 320, 240));
    }
    void TearDown() override {
        // A still picture on its way holds the engine until it is delivered: nothing may run after the test.
        view->stopVideo();
        std::weak_ptr<KPVideoHelper> engine = view->videoHelper();
        view.reset();
        EXPECT_TRUE(main.drainUntil([&] { return engine.expired(); }, 30.0));
        AVCaptureDevice::removeDevice(backDevice);
        AVCaptureDevice::removeDevice(frontDevice);
        AVCaptureDevice::setDiscovery({});
    }
    // Video on without detection (the callbacks need no faces), then frames until the condition holds.
    void startPlainVideo() {
        view->videoHelper()->setFaceFindSupport(false);
        view->videoHelper()->setPdf417Support(false);
        view->startVideo();
    }
    bool pushUntil(const std::function<bool()>& condition) {
        return main.drainUntil([&] { return back->pushFrame(), condition(); }, 30.0);
    }
    bool stillsDone() {
        return pushUntil([&] { return !view->videoHelper()->stillImageOutput()->isCapturingStillImage(); });
    }
};

uint32_t focusRuns(const FakeCaptureDevice& camera) {
    const auto applied = camera.appliedControls();
    return applied.empty() ? 0 : applied.back().autoFocusRequests;
}

} // namespace

TEST_F(SimpleCaptureViewTest, DefaultsAndThePreviewOfAViewSizedLater) {
    const auto& engine = view->videoHelper();
    EXPECT_EQ(engine->device(), backDevice);
    EXPECT_EQ(engine->delegate(), view);
    EXPECT_EQ(view.use_count(), 1) << "the engine holds its delegate weakly";
    EXPECT_FALSE(engine->showBarcodeBoundingBox() || engine->showFaceBoundingBox() || engine->showCenterBox());
    EXPECT_EQ(engine->previewLayer()->videoGravity(), AVLayerVideoGravityResizeAspectFill);

    // A view that gets its size later shows the picture (the demo window shows it): video in BGRA, beneath the
    // preview's other layers.
    auto sized = SimpleCaptureView::initWithFrame(CGRectZero);
    sized->setBounds(CGRectMake(0, 0, 400, 300));
    sized->vwPreview()->layer()->addSublayer(CALayer::layer());
    sized->startVideo();
    EXPECT_EQ(back->streamRequest().pixelFormat, kCVPixelFormatType_32BGRA);
    EXPECT_EQ(sized->vwPreview()->layer()->sublayers().at(0), sized->videoHelper()->previewLayer());
    sized->stopVideo();
    EXPECT_FALSE(sized->videoHelper()->previewLayer()->superlayer() || back->isStreaming());
}

TEST_F(SimpleCaptureViewTest, VideoStartsOnceAndOneFocusTimerRefocusesEveryThreeSeconds) {
    view->setVideoRunning(true);
    view->startVideo();
    view->startTimers();
    const auto timer = view->focusTimer();
    view->startTimers(); // a timer that exists is kept
    EXPECT_TRUE(back->startCount() == 1 && timer && view->focusTimer() == timer);
    const uint32_t before = focusRuns(*back);
    for (const auto& [seconds, runs] : {std::pair{2.9, 0U}, {0.2, 1U}, {3.0, 2U}}) {
        main.advance(seconds);
        main.drain();
        EXPECT_EQ(focusRuns(*back), before + runs) << seconds;
    }
    view->stopVideo();
    main.advance(10.0);
    main.drain();
    EXPECT_EQ(focusRuns(*back), before + 2) << "stopped with the video";
}

TEST_F(SimpleCaptureViewTest, SwitchingFlipsTheStateAndShowsTheBoxesForTheFrontCamera) {
    view->startVideo();
    const auto& engine = view->videoHelper();
    view->toggleCameraWithAnimation(false);
    EXPECT_FALSE(view->backCameraActive());
    EXPECT_TRUE(engine->showFaceBoundingBox() && engine->showCenterBox());
    EXPECT_EQ(engine->device(), frontDevice);
    view->toggleCameraWithAnimation(true);
    EXPECT_TRUE(view->backCameraActive());
    EXPECT_FALSE(engine->showFaceBoundingBox());
    EXPECT_EQ(engine->device(), backDevice);
    main.drain();
    EXPECT_EQ(engine->previewLayer()->animationKeys(), std::vector<std::string>{"transform"});
}

TEST_F(SimpleCaptureViewTest, CallbacksRunOnceOnTheFrameQueueOnlyTheNewestAndNotForAFailure) {
    Received early;
    view->captureImage(early.callback()); // no video: fails at once
    ASSERT_EQ(early.calls.load(), 1);
    EXPECT_FALSE(early.picture);
    ASSERT_TRUE(early.error);
    EXPECT_EQ(early.error->domain(), "Video not started");
    EXPECT_EQ(early.error->code(), 101);
    EXPECT_FALSE(view->callbackBlock());

    startPlainVideo();
    const auto& engine = view->videoHelper();
    Received first, second;
    second.queue = engine->videoDataOutputQueue();
    view->captureImage(first.callback());
    engine->stopVideoCapture(); // the camera stops under the picture in flight: it fails and reaches nobody
    ASSERT_TRUE(main.drainUntil([&] { return !engine->stillImageOutput()->isCapturingStillImage(); }));
    EXPECT_TRUE(view->callbackBlock()) << "the failure did not consume the callback";
    engine->startVideoCapture();
    view->captureImage(second.callback());
    ASSERT_TRUE(pushUntil([&] { return second.calls.load() > 0; }));
    ASSERT_TRUE(stillsDone());
    main.drain();
    EXPECT_EQ(first.calls.load(), 0) << "a replaced callback is dropped uncalled";
    EXPECT_EQ(second.calls.load(), 1);
    EXPECT_FALSE(view->callbackBlock());
    std::lock_guard lock(second.mutex);
    EXPECT_TRUE(second.onQueue);
    EXPECT_FALSE(second.error);
    ASSERT_TRUE(second.picture && second.picture->CGImage());
    EXPECT_EQ(std::minmax(second.picture->CGImage()->width(), second.picture->CGImage()->height()),
              std::minmax<size_t>(48, 64));
}

TEST_F(SimpleCaptureViewTest, CallbacksStoredWhilePicturesArriveRunAtMostOnce) {
    startPlainVideo();
    constexpr size_t kCallbacks = 30;
    std::array<std::atomic<int>, kCallbacks> calls{};
    std::atomic<bool> stop{false};
    // Frames from the camera's thread become pictures on the frame queue; deliveries from a second thread overlap.
    std::thread frames([&] {
        for (; !stop.load(); std::this_thread::sleep_for(std::chrono::microseconds(500))) {
            back->pushFrame();
        }
    });
    std::thread deliveries([&] {
        for (; !stop.load(); std::this_thread::sleep_for(std::chrono::microseconds(200))) {
            view->getNewStillImage(std::nullopt);
        }
    });
    for (size_t i = 0; i < kCallbacks; ++i) {
        view->captureImage([&calls, i](const std::optional<UIImage>&, const NSErrorRef&) { calls[i].fetch_add(1); });
        (void)view->callbackBlock();
        main.drainOnce();
    }
    const bool newestRan = main.drainUntil([&] { return calls[kCallbacks - 1].load() > 0; }, 30.0);
    const bool done =
        main.drainUntil([&] { return !view->videoHelper()->stillImageOutput()->isCapturingStillImage(); }, 30.0);
    stop.store(true);
    frames.join();
    deliveries.join();
    EXPECT_TRUE(newestRan && done) << "the newest callback is never replaced, so it runs";
    EXPECT_TRUE(std::all_of(calls.begin(), calls.end(), [](const auto& c) { return c.load() <= 1; }));
}
