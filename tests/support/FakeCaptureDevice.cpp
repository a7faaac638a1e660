// SPDX-License-Identifier: MIT
// A scripted camera for tests.
#include "support/FakeCaptureDevice.h"

#include <chrono>
#include <cstring>
#include <thread>
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

void FakeCaptureDevice::setFormat(CaptureFormat format) {
    std::lock_guard lock(_mutex);
    _format = format;
}

void FakeCaptureDevice::failNextStart(NSErrorRef error) {
    std::lock_guard lock(_mutex);
    _startError = std::move(error);
}

namespace {
// Frame callbacks running on this thread (pushFrame calls the sink on the caller's thread).
thread_local int tCallbackDepth = 0;
} // namespace

bool FakeCaptureDevice::pushFrame(uint8_t fill) {
    CaptureStreamRequest request = streamRequest();
    if (!isStreaming()) {
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
    ++tCallbackDepth;
    sink->didCaptureFrame(sample);
    --tCallbackDepth;
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
    if (tCallbackDepth > 0) {
        ++_stopsFromCallbacks;
    }
    _sink.reset();
}

void FakeCaptureDevice::willCaptureStillImage() {
    std::lock_guard lock(_mutex);
    ++_stills;
}

bool LastReferenceSink::releaseInFirstFrame(std::shared_ptr<CaptureDeviceBackend> camera,
                                            const std::function<void()>& started) {
    std::weak_ptr<CaptureDeviceBackend> weak = camera;
    auto sink = std::make_shared<LastReferenceSink>();
    sink->_camera = camera;
    CaptureStreamRequest request;
    request.format = camera->formatForPreset(AVCaptureSessionPresetHigh);
    if (camera->startStream(request, sink)) {
        return false;
    }
    camera.reset();
    if (started) {
        started();
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!weak.expired() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::lock_guard lock(sink->_mutex);
    return weak.expired() && sink->_frames == 1;
}

void LastReferenceSink::didCaptureFrame(const CMSampleBufferRef& /*frame*/) {
    std::shared_ptr<CaptureDeviceBackend> last;
    {
        std::lock_guard lock(_mutex);
        ++_frames;
        last = std::move(_camera);
    }
    if (last) {
        last->stopStream(); // on the stream's own thread: the run ends after this frame
    }
}

void LastReferenceSink::didFailWithError(const NSErrorRef& /*error*/) {}

} // namespace kptest
