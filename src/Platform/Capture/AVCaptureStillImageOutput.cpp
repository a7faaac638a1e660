// SPDX-License-Identifier: MIT
// The still picture output: the next frame of the camera, converted, handed over on a thread of its own.
#include "KPImage/Platform/AVCaptureStillImageOutput.h"

#include "KPImage/Platform/AVCaptureSession.h"
#include "KPImage/Platform/Dispatch.h"
#include "Platform/Capture/OfferedFormats.h"
#include "Platform/Media/PixelConverter.h"

#include <cmath>

namespace kp {

namespace {
constexpr int64_t kStillTimeoutNanoseconds = 5 * NSEC_PER_SEC;

NSErrorRef stillError(AVError code, const char* text) {
    return NSError::errorWithDescription(AVFoundationErrorDomain, code, text);
}
} // namespace

std::shared_ptr<AVCaptureStillImageOutput> AVCaptureStillImageOutput::create() {
    return std::make_shared<AVCaptureStillImageOutput>();
}

AVVideoSettings AVCaptureStillImageOutput::outputSettings() const {
    return {{kCVPixelBufferPixelFormatTypeKey, static_cast<int64_t>(_pixelFormat.load(std::memory_order_acquire))}};
}

void AVCaptureStillImageOutput::setOutputSettings(const AVVideoSettings& settings) {
    const auto it = settings.find(kCVPixelBufferPixelFormatTypeKey);
    if (it != settings.end() && isOfferedPixelFormat(it->second)) {
        _pixelFormat.store(static_cast<OSType>(it->second), std::memory_order_release);
    }
}

std::vector<OSType> AVCaptureStillImageOutput::availableImageDataCVPixelFormatTypes() const {
    return {kCVPixelFormatType_32BGRA, kCVPixelFormatType_420YpCbCr8BiPlanarFullRange,
            kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange};
}

void AVCaptureStillImageOutput::complete(CompletionHandler handler, CMSampleBufferRef picture, NSErrorRef error) {
    if (!handler) {
        return;
    }
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0),
                   [handler = std::move(handler), picture = std::move(picture), error = std::move(error)] {
                       handler(picture, error);
                   });
}

void AVCaptureStillImageOutput::captureStillImageAsynchronouslyFromConnection(
    const std::shared_ptr<AVCaptureConnection>& connection, CompletionHandler handler) {
    auto owner = session();
    if (!connection || connection->output().get() != this || !owner) {
        complete(std::move(handler), nullptr,
                 stillError(AVErrorInvalidSourceMedia, "The connection does not belong to this still output."));
        return;
    }
    if (!owner->isRunning() || !connection->isActive()) {
        complete(std::move(handler), nullptr, stillError(AVErrorSessionNotRunning, "The session is not running."));
        return;
    }
    uint64_t id = 0;
    {
        std::lock_guard lock(_mutex);
        id = _nextId++;
        _requests.push_back(Request{id, CMClockGetHostTimeNow(), std::move(handler)});
        _pending.fetch_add(1, std::memory_order_acq_rel);
    }
    for (const auto& input : owner->inputs()) {
        input->device()->backend()->willCaptureStillImage();
    }
    std::weak_ptr<AVCaptureStillImageOutput> weak =
        std::static_pointer_cast<AVCaptureStillImageOutput>(shared_from_this());
    dispatch_after(dispatch_time(DISPATCH_TIME_NOW, kStillTimeoutNanoseconds),
                   dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [weak, id] {
                       if (auto self = weak.lock()) {
                           self->failRequest(id, stillError(AVErrorNoDataCaptured, "The camera sent no picture."));
                       }
                   });
}

void AVCaptureStillImageOutput::failRequest(uint64_t id, const NSErrorRef& error) {
    CompletionHandler handler;
    {
        std::lock_guard lock(_mutex);
        for (auto it = _requests.begin(); it != _requests.end(); ++it) {
            if (it->id == id) {
                handler = std::move(it->handler);
                _requests.erase(it);
                _pending.fetch_sub(1, std::memory_order_acq_rel);
                break;
            }
        }
    }
    complete(std::move(handler), nullptr, error);
}

void AVCaptureStillImageOutput::sessionDidCaptureFrame(const CMSampleBufferRef& frame) {
    if (_pending.load(std::memory_order_acquire) == 0) {
        return;
    }
    std::deque<Request> ready;
    const CMTime stamp = CMSampleBufferGetPresentationTimeStamp(frame);
    {
        std::lock_guard lock(_mutex);
        // Only frames that began after the request count: a flash fired for it must be in the picture.
        while (!_requests.empty() && CMTimeCompare(_requests.front().notBefore, stamp) <= 0) {
            ready.push_back(std::move(_requests.front()));
            _requests.pop_front();
            _pending.fetch_sub(1, std::memory_order_acq_rel);
        }
    }
    if (ready.empty()) {
        return;
    }
    auto conn = connection();
    const CVPixelBufferRef source = CMSampleBufferGetImageBuffer(frame);
    CMSampleBufferRef picture;
    if (source) {
        const double factor = conn->videoScaleAndCropFactor();
        const size_t w = source->width();
        const size_t h = source->height();
        size_t cw = w;
        size_t ch = h;
        if (factor > 1.0) {
            cw = std::max<size_t>(2, static_cast<size_t>(std::lround(static_cast<double>(w) / factor)));
            ch = std::max<size_t>(2, static_cast<size_t>(std::lround(static_cast<double>(h) / factor)));
        }
        PixelConverter converter;
        CVPixelBufferRef converted =
            converter.convert(source, _pixelFormat.load(std::memory_order_acquire), w, h, (w - cw) / 2, (h - ch) / 2,
                              cw, ch);
        if (converted) {
            CMSampleTimingInfo timing;
            timing.presentationTimeStamp = stamp;
            timing.duration = CMSampleBufferGetDuration(frame);
            CMSampleBufferCreateForImageBuffer(converted, true, timing, &picture);
        }
    }
    for (auto& request : ready) {
        if (picture) {
            complete(std::move(request.handler), picture, nullptr);
        } else {
            complete(std::move(request.handler), nullptr,
                     stillError(AVErrorOutOfMemory, "The picture could not be converted."));
        }
    }
}

void AVCaptureStillImageOutput::sessionDidStopStreaming(const NSErrorRef& error) {
    std::deque<Request> failed;
    {
        std::lock_guard lock(_mutex);
        failed.swap(_requests);
        _pending.store(0, std::memory_order_release);
    }
    const NSErrorRef reason = error ? error : stillError(AVErrorSessionNotRunning, "The session stopped.");
    for (auto& request : failed) {
        complete(std::move(request.handler), nullptr, reason);
    }
}

} // namespace kp
