// SPDX-License-Identifier: MIT
// Output membership, connections and the input factory.
#include "KPImage/Platform/AVCaptureOutput.h"

#include "KPImage/Platform/AVCaptureConnection.h"
#include "KPImage/Platform/AVCaptureInput.h"
#include "KPImage/Platform/AVCaptureSession.h"

#include <cmath>

namespace kp {

std::shared_ptr<AVCaptureConnection> AVCaptureOutput::connection() const {
    std::lock_guard lock(_mutex);
    if (!_connection) {
        _connection = std::make_shared<AVCaptureConnection>(
            _connectionMediaType, std::const_pointer_cast<AVCaptureOutput>(shared_from_this()));
    }
    return _connection;
}

std::shared_ptr<AVCaptureSession> AVCaptureOutput::session() const {
    std::lock_guard lock(_mutex);
    return _session.lock();
}

std::shared_ptr<AVCaptureConnection> AVCaptureOutput::connectionWithMediaType(const AVMediaType& mediaType) const {
    if (mediaType != _connectionMediaType) {
        return nullptr;
    }
    auto owner = session();
    if (!owner || owner->inputs().empty()) {
        return nullptr;
    }
    return connection();
}

std::vector<std::shared_ptr<AVCaptureConnection>> AVCaptureOutput::connections() const {
    auto c = connectionWithMediaType(_connectionMediaType);
    if (!c) {
        return {};
    }
    return {c};
}

bool AVCaptureConnection::isActive() const {
    if (!isEnabled()) {
        return false;
    }
    auto out = output();
    auto owner = out ? out->session() : nullptr;
    if (!owner || !owner->isRunning()) {
        return false;
    }
    for (const auto& input : owner->inputs()) {
        if (input->device() && input->device()->isConnected()) {
            return true;
        }
    }
    return false;
}

bool AVCaptureConnection::isVideoStabilizationSupported() const {
    if (_mediaType != AVMediaTypeVideo) {
        return false;
    }
    auto out = output();
    auto owner = out ? out->session() : nullptr;
    if (!owner) {
        return false;
    }
    for (const auto& input : owner->inputs()) {
        if (input->device() && input->device()->backend()->capabilities().videoStabilization) {
            return true;
        }
    }
    return false;
}

void AVCaptureConnection::setPreferredVideoStabilizationMode(AVCaptureVideoStabilizationMode mode) {
    if (mode == AVCaptureVideoStabilizationModeOff || mode == AVCaptureVideoStabilizationModeStandard ||
        mode == AVCaptureVideoStabilizationModeCinematic || mode == AVCaptureVideoStabilizationModeAuto) {
        _preferredStabilization.store(mode, std::memory_order_release);
    }
}

AVCaptureVideoStabilizationMode AVCaptureConnection::activeVideoStabilizationMode() const {
    if (!isVideoStabilizationSupported()) {
        return AVCaptureVideoStabilizationModeOff;
    }
    AVCaptureVideoStabilizationMode mode = preferredVideoStabilizationMode();
    if (mode == AVCaptureVideoStabilizationModeOff && enablesVideoStabilizationWhenAvailable()) {
        mode = AVCaptureVideoStabilizationModeStandard;
    }
    return mode == AVCaptureVideoStabilizationModeAuto ? AVCaptureVideoStabilizationModeStandard : mode;
}

void AVCaptureConnection::setVideoScaleAndCropFactor(CGFloat factor) {
    if (std::isfinite(factor) && factor >= 1.0 && factor <= videoMaxScaleAndCropFactor()) {
        _scaleAndCrop.store(factor, std::memory_order_release);
    }
}

std::shared_ptr<AVCaptureDeviceInput> AVCaptureDeviceInput::deviceInputWithDevice(const AVCaptureDevice::Ref& device,
                                                                                  NSErrorRef* error) {
    if (error != nullptr) {
        *error = nullptr;
    }
    if (!device || !device->isConnected()) {
        if (error != nullptr) {
            *error = NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorDeviceNotConnected,
                                                   device ? "The camera is not connected." : "No camera.");
        }
        return nullptr;
    }
    return std::make_shared<AVCaptureDeviceInput>(device);
}

} // namespace kp
