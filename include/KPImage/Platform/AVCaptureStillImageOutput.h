// SPDX-License-Identifier: MIT
// The still picture output: takes the camera's next frame as a picture, in the output's pixel format.
#pragma once

#include "KPImage/Platform/AVCaptureOutput.h"
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>

namespace kp {

/// The still picture output.
class AVCaptureStillImageOutput final : public AVCaptureOutput {
public:
    /// Called once per request on a thread of its own: the picture and a null error, or a null picture and
    /// the error.
    using CompletionHandler =
        std::function<void(const CMSampleBufferRef& imageDataSampleBuffer, const NSErrorRef& error)>;

    static std::shared_ptr<AVCaptureStillImageOutput> create();

    /// { kCVPixelBufferPixelFormatTypeKey: the pixel format } (default BGRA).
    AVVideoSettings outputSettings() const;
    /// Takes the pixel format; settings without one, or with a format not offered, are ignored.
    void setOutputSettings(const AVVideoSettings& settings);
    std::vector<OSType> availableImageDataCVPixelFormatTypes() const;
    /// True while a picture is being taken.
    bool isCapturingStillImage() const { return _pending.load(std::memory_order_acquire) > 0; }

    /// Takes a picture from the next frame of the connection's camera, cropped and scaled by the connection's
    /// scale-and-crop factor. Fails (error AVErrorSessionNotRunning, AVErrorDeviceWasDisconnected,
    /// AVErrorNoDataCaptured after 5 s without a frame, or AVErrorInvalidSourceMedia for a connection that is
    /// not this output's) with a null picture. The handler and what it captures are held until it has run.
    void captureStillImageAsynchronouslyFromConnection(const std::shared_ptr<AVCaptureConnection>& connection,
                                                       CompletionHandler handler);

    Kind kind() const override { return Kind::StillImage; }

    AVCaptureStillImageOutput() : AVCaptureOutput(AVMediaTypeVideo) {}

protected:
    void sessionDidCaptureFrame(const CMSampleBufferRef& frame) override;
    void sessionDidStopStreaming(const NSErrorRef& error) override;

private:
    struct Request {
        uint64_t id;
        CMTime notBefore;
        CompletionHandler handler;
    };
    void complete(CompletionHandler handler, CMSampleBufferRef picture, NSErrorRef error);
    void failRequest(uint64_t id, const NSErrorRef& error);

    mutable std::mutex _mutex;
    std::deque<Request> _requests;
    uint64_t _nextId = 1;
    std::atomic<int32_t> _pending{0};
    std::atomic<OSType> _pixelFormat{kCVPixelFormatType_32BGRA};
};

} // namespace kp
