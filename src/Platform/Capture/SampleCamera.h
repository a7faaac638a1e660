// SPDX-License-Identifier: MIT
// The built-in sample camera: renders the sample scene at the session's frame size and 30 frames per second.
#pragma once

#include "Platform/Capture/StreamThread.h"

#include "KPImage/Platform/CaptureDeviceBackend.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace kp {

/// A camera that needs no hardware. Front and back cameras exist; only the back one has a flash and a torch.
/// Focus, white balance, torch and flash visibly change the picture.
class SampleCamera final : public CaptureDeviceBackend {
public:
    explicit SampleCamera(AVCaptureDevicePosition position);
    ~SampleCamera() override;

    std::string uniqueID() const override;
    std::string localizedName() const override;
    CaptureCapabilities capabilities() const override;
    bool isConnected() const override { return true; }
    NSErrorRef lockConfiguration() override { return nullptr; }
    void unlockConfiguration() override {}
    void applyControls(const CaptureControls& controls) override;
    CaptureFormat formatForPreset(const AVCaptureSessionPreset& preset) const override;
    NSErrorRef startStream(const CaptureStreamRequest& request, std::shared_ptr<CaptureFrameSink> sink) override;
    void stopStream() override;
    void willCaptureStillImage() override;

    /// Frames per second of the stream.
    static constexpr int kFrameRate = 30;

private:
    void run(CaptureStreamRequest request, std::shared_ptr<CaptureFrameSink> sink, const StreamStop& stop);

    const AVCaptureDevicePosition _position;
    std::mutex _mutex;
    CaptureControls _controls;
    int _focusFramesLeft = 0; // frames of a focus sweep still to render blurred
    std::atomic<bool> _flashNextFrame{false};
    StreamThread _stream;
};

} // namespace kp
