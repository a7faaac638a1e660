// SPDX-License-Identifier: MIT
// The threads behind the global queue and the serial queues, and the dispatch_after timer thread.
#include "Platform/Dispatch/DispatchThreadPool.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace kp {

namespace {
// Far above anything the library needs at once; only a runaway host reaches it, and then tasks wait.
constexpr size_t kMaxThreads = 256;
constexpr auto kIdleLifetime = std::chrono::seconds(5);
} // namespace

uint64_t dispatchNow() {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

DispatchThreadPool& DispatchThreadPool::shared() {
    static auto* pool = new DispatchThreadPool();
    return *pool;
}

void DispatchThreadPool::submit(std::function<void()> task) {
    std::lock_guard lock(_mutex);
    _tasks.push_back(std::move(task));
    if (_idle >= _tasks.size()) {
        _wake.notify_one();
        return;
    }
    if (_threads < kMaxThreads) {
        ++_threads;
        std::thread([this] { workerLoop(); }).detach();
    }
}

void DispatchThreadPool::workerLoop() {
    std::unique_lock lock(_mutex);
    for (;;) {
        if (_tasks.empty()) {
            ++_idle;
            const bool woke = _wake.wait_for(lock, kIdleLifetime, [this] { return !_tasks.empty(); });
            --_idle;
            if (!woke) {
                --_threads;
                return;
            }
        }
        std::function<void()> task = std::move(_tasks.front());
        _tasks.pop_front();
        lock.unlock();
        task();
        // Release the captures before taking the lock again: their destructors may submit work.
        task = nullptr;
        lock.lock();
    }
}

DispatchAfterScheduler& DispatchAfterScheduler::shared() {
    static auto* scheduler = new DispatchAfterScheduler();
    return *scheduler;
}

void DispatchAfterScheduler::schedule(uint64_t when, std::function<void()> task) {
    std::lock_guard lock(_mutex);
    Entry entry{when, _sequence++, std::move(task)};
    auto at = std::upper_bound(_entries.begin(), _entries.end(), entry, [](const Entry& a, const Entry& b) {
        return a.when < b.when || (a.when == b.when && a.sequence < b.sequence);
    });
    _entries.insert(at, std::move(entry));
    if (!_started) {
        _started = true;
        std::thread([this] { loop(); }).detach();
    }
    _wake.notify_one();
}

void DispatchAfterScheduler::loop() {
    std::unique_lock lock(_mutex);
    for (;;) {
        if (_entries.empty()) {
            _wake.wait(lock);
            continue;
        }
        const uint64_t now = dispatchNow();
        if (_entries.front().when > now) {
            // An hour at most: far-off times must not overflow the clock arithmetic.
            _wake.wait_for(lock, std::chrono::nanoseconds(std::min<uint64_t>(_entries.front().when - now,
                                                                             3600ULL * 1000000000ULL)));
            continue;
        }
        std::function<void()> task = std::move(_entries.front().task);
        _entries.pop_front();
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
    }
}

} // namespace kp
