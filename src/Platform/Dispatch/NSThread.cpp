// SPDX-License-Identifier: MIT
// Thread helpers.
#include "KPImage/Platform/NSThread.h"

#include "KPImage/Platform/NSRunLoop.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <thread>

namespace kp {

void NSThread::sleepForTimeInterval(double seconds) {
    if (!(seconds > 0) || !std::isfinite(seconds)) {
        return;
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

bool NSThread::isMainThread() {
    const NSRunLoop& loop = NSRunLoop::mainRunLoop();
    if (loop.hasDriver()) {
        return loop.isDriving();
    }
    return static_cast<pid_t>(::syscall(SYS_gettid)) == ::getpid();
}

} // namespace kp
