// SPDX-License-Identifier: MIT
// Capture constants.
#include "KPImage/Platform/AVCaptureTypes.h"

namespace kp {

bool AVCaptureSessionPresetIsKnown(const std::string& preset) {
    return preset == AVCaptureSessionPresetHigh || preset == AVCaptureSessionPresetMedium ||
           preset == AVCaptureSessionPresetLow || preset == AVCaptureSessionPresetPhoto ||
           preset == AVCaptureSessionPreset640x480 || preset == AVCaptureSessionPreset1280x720 ||
           preset == AVCaptureSessionPreset1920x1080;
}

} // namespace kp
