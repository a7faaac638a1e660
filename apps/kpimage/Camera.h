// SPDX-License-Identifier: MIT
// Camera helpers shared by the kpimage commands: presets by index, choosing a camera, taking a still.
#pragma once

#include "Args.h"

#include <KPImage/KPImage.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

namespace kpcli {

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

/// The --sample switch: the built-in sample cameras are offered even when a webcam is found; a command that
/// picks a camera (choose) then takes them instead of the webcams.
inline void applySampleOption(const Args& a, bool choose) {
    if (!a.flag("sample")) {
        return;
    }
    auto discovery = kp::AVCaptureDevice::discovery();
    discovery.alwaysOfferSampleCameras = true;
    if (choose) {
        discovery.v4l2 = false;
    }
    kp::AVCaptureDevice::setDiscovery(discovery);
}

/// Why the file cannot be played as a camera before any reader touches it: "" for a regular file or a device.
/// Opened without blocking, so a FIFO with no writer is refused at once instead of hanging the open.
inline std::string mediaFileProblem(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) {
        const int code = errno;
        return code == ENOENT ? "no such file: " + path : "cannot open " + path + ": " + std::strerror(code);
    }
    struct stat st {};
    const bool stated = fstat(fd, &st) == 0;
    ::close(fd);
    if (!stated || (!S_ISREG(st.st_mode) && !S_ISCHR(st.st_mode))) {
        return path + " is not a regular file or a device";
    }
    return {};
}

/// The first camera at the position given by --position (front, back); registers --media FILE there first;
/// --sample picks a sample camera over a webcam. Sets error and returns nil when there is none.
inline kp::AVCaptureDevice::Ref cameraFromArgs(const Args& a, std::string& error) {
    applySampleOption(a, true);
    const std::string name = a.value("position", "front");
    if (name != "front" && name != "back") {
        error = "--position must be front or back";
        return nullptr;
    }
    const auto position = name == "front" ? kp::AVCaptureDevicePositionFront : kp::AVCaptureDevicePositionBack;
    if (a.has("media")) {
        if (std::string problem = mediaFileProblem(a.value("media")); !problem.empty()) {
            error = std::move(problem);
            return nullptr;
        }
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

/// A session on the camera at the preset (by index, see presetForIndex), with the camera's input and no outputs;
/// not yet running. Nil with error set when the camera cannot be used.
inline std::shared_ptr<kp::AVCaptureSession> makeCameraSession(const kp::AVCaptureDevice::Ref& device,
                                                               int32_t presetIndex, std::string& error) {
    auto session = kp::AVCaptureSession::create();
    session->setSessionPreset(presetForIndex(presetIndex));
    auto input = kp::AVCaptureDeviceInput::deviceInputWithDevice(device);
    if (!input || !session->canAddInput(input)) {
        error = "cannot use camera " + device->uniqueID();
        return nullptr;
    }
    session->addInput(input);
    return session;
}

/// A session on the camera with a frame output delivering frames of the pixel format to the delegate on a serial
/// "VideoDataOutputQueue", late frames discarded; not yet running. A runtime error is stored in runtimeError and
/// stops the main run loop.
struct FrameSession {
    std::shared_ptr<kp::AVCaptureSession> session;
    std::shared_ptr<kp::AVCaptureVideoDataOutput> output;
    kp::dispatch_queue_t queue;
    std::shared_ptr<std::string> runtimeError = std::make_shared<std::string>();
};

/// The session of makeFrameSession; nil with error set when the camera cannot be used.
inline std::optional<FrameSession> makeFrameSession(
    const kp::AVCaptureDevice::Ref& device, int32_t presetIndex, kp::OSType pixelFormat,
    const std::shared_ptr<kp::AVCaptureVideoDataOutputSampleBufferDelegate>& delegate, std::string& error) {
    FrameSession s;
    s.session = makeCameraSession(device, presetIndex, error);
    if (!s.session) {
        return std::nullopt;
    }
    s.output = kp::AVCaptureVideoDataOutput::create();
    s.output->setVideoSettings({{kp::kCVPixelBufferPixelFormatTypeKey, pixelFormat}});
    s.output->setAlwaysDiscardsLateVideoFrames(true);
    s.queue = kp::dispatch_queue_create("VideoDataOutputQueue", kp::DISPATCH_QUEUE_SERIAL);
    s.output->setSampleBufferDelegate(delegate, s.queue);
    s.session->addOutput(s.output);
    s.session->setRuntimeErrorHandler([runtimeError = s.runtimeError](const kp::NSErrorRef& e) {
        *runtimeError = e->localizedDescription();
        kp::NSRunLoop::mainRunLoop().stop();
    });
    return s;
}

/// Takes one BGRA still from the running session's still output, driving the main run loop until the
/// completion arrives. Returns the picture, or nil with error set.
inline kp::CMSampleBufferRef takeStill(const std::shared_ptr<kp::AVCaptureStillImageOutput>& stillOutput,
                                       std::string& error) {
    auto connection = stillOutput->connectionWithMediaType(kp::AVMediaTypeVideo);
    if (!connection) {
        error = "the still output has no connection";
        return nullptr;
    }
    stillOutput->setOutputSettings({{kp::kCVPixelBufferPixelFormatTypeKey, kp::kCVPixelFormatType_32BGRA}});
    kp::CMSampleBufferRef picture;
    kp::NSErrorRef failure;
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
    if (!picture) {
        error = failure ? failure->localizedDescription() : "no picture";
    }
    return picture;
}

} // namespace kpcli
