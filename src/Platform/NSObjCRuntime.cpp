// SPDX-License-Identifier: MIT
// Class lookup by name over the classes this platform layer offers.
#include "KPImage/Platform/NSObjCRuntime.h"

#include <algorithm>
#include <array>

namespace kp {

bool NSClassFromString(std::string_view name) {
    static constexpr std::array<std::string_view, 22> kClasses{
        "AVAssetReader",           "AVAssetWriter",
        "AVAssetWriterInput",      "AVCaptureConnection",
        "AVCaptureDevice",         "AVCaptureDeviceInput",
        "AVCaptureMetadataOutput", "AVCaptureSession",
        "AVCaptureStillImageOutput", "AVCaptureVideoDataOutput",
        "AVCaptureVideoPreviewLayer", "AVMetadataFaceObject",
        "AVMetadataMachineReadableCodeObject", "AVMetadataObject",
        "CABasicAnimation",        "CALayer",
        "CAShapeLayer",            "CIDetector",
        "NSTimer",                 "UIColor",
        "UIImage",                 "UIView"};
    return std::find(kClasses.begin(), kClasses.end(), name) != kClasses.end();
}

} // namespace kp
