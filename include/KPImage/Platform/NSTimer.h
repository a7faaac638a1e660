// SPDX-License-Identifier: MIT
// Timers of the main run loop: one-shot or repeating, fired on the main thread until invalidated.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

namespace kp {

/// A timer on the main run loop. The run loop holds a scheduled timer (and so its block and whatever that
/// captures) strongly until invalidate() or, for a one-shot timer, until it has fired.
class NSTimer : public std::enable_shared_from_this<NSTimer> {
public:
    /// The action; runs on the main thread with the timer.
    using Block = std::function<void(NSTimer& timer)>;

    /// A timer scheduled on the main run loop, firing first after interval seconds (at least 0.1 ms), then
    /// every interval seconds while repeats is true; missed firings are skipped, not bunched.
    static std::shared_ptr<NSTimer> scheduledTimerWithTimeInterval(double interval, bool repeats, Block block);
    /// The same timer, not yet scheduled (add it with NSRunLoop::addTimer).
    static std::shared_ptr<NSTimer> timerWithTimeInterval(double interval, bool repeats, Block block);

    /// Stops the timer for good and releases its block; safe from any thread, idempotent.
    void invalidate();
    /// False once invalidated (or once a one-shot timer has fired).
    bool isValid() const { return _valid.load(std::memory_order_acquire); }
    double timeInterval() const { return _interval; }
    bool repeats() const { return _repeats; }
    /// Runs the action now without changing the schedule (a one-shot timer is invalidated after it).
    void fire();

    NSTimer(double interval, bool repeats, Block block);

private:
    friend class NSRunLoop;
    const double _interval;
    const bool _repeats;
    std::atomic<bool> _valid{true};
    mutable std::mutex _blockMutex;
    std::shared_ptr<Block> _block;
    /// Next fire time on the run loop's clock; guarded by the run loop.
    double _fireDate = 0;
};

} // namespace kp
