// SPDX-License-Identifier: MIT
// The capture view's one-shot callback stored on the main thread while pictures arrive on other threads: each
// callback runs at most once and the newest one runs once (clean under ThreadSanitizer).
#include "KPImage/SimpleCaptureView.h"
#include "KPImage/Platform/AVCaptureDevice.h"
#include "support/FakeCaptureDevice.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

using namespace kp;
using kptest::FakeCaptureDevice;

TEST(CaptureViewCallbackRace, CallbacksStoredOnTheMainThreadRunAtMostOnceWhilePicturesArrive) {
    kptest::ManualMainQueue main;
    AVCaptureDevice::setDiscovery({false, "/dev", false});
    auto camera = std::make_shared<FakeCaptureDevice>("race-back");
    auto device = AVCaptureDevice::addDevice(camera, AVCaptureDevicePositionBack);

    auto view = SimpleCaptureView::initWithFrame(CGRectMake(0, 0, 160, 120));
    view->setBounds(CGRectMake(0, 0, 320, 240));
    view->startVideo();
    ASSERT_TRUE(camera->isStreaming());

    constexpr size_t kCallbacks = 60;
    std::array<std::atomic<int>, kCallbacks> calls{};
    std::atomic<bool> stop{false};
    // Real pictures: frames from the camera's own thread, which the still output turns into pictures that reach
    // the view on "VideoDataOutputQueue".
    std::thread frames([&] {
        while (!stop.load()) {
            camera->pushFrame();
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    // And deliveries that overlap them, as a second delivering thread would.
    std::thread deliveries([&] {
        while (!stop.load()) {
            view->getNewStillImage(std::nullopt);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });

    for (size_t i = 0; i < kCallbacks; ++i) {
        view->captureImage([&calls, i](const std::optional<UIImage>&, const NSErrorRef& error) {
            EXPECT_FALSE(error);
            calls[i].fetch_add(1);
        });
        (void)view->callbackBlock();
        main.drainOnce();
        if (i % 4 == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    const bool newestRan = main.drainUntil([&] { return calls[kCallbacks - 1].load() > 0; }, 30.0);
    const bool stillsDone =
        main.drainUntil([&] { return !view->videoHelper()->stillImageOutput()->isCapturingStillImage(); }, 30.0);
    stop.store(true);
    frames.join();
    deliveries.join();
    view->stopVideo();
    EXPECT_FALSE(view->callbackBlock());
    // A still picture on its way holds the engine until it has been delivered: nothing may run after the test.
    std::weak_ptr<KPVideoHelper> engine = view->videoHelper();
    view.reset();
    EXPECT_TRUE(main.drainUntil([&] { return engine.expired(); }, 30.0));

    EXPECT_TRUE(newestRan) << "the newest callback is never replaced, so it runs";
    EXPECT_TRUE(stillsDone);
    for (size_t i = 0; i < kCallbacks; ++i) {
        EXPECT_LE(calls[i].load(), 1) << "callback " << i;
    }

    AVCaptureDevice::removeDevice(device);
    AVCaptureDevice::setDiscovery({});
}
