// SPDX-License-Identifier: MIT
// Shared helpers for the tests.
#include "support/TestSupport.h"

#include "KPImage/Platform/SystemLog.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace {
std::atomic<size_t> gAllocationLimit{std::numeric_limits<size_t>::max()};
std::atomic<size_t> gAllocationRefusals{0};

void* allocate(std::size_t size) {
    if (size > gAllocationLimit.load(std::memory_order_relaxed)) {
        gAllocationRefusals.fetch_add(1, std::memory_order_relaxed);
        throw std::bad_alloc();
    }
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}
} // namespace

// The replaceable allocation functions, plain and nothrow (a sanitizer runtime brings its own of each, which must
// not meet ours); the aligned forms are left to the runtime, which pairs them itself.
void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return allocate(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace kptest {

ScopedAllocationLimit::ScopedAllocationLimit(size_t maxBytes) {
    gAllocationRefusals.store(0, std::memory_order_relaxed);
    gAllocationLimit.store(maxBytes, std::memory_order_relaxed);
}

ScopedAllocationLimit::~ScopedAllocationLimit() {
    gAllocationLimit.store(std::numeric_limits<size_t>::max(), std::memory_order_relaxed);
}

size_t ScopedAllocationLimit::refusals() const { return gAllocationRefusals.load(std::memory_order_relaxed); }

LogCapture::LogCapture() {
    kp::setLogSink([this](std::string_view line) {
        std::lock_guard lock(_mutex);
        _lines.emplace_back(line);
    });
}

LogCapture::~LogCapture() { kp::setLogSink({}); }

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(_mutex);
    return _lines;
}

std::string dataPath(const std::string& name) { return std::string(KPIMAGE_TEST_DATA) + "/" + name; }

namespace {
kp::CGImageRef make(size_t width, size_t height, size_t bpp, kp::CGColorSpaceRef space, kp::CGBitmapInfo info,
                    const std::vector<uint8_t>& bytes, size_t bytesPerRow) {
    if (bytesPerRow == 0) {
        bytesPerRow = width * bpp / 8;
    }
    return kp::CGImageCreate(width, height, 8, bpp, bytesPerRow, std::move(space), info,
                             kp::CGDataProviderCreateWithData(bytes));
}
} // namespace

kp::CGImageRef makeGray(size_t width, size_t height, const std::vector<uint8_t>& bytes, size_t bytesPerRow) {
    return make(width, height, 8, kp::CGColorSpaceCreateDeviceGray(), kp::kKPBitmapInfoGray, bytes, bytesPerRow);
}
kp::CGImageRef makeRGB(size_t width, size_t height, const std::vector<uint8_t>& bytes, size_t bytesPerRow) {
    return make(width, height, 24, kp::CGColorSpaceCreateDeviceRGB(), kp::kKPBitmapInfoRGB, bytes, bytesPerRow);
}
kp::CGImageRef makeRGBA(size_t width, size_t height, const std::vector<uint8_t>& bytes, size_t bytesPerRow) {
    return make(width, height, 32, kp::CGColorSpaceCreateDeviceRGB(), kp::kKPBitmapInfoRGBA, bytes, bytesPerRow);
}
kp::CGImageRef makeBGRA(size_t width, size_t height, const std::vector<uint8_t>& bytes, size_t bytesPerRow) {
    return make(width, height, 32, kp::CGColorSpaceCreateDeviceRGB(), kp::kKPBitmapInfoBGRA, bytes, bytesPerRow);
}

} // namespace kptest
