// SPDX-License-Identifier: MIT
// Capture devices: control state, the configuration lock and enumeration through the registry.
#include "KPImage/Platform/AVCaptureDevice.h"

#include "KPImage/Platform/SystemLog.h"

#include "Platform/Capture/CaptureDeviceRegistry.h"
#include "Platform/Capture/MediaFileCamera.h"

#include <algorithm>
#include <cmath>

namespace kp {

namespace {
template <typename T> bool contains(const std::vector<T>& list, T value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}
} // namespace

AVCaptureDevice::AVCaptureDevice(std::shared_ptr<CaptureDeviceBackend> backend, AVCaptureDevicePosition position)
    : _backend(std::move(backend)), _capabilities(_backend->capabilities()), _position(position) {
    // Start from modes the device actually has, so the getters never report an unsupported mode.
    if (!_capabilities.focusModes.empty() && !contains(_capabilities.focusModes, _controls.focusMode)) {
        _controls.focusMode = _capabilities.focusModes.front();
    }
    if (!_capabilities.exposureModes.empty() && !contains(_capabilities.exposureModes, _controls.exposureMode)) {
        _controls.exposureMode = _capabilities.exposureModes.front();
    }
    if (!_capabilities.whiteBalanceModes.empty() &&
        !contains(_capabilities.whiteBalanceModes, _controls.whiteBalanceMode)) {
        _controls.whiteBalanceMode = _capabilities.whiteBalanceModes.front();
    }
}

std::vector<AVCaptureDevice::Ref> AVCaptureDevice::devices() { return CaptureDeviceRegistry::shared().devices(); }

std::vector<AVCaptureDevice::Ref> AVCaptureDevice::devicesWithMediaType(const AVMediaType& mediaType) {
    std::vector<Ref> out;
    for (auto& d : devices()) {
        if (d->hasMediaType(mediaType)) {
            out.push_back(d);
        }
    }
    return out;
}

AVCaptureDevice::Ref AVCaptureDevice::defaultDeviceWithMediaType(const AVMediaType& mediaType) {
    auto list = devicesWithMediaType(mediaType);
    return list.empty() ? nullptr : list.front();
}

AVCaptureDevice::Ref AVCaptureDevice::deviceWithUniqueID(const std::string& uniqueID) {
    for (auto& d : devices()) {
        if (d->uniqueID() == uniqueID) {
            return d;
        }
    }
    return nullptr;
}

AVCaptureDevice::Ref AVCaptureDevice::addDevice(std::shared_ptr<CaptureDeviceBackend> backend,
                                                AVCaptureDevicePosition position) {
    if (!backend) {
        return nullptr;
    }
    return CaptureDeviceRegistry::shared().add(std::move(backend), position);
}

AVCaptureDevice::Ref AVCaptureDevice::addMediaFileCamera(const std::string& path, AVCaptureDevicePosition position,
                                                         NSErrorRef* error) {
    auto backend = MediaFileCamera::open(path, error);
    if (!backend) {
        return nullptr;
    }
    return addDevice(std::move(backend), position);
}

void AVCaptureDevice::removeDevice(const Ref& device) {
    if (device) {
        CaptureDeviceRegistry::shared().remove(device);
    }
}

void AVCaptureDevice::assignPosition(const std::string& uniqueID, AVCaptureDevicePosition position) {
    CaptureDeviceRegistry::shared().assignPosition(uniqueID, position);
}

void AVCaptureDevice::setDiscovery(const CaptureDeviceDiscovery& discovery) {
    CaptureDeviceRegistry::shared().setDiscovery(discovery);
}

CaptureDeviceDiscovery AVCaptureDevice::discovery() { return CaptureDeviceRegistry::shared().discovery(); }

std::string AVCaptureDevice::uniqueID() const { return _backend->uniqueID(); }
std::string AVCaptureDevice::localizedName() const { return _backend->localizedName(); }

AVCaptureDevicePosition AVCaptureDevice::position() const {
    std::lock_guard lock(_mutex);
    return _position;
}

bool AVCaptureDevice::hasMediaType(const AVMediaType& mediaType) const { return mediaType == AVMediaTypeVideo; }

bool AVCaptureDevice::isConnected() const {
    {
        std::lock_guard lock(_mutex);
        if (_removed) {
            return false;
        }
    }
    return _backend->isConnected();
}

bool AVCaptureDevice::supportsAVCaptureSessionPreset(const AVCaptureSessionPreset& preset) const {
    if (!AVCaptureSessionPresetIsKnown(preset)) {
        return false;
    }
    const CaptureFormat f = _backend->formatForPreset(preset);
    return f.width > 0 && f.height > 0;
}

bool AVCaptureDevice::lockForConfiguration(NSErrorRef* error) {
    if (error != nullptr) {
        *error = nullptr;
    }
    std::lock_guard lock(_mutex);
    if (_removed || !_backend->isConnected()) {
        if (error != nullptr) {
            *error = NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorDeviceNotConnected,
                                                   "The camera is not connected.");
        }
        return false;
    }
    if (_lockCount == 0) {
        NSErrorRef failure = _backend->lockConfiguration();
        if (failure) {
            if (error != nullptr) {
                *error = std::move(failure);
            }
            return false;
        }
    }
    ++_lockCount;
    return true;
}

void AVCaptureDevice::unlockForConfiguration() {
    std::lock_guard lock(_mutex);
    if (_lockCount == 0) {
        return;
    }
    if (--_lockCount == 0) {
        _backend->unlockConfiguration();
    }
}

bool AVCaptureDevice::isLockedForConfiguration() const {
    std::lock_guard lock(_mutex);
    return _lockCount > 0;
}

bool AVCaptureDevice::canChange(const char* setter) const {
    if (_lockCount > 0) {
        return true;
    }
    // The platform raises an exception here; the library never throws, so the call is logged and ignored.
    NSLog("%s: %s", setter, kNotLockedForConfiguration);
    return false;
}

void AVCaptureDevice::apply(const CaptureControls& controls) { _backend->applyControls(controls); }

bool AVCaptureDevice::isFocusModeSupported(AVCaptureFocusMode mode) const {
    return contains(_capabilities.focusModes, mode);
}
AVCaptureFocusMode AVCaptureDevice::focusMode() const {
    std::lock_guard lock(_mutex);
    return _controls.focusMode;
}
void AVCaptureDevice::setFocusMode(AVCaptureFocusMode mode) {
    std::lock_guard lock(_mutex);
    if (canChange("setFocusMode:") && isFocusModeSupported(mode)) {
        _controls.focusMode = mode;
        if (mode == AVCaptureFocusModeAutoFocus) {
            ++_controls.autoFocusRequests;
        }
        apply(_controls);
    }
}

bool AVCaptureDevice::isAutoFocusRangeRestrictionSupported() const { return _capabilities.autoFocusRangeRestriction; }
AVCaptureAutoFocusRangeRestriction AVCaptureDevice::autoFocusRangeRestriction() const {
    std::lock_guard lock(_mutex);
    return _controls.autoFocusRangeRestriction;
}
void AVCaptureDevice::setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestriction restriction) {
    std::lock_guard lock(_mutex);
    if (canChange("setAutoFocusRangeRestriction:") && _capabilities.autoFocusRangeRestriction && restriction >= AVCaptureAutoFocusRangeRestrictionNone &&
        restriction <= AVCaptureAutoFocusRangeRestrictionFar) {
        _controls.autoFocusRangeRestriction = restriction;
        apply(_controls);
    }
}

bool AVCaptureDevice::isExposureModeSupported(AVCaptureExposureMode mode) const {
    return contains(_capabilities.exposureModes, mode);
}
AVCaptureExposureMode AVCaptureDevice::exposureMode() const {
    std::lock_guard lock(_mutex);
    return _controls.exposureMode;
}
void AVCaptureDevice::setExposureMode(AVCaptureExposureMode mode) {
    std::lock_guard lock(_mutex);
    if (canChange("setExposureMode:") && isExposureModeSupported(mode)) {
        _controls.exposureMode = mode;
        apply(_controls);
    }
}

bool AVCaptureDevice::isWhiteBalanceModeSupported(AVCaptureWhiteBalanceMode mode) const {
    return contains(_capabilities.whiteBalanceModes, mode);
}
AVCaptureWhiteBalanceMode AVCaptureDevice::whiteBalanceMode() const {
    std::lock_guard lock(_mutex);
    return _controls.whiteBalanceMode;
}
void AVCaptureDevice::setWhiteBalanceMode(AVCaptureWhiteBalanceMode mode) {
    std::lock_guard lock(_mutex);
    if (canChange("setWhiteBalanceMode:") && isWhiteBalanceModeSupported(mode)) {
        _controls.whiteBalanceMode = mode;
        apply(_controls);
    }
}

bool AVCaptureDevice::hasFlash() const { return !_capabilities.flashModes.empty(); }
bool AVCaptureDevice::isFlashAvailable() const { return hasFlash() && isConnected(); }
bool AVCaptureDevice::isFlashModeSupported(AVCaptureFlashMode mode) const {
    return contains(_capabilities.flashModes, mode);
}
AVCaptureFlashMode AVCaptureDevice::flashMode() const {
    std::lock_guard lock(_mutex);
    return _controls.flashMode;
}
void AVCaptureDevice::setFlashMode(AVCaptureFlashMode mode) {
    std::lock_guard lock(_mutex);
    if (canChange("setFlashMode:") && isFlashModeSupported(mode)) {
        _controls.flashMode = mode;
        apply(_controls);
    }
}

bool AVCaptureDevice::hasTorch() const { return !_capabilities.torchModes.empty(); }
bool AVCaptureDevice::isTorchAvailable() const { return hasTorch() && isConnected(); }
bool AVCaptureDevice::isTorchModeSupported(AVCaptureTorchMode mode) const {
    return contains(_capabilities.torchModes, mode);
}
AVCaptureTorchMode AVCaptureDevice::torchMode() const {
    std::lock_guard lock(_mutex);
    return _controls.torchMode;
}
float AVCaptureDevice::torchLevel() const {
    std::lock_guard lock(_mutex);
    return _controls.torchMode == AVCaptureTorchModeOff ? 0.0F : _controls.torchLevel;
}
void AVCaptureDevice::setTorchMode(AVCaptureTorchMode mode) {
    std::lock_guard lock(_mutex);
    if (canChange("setTorchMode:") && isTorchModeSupported(mode)) {
        _controls.torchMode = mode;
        _controls.torchLevel = mode == AVCaptureTorchModeOff ? 0.0F : AVCaptureMaxAvailableTorchLevel;
        apply(_controls);
    }
}

bool AVCaptureDevice::setTorchModeOnWithLevel(float level, NSErrorRef* error) {
    if (error != nullptr) {
        *error = nullptr;
    }
    std::lock_guard lock(_mutex);
    const char* problem = nullptr;
    if (!(level > 0.0F) || level > AVCaptureMaxAvailableTorchLevel) {
        problem = "The torch level is outside (0, 1].";
    } else if (!contains(_capabilities.torchModes, AVCaptureTorchModeOn)) {
        problem = "The camera has no torch.";
    } else if (!canChange("setTorchModeOnWithLevel:error:")) {
        problem = kNotLockedForConfiguration;
    }
    if (problem != nullptr) {
        if (error != nullptr) {
            *error = NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorUnknown, problem);
        }
        return false;
    }
    _controls.torchMode = AVCaptureTorchModeOn;
    _controls.torchLevel = level;
    apply(_controls);
    return true;
}

} // namespace kp
