// SPDX-License-Identifier: MIT
// A V4L2 webcam: format negotiation per preset, controls mapped to V4L2 controls, MJPEG/YUYV frames converted to
// the session's pixel format.
#pragma once

#include "KPImage/Platform/CaptureDeviceBackend.h"
#include "Platform/Capture/V4L2Interface.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kp {

class V4L2Camera final : public CaptureDeviceBackend {
public:
    /// The capture nodes (video capture + streaming) in the directory, sorted by number.
    static std::vector<std::string> scan(const std::shared_ptr<V4L2Interface>& io, const std::string& directory);
    /// The camera at the node; nil when it cannot be opened or is no streaming capture device.
    static std::shared_ptr<V4L2Camera> open(const std::shared_ptr<V4L2Interface>& io, const std::string& path);
    ~V4L2Camera() override;

    std::string uniqueID() const override { return _path; }
    std::string localizedName() const override { return _name; }
    CaptureCapabilities capabilities() const override;
    bool isConnected() const override { return !_gone.load(std::memory_order_acquire); }
    NSErrorRef lockConfiguration() override;
    void unlockConfiguration() override;
    void applyControls(const CaptureControls& controls) override;
    CaptureFormat formatForPreset(const AVCaptureSessionPreset& preset) const override;
    NSErrorRef startStream(const CaptureStreamRequest& request, std::shared_ptr<CaptureFrameSink> sink) override;
    void stopStream() override;
    void willCaptureStillImage() override;

    /// A frame size the camera offers in one of its formats.
    struct Size {
        uint32_t width = 0;
        uint32_t height = 0;
        uint32_t fourcc = 0;
    };
    const std::vector<Size>& sizes() const { return _sizes; }
    /// The pixel format (V4L2 fourcc) the camera streams now; 0 when not streaming.
    uint32_t streamingFourcc() const { return _streamFourcc.load(std::memory_order_acquire); }

    V4L2Camera(std::shared_ptr<V4L2Interface> io, std::string path, int fd);

private:
    struct Control {
        int32_t minimum = 0;
        int32_t maximum = 0;
        int32_t defaultValue = 0;
    };
    struct Mapped {
        void* address = nullptr;
        size_t length = 0;
    };
    bool probe();
    bool hasControl(uint32_t id) const { return _controls.count(id) != 0; }
    bool setControl(uint32_t id, int32_t value);
    void markGoneIfLost(int error);
    void releaseBuffersLocked();
    /// Streaming off and buffers unmapped; run by the stream thread as it ends.
    void endStream();
    void run(CaptureStreamRequest request, uint32_t width, uint32_t height, uint32_t stride, uint32_t fourcc,
             std::shared_ptr<CaptureFrameSink> sink);

    const std::shared_ptr<V4L2Interface> _io;
    const std::string _path;
    const int _fd;
    std::string _name;
    std::vector<Size> _sizes;
    std::map<uint32_t, Control> _controls;

    std::mutex _ioMutex; // serialises control changes with streaming set-up
    CaptureControls _applied;
    bool _hasApplied = false;
    std::vector<Mapped> _buffers;
    std::atomic<bool> _gone{false};
    std::atomic<bool> _stop{false};
    std::atomic<uint32_t> _streamFourcc{0};
    std::thread _thread;
};

} // namespace kp
