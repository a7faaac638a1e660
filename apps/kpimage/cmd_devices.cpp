// SPDX-License-Identifier: MIT
// kpimage devices: the cameras the capture layer finds, with positions and capabilities.
#include "Args.h"
#include "Camera.h"
#include "Command.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <iostream>

namespace kpcli {
namespace {

const char* positionName(kp::AVCaptureDevicePosition p) {
    return p == kp::AVCaptureDevicePositionBack ? "back" : p == kp::AVCaptureDevicePositionFront ? "front" : "unspecified";
}

std::string presetList(const kp::AVCaptureDevice::Ref& device) {
    std::string out = "[";
    for (const auto& preset : {kp::AVCaptureSessionPresetLow, kp::AVCaptureSessionPresetMedium,
                               kp::AVCaptureSessionPreset640x480, kp::AVCaptureSessionPreset1280x720,
                               kp::AVCaptureSessionPreset1920x1080, kp::AVCaptureSessionPresetPhoto,
                               kp::AVCaptureSessionPresetHigh}) {
        if (!device->supportsAVCaptureSessionPreset(preset)) {
            continue;
        }
        const kp::CaptureFormat f = device->backend()->formatForPreset(preset);
        out += (out.size() > 1 ? "," : "") + JsonObject()
                                                  .add("preset", preset)
                                                  .add("width", static_cast<int32_t>(f.width))
                                                  .add("height", static_cast<int32_t>(f.height))
                                                  .str();
    }
    return out + "]";
}

int devices(const std::vector<std::string>& args) {
    Args a(args, {"media", "media-position"}, {"sample"});
    if (!a.error().empty()) {
        return fail(a.error());
    }
    applySampleOption(a, false);
    if (a.has("media")) {
        if (const std::string problem = mediaFileProblem(a.value("media")); !problem.empty()) {
            return fail(problem);
        }
        kp::NSErrorRef error;
        const auto position = a.value("media-position", "back") == "front" ? kp::AVCaptureDevicePositionFront
                                                                            : kp::AVCaptureDevicePositionBack;
        if (!kp::AVCaptureDevice::addMediaFileCamera(a.value("media"), position, &error)) {
            return fail(error ? error->localizedDescription() : "cannot play " + a.value("media"));
        }
    }
    for (const auto& d : kp::AVCaptureDevice::devices()) {
        JsonObject o;
        o.add("uniqueID", d->uniqueID())
            .add("name", d->localizedName())
            .add("position", positionName(d->position()))
            .add("positionValue", static_cast<int64_t>(d->position()))
            .add("connected", d->isConnected())
            .add("singleAutoFocus", d->isFocusModeSupported(kp::AVCaptureFocusModeAutoFocus))
            .add("continuousAutoFocus", d->isFocusModeSupported(kp::AVCaptureFocusModeContinuousAutoFocus))
            .add("autoFocusRangeRestriction", d->isAutoFocusRangeRestrictionSupported())
            .add("continuousWhiteBalance",
                 d->isWhiteBalanceModeSupported(kp::AVCaptureWhiteBalanceModeContinuousAutoWhiteBalance))
            .add("continuousExposure",
                 d->isExposureModeSupported(kp::AVCaptureExposureModeContinuousAutoExposure))
            .add("flash", d->hasFlash())
            .add("torch", d->hasTorch())
            .raw("presets", presetList(d));
        std::cout << o.str() << std::endl;
    }
    return 0;
}

const Registration kDevices({"devices",
                             "  kpimage devices [--media FILE [--media-position front|back]] [--sample]\n"
                             "      one JSON object per camera (media files, V4L2 webcams, and the sample cameras when\n"
                             "      no webcam is found or with --sample): uniqueID, name, position, capabilities and\n"
                             "      the frame size of each preset it can stream",
                             devices});

} // namespace
} // namespace kpcli
