// SPDX-License-Identifier: MIT
// The main run loop: runs the main queue's tasks and the scheduled timers on the thread that drives it.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

namespace kp {

class NSTimer;

/// The process's main run loop. The host drives it from one thread at a time: by run(), runFor() or, from a
/// GUI toolkit's loop, by calling pump() whenever wakeupFileDescriptor() becomes readable or
/// timeUntilNextTimer() has passed. That thread is the main thread while it drives the loop.
class NSRunLoop {
public:
    /// The one main run loop (lives until the process ends).
    static NSRunLoop& mainRunLoop();

    /// Appends a task to the main queue (any thread). Its captures are held until it has run.
    void performBlock(std::function<void()> block);
    /// Runs tasks and timers until stop() is called.
    void run();
    /// Runs tasks and timers for the given seconds, or until stop(); returns at once for a non-positive time
    /// after one pass.
    void runFor(double seconds);
    /// Runs the tasks queued before the call, in order (tasks they queue wait for the next pass), then fires the
    /// timers that are due. Returns the number of tasks and timer firings run. Never waits.
    size_t drainPending();
    /// For a host's GUI loop: clears the wake-up descriptor and then does drainPending().
    size_t pump();
    /// A descriptor that is readable while tasks are pending (poll it for POLLIN); owned by the run loop.
    int wakeupFileDescriptor() const;
    /// Seconds until the earliest scheduled timer fires (0 when overdue); nil without timers.
    std::optional<double> timeUntilNextTimer() const;
    /// Makes the current (or next) run() or runFor() return after its current task.
    void stop();
    /// The number of tasks waiting on the main queue.
    size_t pendingTaskCount() const;
    /// True when the calling thread is driving this run loop right now.
    bool isDriving() const;
    /// True while some thread drives the loop.
    bool hasDriver() const;

    /// Schedules a timer (any thread); the run loop holds it strongly until it is invalidated or, for a
    /// one-shot timer, has fired.
    void addTimer(const std::shared_ptr<NSTimer>& timer);
    /// Seconds on the clock that timers use (monotonic unless replaced).
    double currentTime() const;
    /// Replaces the clock that timers use (for a host that runs simulated time); empty restores the monotonic
    /// clock.
    void setTimeSource(std::function<double()> now);
    /// Drops every pending task and timer (for a host that restarts its main loop).
    void reset();

    NSRunLoop(const NSRunLoop&) = delete;
    NSRunLoop& operator=(const NSRunLoop&) = delete;

private:
    NSRunLoop();
    ~NSRunLoop();
    struct State;
    std::unique_ptr<State> _state;
};

} // namespace kp
