// SPDX-License-Identifier: MIT
// Layers are for the main thread: debug builds log a call from another thread (and still carry it out).
#include "KPImage/Platform/CALayer.h"
#include "support/ManualMainQueue.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <thread>

using namespace kp;

TEST(LayerMainThread, CallsFromAnotherThreadAreLoggedInDebugBuilds) {
    kptest::ManualMainQueue main;
    kptest::LogCapture log;
    auto layer = CALayer::layer();
    layer->setOpacity(0.25f); // the main thread: never logged
    std::thread([&] { layer->setOpacity(0.5f); }).join();
    EXPECT_EQ(layer->opacity(), 0.5f);
#ifdef NDEBUG
    EXPECT_TRUE(log.lines().empty());
#else
    EXPECT_EQ(log.lines(), std::vector<std::string>{"CALayer: setOpacity: called off the main thread"});
#endif
}
