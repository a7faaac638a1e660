// SPDX-License-Identifier: MIT
// A camera's streaming thread that can be stopped from any thread, its own included.
#include "Platform/Capture/StreamThread.h"

namespace kp {

bool StreamStop::sleepUntil(std::chrono::steady_clock::time_point deadline) const {
    std::unique_lock lock(_mutex);
    return !_wake.wait_until(lock, deadline, [&] { return requested(); });
}

void StreamStop::request() {
    {
        // Under the lock, so that a run between its check and its wait cannot miss the wake-up.
        std::lock_guard lock(_mutex);
        _flag.store(true, std::memory_order_release);
    }
    _wake.notify_all();
}

void StreamThread::start(std::function<void(const std::atomic<bool> &stop)> body) {
    start([body = std::move(body)](const StreamStop &stop) { body(stop.flag()); });
}

void StreamThread::start(std::function<void(const StreamStop &stop)> body) {
    stop();
    auto run = std::make_shared<Run>();
    // Under the lock, so that the run stopping itself at once sees its thread.
    std::lock_guard lock(_mutex);
    // Started again from the detached run's own thread: that run ends as soon as this call returns to it.
    _detached.reset();
    _thread = std::thread([run, body = std::move(body)]() mutable {
        body(run->stop);
        // What the body holds (a back-end keeping itself alive) goes before the run counts as finished.
        body = nullptr;
        std::lock_guard finishedLock(run->mutex);
        run->finished = true;
        run->ended.notify_all();
    });
    run->id = _thread.get_id();
    _run = std::move(run);
}

void StreamThread::stop() {
    std::thread ending;
    std::shared_ptr<Run> waitFor;
    {
        std::lock_guard lock(_mutex);
        if (_run) {
            _run->stop.request();
            if (_thread.joinable()) {
                if (_thread.get_id() == std::this_thread::get_id()) {
                    _thread.detach();
                    _detached = _run;
                } else {
                    ending = std::move(_thread);
                }
            }
            _run.reset();
        }
        // A run that was stopped from itself earlier may still be finishing its frame and cleaning up.
        if (_detached && _detached->id != std::this_thread::get_id()) {
            waitFor = std::move(_detached);
        }
    }
    if (ending.joinable()) {
        ending.join();
    }
    if (waitFor) {
        std::unique_lock lock(waitFor->mutex);
        waitFor->ended.wait(lock, [&] { return waitFor->finished; });
    }
}

} // namespace kp
