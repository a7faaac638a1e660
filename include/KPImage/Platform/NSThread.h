// SPDX-License-Identifier: MIT
// Thread helpers: sleeping the calling thread and asking whether it is the main thread.
#pragma once

namespace kp {

/// Class methods about threads.
class NSThread {
public:
    /// Blocks the calling thread for the given seconds (nothing for zero, negative or NaN).
    static void sleepForTimeInterval(double seconds);
    /// True on the thread that drives the main run loop; while no thread drives it, on the process's first
    /// thread.
    static bool isMainThread();
};

} // namespace kp
