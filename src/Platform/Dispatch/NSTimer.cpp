// SPDX-License-Identifier: MIT
// Timers of the main run loop.
#include "KPImage/Platform/NSTimer.h"

#include "KPImage/Platform/NSRunLoop.h"

#include <cmath>

namespace kp {

namespace {
constexpr double kMinimumInterval = 0.0001;
double sanitise(double interval) { return std::isfinite(interval) && interval > kMinimumInterval ? interval : kMinimumInterval; }
} // namespace

NSTimer::NSTimer(double interval, bool repeats, Block block)
    : _interval(sanitise(interval)), _repeats(repeats), _block(std::make_shared<Block>(std::move(block))) {}

std::shared_ptr<NSTimer> NSTimer::timerWithTimeInterval(double interval, bool repeats, Block block) {
    return std::make_shared<NSTimer>(interval, repeats, std::move(block));
}

std::shared_ptr<NSTimer> NSTimer::scheduledTimerWithTimeInterval(double interval, bool repeats, Block block) {
    auto timer = timerWithTimeInterval(interval, repeats, std::move(block));
    NSRunLoop::mainRunLoop().addTimer(timer);
    return timer;
}

void NSTimer::invalidate() {
    std::shared_ptr<Block> released;
    {
        std::lock_guard lock(_blockMutex);
        _valid.store(false, std::memory_order_release);
        released = std::move(_block);
    }
    // The block (and what it captures) dies here, outside the lock, unless a firing still runs it.
}

void NSTimer::fire() {
    std::shared_ptr<Block> block;
    {
        std::lock_guard lock(_blockMutex);
        if (!_valid.load(std::memory_order_acquire)) {
            return;
        }
        block = _block;
    }
    // Keeps the timer alive while its action runs, even if the action drops the last outside reference.
    auto self = weak_from_this().lock();
    if (block && *block) {
        (*block)(*this);
    }
    if (!_repeats) {
        invalidate();
    }
}

} // namespace kp
