// SPDX-License-Identifier: MIT
// A V4L2 webcam: format and frame-rate negotiation per preset, controls mapped to V4L2 controls (single auto-focus
// emulated where the camera has no focus trigger), MJPEG/YUYV/UYVY/NV12 frames converted to the session's pixel
// format with the driver's time stamps.
#pragma once

#include "Platform/Capture/StreamThread.h"

#include "KPImage/Platform/CaptureDeviceBackend.h"
#include "Platform/Capture/V4L2Interface.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
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
    /// The control's value as last read back from the device (drivers clamp and round what is written); nil when
    /// the camera has no such control or the value is unknown.
    std::optional<int32_t> controlValue(uint32_t id) const;
    /// How long continuous focus runs for an emulated single auto-focus before the lens is locked, counted while
    /// the camera streams (a lens does not move otherwise); 1 s unless changed.
    void setFocusSettleTime(std::chrono::nanoseconds settle);

    V4L2Camera(std::shared_ptr<V4L2Interface> io, std::string path, int fd);

private:
    struct Control {
        uint32_t type = 0;
        int32_t minimum = 0;
        int32_t maximum = 0;
        int32_t defaultValue = 0;
    };
    struct Mapped {
        void* address = nullptr;
        size_t length = 0;
    };
    /// What the device is known to hold, per group of controls; nil when unknown (never written, or a write
    /// failed), so the next change writes it again.
    struct Applied {
        std::optional<AVCaptureFocusMode> focusMode;
        uint32_t autoFocusRequests = 0;
        std::optional<AVCaptureAutoFocusRangeRestriction> autoFocusRange;
        std::optional<AVCaptureWhiteBalanceMode> whiteBalanceMode;
        std::optional<AVCaptureExposureMode> exposureMode;
        struct Light {
            AVCaptureTorchMode torchMode;
            float torchLevel;
            AVCaptureFlashMode flashMode;
            friend bool operator==(const Light&, const Light&) = default;
        };
        std::optional<Light> light;
    };
    /// What a stream delivers, as negotiated with the driver.
    struct StreamFormat {
        uint32_t width = 0;
        uint32_t height = 0;
        uint32_t stride = 0;
        uint32_t fourcc = 0;
        CMTime frameDuration = kCMTimeInvalid;
    };
    bool probe();
    bool hasControl(uint32_t id) const { return _controls.count(id) != 0; }
    /// Writes the control and reads it back; true when the device took the value (integers may be clamped).
    bool setControl(uint32_t id, int32_t value);
    bool applyFocusLocked(AVCaptureFocusMode mode);
    bool applyExposureLocked(AVCaptureExposureMode mode);
    bool applyLightLocked(const Applied::Light& light);
    /// Ends a settled emulated single focus; the time until the next check, in milliseconds.
    int lockFocusWhenSettled();
    void markGoneIfLost(int error);
    CMTime negotiateFrameRateLocked();
    bool queueBuffer(uint32_t index);
    void releaseBuffersLocked();
    /// Streaming off and buffers unmapped; run by the stream thread as it ends.
    void endStream();
    void run(CaptureStreamRequest request, StreamFormat format, std::shared_ptr<CaptureFrameSink> sink,
             const std::atomic<bool>& stop);

    const std::shared_ptr<V4L2Interface> _io;
    const std::string _path;
    const int _fd;
    std::string _name;
    std::vector<Size> _sizes;
    std::map<uint32_t, Control> _controls;

    // Serialises control changes with streaming set-up; guards _applied, _values and the _focus fields.
    mutable std::mutex _ioMutex;
    Applied _applied;
    std::map<uint32_t, int32_t> _values; // read back from the device
    // An emulated single focus: continuous focus is on until the lock time, which runs only while streaming.
    bool _focusSettling = false;
    std::optional<std::chrono::steady_clock::time_point> _focusLockAt;
    std::chrono::nanoseconds _focusSettleTime = std::chrono::seconds(1);
    std::vector<Mapped> _buffers;
    std::atomic<bool> _gone{false};
    std::atomic<uint32_t> _streamFourcc{0};
    StreamThread _stream;
};

} // namespace kp
