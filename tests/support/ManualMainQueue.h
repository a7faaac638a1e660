// SPDX-License-Identifier: MIT
// A main queue the test drains by hand, with a timer clock the test moves.
#pragma once

#include <cstddef>
#include <functional>

namespace kptest {

/// While it lives, the main run loop is driven only by the test: nothing runs until drain(). Timers use a clock
/// that moves only with advance(). Pending tasks and timers are dropped at both ends.
class ManualMainQueue {
public:
    ManualMainQueue();
    ~ManualMainQueue();
    ManualMainQueue(const ManualMainQueue&) = delete;
    ManualMainQueue& operator=(const ManualMainQueue&) = delete;

    /// Runs one pass (the tasks queued so far, then due timers); returns what ran.
    size_t drainOnce();
    /// Runs passes until nothing is left to run (at most 1000); returns what ran.
    size_t drain();
    size_t pending() const;
    /// Moves the timer clock forward.
    void advance(double seconds);
    /// Drains the main queue until the condition holds (work of other threads may still be arriving); false if it
    /// did not within timeoutSeconds of real time.
    bool drainUntil(const std::function<bool()>& condition, double timeoutSeconds = 10.0);

private:
    double _now = 1000.0;
};

} // namespace kptest
