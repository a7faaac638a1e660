// SPDX-License-Identifier: MIT
// Pixel buffers: one frame's pixels in one or two planes, with their layout and a base-address lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace kp {

using OSType = uint32_t;
using CVReturn = int32_t;
using CVOptionFlags = uint64_t;

inline constexpr CVReturn kCVReturnSuccess = 0;
inline constexpr CVReturn kCVReturnError = -6660;
inline constexpr CVReturn kCVReturnInvalidArgument = -6661;
inline constexpr CVReturn kCVReturnAllocationFailed = -6662;
inline constexpr CVReturn kCVReturnInvalidPixelFormat = -6680;
inline constexpr CVReturn kCVReturnInvalidSize = -6681;

/// 32-bit BGRA, premultiplied alpha: bytes B, G, R, A (Cairo's ARGB32 on little-endian machines).
inline constexpr OSType kCVPixelFormatType_32BGRA = 0x42475241; // 'BGRA'
/// Bi-planar 4:2:0 full-range YCbCr: plane 0 Y (width x height), plane 1 interleaved Cb, Cr at half size.
inline constexpr OSType kCVPixelFormatType_420YpCbCr8BiPlanarFullRange = 0x34323066; // '420f'
/// The same layout in video range: Y in 16..235, Cb and Cr in 16..240 (what most webcams deliver).
inline constexpr OSType kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange = 0x34323076; // '420v'

/// True for the two bi-planar 4:2:0 formats ('420f', '420v').
inline constexpr bool isBiPlanar420(OSType format) {
    return format == kCVPixelFormatType_420YpCbCr8BiPlanarFullRange ||
           format == kCVPixelFormatType_420YpCbCr8BiPlanarVideoRange;
}

/// Lock flag: the caller only reads.
inline constexpr CVOptionFlags kCVPixelBufferLock_ReadOnly = 1;

/// Largest width or height a pixel buffer may have.
inline constexpr size_t kCVPixelBufferMaxDimension = 16384;

class CVPixelBufferPool;

/// A frame's pixels. Rows are 64-byte aligned. The pixel addresses are handed out only while the base address
/// is locked (any thread may lock; locks nest).
class CVPixelBuffer {
public:
    ~CVPixelBuffer();
    CVPixelBuffer(const CVPixelBuffer&) = delete;
    CVPixelBuffer& operator=(const CVPixelBuffer&) = delete;

    struct Plane {
        size_t offset = 0;
        size_t width = 0;
        size_t height = 0;
        size_t bytesPerRow = 0;
    };

    size_t width() const { return _width; }
    size_t height() const { return _height; }
    OSType pixelFormat() const { return _format; }
    size_t planeCount() const { return _planeCount; }
    const Plane& plane(size_t index) const { return _planes[index < _planeCount ? index : 0]; }
    size_t dataSize() const { return _size; }
    /// The bytes regardless of the lock (for the platform layer's own producers, which own the buffer).
    uint8_t* bytes() { return _bytes.get(); }
    const uint8_t* bytes() const { return _bytes.get(); }
    bool isLocked() const { return _locks.load(std::memory_order_acquire) > 0; }

private:
    friend CVReturn CVPixelBufferCreate(size_t, size_t, OSType, std::shared_ptr<CVPixelBuffer>*);
    friend CVReturn CVPixelBufferPoolCreatePixelBuffer(const std::shared_ptr<CVPixelBufferPool>&,
                                                       std::shared_ptr<CVPixelBuffer>*);
    friend CVReturn CVPixelBufferLockBaseAddress(const std::shared_ptr<CVPixelBuffer>&, CVOptionFlags);
    friend CVReturn CVPixelBufferUnlockBaseAddress(const std::shared_ptr<CVPixelBuffer>&, CVOptionFlags);
    CVPixelBuffer() = default;
    /// Takes its layout and memory (the last step of both ways to make a buffer); counted live from here on.
    void adopt(size_t width, size_t height, OSType format, size_t planeCount, const Plane (&planes)[2], size_t size,
               std::unique_ptr<uint8_t[]> bytes);

    size_t _width = 0;
    size_t _height = 0;
    OSType _format = 0;
    size_t _planeCount = 0; // 0 for packed formats, as the platform counts
    Plane _planes[2];
    size_t _size = 0;
    std::unique_ptr<uint8_t[]> _bytes;
    std::atomic<int32_t> _locks{0};
};

using CVPixelBufferRef = std::shared_ptr<CVPixelBuffer>;
using CVImageBufferRef = CVPixelBufferRef;

/// A new zeroed buffer (BGRA or '420f'). Sizes are checked in 64 bits before allocating: zero or more than
/// kCVPixelBufferMaxDimension gives kCVReturnInvalidSize, another format kCVReturnInvalidPixelFormat, a failed
/// allocation kCVReturnAllocationFailed; *out is then null.
CVReturn CVPixelBufferCreate(size_t width, size_t height, OSType pixelFormatType, CVPixelBufferRef* out);
/// Locks the base address (nests); kCVReturnInvalidArgument for a null buffer.
CVReturn CVPixelBufferLockBaseAddress(const CVPixelBufferRef& buffer, CVOptionFlags lockFlags);
/// Undoes one lock; kCVReturnError when the buffer was not locked.
CVReturn CVPixelBufferUnlockBaseAddress(const CVPixelBufferRef& buffer, CVOptionFlags unlockFlags);
/// Plane 0's address while locked; null when unlocked or null.
void* CVPixelBufferGetBaseAddress(const CVPixelBufferRef& buffer);
/// The plane's address while locked; null when unlocked, null or the plane does not exist.
void* CVPixelBufferGetBaseAddressOfPlane(const CVPixelBufferRef& buffer, size_t planeIndex);
/// Bytes per row of plane 0 (the only plane of a packed buffer); 0 for null.
size_t CVPixelBufferGetBytesPerRow(const CVPixelBufferRef& buffer);
size_t CVPixelBufferGetBytesPerRowOfPlane(const CVPixelBufferRef& buffer, size_t planeIndex);
size_t CVPixelBufferGetWidth(const CVPixelBufferRef& buffer);
size_t CVPixelBufferGetHeight(const CVPixelBufferRef& buffer);
size_t CVPixelBufferGetWidthOfPlane(const CVPixelBufferRef& buffer, size_t planeIndex);
size_t CVPixelBufferGetHeightOfPlane(const CVPixelBufferRef& buffer, size_t planeIndex);
/// 2 for '420f', 0 for packed BGRA (as the platform counts) and for null.
size_t CVPixelBufferGetPlaneCount(const CVPixelBufferRef& buffer);
bool CVPixelBufferIsPlanar(const CVPixelBufferRef& buffer);
OSType CVPixelBufferGetPixelFormatType(const CVPixelBufferRef& buffer);
/// Total bytes of all planes.
size_t CVPixelBufferGetDataSize(const CVPixelBufferRef& buffer);

/// How many pixel buffers exist in the process right now (for watching memory use); the free memory a pool
/// keeps for reuse is not counted.
size_t CVPixelBufferGetLiveCount();

/// Reuses the memory of pixel buffers of one size and format: when the last reference to a buffer from the pool
/// goes (on any thread), its memory returns to the pool, which keeps up to a fixed number of free buffers and
/// frees the rest. Buffers outlive their pool. A reused buffer keeps the bytes it had: producers overwrite every
/// pixel. Thread-safe.
class CVPixelBufferPool {
public:
    ~CVPixelBufferPool();
    CVPixelBufferPool(const CVPixelBufferPool&) = delete;
    CVPixelBufferPool& operator=(const CVPixelBufferPool&) = delete;

    size_t width() const { return _width; }
    size_t height() const { return _height; }
    OSType pixelFormat() const { return _format; }
    /// How many free buffers wait for reuse now.
    size_t freeCount() const;

private:
    struct Shelf;
    friend CVReturn CVPixelBufferPoolCreate(size_t, size_t, OSType, size_t, std::shared_ptr<CVPixelBufferPool>*);
    friend CVReturn CVPixelBufferPoolCreatePixelBuffer(const std::shared_ptr<CVPixelBufferPool>&,
                                                       std::shared_ptr<CVPixelBuffer>*);
    CVPixelBufferPool() = default;

    size_t _width = 0;
    size_t _height = 0;
    OSType _format = 0;
    std::shared_ptr<Shelf> _shelf;
};

using CVPixelBufferPoolRef = std::shared_ptr<CVPixelBufferPool>;

/// A pool of width x height buffers in the format (BGRA or '420f') keeping up to maximumFreeBuffers (at least 1)
/// free buffers; the errors of CVPixelBufferCreate for a bad size or format, *out then null.
CVReturn CVPixelBufferPoolCreate(size_t width, size_t height, OSType pixelFormatType, size_t maximumFreeBuffers,
                                 CVPixelBufferPoolRef* out);
/// A buffer from the pool: a free one when there is one, else a new zeroed one; kCVReturnInvalidArgument for a
/// null pool or out, kCVReturnAllocationFailed when memory runs out (*out then null).
CVReturn CVPixelBufferPoolCreatePixelBuffer(const CVPixelBufferPoolRef& pool, CVPixelBufferRef* out);

} // namespace kp
