// SPDX-License-Identifier: MIT
// Sample buffers.
#include "KPImage/Platform/CMSampleBuffer.h"

namespace kp {

OSStatus CMSampleBufferCreateForImageBuffer(const CVImageBufferRef& imageBuffer, bool dataReady,
                                            const CMSampleTimingInfo& timing, CMSampleBufferRef* out) {
    if (out == nullptr) {
        return kCMSampleBufferError_RequiredParameterMissing;
    }
    *out = nullptr;
    if (!imageBuffer) {
        return kCMSampleBufferError_RequiredParameterMissing;
    }
    *out = std::make_shared<CMSampleBuffer>(imageBuffer, timing, dataReady);
    return noErr;
}

CVImageBufferRef CMSampleBufferGetImageBuffer(const CMSampleBufferRef& buffer) {
    return buffer ? buffer->imageBuffer() : nullptr;
}

CMTime CMSampleBufferGetPresentationTimeStamp(const CMSampleBufferRef& buffer) {
    return buffer ? buffer->timing().presentationTimeStamp : kCMTimeInvalid;
}

CMTime CMSampleBufferGetDuration(const CMSampleBufferRef& buffer) {
    return buffer ? buffer->timing().duration : kCMTimeInvalid;
}

bool CMSampleBufferDataIsReady(const CMSampleBufferRef& buffer) { return buffer && buffer->dataReady(); }

OSStatus CMSampleBufferMakeDataReady(const CMSampleBufferRef& buffer) {
    if (!buffer) {
        return kCMSampleBufferError_RequiredParameterMissing;
    }
    buffer->makeDataReady();
    return noErr;
}

bool CMSampleBufferIsValid(const CMSampleBufferRef& buffer) { return buffer != nullptr; }

} // namespace kp
