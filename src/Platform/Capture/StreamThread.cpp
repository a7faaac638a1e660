// SPDX-License-Identifier: MIT
// A camera's streaming thread that can be stopped from any thread, its own included.
#include "Platform/Capture/StreamThread.h"

namespace kp {

void StreamThread::start(std::function<void(const std::atomic<bool> &stop)> body) {
    stop();
    std::lock_guard lock(_mutex);
    // Started again from the detached run's own thread: that run ends as soon as this call returns to it.
    _detached.reset();
    auto run = std::make_shared<Run>();
    _run = run;
    // The new run cannot see the fields before this lock is released, so it never finds itself half published.
    _thread = std::thread([run, body = std::move(body)] {
        body(run->stop);
        std::lock_guard runLock(run->mutex);
        run->finished = true;
        run->ended.notify_all();
    });
    run->id = _thread.get_id();
}

void StreamThread::stop() {
    std::unique_lock lock(_mutex);
    std::thread joining;
    if (auto run = std::move(_run)) {
        run->stop.store(true, std::memory_order_release);
        if (_thread.joinable()) {
            if (_thread.get_id() == std::this_thread::get_id()) {
                _thread.detach();
                _detached = std::move(run);
            } else {
                joining = std::move(_thread);
            }
        }
    }
    auto detached = _detached;
    // The run may itself be calling stop() or start() right now: join without holding the lock.
    lock.unlock();
    if (joining.joinable()) {
        joining.join();
    }
    // A run that was stopped from itself earlier may still be finishing its frame and cleaning up.
    if (detached && detached->id != std::this_thread::get_id()) {
        {
            std::unique_lock runLock(detached->mutex);
            detached->ended.wait(runLock, [&] { return detached->finished; });
        }
        lock.lock();
        if (_detached == detached) {
            _detached.reset();
        }
    }
}

} // namespace kp
