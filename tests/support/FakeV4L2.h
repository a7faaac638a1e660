// SPDX-License-Identifier: MIT
// A fake V4L2 kernel for tests: scripted nodes with formats, sizes and controls; frames pushed by the test.
#pragma once

#include "Platform/Capture/V4L2Interface.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
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
    struct ControlRange {
        int32_t minimum = 0;
        int32_t maximum = 1;
        int32_t defaultValue = 0;
    };
    struct Node {
        std::string path;
        std::string card = "Fake Webcam";
        uint32_t capabilities = 0; // 0: video capture + streaming
        std::vector<FrameSize> sizes;
        std::map<uint32_t, ControlRange> controls;
    };

    void addNode(const Node& node);
    /// Queues a frame's bytes for the node; the camera dequeues it from a driver buffer.
    void pushFrame(const std::string& path, std::vector<uint8_t> bytes);
    /// The node disappears: calls fail with ENODEV and poll reports a hang-up.
    void vanish(const std::string& path);
    /// Another process holds the node's flock.
    void holdLockElsewhere(const std::string& path, bool held);

    /// The value last set for the control (nil-like INT32_MIN when never set).
    int32_t control(const std::string& path, uint32_t id) const;
    /// Every control change, in order: (id, value).
    std::vector<std::pair<uint32_t, int32_t>> controlLog(const std::string& path) const;
    /// The format last set with VIDIOC_S_FMT: fourcc, width, height.
    FrameSize lastFormat(const std::string& path) const;
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
        int lockHolder = -1;
        std::map<uint32_t, int32_t> values;
        std::vector<std::pair<uint32_t, int32_t>> log;
        FrameSize format{0, 0, 0};
        bool streaming = false;
        std::vector<std::vector<uint8_t>> buffers;
        std::vector<bool> queued;
        std::vector<uint32_t> used;
        std::deque<std::vector<uint8_t>> frames;
        size_t mapped = 0;
    };
    State* stateFor(int fd);
    int handle(State& s, int fd, unsigned long request, void* arg);
    bool frameReady(const State& s) const;

    mutable std::mutex _mutex;
    std::condition_variable _changed;
    std::map<std::string, State> _nodes;
    std::map<int, std::string> _fds;
    int _nextFd = 100;
};

} // namespace kptest
