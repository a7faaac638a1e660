// SPDX-License-Identifier: MIT
// The frame output: one frame in flight to the delegate at a time (or a short queue), the rest dropped.
#include "KPImage/Platform/AVCaptureVideoDataOutput.h"

#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/SystemLog.h"
#include "Platform/Capture/OfferedFormats.h"

#include <cstdint>
#include <string>

namespace kp {

namespace {
// Frames that may wait on the delegate queue when late frames are not discarded.
constexpr int32_t kMaxQueuedFrames = 8;

// A format as its four characters where they are printable, else as a number.
std::string formatName(int64_t format) {
    std::string name;
    for (int shift = 24; shift >= 0 && format >= 0 && format <= UINT32_MAX; shift -= 8) {
        const char c = static_cast<char>((format >> shift) & 0xFF);
        if (c < 0x20 || c > 0x7E) {
            return std::to_string(format);
        }
        name += c;
    }
    return name.size() == 4 ? "'" + name + "'" : std::to_string(format);
}
} // namespace

std::shared_ptr<AVCaptureVideoDataOutput> AVCaptureVideoDataOutput::create() {
    return std::make_shared<AVCaptureVideoDataOutput>();
}

AVCaptureVideoDataOutput::AVCaptureVideoDataOutput() : AVCaptureOutput(AVMediaTypeVideo) {}

AVVideoSettings AVCaptureVideoDataOutput::videoSettings() const {
    return {{kCVPixelBufferPixelFormatTypeKey, static_cast<int64_t>(pixelFormat())}};
}

void AVCaptureVideoDataOutput::setVideoSettings(const AVVideoSettings& settings) {
    const auto it = settings.find(kCVPixelBufferPixelFormatTypeKey);
    if (it == settings.end()) {
        return;
    }
    if (!isOfferedPixelFormat(it->second)) {
        NSLog("%s %s; the output keeps %s", kUnsupportedPixelFormatLog, formatName(it->second).c_str(),
              formatName(pixelFormat()).c_str());
        return;
    }
    _pixelFormat.store(static_cast<OSType>(it->second), std::memory_order_release);
    // A running session picks the new format up at its next configuration change; restart it at once.
    if (auto owner = session()) {
        owner->beginConfiguration();
        owner->commitConfiguration();
    }
}

std::vector<OSType> AVCaptureVideoDataOutput::availableVideoCVPixelFormatTypes() const {
    return {kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange,
            kCVPixelFormatType_32BGRA};
}

void AVCaptureVideoDataOutput::setSampleBufferDelegate(
    std::weak_ptr<AVCaptureVideoDataOutputSampleBufferDelegate> delegate, dispatch_queue_t queue) {
    std::lock_guard lock(_delegateMutex);
    _delegate = std::move(delegate);
    _queue = std::move(queue);
}

std::shared_ptr<AVCaptureVideoDataOutputSampleBufferDelegate> AVCaptureVideoDataOutput::sampleBufferDelegate() const {
    std::lock_guard lock(_delegateMutex);
    return _delegate.lock();
}

dispatch_queue_t AVCaptureVideoDataOutput::sampleBufferCallbackQueue() const {
    std::lock_guard lock(_delegateMutex);
    return _queue;
}

AVCaptureVideoDataOutput::FrameCounts AVCaptureVideoDataOutput::frameCounts() const {
    FrameCounts counts;
    counts.delivered = _delivered.load(std::memory_order_acquire);
    counts.dropped = _dropped.load(std::memory_order_acquire);
    counts.produced = _produced.load(std::memory_order_acquire);
    return counts;
}

void AVCaptureVideoDataOutput::finishFrame(bool delivered) {
    (delivered ? _delivered : _dropped).fetch_add(1, std::memory_order_acq_rel);
    _inFlight.fetch_sub(1, std::memory_order_acq_rel);
}

void AVCaptureVideoDataOutput::sessionDidCaptureFrame(const CMSampleBufferRef& frame) {
    auto conn = connection();
    if (!conn->isEnabled()) {
        return;
    }
    std::weak_ptr<AVCaptureVideoDataOutputSampleBufferDelegate> delegate;
    dispatch_queue_t queue;
    {
        std::lock_guard lock(_delegateMutex);
        if (_delegate.expired() || !_queue) {
            return;
        }
        delegate = _delegate;
        queue = _queue;
    }
    _produced.fetch_add(1, std::memory_order_acq_rel);
    const int32_t limit = alwaysDiscardsLateVideoFrames() ? 1 : kMaxQueuedFrames;
    if (_inFlight.fetch_add(1, std::memory_order_acq_rel) >= limit) {
        // Late: the delegate still has the previous frame(s). The frame is released here, never queued.
        _inFlight.fetch_sub(1, std::memory_order_acq_rel);
        _dropped.fetch_add(1, std::memory_order_acq_rel);
        return;
    }
    auto self = std::static_pointer_cast<AVCaptureVideoDataOutput>(shared_from_this());
    queue->async([self, delegate, frame, conn] {
        auto target = delegate.lock();
        if (target) {
            target->captureOutput(self, frame, conn);
        }
        self->finishFrame(target != nullptr);
    });
}

} // namespace kp
