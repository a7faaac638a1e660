// SPDX-License-Identifier: MIT
// A connection between a session's camera input and one output: enabled flag, stabilisation, scale and crop.
#pragma once

#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/Geometry.h"

#include <atomic>
#include <memory>

namespace kp {

class AVCaptureOutput;

/// The connection of an output for one media type. Its settings may be read from any thread.
class AVCaptureConnection {
public:
    const AVMediaType& mediaType() const { return _mediaType; }
    /// The output the connection feeds; null once the output is gone.
    std::shared_ptr<AVCaptureOutput> output() const { return _output.lock(); }

    bool isEnabled() const { return _enabled.load(std::memory_order_acquire); }
    void setEnabled(bool enabled) { _enabled.store(enabled, std::memory_order_release); }
    /// Enabled, and the output is in a running session with a connected camera input.
    bool isActive() const;

    /// True for a video connection whose session's camera stabilises.
    bool isVideoStabilizationSupported() const;
    AVCaptureVideoStabilizationMode preferredVideoStabilizationMode() const {
        return _preferredStabilization.load(std::memory_order_acquire);
    }
    void setPreferredVideoStabilizationMode(AVCaptureVideoStabilizationMode mode);
    /// The stabilisation in use: the preferred mode where supported (automatic means standard), else off.
    AVCaptureVideoStabilizationMode activeVideoStabilizationMode() const;
    bool enablesVideoStabilizationWhenAvailable() const {
        return _enablesStabilization.load(std::memory_order_acquire);
    }
    void setEnablesVideoStabilizationWhenAvailable(bool enables) {
        _enablesStabilization.store(enables, std::memory_order_release);
    }

    /// Digital zoom of still pictures: 1 (none) up to videoMaxScaleAndCropFactor; other values are ignored.
    CGFloat videoScaleAndCropFactor() const { return _scaleAndCrop.load(std::memory_order_acquire); }
    void setVideoScaleAndCropFactor(CGFloat factor);
    CGFloat videoMaxScaleAndCropFactor() const { return 4.0; }

    AVCaptureConnection(AVMediaType mediaType, std::weak_ptr<AVCaptureOutput> output)
        : _mediaType(std::move(mediaType)), _output(std::move(output)) {}

private:
    const AVMediaType _mediaType;
    const std::weak_ptr<AVCaptureOutput> _output;
    std::atomic<bool> _enabled{true};
    std::atomic<AVCaptureVideoStabilizationMode> _preferredStabilization{AVCaptureVideoStabilizationModeOff};
    std::atomic<bool> _enablesStabilization{false};
    std::atomic<CGFloat> _scaleAndCrop{1.0};
};

} // namespace kp
