// SPDX-License-Identifier: MIT
// A camera's stream thread: runs never overlap, also when one was stopped from inside itself.
#include "Platform/Capture/StreamThread.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace std::chrono_literals;

TEST(StreamThread, RunStoppedFromItselfFinishesBeforeTheNextStarts) {
    kp::StreamThread thread;
    std::atomic<bool> firstEnded{false}, stoppedInside{false}, secondSawFirstEnded{false}, secondRan{false};
    thread.start([&](const std::atomic<bool>& stop) {
        thread.stop(); // as a frame callback releasing the last session would
        stoppedInside.store(true, std::memory_order_release);
        EXPECT_TRUE(stop.load());
        std::this_thread::sleep_for(50ms); // still finishing its frame
        firstEnded.store(true);
    });
    while (!stoppedInside.load(std::memory_order_acquire)) {
        std::this_thread::sleep_for(1ms);
    }
    thread.start([&](const std::atomic<bool>& stop) {
        secondSawFirstEnded.store(firstEnded.load());
        secondRan.store(true);
        while (!stop.load()) {
            std::this_thread::sleep_for(1ms);
        }
    });
    thread.stop();
    EXPECT_TRUE(secondRan.load());
    EXPECT_TRUE(secondSawFirstEnded.load());
}

TEST(StreamThread, StopWaitsForTheRunAndIsIdempotent) {
    kp::StreamThread thread;
    std::atomic<int> loops{0};
    std::atomic<bool> ended{false};
    thread.start([&](const std::atomic<bool>& stop) {
        while (!stop.load()) {
            loops.fetch_add(1);
            std::this_thread::sleep_for(1ms);
        }
        ended.store(true);
    });
    while (loops.load() < 3) {
        std::this_thread::sleep_for(1ms);
    }
    thread.stop();
    EXPECT_TRUE(ended.load());
    const int after = loops.load();
    thread.stop();
    std::this_thread::sleep_for(5ms);
    EXPECT_EQ(loops.load(), after);
}
