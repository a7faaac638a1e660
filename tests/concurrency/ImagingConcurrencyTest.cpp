// SPDX-License-Identifier: MIT
// Imaging services used from several threads at once: the shared landmark model, the font map, the
// device orientation and the documents-directory setting.
#include "KPImage/Platform/NSSearchPath.h"
#include "KPImage/Platform/UIDevice.h"
#include "KPImage/UIImage+ImagingHelper.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(ImagingConcurrency, FaceDetectionAndTextFromSeveralThreads) {
    const auto photo = kp::UIImage::imageWithContentsOfFile(kptest::dataPath("astronaut.png"));
    ASSERT_TRUE(photo);
    std::vector<kp::FaceFeatures> results(2);
    std::vector<int> drawn(2, 0);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            // Two threads ask for the landmark model before it is loaded: it must be loaded once and shared. The third
            // sets the device orientation and the documents folder they read meanwhile.
            for (int k = 0; i == 2 && k < 300; ++k) {
                kp::UIDevice::currentDevice().setOrientation(k % 2 ? kp::UIDeviceOrientationLandscapeLeft
                                                                   : kp::UIDeviceOrientationPortrait);
                kp::setDocumentsDirectory(k % 2 ? "/tmp/a" : "/tmp/b");
            }
            if (i < 2) {
                results[i] = photo->getFaceFeaturesWithAccuracy(0);
                drawn[i] = photo->drawText("thread", kp::CGPointMake(10, 10), kp::UIColor::whiteColor(), 20) ? 1 : 0;
                (void)kp::NSSearchPathForDirectoriesInDomains(kp::NSDocumentDirectory, kp::NSUserDomainMask, true);
                (void)kp::UIDevice::currentDevice().orientation();
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    kp::UIDevice::currentDevice().setOrientation(kp::UIDeviceOrientationPortrait);
    kp::setDocumentsDirectory("");
    EXPECT_EQ(results[0].landmarksFound, 1);
    EXPECT_EQ(results[0].faceBounds, results[1].faceBounds);
    EXPECT_EQ(results[0].mouthPosition, results[1].mouthPosition);
    EXPECT_EQ(drawn, (std::vector<int>{1, 1}));
}

} // namespace
