// SPDX-License-Identifier: MIT
// A camera's streaming thread that can be stopped from any thread, its own included.
#include "Platform/Capture/StreamThread.h"

namespace kp {

void StreamThread::start(std::function<void(const std::atomic<bool> &stop)> body) {
    stop();
    // Started again from the detached run's own thread: that run ends as soon as this call returns to it.
    _detached.reset();
    auto run = std::make_shared<Run>();
    _run = run;
    _thread = std::thread([run, body = std::move(body)] {
        body(run->stop);
        std::lock_guard lock(run->mutex);
        run->finished = true;
        run->ended.notify_all();
    });
    run->id = _thread.get_id();
}

void StreamThread::stop() {
    if (_run) {
        _run->stop.store(true, std::memory_order_release);
        if (_thread.joinable()) {
            if (_thread.get_id() == std::this_thread::get_id()) {
                _thread.detach();
                _detached = _run;
            } else {
                _thread.join();
            }
        }
        _run.reset();
    }
    // A run that was stopped from itself earlier may still be finishing its frame and cleaning up.
    if (_detached && _detached->id != std::this_thread::get_id()) {
        std::unique_lock lock(_detached->mutex);
        _detached->ended.wait(lock, [&] { return _detached->finished; });
        lock.unlock();
        _detached.reset();
    }
}

} // namespace kp
