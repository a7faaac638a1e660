// SPDX-License-Identifier: MIT
// Capture inputs: a session's source of frames, made from a device.
#pragma once

#include "KPImage/Platform/AVCaptureDevice.h"
#include "KPImage/Platform/NSError.h"

#include <atomic>
#include <memory>

namespace kp {

class AVCaptureSession;

/// A session input: a device wrapped for a session.
class AVCaptureDeviceInput {
public:
    /// An input for the device; nil with *error for a null or disconnected device.
    static std::shared_ptr<AVCaptureDeviceInput> deviceInputWithDevice(const AVCaptureDevice::Ref& device,
                                                                       NSErrorRef* error = nullptr);
    const AVCaptureDevice::Ref& device() const { return _device; }

    explicit AVCaptureDeviceInput(AVCaptureDevice::Ref device) : _device(std::move(device)) {}

private:
    friend class AVCaptureSession;
    AVCaptureDevice::Ref _device;
    /// The session the input is in; guarded by that session's lock (set once added, cleared when removed).
    std::weak_ptr<AVCaptureSession> _session;
    std::atomic<bool> _attached{false};
};

using AVCaptureInput = AVCaptureDeviceInput;

} // namespace kp
