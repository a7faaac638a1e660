// SPDX-License-Identifier: MIT
// kpimage still: takes one still picture from a camera and writes it as PNG.
#include "Args.h"
#include "Command.h"
#include "Json.h"

#include <KPImage/KPImage.h>

#include <iostream>

namespace kpcli {
namespace {

/// The preset of an index: 1 Low, 2 Medium, 3 Photo, 4 640x480, 5 1280x720, 6 1920x1080, anything else High.
inline kp::AVCaptureSessionPreset presetForIndex(int32_t index) {
    switch (index) {
    case 1: return kp::AVCaptureSessionPresetLow;
    case 2: return kp::AVCaptureSessionPresetMedium;
    case 3: return kp::AVCaptureSessionPresetPhoto;
    case 4: return kp::AVCaptureSessionPreset640x480;
    case 5: return kp::AVCaptureSessionPreset1280x720;
    case 6: return kp::AVCaptureSessionPreset1920x1080;
    default: return kp::AVCaptureSessionPresetHigh;
    }
}

/// The first camera at the position given by --position (front, back); registers --media FILE there first.
/// Sets error and returns nil when there is none.
inline kp::AVCaptureDevice::Ref cameraFromArgs(const Args& a, std::string& error) {
    const std::string name = a.value("position", "front");
    if (name != "front" && name != "back") {
        error = "--position must be front or back";
        return nullptr;
    }
    const auto position = name == "front" ? kp::AVCaptureDevicePositionFront : kp::AVCaptureDevicePositionBack;
    if (a.has("media")) {
        kp::NSErrorRef e;
        if (!kp::AVCaptureDevice::addMediaFileCamera(a.value("media"), position, &e)) {
            error = e ? e->localizedDescription() : "cannot play " + a.value("media");
            return nullptr;
        }
    }
    for (const auto& d : kp::AVCaptureDevice::devicesWithMediaType(kp::AVMediaTypeVideo)) {
        if (d->position() == position) {
            return d;
        }
    }
    error = "no camera at position " + name;
    return nullptr;
}


// The BGRA still as an image (the pixels are copied, rows as they are).
std::optional<kp::UIImage> imageOfStill(const kp::CMSampleBufferRef& still) {
    const kp::CVPixelBufferRef pixels = kp::CMSampleBufferGetImageBuffer(still);
    if (kp::CVPixelBufferGetPixelFormatType(pixels) != kp::kCVPixelFormatType_32BGRA) {
        return std::nullopt;
    }
    kp::CVPixelBufferLockBaseAddress(pixels, kp::kCVPixelBufferLock_ReadOnly);
    const auto* base = static_cast<const uint8_t*>(kp::CVPixelBufferGetBaseAddress(pixels));
    const size_t stride = kp::CVPixelBufferGetBytesPerRow(pixels);
    const size_t width = kp::CVPixelBufferGetWidth(pixels);
    const size_t height = kp::CVPixelBufferGetHeight(pixels);
    std::vector<uint8_t> bytes(base, base + stride * height);
    kp::CVPixelBufferUnlockBaseAddress(pixels, kp::kCVPixelBufferLock_ReadOnly);
    auto image = kp::CGImageCreate(width, height, 8, 32, stride, kp::CGColorSpaceCreateDeviceRGB(),
                                   kp::kKPBitmapInfoBGRA, kp::CGDataProviderCreateWithData(std::move(bytes)));
    if (!image) {
        return std::nullopt;
    }
    return kp::UIImage::imageWithCGImage(image);
}

int still(const std::vector<std::string>& args) {
    Args a(args, {"position", "preset", "media", "torch", "flash"}, {});
    if (!a.error().empty()) {
        return fail(a.error());
    }
    if (a.positional().size() != 1) {
        return fail("usage: kpimage still [--position front|back] [--preset N] OUT.png");
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

    auto session = kp::AVCaptureSession::create();
    session->setSessionPreset(presetForIndex(*presetIndex));
    auto input = kp::AVCaptureDeviceInput::deviceInputWithDevice(device);
    if (!input || !session->canAddInput(input)) {
        return fail("cannot use camera " + device->uniqueID());
    }
    session->addInput(input);
    auto stillOutput = kp::AVCaptureStillImageOutput::create();
    session->addOutput(stillOutput);
    session->startRunning();
    if (!session->isRunning()) {
        return fail("the session did not start");
    }
    auto connection = stillOutput->connectionWithMediaType(kp::AVMediaTypeVideo);
    connection->setVideoScaleAndCropFactor(1.0);
    stillOutput->setOutputSettings({{kp::kCVPixelBufferPixelFormatTypeKey, kp::kCVPixelFormatType_32BGRA}});

    kp::CMSampleBufferRef picture;
    kp::NSErrorRef failure;
    // Let the camera settle for a moment (exposure, the first frames) before the picture.
    kp::NSRunLoop::mainRunLoop().runFor(0.3);
    stillOutput->captureStillImageAsynchronouslyFromConnection(
        connection, [&](const kp::CMSampleBufferRef& sample, const kp::NSErrorRef& e) {
            // On the completion's own thread: hand the result to the main thread.
            kp::dispatch_async(kp::dispatch_get_main_queue(), [&, sample, e] {
                picture = sample;
                failure = e;
                kp::NSRunLoop::mainRunLoop().stop();
            });
        });
    kp::NSRunLoop::mainRunLoop().run();
    session->stopRunning();
    if (!picture) {
        return fail(failure ? failure->localizedDescription() : "no picture");
    }
    const auto image = imageOfStill(picture);
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
                           "                [--media FILE] OUT.png\n"
                           "      takes one still picture and writes it as PNG; {\"file\",\"camera\",\"width\","
                           "\"height\",\"bytes\"}",
                           still});

} // namespace
} // namespace kpcli
