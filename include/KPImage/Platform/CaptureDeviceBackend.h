// SPDX-License-Identifier: MIT
// The interface between capture devices and what drives the camera (V4L2, a media file, the sample camera).
#pragma once

#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/CMSampleBuffer.h"
#include "KPImage/Platform/NSError.h"

#include <memory>
#include <string>
#include <vector>

namespace kp {

/// What a device can do. Empty mode lists mean "not adjustable".
struct CaptureCapabilities {
    std::vector<AVCaptureFocusMode> focusModes;
    std::vector<AVCaptureExposureMode> exposureModes;
    std::vector<AVCaptureWhiteBalanceMode> whiteBalanceModes;
    bool autoFocusRangeRestriction = false;
    std::vector<AVCaptureFlashMode> flashModes; // empty: no flash
    std::vector<AVCaptureTorchMode> torchModes; // empty: no torch
    bool videoStabilization = false;
    /// Metadata types offered to a metadata output on a session with this device: what the detectors find.
    std::vector<AVMetadataObjectType> metadataObjectTypes{
        AVMetadataObjectTypeFace,          AVMetadataObjectTypePDF417Code,   AVMetadataObjectTypeQRCode,
        AVMetadataObjectTypeEAN13Code,     AVMetadataObjectTypeEAN8Code,     AVMetadataObjectTypeUPCECode,
        AVMetadataObjectTypeCode39Code,    AVMetadataObjectTypeCode93Code,   AVMetadataObjectTypeCode128Code,
        AVMetadataObjectTypeITF14Code,     AVMetadataObjectTypeInterleaved2of5Code, AVMetadataObjectTypeAztecCode,
        AVMetadataObjectTypeDataMatrixCode};
};

/// The device's current control settings, as the device object keeps them.
struct CaptureControls {
    AVCaptureFocusMode focusMode = AVCaptureFocusModeContinuousAutoFocus;
    AVCaptureAutoFocusRangeRestriction autoFocusRangeRestriction = AVCaptureAutoFocusRangeRestrictionNone;
    AVCaptureExposureMode exposureMode = AVCaptureExposureModeContinuousAutoExposure;
    AVCaptureWhiteBalanceMode whiteBalanceMode = AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance;
    AVCaptureFlashMode flashMode = AVCaptureFlashModeOff;
    AVCaptureTorchMode torchMode = AVCaptureTorchModeOff;
    float torchLevel = 0.0F;
    /// How often single auto-focus was set: each new request starts a focus run, other changes never do.
    uint32_t autoFocusRequests = 0;
};

/// A frame size in pixels.
struct CaptureFormat {
    int32_t width = 0;
    int32_t height = 0;
    friend bool operator==(const CaptureFormat&, const CaptureFormat&) = default;
};

/// What a session asks a device to stream.
struct CaptureStreamRequest {
    CaptureFormat format;
    OSType pixelFormat = kCVPixelFormatType_32BGRA;
    friend bool operator==(const CaptureStreamRequest&, const CaptureStreamRequest&) = default;
};

/// Receives a stream's frames and its end; called on the device's own thread.
class CaptureFrameSink {
public:
    virtual ~CaptureFrameSink() = default;
    /// One frame in the requested format and size, time-stamped on the host clock.
    virtual void didCaptureFrame(const CMSampleBufferRef& frame) = 0;
    /// The stream ended by itself (device gone, read error); no frames follow.
    virtual void didFailWithError(const NSErrorRef& error) = 0;
};

/// A camera driver. All methods may be called from any thread; startStream/stopStream are never called
/// concurrently for one back-end. Back-ends are owned by std::shared_ptr: a stream keeps its back-end alive until
/// its loop has ended, so whoever starts a stream must stop it.
class CaptureDeviceBackend : public std::enable_shared_from_this<CaptureDeviceBackend> {
public:
    virtual ~CaptureDeviceBackend() = default;
    virtual std::string uniqueID() const = 0;
    virtual std::string localizedName() const = 0;
    virtual CaptureCapabilities capabilities() const = 0;
    /// False once the device has gone away.
    virtual bool isConnected() const = 0;
    /// Takes the device's configuration lock; null on success, else why it failed (e.g. another holder).
    virtual NSErrorRef lockConfiguration() = 0;
    virtual void unlockConfiguration() = 0;
    /// Applies the settings (called after every change made under the lock).
    virtual void applyControls(const CaptureControls& controls) = 0;
    /// The frame size the device streams for a preset; a zero size when it cannot serve the preset.
    virtual CaptureFormat formatForPreset(const AVCaptureSessionPreset& preset) const = 0;
    /// Starts streaming to the sink (held until stopStream returns); null on success.
    virtual NSErrorRef startStream(const CaptureStreamRequest& request, std::shared_ptr<CaptureFrameSink> sink) = 0;
    /// Stops streaming; after it returns the sink is not called again. Never called from the sink's callbacks.
    virtual void stopStream() = 0;
    /// A still picture is about to be taken from the next frame (a flash may fire).
    virtual void willCaptureStillImage() {}
};

} // namespace kp
