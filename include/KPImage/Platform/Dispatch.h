// SPDX-License-Identifier: MIT
// Dispatch queues: the main queue (run by the main run loop), serial queues, the global queue and one-time
// initialisation.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace kp {

/// A task. Whatever it captures is held strongly until the task has run (and is then released).
using dispatch_block_t = std::function<void()>;

/// A queue that runs tasks: serially (the main queue, queues from dispatch_queue_create) or concurrently (the
/// global queue). Queues are shared objects; a queue lives on while tasks for it are pending.
class DispatchQueue {
public:
    virtual ~DispatchQueue() = default;
    /// The label given at creation ("com.apple.main-thread" for the main queue).
    virtual const std::string& label() const = 0;
    /// Appends a task; returns at once.
    virtual void async(dispatch_block_t block) = 0;
    /// Runs a task on the queue and waits for it. Called from a task already running on this serial queue, the
    /// task runs at once on the calling thread instead of deadlocking.
    virtual void sync(const dispatch_block_t& block) = 0;
    /// True when the calling thread is running a task of this queue (for the main queue: drives the main run loop).
    virtual bool isCurrent() const = 0;
    /// True for queues that run one task at a time, in order.
    virtual bool isSerial() const = 0;
};

using dispatch_queue_t = std::shared_ptr<DispatchQueue>;

/// Queue attributes; only serial queues exist, so the attribute is informational.
struct dispatch_queue_attr_s;
using dispatch_queue_attr_t = const dispatch_queue_attr_s*;
inline constexpr dispatch_queue_attr_t DISPATCH_QUEUE_SERIAL = nullptr;

/// Nanoseconds on the monotonic clock; DISPATCH_TIME_NOW means "now", DISPATCH_TIME_FOREVER never.
using dispatch_time_t = uint64_t;
inline constexpr dispatch_time_t DISPATCH_TIME_NOW = 0;
inline constexpr dispatch_time_t DISPATCH_TIME_FOREVER = ~0ULL;
inline constexpr int64_t NSEC_PER_SEC = 1000000000LL;
inline constexpr int64_t NSEC_PER_MSEC = 1000000LL;
inline constexpr int64_t NSEC_PER_USEC = 1000LL;

inline constexpr long DISPATCH_QUEUE_PRIORITY_HIGH = 2;
inline constexpr long DISPATCH_QUEUE_PRIORITY_DEFAULT = 0;
inline constexpr long DISPATCH_QUEUE_PRIORITY_LOW = -2;
inline constexpr long DISPATCH_QUEUE_PRIORITY_BACKGROUND = -32768;

/// The main queue: its tasks run, in order, on the thread that drives the main run loop (NSRunLoop).
dispatch_queue_t dispatch_get_main_queue();
/// The process-wide concurrent queue; every priority maps to the same pool of threads, which grows while tasks
/// block so that a sleeping task never starves the others.
dispatch_queue_t dispatch_get_global_queue(long identifier, unsigned long flags);
/// A new serial queue. Tasks run one at a time, in order, on pool threads; label may be null.
dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attr);
/// The queue's label; "" for a null queue.
const char* dispatch_queue_get_label(const dispatch_queue_t& queue);

/// Appends a task to the queue; a null queue or task is ignored.
void dispatch_async(const dispatch_queue_t& queue, dispatch_block_t block);
/// Runs a task on the queue and waits for it; a null queue or task is ignored.
void dispatch_sync(const dispatch_queue_t& queue, const dispatch_block_t& block);
/// A time delta nanoseconds after when (DISPATCH_TIME_NOW: after now); saturates instead of wrapping.
dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta);
/// Appends the task to the queue at the given time (DISPATCH_TIME_FOREVER: never; the task is released).
void dispatch_after(dispatch_time_t when, const dispatch_queue_t& queue, dispatch_block_t block);

/// One-time initialisation: the first caller runs the block, every other caller waits until it has run.
using dispatch_once_t = std::once_flag;
template <typename F> void dispatch_once(dispatch_once_t* predicate, F&& block) {
    if (predicate != nullptr) {
        std::call_once(*predicate, std::forward<F>(block));
    }
}

} // namespace kp
