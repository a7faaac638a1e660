// SPDX-License-Identifier: MIT
// Pixel buffers with 64-byte aligned rows, checked sizes and a counted base-address lock.
#include "KPImage/Platform/CVPixelBuffer.h"

#include <cstring>
#include <new>

namespace kp {

namespace {
std::atomic<size_t> gLiveBuffers{0};

constexpr uint64_t kRowAlignment = 64;

uint64_t alignRow(uint64_t bytes) { return (bytes + kRowAlignment - 1) / kRowAlignment * kRowAlignment; }
} // namespace

CVPixelBuffer::~CVPixelBuffer() { gLiveBuffers.fetch_sub(1, std::memory_order_relaxed); }

CVReturn CVPixelBufferCreate(size_t width, size_t height, OSType pixelFormatType, CVPixelBufferRef* out) {
    if (out == nullptr) {
        return kCVReturnInvalidArgument;
    }
    *out = nullptr;
    if (width == 0 || height == 0 || width > kCVPixelBufferMaxDimension || height > kCVPixelBufferMaxDimension) {
        return kCVReturnInvalidSize;
    }
    const uint64_t w = width;
    const uint64_t h = height;
    CVPixelBuffer::Plane planes[2];
    size_t planeCount = 0;
    uint64_t total = 0;
    if (pixelFormatType == kCVPixelFormatType_32BGRA) {
        planes[0] = {0, width, height, static_cast<size_t>(alignRow(w * 4))};
        total = alignRow(w * 4) * h;
    } else if (pixelFormatType == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange) {
        const uint64_t lumaRow = alignRow(w);
        const uint64_t chromaW = (w + 1) / 2;
        const uint64_t chromaH = (h + 1) / 2;
        const uint64_t chromaRow = alignRow(chromaW * 2);
        planes[0] = {0, width, height, static_cast<size_t>(lumaRow)};
        planes[1] = {static_cast<size_t>(lumaRow * h), static_cast<size_t>(chromaW), static_cast<size_t>(chromaH),
                     static_cast<size_t>(chromaRow)};
        total = lumaRow * h + chromaRow * chromaH;
        planeCount = 2;
    } else {
        return kCVReturnInvalidPixelFormat;
    }
    std::unique_ptr<uint8_t[]> bytes(new (std::nothrow) uint8_t[total]());
    if (!bytes) {
        return kCVReturnAllocationFailed;
    }
    auto buffer = std::shared_ptr<CVPixelBuffer>(new (std::nothrow) CVPixelBuffer());
    if (!buffer) {
        return kCVReturnAllocationFailed;
    }
    gLiveBuffers.fetch_add(1, std::memory_order_relaxed);
    buffer->_width = width;
    buffer->_height = height;
    buffer->_format = pixelFormatType;
    buffer->_planeCount = planeCount;
    buffer->_planes[0] = planes[0];
    buffer->_planes[1] = planes[1];
    buffer->_size = static_cast<size_t>(total);
    buffer->_bytes = std::move(bytes);
    *out = std::move(buffer);
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferLockBaseAddress(const CVPixelBufferRef& buffer, CVOptionFlags /*lockFlags*/) {
    if (!buffer) {
        return kCVReturnInvalidArgument;
    }
    buffer->_locks.fetch_add(1, std::memory_order_acq_rel);
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferUnlockBaseAddress(const CVPixelBufferRef& buffer, CVOptionFlags /*unlockFlags*/) {
    if (!buffer) {
        return kCVReturnInvalidArgument;
    }
    int32_t locks = buffer->_locks.load(std::memory_order_acquire);
    while (locks > 0) {
        if (buffer->_locks.compare_exchange_weak(locks, locks - 1, std::memory_order_acq_rel)) {
            return kCVReturnSuccess;
        }
    }
    return kCVReturnError;
}

void* CVPixelBufferGetBaseAddress(const CVPixelBufferRef& buffer) {
    return CVPixelBufferGetBaseAddressOfPlane(buffer, 0);
}

void* CVPixelBufferGetBaseAddressOfPlane(const CVPixelBufferRef& buffer, size_t planeIndex) {
    if (!buffer || !buffer->isLocked()) {
        return nullptr;
    }
    const size_t planes = buffer->planeCount() == 0 ? 1 : buffer->planeCount();
    if (planeIndex >= planes) {
        return nullptr;
    }
    return buffer->bytes() + buffer->plane(planeIndex).offset;
}

size_t CVPixelBufferGetBytesPerRow(const CVPixelBufferRef& buffer) {
    return buffer ? buffer->plane(0).bytesPerRow : 0;
}

namespace {
const CVPixelBuffer::Plane* planeOf(const CVPixelBufferRef& buffer, size_t planeIndex) {
    if (!buffer) {
        return nullptr;
    }
    const size_t planes = buffer->planeCount() == 0 ? 1 : buffer->planeCount();
    return planeIndex < planes ? &buffer->plane(planeIndex) : nullptr;
}
} // namespace

size_t CVPixelBufferGetBytesPerRowOfPlane(const CVPixelBufferRef& buffer, size_t planeIndex) {
    const auto* p = planeOf(buffer, planeIndex);
    return p ? p->bytesPerRow : 0;
}
size_t CVPixelBufferGetWidth(const CVPixelBufferRef& buffer) { return buffer ? buffer->width() : 0; }
size_t CVPixelBufferGetHeight(const CVPixelBufferRef& buffer) { return buffer ? buffer->height() : 0; }
size_t CVPixelBufferGetWidthOfPlane(const CVPixelBufferRef& buffer, size_t planeIndex) {
    const auto* p = planeOf(buffer, planeIndex);
    return p ? p->width : 0;
}
size_t CVPixelBufferGetHeightOfPlane(const CVPixelBufferRef& buffer, size_t planeIndex) {
    const auto* p = planeOf(buffer, planeIndex);
    return p ? p->height : 0;
}
size_t CVPixelBufferGetPlaneCount(const CVPixelBufferRef& buffer) { return buffer ? buffer->planeCount() : 0; }
bool CVPixelBufferIsPlanar(const CVPixelBufferRef& buffer) { return buffer && buffer->planeCount() > 0; }
OSType CVPixelBufferGetPixelFormatType(const CVPixelBufferRef& buffer) { return buffer ? buffer->pixelFormat() : 0; }
size_t CVPixelBufferGetDataSize(const CVPixelBufferRef& buffer) { return buffer ? buffer->dataSize() : 0; }

size_t CVPixelBufferGetLiveCount() { return gLiveBuffers.load(std::memory_order_relaxed); }

} // namespace kp
