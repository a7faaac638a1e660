// SPDX-License-Identifier: MIT
// A main queue the test drains by hand.
#include "support/ManualMainQueue.h"

#include "KPImage/Platform/NSRunLoop.h"

#include <chrono>
#include <thread>

namespace kptest {

ManualMainQueue::ManualMainQueue() {
    auto& loop = kp::NSRunLoop::mainRunLoop();
    loop.reset();
    loop.setTimeSource([this] { return _now; });
}

ManualMainQueue::~ManualMainQueue() {
    auto& loop = kp::NSRunLoop::mainRunLoop();
    loop.setTimeSource({});
    loop.reset();
}

size_t ManualMainQueue::drainOnce() { return kp::NSRunLoop::mainRunLoop().drainPending(); }

size_t ManualMainQueue::drain() {
    size_t total = 0;
    for (int i = 0; i < 1000; ++i) {
        const size_t ran = drainOnce();
        total += ran;
        if (ran == 0 && pending() == 0) {
            break;
        }
    }
    return total;
}

size_t ManualMainQueue::pending() const { return kp::NSRunLoop::mainRunLoop().pendingTaskCount(); }

void ManualMainQueue::advance(double seconds) {
    // The clock is read under the run loop's lock by whoever drains, which is this test thread.
    _now += seconds;
}

bool ManualMainQueue::drainUntil(const std::function<bool()>& condition, double timeoutSeconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    for (;;) {
        drainOnce();
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace kptest
