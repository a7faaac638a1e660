// SPDX-License-Identifier: MIT
// Capture devices: enumeration (V4L2 webcams, registered media files and devices, the sample cameras), position,
// the configuration lock and the focus, exposure, white-balance, flash and torch controls.
#pragma once

#include "KPImage/Platform/AVCaptureTypes.h"
#include "KPImage/Platform/CaptureDeviceBackend.h"
#include "KPImage/Platform/NSError.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kp {

/// Which cameras devices() finds besides the ones the host adds.
struct CaptureDeviceDiscovery {
    /// Scan for V4L2 video capture nodes (directory/video*).
    bool v4l2 = true;
    std::string v4l2Directory = "/dev";
    /// Offer the built-in sample cameras (front and back) when no webcam is found.
    bool sampleCameras = true;
    /// Offer the sample cameras even when webcams are found (listed after them).
    bool alwaysOfferSampleCameras = false;
};

/// The log line's text (after "<setter>: ") when a control setter is called without the configuration lock.
inline constexpr const char* kNotLockedForConfiguration = "The camera is not locked for configuration; nothing changed.";

/// A camera. Device objects are shared and keep their identity: devices() returns the same object for the same
/// camera for as long as it stays connected. Control setters apply only while the caller holds the
/// configuration lock; otherwise they change nothing and log "<setter>: " + kNotLockedForConfiguration.
class AVCaptureDevice : public std::enable_shared_from_this<AVCaptureDevice> {
public:
    using Ref = std::shared_ptr<AVCaptureDevice>;

    /// Every camera, in this order: devices the host added (in the order added), V4L2 webcams (by node number),
    /// then the sample cameras (front, back) when no webcam is found or the discovery asks for them. V4L2 webcams
    /// are front (a lone webcam faces the user), back, then unspecified in the order found, unless the host
    /// assigned positions.
    static std::vector<Ref> devices();
    /// The devices that have the media type (all cameras have video; none has anything else).
    static std::vector<Ref> devicesWithMediaType(const AVMediaType& mediaType);
    /// The first video device; nil for other media types or when there is none.
    static Ref defaultDeviceWithMediaType(const AVMediaType& mediaType);
    static Ref deviceWithUniqueID(const std::string& uniqueID);

    /// Adds a camera driven by the back-end at the position; returns its device.
    static Ref addDevice(std::shared_ptr<CaptureDeviceBackend> backend, AVCaptureDevicePosition position);
    /// Adds a camera that plays the video file in real time, looping; nil (and *error) when the file has no
    /// decodable video stream.
    static Ref addMediaFileCamera(const std::string& path, AVCaptureDevicePosition position,
                                  NSErrorRef* error = nullptr);
    /// Removes a device the host added; it reports itself disconnected from then on.
    static void removeDevice(const Ref& device);
    /// Gives a V4L2 device (uniqueID: its node path, e.g. "/dev/video0") a position of the host's choice.
    static void assignPosition(const std::string& uniqueID, AVCaptureDevicePosition position);
    static void setDiscovery(const CaptureDeviceDiscovery& discovery);
    static CaptureDeviceDiscovery discovery();

    std::string uniqueID() const;
    std::string localizedName() const;
    AVCaptureDevicePosition position() const;
    /// True for AVMediaTypeVideo.
    bool hasMediaType(const AVMediaType& mediaType) const;
    bool isConnected() const;
    /// True when the camera can stream the preset.
    bool supportsAVCaptureSessionPreset(const AVCaptureSessionPreset& preset) const;

    /// Takes the configuration lock (nests for this process). False, with *error set, when another holder
    /// (another process, or a device that refuses) has it or the device is gone.
    bool lockForConfiguration(NSErrorRef* error = nullptr);
    /// Gives back one lock taken by lockForConfiguration; ignored when not locked.
    void unlockForConfiguration();
    bool isLockedForConfiguration() const;

    bool isFocusModeSupported(AVCaptureFocusMode mode) const;
    AVCaptureFocusMode focusMode() const;
    void setFocusMode(AVCaptureFocusMode mode);
    bool isAutoFocusRangeRestrictionSupported() const;
    AVCaptureAutoFocusRangeRestriction autoFocusRangeRestriction() const;
    void setAutoFocusRangeRestriction(AVCaptureAutoFocusRangeRestriction restriction);

    bool isExposureModeSupported(AVCaptureExposureMode mode) const;
    AVCaptureExposureMode exposureMode() const;
    void setExposureMode(AVCaptureExposureMode mode);

    bool isWhiteBalanceModeSupported(AVCaptureWhiteBalanceMode mode) const;
    AVCaptureWhiteBalanceMode whiteBalanceMode() const;
    void setWhiteBalanceMode(AVCaptureWhiteBalanceMode mode);

    bool hasFlash() const;
    bool isFlashAvailable() const;
    bool isFlashModeSupported(AVCaptureFlashMode mode) const;
    AVCaptureFlashMode flashMode() const;
    void setFlashMode(AVCaptureFlashMode mode);

    bool hasTorch() const;
    bool isTorchAvailable() const;
    bool isTorchModeSupported(AVCaptureTorchMode mode) const;
    AVCaptureTorchMode torchMode() const;
    /// The torch level, 0 when off.
    float torchLevel() const;
    void setTorchMode(AVCaptureTorchMode mode);
    /// Torch on at level (0, AVCaptureMaxAvailableTorchLevel]; false with *error for another level, without a
    /// torch or without the lock.
    bool setTorchModeOnWithLevel(float torchLevel, NSErrorRef* error = nullptr);

    /// The driver behind the device (for sessions).
    const std::shared_ptr<CaptureDeviceBackend>& backend() const { return _backend; }

    AVCaptureDevice(std::shared_ptr<CaptureDeviceBackend> backend, AVCaptureDevicePosition position);

private:
    friend class CaptureDeviceRegistry;
    /// True while locked; otherwise logs "<setter>: " + kNotLockedForConfiguration and returns false.
    bool canChange(const char* setter) const;
    void apply(const CaptureControls& controls);

    const std::shared_ptr<CaptureDeviceBackend> _backend;
    const CaptureCapabilities _capabilities;
    mutable std::mutex _mutex;
    AVCaptureDevicePosition _position;
    CaptureControls _controls;
    int _lockCount = 0;
    bool _removed = false;
};

} // namespace kp
