// SPDX-License-Identifier: MIT
// Dispatch queues on the main run loop and the shared thread pool.
#include "KPImage/Platform/Dispatch.h"

#include "KPImage/Platform/NSRunLoop.h"
#include "Platform/Dispatch/DispatchThreadPool.h"

#include <condition_variable>
#include <deque>
#include <limits>

namespace kp {

namespace {

// The serial queue whose task the calling thread is running, if any.
thread_local const void* tCurrentSerialQueue = nullptr;

// Waits for a task handed to another thread.
class Completion {
public:
    void signal() {
        std::lock_guard lock(_mutex);
        _done = true;
        _cv.notify_all();
    }
    void wait() {
        std::unique_lock lock(_mutex);
        _cv.wait(lock, [this] { return _done; });
    }

private:
    std::mutex _mutex;
    std::condition_variable _cv;
    bool _done = false;
};

class MainQueue final : public DispatchQueue {
public:
    const std::string& label() const override { return _label; }
    void async(dispatch_block_t block) override { NSRunLoop::mainRunLoop().performBlock(std::move(block)); }
    void sync(const dispatch_block_t& block) override {
        if (NSRunLoop::mainRunLoop().isDriving()) {
            block();
            return;
        }
        auto done = std::make_shared<Completion>();
        NSRunLoop::mainRunLoop().performBlock([&block, done] {
            block();
            done->signal();
        });
        done->wait();
    }
    bool isCurrent() const override { return NSRunLoop::mainRunLoop().isDriving(); }
    bool isSerial() const override { return true; }

private:
    std::string _label = "com.apple.main-thread";
};

class GlobalQueue final : public DispatchQueue {
public:
    explicit GlobalQueue(std::string label) : _label(std::move(label)) {}
    const std::string& label() const override { return _label; }
    void async(dispatch_block_t block) override { DispatchThreadPool::shared().submit(std::move(block)); }
    // A concurrent queue has no order to keep, so a synchronous task simply runs on the caller.
    void sync(const dispatch_block_t& block) override { block(); }
    bool isCurrent() const override { return false; }
    bool isSerial() const override { return false; }

private:
    std::string _label;
};

// The queue's tasks live in a state object that the pool's drain job also holds, so a queue whose last handle
// goes away still runs the tasks already given to it.
struct SerialState {
    std::string label;
    std::mutex mutex;
    std::deque<dispatch_block_t> tasks;
    bool draining = false;
};

void drainSerial(const std::shared_ptr<SerialState>& state) {
    const void* outer = tCurrentSerialQueue;
    tCurrentSerialQueue = state.get();
    for (;;) {
        dispatch_block_t task;
        {
            std::lock_guard lock(state->mutex);
            if (state->tasks.empty()) {
                state->draining = false;
                break;
            }
            task = std::move(state->tasks.front());
            state->tasks.pop_front();
        }
        task();
    }
    tCurrentSerialQueue = outer;
}

class SerialQueue final : public DispatchQueue {
public:
    explicit SerialQueue(std::string label) : _state(std::make_shared<SerialState>()) {
        _state->label = std::move(label);
    }
    const std::string& label() const override { return _state->label; }
    void async(dispatch_block_t block) override {
        bool startDrain = false;
        {
            std::lock_guard lock(_state->mutex);
            _state->tasks.push_back(std::move(block));
            if (!_state->draining) {
                _state->draining = true;
                startDrain = true;
            }
        }
        if (startDrain) {
            DispatchThreadPool::shared().submit([state = _state] { drainSerial(state); });
        }
    }
    void sync(const dispatch_block_t& block) override {
        if (isCurrent()) {
            block();
            return;
        }
        auto done = std::make_shared<Completion>();
        async([&block, done] {
            block();
            done->signal();
        });
        done->wait();
    }
    bool isCurrent() const override { return tCurrentSerialQueue == _state.get(); }
    bool isSerial() const override { return true; }

private:
    std::shared_ptr<SerialState> _state;
};

} // namespace

// The process-wide queues are never destroyed: pool threads may still run (or post to them) while the process
// exits, after static destructors have begun.
dispatch_queue_t dispatch_get_main_queue() {
    static const auto* queue = new dispatch_queue_t(std::make_shared<MainQueue>());
    return *queue;
}

dispatch_queue_t dispatch_get_global_queue(long /*identifier*/, unsigned long /*flags*/) {
    static const auto* queue = new dispatch_queue_t(std::make_shared<GlobalQueue>("com.apple.root.default-qos"));
    return *queue;
}

dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t /*attr*/) {
    return std::make_shared<SerialQueue>(label != nullptr ? label : "");
}

const char* dispatch_queue_get_label(const dispatch_queue_t& queue) {
    return queue ? queue->label().c_str() : "";
}

void dispatch_async(const dispatch_queue_t& queue, dispatch_block_t block) {
    if (queue && block) {
        queue->async(std::move(block));
    }
}

void dispatch_sync(const dispatch_queue_t& queue, const dispatch_block_t& block) {
    if (queue && block) {
        queue->sync(block);
    }
}

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
    if (when == DISPATCH_TIME_FOREVER) {
        return DISPATCH_TIME_FOREVER;
    }
    const uint64_t base = when == DISPATCH_TIME_NOW ? dispatchNow() : when;
    if (delta >= 0) {
        const auto d = static_cast<uint64_t>(delta);
        return base > DISPATCH_TIME_FOREVER - 1 - d ? DISPATCH_TIME_FOREVER - 1 : base + d;
    }
    const uint64_t d = delta == std::numeric_limits<int64_t>::min() ? (1ULL << 63) : static_cast<uint64_t>(-delta);
    return base > d ? base - d : 1;
}

void dispatch_after(dispatch_time_t when, const dispatch_queue_t& queue, dispatch_block_t block) {
    if (!queue || !block || when == DISPATCH_TIME_FOREVER) {
        return;
    }
    const uint64_t at = when == DISPATCH_TIME_NOW ? dispatchNow() : when;
    DispatchAfterScheduler::shared().schedule(at, [queue, block = std::move(block)]() mutable {
        queue->async(std::move(block));
    });
}

} // namespace kp
