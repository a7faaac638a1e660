// SPDX-License-Identifier: MIT
// Dispatch queues, the main run loop, timers and one-time initialisation.
#include "KPImage/Platform/Dispatch.h"
#include "KPImage/Platform/NSRunLoop.h"
#include "KPImage/Platform/NSTimer.h"
#include "support/ManualMainQueue.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <atomic>
#include <future>
#include <numeric>
#include <vector>

using namespace kp;

TEST(Dispatch, SerialQueueRunsTasksInOrderOneAtATime) {
    auto queue = dispatch_queue_create("VideoDataOutputQueue", DISPATCH_QUEUE_SERIAL);
    std::vector<int> order, expected(200);
    std::iota(expected.begin(), expected.end(), 0);
    std::atomic<int> running{0};
    bool overlapped = false;
    for (int i = 0; i < 200; ++i) {
        dispatch_async(queue, [&, i] {
            overlapped |= running.fetch_add(1) != 0;
            std::this_thread::yield(); // gives a second runner the chance to overlap
            order.push_back(i);
            running.fetch_sub(1);
        });
    }
    // A synchronous task runs after everything queued before it; nested on its own queue it runs inline.
    bool nested = false;
    dispatch_sync(queue, [&] { dispatch_sync(queue, [&] { nested = true; }); });
    EXPECT_EQ(order, expected);
    EXPECT_FALSE(overlapped);
    EXPECT_TRUE(nested);
}

TEST(Dispatch, MainQueueRunsWhenDrainedHoldsCapturesUntilRunAndWakesAHostLoop) {
    kptest::ManualMainQueue main;
    auto& loop = NSRunLoop::mainRunLoop();
    const auto readable = [&] {
        pollfd p{loop.wakeupFileDescriptor(), POLLIN, 0};
        return ::poll(&p, 1, 0) == 1;
    };
    auto token = std::make_shared<int>(7);
    std::weak_ptr<int> watch = token;
    std::vector<int> ran;
    std::thread([&, token] {
        dispatch_async(dispatch_get_main_queue(), [token, &ran] { ran.push_back(*token); });
    }).join();
    EXPECT_TRUE(readable()) << "another thread's post wakes the host's loop";
    dispatch_async(dispatch_get_main_queue(), [&ran] {
        ran.push_back(2);
        dispatch_async(dispatch_get_main_queue(), [&ran] { ran.push_back(3); }); // runs in the next pass
    });
    token.reset();
    EXPECT_FALSE(watch.expired()) << "a queued task keeps what it captured";
    EXPECT_EQ(loop.pump(), 2U);
    EXPECT_EQ(ran, (std::vector<int>{7, 2}));
    EXPECT_TRUE(watch.expired()) << "a task releases its captures once it has run";
    EXPECT_EQ(loop.pump(), 1U);
    EXPECT_FALSE(readable());

    // While the test drives the loop, this thread is the main thread and sync to main runs inline.
    bool inlineRan = false;
    dispatch_async(dispatch_get_main_queue(),
                   [&] { dispatch_sync(dispatch_get_main_queue(), [&] { inlineRan = true; }); });
    main.drain();
    EXPECT_TRUE(inlineRan);
}

TEST(Dispatch, GlobalQueueRunsBlockingTasksSideBySideAndSyncToMainWaitsForTheDriver) {
    kptest::ManualMainQueue main;
    // Two tasks that each wait for the other only finish if the pool runs them at the same time; each then waits for
    // the driver to run its task on the main queue.
    std::promise<void> a, b;
    auto fa = a.get_future(), fb = b.get_future();
    std::atomic<int> finished{0};
    auto global = dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0);
    dispatch_async(global,
                   [&] { a.set_value(), fb.wait(), dispatch_sync(dispatch_get_main_queue(), [&] { ++finished; }); });
    dispatch_async(global,
                   [&] { b.set_value(), fa.wait(), dispatch_sync(dispatch_get_main_queue(), [&] { ++finished; }); });
    ASSERT_TRUE(main.drainUntil([&] { return finished.load() == 2; }));
}

TEST(Dispatch, AfterKeepsTheOrderOfTies) {
    kptest::ManualMainQueue main;
    std::vector<int> fired; // main-queue tasks: only this thread touches it
    const dispatch_time_t soon = dispatch_time(DISPATCH_TIME_NOW, 5 * NSEC_PER_MSEC);
    dispatch_after(DISPATCH_TIME_FOREVER, dispatch_get_main_queue(), [&] { fired.push_back(0); });
    for (int i : {1, 2, 3}) {
        dispatch_after(soon, dispatch_get_main_queue(), [&, i] { fired.push_back(i); }); // same time: in order
    }
    ASSERT_TRUE(main.drainUntil([&] { return fired.size() >= 3; }));
    EXPECT_EQ(fired, (std::vector<int>{1, 2, 3}));
}

TEST(Dispatch, RepeatingTimerFiresOnTheClockSkipsMissedFiringsAndStopsWhenInvalidated) {
    kptest::ManualMainQueue main;
    int ticks = 0;
    auto timer = NSTimer::scheduledTimerWithTimeInterval(3.0, true, [&ticks](NSTimer&) { ++ticks; });
    // Ten intervals late: one firing, and the next one lands on the original grid.
    for (const auto& [seconds, expected] : {std::pair{2.9, 0}, {0.1, 1}, {30.0, 2}}) {
        main.advance(seconds);
        main.drain();
        EXPECT_EQ(ticks, expected) << seconds;
    }
    EXPECT_NEAR(*NSRunLoop::mainRunLoop().timeUntilNextTimer(), 3.0, 1e-9);
    timer->invalidate();
    main.advance(10.0);
    main.drain();
    EXPECT_EQ(ticks, 2);
    EXPECT_FALSE(NSRunLoop::mainRunLoop().timeUntilNextTimer().has_value());
}
