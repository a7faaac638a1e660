// SPDX-License-Identifier: MIT
// A main queue the test drains by hand.
#include "support/ManualMainQueue.h"

#include "KPImage/Platform/NSRunLoop.h"

#include <chrono>
#include <thread>

namespace kptest {

ManualMainQueue::ManualMainQueue() {
    kp::NSRunLoop::mainRunLoop().reset();
    kp::NSRunLoop::mainRunLoop().setTimeSource([this] { return _now; });
}

ManualMainQueue::~ManualMainQueue() {
    kp::NSRunLoop::mainRunLoop().setTimeSource({});
    kp::NSRunLoop::mainRunLoop().reset();
}

size_t ManualMainQueue::drainOnce() { return kp::NSRunLoop::mainRunLoop().drainPending(); }

size_t ManualMainQueue::drain() {
    size_t total = 0, ran = 1;
    for (int i = 0; i < 1000 && (ran != 0 || pending() != 0); ++i) {
        total += ran = drainOnce();
    }
    return total;
}

size_t ManualMainQueue::pending() const { return kp::NSRunLoop::mainRunLoop().pendingTaskCount(); }

// The clock is read under the run loop's lock by whoever drains, which is this test thread.
void ManualMainQueue::advance(double seconds) { _now += seconds; }

bool ManualMainQueue::drainUntil(const std::function<bool()>& condition, double timeoutSeconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    for (drainOnce(); !condition(); drainOnce()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace kptest
