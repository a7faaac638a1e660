// SPDX-License-Identifier: MIT
// A camera's stream thread: runs never overlap, also when one was stopped from inside itself.
#include "Platform/Capture/StreamThread.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace std::chrono_literals;

TEST(StreamThread, RunStoppedFromItselfFinishesBeforeTheNextStartsAndStopWaits) {
    kp::StreamThread thread;
    std::atomic<bool> firstEnded{false}, stoppedInside{false}, secondSawFirstEnded{false}, secondEnded{false};
    thread.start([&](const std::atomic<bool>& stop) {
        thread.stop(); // as a frame callback releasing the last session would
        stoppedInside.store(true, std::memory_order_release);
        EXPECT_TRUE(stop.load());
        std::this_thread::sleep_for(20ms); // still finishing its frame
        firstEnded.store(true);
    });
    while (!stoppedInside.load(std::memory_order_acquire)) {
        std::this_thread::sleep_for(1ms);
    }
    thread.start([&](const std::atomic<bool>& stop) {
        secondSawFirstEnded.store(firstEnded.load());
        while (!stop.load()) {
            std::this_thread::sleep_for(1ms);
        }
        secondEnded.store(true);
    });
    thread.stop();
    EXPECT_TRUE(secondEnded.load());
    EXPECT_TRUE(secondSawFirstEnded.load());
    thread.stop(); // a second stop is harmless
}
