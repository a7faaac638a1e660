// SPDX-License-Identifier: MIT
// kpimage still: takes one still picture from a camera and writes it as PNG.
#include "Args.h"
#include "Camera.h"
#include "Command.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <iostream>

namespace kpcli {
namespace {

int still(const std::vector<std::string>& args) {
    Args a(args, {"position", "preset", "media", "torch", "flash"}, {"sample"});
    if (!a.error().empty()) {
        return fail(a.error());
    }
    if (a.positional().size() != 1) {
        return fail("usage: kpimage still [--position front|back] [--preset N] [--sample] OUT.png");
    }
    const std::string out = a.positional()[0];
    const auto presetIndex = parseInt(a.value("preset", "0"));
    const auto torch = parseNumber(a.value("torch", "0"));
    if (!presetIndex || !torch || *torch < 0 || *torch > 1) {
        return fail("--preset takes an integer, --torch a level 0..1");
    }
    std::string error;
    auto device = cameraFromArgs(a, error);
    if (!device) {
        return fail(error);
    }
    if ((*torch > 0 || a.has("flash")) && device->lockForConfiguration()) {
        if (*torch > 0) {
            device->setTorchModeOnWithLevel(static_cast<float>(*torch));
        }
        if (a.has("flash")) {
            device->setFlashMode(a.value("flash") == "on" ? kp::AVCaptureFlashModeOn : kp::AVCaptureFlashModeOff);
        }
        device->unlockForConfiguration();
    }

    auto session = makeCameraSession(device, *presetIndex, error);
    if (!session) {
        return fail(error);
    }
    auto stillOutput = kp::AVCaptureStillImageOutput::create();
    session->addOutput(stillOutput);
    session->startRunning();
    if (!session->isRunning()) {
        return fail("the session did not start");
    }
    stillOutput->connectionWithMediaType(kp::AVMediaTypeVideo)->setVideoScaleAndCropFactor(1.0);
    // Let the camera settle for a moment (exposure, the first frames) before the picture.
    kp::NSRunLoop::mainRunLoop().runFor(0.3);
    const kp::CMSampleBufferRef picture = takeStill(stillOutput, error);
    session->stopRunning();
    if (!picture) {
        return fail(error);
    }
    // The picture as the camera took it (no turn for the device's orientation).
    std::optional<kp::UIImage> image;
    kp::KPImagingHelper::makeUIImageFromCMSampleBuffer(picture, device->position(), &image);
    const auto png = image ? kp::UIImagePNGRepresentation(*image) : std::nullopt;
    if (!png || !kp::writeToFile(*png, out, true)) {
        return fail("cannot write " + out);
    }
    const auto pixels = kp::CMSampleBufferGetImageBuffer(picture);
    std::cout << JsonObject()
                     .add("file", out)
                     .add("camera", device->uniqueID())
                     .add("width", static_cast<uint64_t>(kp::CVPixelBufferGetWidth(pixels)))
                     .add("height", static_cast<uint64_t>(kp::CVPixelBufferGetHeight(pixels)))
                     .add("bytes", static_cast<uint64_t>(png->size()))
                     .str()
              << std::endl;
    return 0;
}

const Registration kStill({"still",
                           "  kpimage still [--position front|back] [--preset N] [--torch LEVEL] [--flash on|off]\n"
                           "                [--media FILE] [--sample] OUT.png\n"
                           "      takes one still picture and writes it as PNG; {\"file\",\"camera\",\"width\","
                           "\"height\",\"bytes\"};\n"
                           "      --sample uses the built-in sample camera even when a webcam is found",
                           still});

} // namespace
} // namespace kpcli
