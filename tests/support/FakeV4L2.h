// SPDX-License-Identifier: MIT
// A fake V4L2 kernel for tests: scripted nodes with formats, sizes, frame rates and controls; frames pushed by the
// test; faults (failing ioctls, poll errors) injected by the test.
#pragma once

#include "Platform/Capture/V4L2Interface.h"

#include <linux/videodev2.h>
#include <sys/time.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kptest {

class FakeV4L2 final : public kp::V4L2Interface {
public:
    struct FrameSize {
        uint32_t fourcc;
        uint32_t width;
        uint32_t height;
    };
    /// A control. Like the kernel: integer and boolean values are clamped to the range and rounded to the step,
    /// a menu value outside the range fails with ERANGE, a button keeps no value.
    struct ControlRange {
        int32_t minimum = 0;
        int32_t maximum = 1;
        int32_t defaultValue = 0;
        uint32_t type = V4L2_CTRL_TYPE_INTEGER;
        int32_t step = 1;
    };
    struct Node {
        std::string path;
        std::string card = "Fake Webcam";
        uint32_t capabilities = 0; // 0: video capture + streaming
        std::vector<FrameSize> sizes;
        std::map<uint32_t, ControlRange> controls;
        /// Bytes per row beyond what the format needs.
        uint32_t rowPadding = 0;
        /// Frame rates (frames per second) VIDIOC_S_PARM chooses from; none: the node has no frame-rate control.
        std::vector<uint32_t> frameRates = {30};
        /// Buffers carry monotonic time stamps (else the time-stamp type is unknown and the stamp zero).
        bool monotonicTimestamps = true;
    };

    void addNode(const Node& node);
    /// Queues a frame's bytes for the node; the camera dequeues it from a driver buffer stamped with the given
    /// monotonic time (default: the time of the push).
    void pushFrame(const std::string& path, std::vector<uint8_t> bytes, std::optional<timeval> timestamp = {});
    /// The node disappears: calls fail with ENODEV and poll reports a hang-up.
    void vanish(const std::string& path);
    /// From now on poll reports an error condition (POLLERR) on the node, which otherwise stays.
    void failPoll(const std::string& path);
    /// The next `times` calls of the ioctl on the node fail with the error (times < 0: every call until cleared
    /// with times 0). Nothing else happens in a failed call.
    void failIoctl(const std::string& path, unsigned long request, int error, int times = 1);
    /// Another process holds the node's flock.
    void holdLockElsewhere(const std::string& path, bool held);

    /// The value last written to the control (nil-like INT32_MIN when never written).
    int32_t control(const std::string& path, uint32_t id) const;
    /// Every control write, in order: (id, value written).
    std::vector<std::pair<uint32_t, int32_t>> controlLog(const std::string& path) const;
    /// The format last set with VIDIOC_S_FMT: fourcc, width, height.
    FrameSize lastFormat(const std::string& path) const;
    /// The frame rate last set with VIDIOC_S_PARM; 0 when never set.
    uint32_t frameRate(const std::string& path) const;
    bool isStreaming(const std::string& path) const;
    int openDescriptors() const;
    size_t mappedBuffers() const;

    // V4L2Interface.
    int open(const std::string& path) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    void* mmap(int fd, size_t length, off_t offset) override;
    int munmap(void* address, size_t length) override;
    int poll(int fd, int timeoutMs, bool* hangup) override;
    int flock(int fd, int operation) override;
    std::vector<std::string> listNodes(const std::string& directory) override;

private:
    struct State {
        Node node;
        bool gone = false;
        bool lockedElsewhere = false;
        std::map<uint32_t, int32_t> values;
        std::vector<std::pair<uint32_t, int32_t>> log;
        FrameSize format{0, 0, 0};
        uint32_t imageSize = 0;
        uint32_t frameRate = 0;
        bool streaming = false;
        bool pollError = false;
        std::map<unsigned long, std::pair<int, int>> faults; // request: (errno, calls left; < 0 forever)
        std::vector<std::vector<uint8_t>> buffers;
        std::vector<bool> queued;
        struct Frame {
            std::vector<uint8_t> bytes;
            timeval timestamp;
        };
        std::deque<Frame> frames;
        size_t mapped = 0;
    };
    template <typename F> auto read(const std::string& path, F f) const {
        std::lock_guard lock(_mutex);
        return f(_nodes.at(path));
    }
    /// Changes a node's state and wakes a waiting poll.
    template <typename F> void change(const std::string& path, F f) {
        {
            std::lock_guard lock(_mutex);
            f(_nodes.at(path));
        }
        _changed.notify_all();
    }
    State* stateFor(int fd);
    int handle(State& s, unsigned long request, void* arg);
    bool frameReady(const State& s) const;

    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::map<std::string, State> _nodes;
    std::map<int, std::string> _fds;
    int _nextFd = 100;
};

} // namespace kptest
