// SPDX-License-Identifier: MIT
// A scripted camera for tests.
#include "support/FakeCaptureDevice.h"

#include <cstring>
#include <utility>

namespace kptest {

using namespace kp;

CaptureCapabilities FakeCaptureDevice::fullCapabilities() {
    CaptureCapabilities caps;
    caps.focusModes = {AVCaptureFocusModeLocked, AVCaptureFocusModeAutoFocus, AVCaptureFocusModeContinuousAutoFocus};
    caps.exposureModes = {AVCaptureExposureModeLocked, AVCaptureExposureModeAutoExpose,
                          AVCaptureExposureModeContinuousAutoExposure};
    caps.whiteBalanceModes = {AVCaptureWhiteBalanceModeLocked, AVCaptureWhiteBalanceModeAutoWhiteBalance,
                              AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance};
    caps.autoFocusRangeRestriction = true;
    caps.flashModes = {AVCaptureFlashModeOff, AVCaptureFlashModeOn, AVCaptureFlashModeAuto};
    caps.torchModes = {AVCaptureTorchModeOff, AVCaptureTorchModeOn, AVCaptureTorchModeAuto};
    caps.videoStabilization = true;
    return caps;
}

CaptureCapabilities FakeCaptureDevice::noCapabilities() {
    CaptureCapabilities caps;
    caps.metadataObjectTypes = {};
    return caps;
}

FakeCaptureDevice::FakeCaptureDevice(std::string uniqueID, CaptureCapabilities caps)
    : _uniqueID(std::move(uniqueID)), _caps(std::move(caps)) {}

void FakeCaptureDevice::failNextLocks(int count, NSErrorRef error) {
    std::lock_guard lock(_mutex);
    _failLocks = count;
    _lockError = error ? error
                       : NSError::errorWithDescription(AVFoundationErrorDomain,
                                                       AVErrorDeviceLockedForConfigurationByAnotherProcess,
                                                       "Another holder has the lock.");
}

void FakeCaptureDevice::setConnected(bool connected) {
    std::lock_guard lock(_mutex);
    _connected = connected;
}

void FakeCaptureDevice::setFormat(CaptureFormat format) {
    std::lock_guard lock(_mutex);
    _format = format;
}

void FakeCaptureDevice::failNextStart(NSErrorRef error) {
    std::lock_guard lock(_mutex);
    _startError = std::move(error);
}

bool FakeCaptureDevice::pushFrame(uint8_t fill) {
    std::shared_ptr<CaptureFrameSink> sink;
    CaptureStreamRequest request;
    {
        std::lock_guard lock(_mutex);
        sink = _sink;
        request = _request;
    }
    if (!sink) {
        return false;
    }
    CVPixelBufferRef pixels;
    if (CVPixelBufferCreate(request.format.width, request.format.height, request.pixelFormat, &pixels) !=
        kCVReturnSuccess) {
        return false;
    }
    std::memset(pixels->bytes(), fill, pixels->dataSize());
    return pushFrame(pixels);
}

bool FakeCaptureDevice::pushFrame(const CVPixelBufferRef& pixels) {
    std::shared_ptr<CaptureFrameSink> sink;
    {
        std::lock_guard lock(_mutex);
        sink = _sink;
    }
    if (!sink || !pixels) {
        return false;
    }
    CMSampleTimingInfo timing;
    timing.presentationTimeStamp = CMClockGetHostTimeNow();
    CMSampleBufferRef sample;
    CMSampleBufferCreateForImageBuffer(pixels, true, timing, &sample);
    sink->didCaptureFrame(sample);
    return true;
}

void FakeCaptureDevice::vanish() {
    std::shared_ptr<CaptureFrameSink> sink;
    {
        std::lock_guard lock(_mutex);
        _connected = false;
        sink = std::move(_sink);
    }
    if (sink) {
        sink->didFailWithError(NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorDeviceWasDisconnected,
                                                             "The fake camera vanished."));
    }
}

bool FakeCaptureDevice::isStreaming() const {
    std::lock_guard lock(_mutex);
    return _sink != nullptr;
}

CaptureStreamRequest FakeCaptureDevice::streamRequest() const {
    std::lock_guard lock(_mutex);
    return _request;
}

int FakeCaptureDevice::startCount() const {
    std::lock_guard lock(_mutex);
    return _starts;
}

int FakeCaptureDevice::lockAttempts() const {
    std::lock_guard lock(_mutex);
    return _lockAttempts;
}

bool FakeCaptureDevice::holdsLock() const {
    std::lock_guard lock(_mutex);
    return _locked;
}

std::vector<CaptureControls> FakeCaptureDevice::appliedControls() const {
    std::lock_guard lock(_mutex);
    return _applied;
}

int FakeCaptureDevice::stillRequests() const {
    std::lock_guard lock(_mutex);
    return _stills;
}

bool FakeCaptureDevice::isConnected() const {
    std::lock_guard lock(_mutex);
    return _connected;
}

NSErrorRef FakeCaptureDevice::lockConfiguration() {
    std::lock_guard lock(_mutex);
    ++_lockAttempts;
    if (_failLocks > 0) {
        --_failLocks;
        return _lockError;
    }
    _locked = true;
    return nullptr;
}

void FakeCaptureDevice::unlockConfiguration() {
    std::lock_guard lock(_mutex);
    _locked = false;
}

void FakeCaptureDevice::applyControls(const CaptureControls& controls) {
    std::lock_guard lock(_mutex);
    _applied.push_back(controls);
}

CaptureFormat FakeCaptureDevice::formatForPreset(const AVCaptureSessionPreset& preset) const {
    std::lock_guard lock(_mutex);
    return AVCaptureSessionPresetIsKnown(preset) ? _format : CaptureFormat{};
}

NSErrorRef FakeCaptureDevice::startStream(const CaptureStreamRequest& request, std::shared_ptr<CaptureFrameSink> sink) {
    std::lock_guard lock(_mutex);
    ++_starts;
    if (_startError) {
        return std::exchange(_startError, nullptr);
    }
    _sink = std::move(sink);
    _request = request;
    return nullptr;
}

void FakeCaptureDevice::stopStream() {
    std::lock_guard lock(_mutex);
    _sink.reset();
}

void FakeCaptureDevice::willCaptureStillImage() {
    std::lock_guard lock(_mutex);
    ++_stills;
}

} // namespace kptest
