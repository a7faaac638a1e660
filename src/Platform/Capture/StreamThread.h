// SPDX-License-Identifier: MIT
// A camera's streaming thread that can be stopped from any thread, its own included.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace kp {

/// Runs one stream loop at a time. Each run has its own stop flag: a run stopped from inside itself (a frame
/// callback letting go of the last session) is detached and ends after its current frame; a later stop or
/// start from another thread waits for it to end first, so two runs never overlap and an old run never resumes.
class StreamThread {
public:
    StreamThread() = default;
    ~StreamThread() { stop(); }
    StreamThread(const StreamThread &) = delete;
    StreamThread &operator=(const StreamThread &) = delete;

    /// Stops any previous run, then runs body(stop) on a new thread; body returns once stop reads true.
    void start(std::function<void(const std::atomic<bool> &stop)> body);
    /// Asks the current run to end and waits for it, except on the run's own thread (it then ends by itself);
    /// from any other thread it also waits for a run that was stopped that way.
    void stop();

private:
    struct Run {
        std::atomic<bool> stop{false};
        std::mutex mutex;
        std::condition_variable ended;
        bool finished = false;
        std::thread::id id;
    };
    // Guards the three fields below: a run may call stop() on its own thread while start() is still publishing it.
    std::mutex _mutex;
    std::shared_ptr<Run> _run;
    std::thread _thread;
    std::shared_ptr<Run> _detached; // a run stopped from itself that may still be finishing
};

} // namespace kp
