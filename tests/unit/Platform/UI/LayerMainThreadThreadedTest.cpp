// SPDX-License-Identifier: MIT
// Layers are for the main thread: debug builds log a call from another thread (and still carry it out).
#include "KPImage/Platform/CALayer.h"
#include "KPImage/Platform/SystemLog.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace kp;

TEST(LayerMainThread, CallsFromAnotherThreadAreLoggedInDebugBuilds) {
    kptest::ManualMainQueue main;
    std::mutex mutex;
    std::vector<std::string> lines;
    setLogSink([&](std::string_view line) {
        std::lock_guard lock(mutex);
        lines.emplace_back(line);
    });
    auto layer = CALayer::layer();
    layer->setOpacity(0.25f); // the main thread: never logged
    std::thread([&] { layer->setOpacity(0.5f); }).join();
    setLogSink({});
    EXPECT_EQ(layer->opacity(), 0.5f);
#ifdef NDEBUG
    EXPECT_TRUE(lines.empty());
#else
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "CALayer: setOpacity: called off the main thread");
#endif
}
