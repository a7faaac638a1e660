// SPDX-License-Identifier: MIT
// The frame output: hands each camera frame to a delegate on a serial queue, dropping frames that arrive while
// the delegate is still busy.
#pragma once

#include "KPImage/Platform/AVCaptureOutput.h"
#include "KPImage/Platform/CVPixelBuffer.h"
#include "KPImage/Platform/Dispatch.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace kp {

/// Output settings: key to number.
using AVVideoSettings = std::map<std::string, int64_t>;
/// The pixel format key of video and still output settings.
inline const std::string kCVPixelBufferPixelFormatTypeKey = "PixelFormatType";
/// The start of the log line of setVideoSettings when it refuses a pixel format.
inline constexpr const char* kUnsupportedPixelFormatLog = "AVCaptureVideoDataOutput: unsupported pixel format";

/// Receives frames on the output's delegate queue.
class AVCaptureVideoDataOutputSampleBufferDelegate {
public:
    virtual ~AVCaptureVideoDataOutputSampleBufferDelegate() = default;
    /// One frame; the sample buffer may be kept beyond the call.
    virtual void captureOutput(const std::shared_ptr<AVCaptureOutput>& output, const CMSampleBufferRef& sampleBuffer,
                               const std::shared_ptr<AVCaptureConnection>& connection) = 0;
};

/// The frame output.
class AVCaptureVideoDataOutput final : public AVCaptureOutput {
public:
    static std::shared_ptr<AVCaptureVideoDataOutput> create();

    /// { kCVPixelBufferPixelFormatTypeKey: the pixel format } (default '420f').
    AVVideoSettings videoSettings() const;
    /// Takes the pixel format from the settings. Settings without one are ignored; a format not in
    /// availableVideoCVPixelFormatTypes is refused: the output keeps its format and logs kUnsupportedPixelFormatLog,
    /// the format, and the format kept.
    void setVideoSettings(const AVVideoSettings& settings);
    /// The formats frames can be delivered in: '420v', '420f' and BGRA.
    std::vector<OSType> availableVideoCVPixelFormatTypes() const;
    OSType pixelFormat() const { return _pixelFormat.load(std::memory_order_acquire); }

    /// When true (the default) a frame that arrives while the delegate is still busy with the previous one is
    /// dropped; when false up to 8 frames wait on the queue before frames are dropped.
    bool alwaysDiscardsLateVideoFrames() const { return _discardLate.load(std::memory_order_acquire); }
    void setAlwaysDiscardsLateVideoFrames(bool discard) { _discardLate.store(discard, std::memory_order_release); }

    /// Sets the delegate (held weakly) and the queue its calls run on (held strongly); a null delegate or queue
    /// stops delivery.
    void setSampleBufferDelegate(std::weak_ptr<AVCaptureVideoDataOutputSampleBufferDelegate> delegate,
                                 dispatch_queue_t queue);
    std::shared_ptr<AVCaptureVideoDataOutputSampleBufferDelegate> sampleBufferDelegate() const;
    dispatch_queue_t sampleBufferCallbackQueue() const;

    /// Frames that reached the output while it had a delegate: delivered to it or dropped
    /// (produced == delivered + dropped once the queue is idle).
    struct FrameCounts {
        uint64_t produced = 0;
        uint64_t delivered = 0;
        uint64_t dropped = 0;
    };
    FrameCounts frameCounts() const;

    Kind kind() const override { return Kind::VideoData; }

    AVCaptureVideoDataOutput();

protected:
    void sessionDidCaptureFrame(const CMSampleBufferRef& frame) override;
    OSType preferredStreamPixelFormat() const override { return pixelFormat(); }

private:
    void finishFrame(bool delivered);

    mutable std::mutex _delegateMutex;
    std::weak_ptr<AVCaptureVideoDataOutputSampleBufferDelegate> _delegate;
    dispatch_queue_t _queue;
    std::atomic<OSType> _pixelFormat{kCVPixelFormatType_420YpCbCr8BiPlanarFullRange};
    std::atomic<bool> _discardLate{true};
    std::atomic<int32_t> _inFlight{0};
    std::atomic<uint64_t> _produced{0};
    std::atomic<uint64_t> _delivered{0};
    std::atomic<uint64_t> _dropped{0};
};

} // namespace kp
