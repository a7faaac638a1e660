// SPDX-License-Identifier: MIT
// Pixel buffers with 64-byte aligned rows, checked sizes and a counted base-address lock.
#include "KPImage/Platform/CVPixelBuffer.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

namespace kp {

namespace {
std::atomic<size_t> gLiveBuffers{0};

constexpr uint64_t kRowAlignment = 64;

uint64_t alignRow(uint64_t bytes) { return (bytes + kRowAlignment - 1) / kRowAlignment * kRowAlignment; }
} // namespace

CVPixelBuffer::~CVPixelBuffer() {
    if (_bytes) {
        gLiveBuffers.fetch_sub(1, std::memory_order_relaxed);
    }
}

// Where the planes of a width x height buffer lie and how many bytes it needs (named outside an anonymous
// namespace: the pool's shelf holds one).
struct BufferLayout {
    CVPixelBuffer::Plane planes[2];
    size_t planeCount = 0;
    uint64_t total = 0;
};

namespace {

CVReturn layoutFor(size_t width, size_t height, OSType pixelFormatType, BufferLayout& layout) {
    if (width == 0 || height == 0 || width > kCVPixelBufferMaxDimension || height > kCVPixelBufferMaxDimension) {
        return kCVReturnInvalidSize;
    }
    const uint64_t w = width;
    const uint64_t h = height;
    if (pixelFormatType == kCVPixelFormatType_32BGRA) {
        layout.planes[0] = {0, width, height, static_cast<size_t>(alignRow(w * 4))};
        layout.total = alignRow(w * 4) * h;
    } else if (isBiPlanar420(pixelFormatType)) {
        const uint64_t lumaRow = alignRow(w);
        const uint64_t chromaW = (w + 1) / 2;
        const uint64_t chromaH = (h + 1) / 2;
        const uint64_t chromaRow = alignRow(chromaW * 2);
        layout.planes[0] = {0, width, height, static_cast<size_t>(lumaRow)};
        layout.planes[1] = {static_cast<size_t>(lumaRow * h), static_cast<size_t>(chromaW),
                            static_cast<size_t>(chromaH), static_cast<size_t>(chromaRow)};
        layout.total = lumaRow * h + chromaRow * chromaH;
        layout.planeCount = 2;
    } else {
        return kCVReturnInvalidPixelFormat;
    }
    return kCVReturnSuccess;
}
} // namespace

void CVPixelBuffer::adopt(size_t width, size_t height, OSType format, size_t planeCount, const Plane (&planes)[2],
                          size_t size, std::unique_ptr<uint8_t[]> bytes) {
    gLiveBuffers.fetch_add(1, std::memory_order_relaxed);
    _width = width;
    _height = height;
    _format = format;
    _planeCount = planeCount;
    _planes[0] = planes[0];
    _planes[1] = planes[1];
    _size = size;
    _bytes = std::move(bytes);
}

CVReturn CVPixelBufferCreate(size_t width, size_t height, OSType pixelFormatType, CVPixelBufferRef* out) {
    if (out == nullptr) {
        return kCVReturnInvalidArgument;
    }
    *out = nullptr;
    BufferLayout layout;
    if (const CVReturn status = layoutFor(width, height, pixelFormatType, layout); status != kCVReturnSuccess) {
        return status;
    }
    std::unique_ptr<uint8_t[]> bytes(new (std::nothrow) uint8_t[layout.total]());
    if (!bytes) {
        return kCVReturnAllocationFailed;
    }
    auto buffer = std::shared_ptr<CVPixelBuffer>(new (std::nothrow) CVPixelBuffer());
    if (!buffer) {
        return kCVReturnAllocationFailed;
    }
    buffer->adopt(width, height, pixelFormatType, layout.planeCount, layout.planes, static_cast<size_t>(layout.total),
                  std::move(bytes));
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

// The pool's free memory, shared with its buffers' deleters so that a buffer released after its pool is simply
// freed.
struct CVPixelBufferPool::Shelf {
    std::mutex mutex;
    std::vector<std::unique_ptr<uint8_t[]>> free;
    size_t maximumFree = 1;
    BufferLayout layout;
};

CVPixelBufferPool::~CVPixelBufferPool() = default;

size_t CVPixelBufferPool::freeCount() const {
    std::lock_guard lock(_shelf->mutex);
    return _shelf->free.size();
}

CVReturn CVPixelBufferPoolCreate(size_t width, size_t height, OSType pixelFormatType, size_t maximumFreeBuffers,
                                 CVPixelBufferPoolRef* out) {
    if (out == nullptr) {
        return kCVReturnInvalidArgument;
    }
    *out = nullptr;
    BufferLayout layout;
    if (const CVReturn status = layoutFor(width, height, pixelFormatType, layout); status != kCVReturnSuccess) {
        return status;
    }
    auto shelf = std::shared_ptr<CVPixelBufferPool::Shelf>(new (std::nothrow) CVPixelBufferPool::Shelf());
    auto pool = std::shared_ptr<CVPixelBufferPool>(new (std::nothrow) CVPixelBufferPool());
    if (!shelf || !pool) {
        return kCVReturnAllocationFailed;
    }
    shelf->layout = layout;
    shelf->maximumFree = std::max<size_t>(1, maximumFreeBuffers);
    pool->_width = width;
    pool->_height = height;
    pool->_format = pixelFormatType;
    pool->_shelf = std::move(shelf);
    *out = std::move(pool);
    return kCVReturnSuccess;
}

CVReturn CVPixelBufferPoolCreatePixelBuffer(const CVPixelBufferPoolRef& pool, CVPixelBufferRef* out) {
    if (out == nullptr) {
        return kCVReturnInvalidArgument;
    }
    *out = nullptr;
    if (!pool) {
        return kCVReturnInvalidArgument;
    }
    const std::shared_ptr<CVPixelBufferPool::Shelf>& shelf = pool->_shelf;
    const BufferLayout& layout = shelf->layout;
    std::unique_ptr<uint8_t[]> bytes;
    {
        std::lock_guard lock(shelf->mutex);
        if (!shelf->free.empty()) {
            bytes = std::move(shelf->free.back());
            shelf->free.pop_back();
        }
    }
    if (!bytes) {
        bytes.reset(new (std::nothrow) uint8_t[layout.total]());
        if (!bytes) {
            return kCVReturnAllocationFailed;
        }
    }
    CVPixelBuffer* raw = new (std::nothrow) CVPixelBuffer();
    if (raw == nullptr) {
        return kCVReturnAllocationFailed;
    }
    raw->adopt(pool->_width, pool->_height, pool->_format, layout.planeCount, layout.planes,
               static_cast<size_t>(layout.total), std::move(bytes));
    // The last reference hands the memory back; the pool may be gone by then.
    std::weak_ptr<CVPixelBufferPool::Shelf> home = shelf;
    auto recycle = [home](CVPixelBuffer* buffer) {
        if (auto s = home.lock()) {
            std::unique_ptr<uint8_t[]> memory = std::move(buffer->_bytes);
            gLiveBuffers.fetch_sub(1, std::memory_order_relaxed);
            std::lock_guard lock(s->mutex);
            if (s->free.size() < s->maximumFree) {
                s->free.push_back(std::move(memory));
            }
        }
        delete buffer;
    };
    try {
        *out = std::shared_ptr<CVPixelBuffer>(raw, recycle);
    } catch (const std::bad_alloc&) {
        return kCVReturnAllocationFailed; // the deleter has already taken the buffer back
    }
    return kCVReturnSuccess;
}

} // namespace kp
