// SPDX-License-Identifier: MIT
// Capture enumerations and constants: media types, session presets, device positions and modes, error codes.
#pragma once

#include <cstdint>
#include <string>

namespace kp {

using NSInteger = int64_t;

/// A media type string.
using AVMediaType = std::string;
inline const AVMediaType AVMediaTypeVideo = "vide";
inline const AVMediaType AVMediaTypeAudio = "soun";
inline const AVMediaType AVMediaTypeMetadata = "meta";

/// Metadata object type strings.
using AVMetadataObjectType = std::string;
inline const AVMetadataObjectType AVMetadataObjectTypeFace = "face";
inline const AVMetadataObjectType AVMetadataObjectTypePDF417Code = "org.iso.PDF417";
inline const AVMetadataObjectType AVMetadataObjectTypeQRCode = "org.iso.QRCode";
inline const AVMetadataObjectType AVMetadataObjectTypeEAN13Code = "org.gs1.EAN-13";
inline const AVMetadataObjectType AVMetadataObjectTypeEAN8Code = "org.gs1.EAN-8";
inline const AVMetadataObjectType AVMetadataObjectTypeUPCECode = "org.gs1.UPC-E";
inline const AVMetadataObjectType AVMetadataObjectTypeCode39Code = "org.iso.Code39";
inline const AVMetadataObjectType AVMetadataObjectTypeCode93Code = "com.intermec.Code93";
inline const AVMetadataObjectType AVMetadataObjectTypeCode128Code = "org.iso.Code128";
inline const AVMetadataObjectType AVMetadataObjectTypeITF14Code = "org.gs1.ITF14";
inline const AVMetadataObjectType AVMetadataObjectTypeInterleaved2of5Code = "org.ansi.Interleaved2of5";
inline const AVMetadataObjectType AVMetadataObjectTypeAztecCode = "org.iso.Aztec";
inline const AVMetadataObjectType AVMetadataObjectTypeDataMatrixCode = "org.iso.DataMatrix";

/// Session presets (the frame size a session asks of its camera).
using AVCaptureSessionPreset = std::string;
inline const AVCaptureSessionPreset AVCaptureSessionPresetHigh = "AVCaptureSessionPresetHigh";
inline const AVCaptureSessionPreset AVCaptureSessionPresetMedium = "AVCaptureSessionPresetMedium";
inline const AVCaptureSessionPreset AVCaptureSessionPresetLow = "AVCaptureSessionPresetLow";
inline const AVCaptureSessionPreset AVCaptureSessionPresetPhoto = "AVCaptureSessionPresetPhoto";
inline const AVCaptureSessionPreset AVCaptureSessionPreset640x480 = "AVCaptureSessionPreset640x480";
inline const AVCaptureSessionPreset AVCaptureSessionPreset1280x720 = "AVCaptureSessionPreset1280x720";
inline const AVCaptureSessionPreset AVCaptureSessionPreset1920x1080 = "AVCaptureSessionPreset1920x1080";

/// True for the seven preset strings above.
bool AVCaptureSessionPresetIsKnown(const std::string& preset);

enum AVCaptureDevicePosition : NSInteger {
    AVCaptureDevicePositionUnspecified = 0,
    AVCaptureDevicePositionBack = 1,
    AVCaptureDevicePositionFront = 2,
};

enum AVCaptureFocusMode : NSInteger {
    AVCaptureFocusModeLocked = 0,
    AVCaptureFocusModeAutoFocus = 1,
    AVCaptureFocusModeContinuousAutoFocus = 2,
};

enum AVCaptureExposureMode : NSInteger {
    AVCaptureExposureModeLocked = 0,
    AVCaptureExposureModeAutoExpose = 1,
    AVCaptureExposureModeContinuousAutoExposure = 2,
    AVCaptureExposureModeCustom = 3,
};

enum AVCaptureWhiteBalanceMode : NSInteger {
    AVCaptureWhiteBalanceModeLocked = 0,
    AVCaptureWhiteBalanceModeAutoWhiteBalance = 1,
    AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance = 2,
};

enum AVCaptureAutoFocusRangeRestriction : NSInteger {
    AVCaptureAutoFocusRangeRestrictionNone = 0,
    AVCaptureAutoFocusRangeRestrictionNear = 1,
    AVCaptureAutoFocusRangeRestrictionFar = 2,
};

enum AVCaptureFlashMode : NSInteger {
    AVCaptureFlashModeOff = 0,
    AVCaptureFlashModeOn = 1,
    AVCaptureFlashModeAuto = 2,
};

enum AVCaptureTorchMode : NSInteger {
    AVCaptureTorchModeOff = 0,
    AVCaptureTorchModeOn = 1,
    AVCaptureTorchModeAuto = 2,
};

enum AVCaptureVideoStabilizationMode : NSInteger {
    AVCaptureVideoStabilizationModeOff = 0,
    AVCaptureVideoStabilizationModeStandard = 1,
    AVCaptureVideoStabilizationModeCinematic = 2,
    AVCaptureVideoStabilizationModeAuto = -1,
};

/// The brightest torch level a device offers; torch levels lie in (0, AVCaptureMaxAvailableTorchLevel].
inline constexpr float AVCaptureMaxAvailableTorchLevel = 1.0F;

/// Error codes of AVFoundationErrorDomain.
enum AVError : NSInteger {
    AVErrorUnknown = -11800,
    AVErrorOutOfMemory = -11801,
    AVErrorSessionNotRunning = -11803,
    AVErrorDeviceAlreadyUsedByAnotherSession = -11804,
    AVErrorNoDataCaptured = -11805,
    AVErrorSessionConfigurationChanged = -11806,
    AVErrorDeviceWasDisconnected = -11808,
    AVErrorDeviceNotConnected = -11814,
    AVErrorDeviceLockedForConfigurationByAnotherProcess = -11817,
    AVErrorInvalidSourceMedia = -11829,
    AVErrorFormatUnsupported = -11834,
};

} // namespace kp
