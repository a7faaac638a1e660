// SPDX-License-Identifier: MIT
// The built-in sample camera.
#include "Platform/Capture/SampleCamera.h"

#include "Platform/Capture/SampleScene.h"
#include "Platform/Media/PixelConverter.h"

#include <cairo.h>

#include <chrono>
#include <cmath>

namespace kp {

namespace {
// A single auto-focus sweeps for a third of a second.
constexpr int kFocusSweepFrames = 10;
// Free frame buffers kept for reuse.
constexpr size_t kFreeFrames = 4;
} // namespace

SampleCamera::SampleCamera(AVCaptureDevicePosition position) : _position(position) {}

SampleCamera::~SampleCamera() { stopStream(); }

std::string SampleCamera::uniqueID() const {
    return _position == AVCaptureDevicePositionBack ? "sample:back" : "sample:front";
}

std::string SampleCamera::localizedName() const {
    return _position == AVCaptureDevicePositionBack ? "Sample Back Camera" : "Sample Front Camera";
}

CaptureCapabilities SampleCamera::capabilities() const {
    CaptureCapabilities caps;
    caps.focusModes = {AVCaptureFocusModeLocked, AVCaptureFocusModeAutoFocus, AVCaptureFocusModeContinuousAutoFocus};
    caps.exposureModes = {AVCaptureExposureModeLocked, AVCaptureExposureModeContinuousAutoExposure};
    caps.whiteBalanceModes = {AVCaptureWhiteBalanceModeLocked, AVCaptureWhiteBalanceModeAutoWhiteBalance,
                              AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance};
    caps.autoFocusRangeRestriction = true;
    if (_position == AVCaptureDevicePositionBack) {
        caps.flashModes = {AVCaptureFlashModeOff, AVCaptureFlashModeOn, AVCaptureFlashModeAuto};
        caps.torchModes = {AVCaptureTorchModeOff, AVCaptureTorchModeOn, AVCaptureTorchModeAuto};
    }
    return caps;
}

void SampleCamera::applyControls(const CaptureControls& controls) {
    std::lock_guard lock(_mutex);
    if (controls.focusMode == AVCaptureFocusModeAutoFocus &&
        (_controls.focusMode != AVCaptureFocusModeAutoFocus || _focusFramesLeft == 0)) {
        // Setting single auto-focus starts one focus sweep, as a real lens would.
        _focusFramesLeft = kFocusSweepFrames;
    }
    _controls = controls;
}

CaptureFormat SampleCamera::formatForPreset(const AVCaptureSessionPreset& preset) const {
    if (preset == AVCaptureSessionPresetLow) {
        return {192, 144};
    }
    if (preset == AVCaptureSessionPresetMedium) {
        return {480, 360};
    }
    if (preset == AVCaptureSessionPresetPhoto) {
        return {1440, 1080};
    }
    if (preset == AVCaptureSessionPreset640x480) {
        return {640, 480};
    }
    if (preset == AVCaptureSessionPreset1920x1080) {
        return {1920, 1080};
    }
    if (preset == AVCaptureSessionPreset1280x720 || preset == AVCaptureSessionPresetHigh) {
        return {1280, 720};
    }
    return {};
}

void SampleCamera::willCaptureStillImage() {
    std::lock_guard lock(_mutex);
    if (_controls.flashMode != AVCaptureFlashModeOff) {
        _flashNextFrame.store(true, std::memory_order_release);
    }
}

NSErrorRef SampleCamera::startStream(const CaptureStreamRequest& request, std::shared_ptr<CaptureFrameSink> sink) {
    stopStream();
    if (request.format.width <= 0 || request.format.height <= 0 ||
        static_cast<size_t>(request.format.width) > kCVPixelBufferMaxDimension ||
        static_cast<size_t>(request.format.height) > kCVPixelBufferMaxDimension) {
        return NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorFormatUnsupported,
                                             "The sample camera cannot stream that size.");
    }
    // The loop keeps the camera alive: the last reference may go while a frame is being delivered.
    _stream.start([this, keepAlive = weak_from_this().lock(), request, sink = std::move(sink)](const StreamStop& stop) {
        run(request, sink, stop);
    });
    return nullptr;
}

void SampleCamera::stopStream() {
    // Stopped from a frame callback on the stream's own thread, the run ends by itself after the current frame.
    _stream.stop();
}

void SampleCamera::run(CaptureStreamRequest request, std::shared_ptr<CaptureFrameSink> sink, const StreamStop& stop) {
    const SampleScene& scene = SampleScene::shared();
    const int width = request.format.width;
    const int height = request.format.height;
    const bool planar = isBiPlanar420(request.pixelFormat);
    const auto outOfMemory = [&] {
        sink->didFailWithError(NSError::errorWithDescription(AVFoundationErrorDomain, AVErrorOutOfMemory,
                                                             "No memory for the sample camera's frames."));
    };
    PixelConverter converter;
    CVPixelBufferRef scratch;   // BGRA drawing target when the stream is '420f' or '420v'
    CVPixelBufferPoolRef frames; // BGRA frames drawn in place
    if (planar ? CVPixelBufferCreate(width, height, kCVPixelFormatType_32BGRA, &scratch) != kCVReturnSuccess
               : CVPixelBufferPoolCreate(width, height, kCVPixelFormatType_32BGRA, kFreeFrames, &frames) !=
                     kCVReturnSuccess) {
        outOfMemory();
        return;
    }
    const double phase = _position == AVCaptureDevicePositionBack ? 2.0 : 0.0;
    const auto start = std::chrono::steady_clock::now();
    const auto frameDuration = std::chrono::nanoseconds(1000000000 / kFrameRate);
    int64_t index = 0;
    while (!stop.requested()) {
        if (!stop.sleepUntil(start + index * frameDuration)) {
            break;
        }
        const CMTime stamp = CMClockGetHostTimeNow();
        SampleSceneEffects effects;
        {
            std::lock_guard lock(_mutex);
            effects.torchLevel = _controls.torchMode == AVCaptureTorchModeOff ? 0.0 : _controls.torchLevel;
            effects.warmCast = _controls.whiteBalanceMode == AVCaptureWhiteBalanceModeLocked;
            if (_focusFramesLeft > 0) {
                effects.defocus = static_cast<double>(_focusFramesLeft) / kFocusSweepFrames;
                --_focusFramesLeft;
            }
        }
        effects.flash = _flashNextFrame.exchange(false, std::memory_order_acq_rel);

        CVPixelBufferRef target = scratch;
        if (!planar && CVPixelBufferPoolCreatePixelBuffer(frames, &target) != kCVReturnSuccess) {
            outOfMemory();
            return;
        }
        cairo_surface_t* surface = cairo_image_surface_create_for_data(
            target->bytes(), CAIRO_FORMAT_ARGB32, width, height, static_cast<int>(target->plane(0).bytesPerRow));
        const double t = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() + phase;
        scene.render(surface, width, height, t, effects);
        cairo_surface_destroy(surface);

        CVPixelBufferRef frame =
            planar ? converter.convert(scratch, request.pixelFormat, width, height) : std::move(target);
        if (frame) {
            CMSampleTimingInfo timing;
            timing.presentationTimeStamp = stamp;
            timing.duration = CMTimeMake(1, kFrameRate);
            CMSampleBufferRef sample;
            CMSampleBufferCreateForImageBuffer(frame, true, timing, &sample);
            sink->didCaptureFrame(sample);
        }
        // A late frame skips the slots it missed instead of hurrying to catch up.
        const auto elapsed = std::chrono::steady_clock::now() - start;
        index = std::max<int64_t>(index + 1, elapsed / frameDuration);
    }
}

} // namespace kp
