// SPDX-License-Identifier: MIT
// The main run loop: a task queue, a wake-up descriptor for GUI hosts and the scheduled timers.
#include "KPImage/Platform/NSRunLoop.h"

#include "KPImage/Platform/NSTimer.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

namespace kp {

struct NSRunLoop::State {
    mutable std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> tasks;
    std::vector<std::shared_ptr<NSTimer>> timers;
    std::function<double()> clock;
    bool stopRequested = false;
    int eventFd = -1;
    // The thread that drives the loop.
    std::atomic<std::thread::id> driver{};
};

namespace {
double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void signalFd(int fd) {
    if (fd < 0) {
        return;
    }
    const uint64_t one = 1;
    // A full counter still reads as readable, so a failed write loses nothing.
    [[maybe_unused]] const ssize_t n = ::write(fd, &one, sizeof one);
}

void clearFd(int fd) {
    if (fd < 0) {
        return;
    }
    uint64_t value = 0;
    [[maybe_unused]] const ssize_t n = ::read(fd, &value, sizeof value);
}

// Marks the calling thread as the driver for the scope; nested scopes (a task that drains again) keep it.
class DriveScope {
public:
    explicit DriveScope(std::atomic<std::thread::id>& driver) : _driver(driver) {
        _outer = _driver.exchange(std::this_thread::get_id(), std::memory_order_acq_rel);
    }
    ~DriveScope() { _driver.store(_outer, std::memory_order_release); }
    DriveScope(const DriveScope&) = delete;
    DriveScope& operator=(const DriveScope&) = delete;

private:
    std::atomic<std::thread::id>& _driver;
    std::thread::id _outer;
};
} // namespace

NSRunLoop::NSRunLoop() : _state(std::make_unique<State>()) {
    _state->eventFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

NSRunLoop::~NSRunLoop() {
    if (_state->eventFd >= 0) {
        ::close(_state->eventFd);
    }
}

NSRunLoop& NSRunLoop::mainRunLoop() {
    // Never destroyed: pool threads may still post to it while the process exits.
    static auto* loop = new NSRunLoop();
    return *loop;
}

void NSRunLoop::performBlock(std::function<void()> block) {
    if (!block) {
        return;
    }
    {
        std::lock_guard lock(_state->mutex);
        _state->tasks.push_back(std::move(block));
    }
    signalFd(_state->eventFd);
    _state->wake.notify_all();
}

double NSRunLoop::currentTime() const {
    std::function<double()> clock;
    {
        std::lock_guard lock(_state->mutex);
        clock = _state->clock;
    }
    return clock ? clock() : monotonicSeconds();
}

void NSRunLoop::setTimeSource(std::function<double()> now) {
    std::lock_guard lock(_state->mutex);
    _state->clock = std::move(now);
}

size_t NSRunLoop::drainPending() {
    DriveScope scope(_state->driver);
    std::deque<std::function<void()>> batch;
    {
        std::lock_guard lock(_state->mutex);
        batch.swap(_state->tasks);
    }
    size_t ran = 0;
    for (auto& task : batch) {
        task();
        task = nullptr; // release the captures in order, as each task finishes
        ++ran;
    }

    // Timers due now; each fires at most once per pass.
    const double now = currentTime();
    std::vector<std::shared_ptr<NSTimer>> due;
    {
        std::lock_guard lock(_state->mutex);
        for (const auto& timer : _state->timers) {
            if (timer->isValid() && timer->_fireDate <= now) {
                due.push_back(timer);
            }
        }
    }
    for (const auto& timer : due) {
        if (!timer->isValid()) {
            continue;
        }
        timer->fire();
        ++ran;
        if (timer->isValid()) {
            std::lock_guard lock(_state->mutex);
            double next = timer->_fireDate + timer->_interval;
            if (next <= now) {
                // Skip the firings that were missed instead of bunching them.
                next += std::ceil((now - next) / timer->_interval + 1e-9) * timer->_interval;
                if (next <= now) {
                    next = now + timer->_interval;
                }
            }
            timer->_fireDate = next;
        }
    }
    {
        std::lock_guard lock(_state->mutex);
        std::erase_if(_state->timers, [](const std::shared_ptr<NSTimer>& t) { return !t->isValid(); });
        if (!_state->tasks.empty()) {
            signalFd(_state->eventFd);
        }
    }
    return ran;
}

size_t NSRunLoop::pump() {
    clearFd(_state->eventFd);
    return drainPending();
}

int NSRunLoop::wakeupFileDescriptor() const { return _state->eventFd; }

std::optional<double> NSRunLoop::timeUntilNextTimer() const {
    double earliest = std::numeric_limits<double>::infinity();
    {
        std::lock_guard lock(_state->mutex);
        for (const auto& timer : _state->timers) {
            if (timer->isValid()) {
                earliest = std::min(earliest, timer->_fireDate);
            }
        }
    }
    if (std::isinf(earliest)) {
        return std::nullopt;
    }
    return std::max(0.0, earliest - currentTime());
}

void NSRunLoop::run() { runFor(std::numeric_limits<double>::infinity()); }

void NSRunLoop::runFor(double seconds) {
    DriveScope scope(_state->driver);
    const auto start = std::chrono::steady_clock::now();
    const bool forever = !(seconds < 1e9);
    const auto deadline = forever ? std::chrono::steady_clock::time_point::max()
                                  : start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                std::chrono::duration<double>(std::max(0.0, seconds)));
    for (;;) {
        clearFd(_state->eventFd);
        drainPending();
        const auto timerWait = timeUntilNextTimer();
        std::unique_lock lock(_state->mutex);
        if (_state->stopRequested) {
            _state->stopRequested = false;
            return;
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            return;
        }
        if (!_state->tasks.empty()) {
            continue;
        }
        auto until = deadline;
        if (timerWait) {
            const auto t = now + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                     std::chrono::duration<double>(std::min(*timerWait, 3600.0)));
            until = std::min(until, t);
        }
        if (until == std::chrono::steady_clock::time_point::max()) {
            _state->wake.wait(lock, [this] { return !_state->tasks.empty() || _state->stopRequested; });
        } else {
            _state->wake.wait_until(lock, until,
                                    [this] { return !_state->tasks.empty() || _state->stopRequested; });
        }
    }
}

void NSRunLoop::stop() {
    {
        std::lock_guard lock(_state->mutex);
        _state->stopRequested = true;
    }
    _state->wake.notify_all();
}

size_t NSRunLoop::pendingTaskCount() const {
    std::lock_guard lock(_state->mutex);
    return _state->tasks.size();
}

bool NSRunLoop::isDriving() const {
    return _state->driver.load(std::memory_order_acquire) == std::this_thread::get_id();
}

bool NSRunLoop::hasDriver() const { return _state->driver.load(std::memory_order_acquire) != std::thread::id{}; }

void NSRunLoop::addTimer(const std::shared_ptr<NSTimer>& timer) {
    if (!timer || !timer->isValid()) {
        return;
    }
    const double now = currentTime();
    {
        std::lock_guard lock(_state->mutex);
        if (std::find(_state->timers.begin(), _state->timers.end(), timer) != _state->timers.end()) {
            return;
        }
        timer->_fireDate = now + timer->_interval;
        _state->timers.push_back(timer);
    }
    _state->wake.notify_all();
}

void NSRunLoop::reset() {
    std::deque<std::function<void()>> tasks;
    std::vector<std::shared_ptr<NSTimer>> timers;
    {
        std::lock_guard lock(_state->mutex);
        tasks.swap(_state->tasks);
        timers.swap(_state->timers);
        _state->stopRequested = false;
    }
    clearFd(_state->eventFd);
    // Released outside the lock: a task's captures may post to the loop as they go.
    tasks.clear();
    timers.clear();
}

} // namespace kp
