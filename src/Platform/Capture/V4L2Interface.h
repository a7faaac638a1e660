// SPDX-License-Identifier: MIT
// The system calls the V4L2 back-end makes, behind one small interface (the real one calls the kernel).
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace kp {

/// The calls a V4L2 camera needs. Each returns what the system call returns and sets errno the same way.
class V4L2Interface {
public:
    virtual ~V4L2Interface() = default;
    /// The kernel itself.
    static std::shared_ptr<V4L2Interface> system();

    /// Opens a node read-write, non-blocking, close-on-exec.
    virtual int open(const std::string& path) = 0;
    virtual int close(int fd) = 0;
    virtual int ioctl(int fd, unsigned long request, void* arg) = 0;
    /// Maps a driver buffer shared, readable and writable; MAP_FAILED on failure.
    virtual void* mmap(int fd, size_t length, off_t offset) = 0;
    virtual int munmap(void* address, size_t length) = 0;
    /// Waits up to timeoutMs for a frame: > 0 ready, 0 timed out, -1 failed; *hangup is set when the device is
    /// gone (POLLERR/POLLHUP).
    virtual int poll(int fd, int timeoutMs, bool* hangup) = 0;
    /// flock(2).
    virtual int flock(int fd, int operation) = 0;
    /// The paths of the "video*" nodes in the directory, sorted by number.
    virtual std::vector<std::string> listNodes(const std::string& directory) = 0;
};

} // namespace kp
