// SPDX-License-Identifier: MIT
// Sample buffers: one captured frame (a pixel buffer) with its presentation time stamp and readiness.
#pragma once

#include "KPImage/Platform/CMTime.h"
#include "KPImage/Platform/CVPixelBuffer.h"

#include <atomic>
#include <memory>

namespace kp {

using OSStatus = int32_t;
inline constexpr OSStatus noErr = 0;
inline constexpr OSStatus kCMSampleBufferError_RequiredParameterMissing = -12731;

/// Timing of one sample.
struct CMSampleTimingInfo {
    CMTime duration = kCMTimeInvalid;
    CMTime presentationTimeStamp = kCMTimeInvalid;
    CMTime decodeTimeStamp = kCMTimeInvalid;
};

/// One frame as capture delivers it. Shared and immutable apart from the data-ready flag.
class CMSampleBuffer {
public:
    CMSampleBuffer(CVImageBufferRef imageBuffer, CMSampleTimingInfo timing, bool dataReady)
        : _imageBuffer(std::move(imageBuffer)), _timing(timing), _dataReady(dataReady) {}

    const CVImageBufferRef& imageBuffer() const { return _imageBuffer; }
    const CMSampleTimingInfo& timing() const { return _timing; }
    bool dataReady() const { return _dataReady.load(std::memory_order_acquire); }
    void makeDataReady() { _dataReady.store(true, std::memory_order_release); }

private:
    CVImageBufferRef _imageBuffer;
    CMSampleTimingInfo _timing;
    std::atomic<bool> _dataReady;
};

using CMSampleBufferRef = std::shared_ptr<CMSampleBuffer>;

/// A sample buffer of the image buffer; kCMSampleBufferError_RequiredParameterMissing (and *out null) for a
/// null image buffer or out.
OSStatus CMSampleBufferCreateForImageBuffer(const CVImageBufferRef& imageBuffer, bool dataReady,
                                            const CMSampleTimingInfo& timing, CMSampleBufferRef* out);
/// The frame's pixel buffer; null for a null sample buffer.
CVImageBufferRef CMSampleBufferGetImageBuffer(const CMSampleBufferRef& buffer);
/// The presentation time stamp; kCMTimeInvalid for null.
CMTime CMSampleBufferGetPresentationTimeStamp(const CMSampleBufferRef& buffer);
CMTime CMSampleBufferGetDuration(const CMSampleBufferRef& buffer);
/// True once the data is ready; false for null.
bool CMSampleBufferDataIsReady(const CMSampleBufferRef& buffer);
/// Marks the data ready; noErr, or kCMSampleBufferError_RequiredParameterMissing for null.
OSStatus CMSampleBufferMakeDataReady(const CMSampleBufferRef& buffer);
/// True for a non-null sample buffer.
bool CMSampleBufferIsValid(const CMSampleBufferRef& buffer);

} // namespace kp
