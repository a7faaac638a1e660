// SPDX-License-Identifier: MIT
// Shared helpers for the tests: log capture, test data paths, synthetic images.
#pragma once

#include "KPImage/Platform/CGImage.h"
#include "KPImage/Platform/UIImage.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace kptest {

/// Collects every log line written while it lives (restores the default sink afterwards).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::vector<std::string> lines() const;

private:
    mutable std::mutex _mutex;
    std::vector<std::string> _lines;
};

/// While it lives, every operator new of more than maxBytes bytes in this process (library included) throws
/// std::bad_alloc, as on a machine short of memory. One at a time; the test binaries replace operator new
/// for this and otherwise pass every request to malloc.
class ScopedAllocationLimit {
public:
    explicit ScopedAllocationLimit(size_t maxBytes);
    ~ScopedAllocationLimit();
    ScopedAllocationLimit(const ScopedAllocationLimit&) = delete;
    ScopedAllocationLimit& operator=(const ScopedAllocationLimit&) = delete;
    /// How many requests were refused so far.
    size_t refusals() const;
};

/// Path of a file in tests/data.
std::string dataPath(const std::string& name);

/// A bitmap of the given layout from bytes (bytesPerRow 0 means tight rows).
kp::CGImageRef makeGray(size_t width, size_t height, const std::vector<uint8_t>& bytes, size_t bytesPerRow = 0);
kp::CGImageRef makeRGB(size_t width, size_t height, const std::vector<uint8_t>& bytes, size_t bytesPerRow = 0);
kp::CGImageRef makeRGBA(size_t width, size_t height, const std::vector<uint8_t>& bytes, size_t bytesPerRow = 0);
kp::CGImageRef makeBGRA(size_t width, size_t height, const std::vector<uint8_t>& bytes, size_t bytesPerRow = 0);

/// A grey image whose pixel (x, y) is f(x, y).
template <typename F> kp::UIImage grayImage(size_t width, size_t height, F f) {
    std::vector<uint8_t> bytes(width * height);
    for (size_t y = 0; y < height; ++y) {
        for (size_t x = 0; x < width; ++x) {
            bytes[y * width + x] = static_cast<uint8_t>(f(x, y));
        }
    }
    return kp::UIImage::imageWithCGImage(makeGray(width, height, bytes));
}

} // namespace kptest
