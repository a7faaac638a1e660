// SPDX-License-Identifier: MIT
// A camera's streaming thread that can be stopped from any thread, its own included.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace kp {

/// The stop request of one stream run: a flag the run polls and a wait that a stop cuts short.
class StreamStop {
public:
    /// True once the run has been asked to end.
    bool requested() const { return _flag.load(std::memory_order_acquire); }
    /// The flag itself, for loops that only poll.
    const std::atomic<bool>& flag() const { return _flag; }
    /// Waits until the deadline or a stop request, whichever comes first; true when the deadline came.
    bool sleepUntil(std::chrono::steady_clock::time_point deadline) const;

private:
    friend class StreamThread;
    void request();

    std::atomic<bool> _flag{false};
    mutable std::mutex _mutex;
    mutable std::condition_variable _wake;
};

/// Runs one stream loop at a time. Each run has its own stop request: a run stopped from inside itself (a frame
/// callback letting go of the last owner) is detached and ends after its current frame; a later stop or start
/// from another thread waits for it to end first, so two runs never overlap and an old run never resumes.
class StreamThread {
public:
    StreamThread() = default;
    ~StreamThread() { stop(); }
    StreamThread(const StreamThread &) = delete;
    StreamThread &operator=(const StreamThread &) = delete;

    /// Stops any previous run, then runs body(stop) on a new thread; body returns once stop is requested. Start and
    /// stop may be called from any thread, the run's own included.
    void start(std::function<void(const StreamStop &stop)> body);
    /// The same for a body that only polls the flag.
    void start(std::function<void(const std::atomic<bool> &stop)> body);
    /// Asks the current run to end (waking its waits) and waits for it, except on the run's own thread (it then
    /// ends by itself); from any other thread it also waits for a run that was stopped that way.
    void stop();

private:
    struct Run {
        StreamStop stop;
        std::mutex mutex;
        std::condition_variable ended;
        bool finished = false;
        std::thread::id id;
    };
    std::mutex _mutex; // guards the members below (a run may stop itself while its start is still returning)
    std::shared_ptr<Run> _run;
    std::thread _thread;
    std::shared_ptr<Run> _detached; // a run stopped from itself that may still be finishing
};

} // namespace kp
