// SPDX-License-Identifier: MIT
// The threads behind the global queue and the serial queues: grows while tasks block, shrinks when idle.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

namespace kp {

/// A pool of worker threads. A task never waits for another task to finish: when no thread is idle a new one
/// starts (up to a high cap), because tasks may sleep or wait for long (a slow frame delegate, a progress
/// animation loop). Idle threads end after a few seconds.
class DispatchThreadPool {
public:
    /// The process-wide pool (never destroyed, so detached workers never outlive it).
    static DispatchThreadPool& shared();
    /// Runs the task on some worker thread.
    void submit(std::function<void()> task);

private:
    DispatchThreadPool() = default;
    void workerLoop();

    std::mutex _mutex;
    std::condition_variable _wake;
    std::deque<std::function<void()>> _tasks;
    size_t _threads = 0;
    size_t _idle = 0;
};

/// Runs tasks at given monotonic times (for dispatch_after) on one timer thread.
class DispatchAfterScheduler {
public:
    static DispatchAfterScheduler& shared();
    /// Calls task (which should only enqueue work) at the monotonic time in nanoseconds.
    void schedule(uint64_t when, std::function<void()> task);

private:
    DispatchAfterScheduler() = default;
    void loop();
    struct Entry {
        uint64_t when;
        uint64_t sequence;
        std::function<void()> task;
    };
    std::mutex _mutex;
    std::condition_variable _wake;
    std::deque<Entry> _entries; // sorted by (when, sequence)
    uint64_t _sequence = 0;
    bool _started = false;
};

/// Nanoseconds on the monotonic clock.
uint64_t dispatchNow();

} // namespace kp
