// SPDX-License-Identifier: MIT
// Frames of known content for movie-writer tests, their comparison, and scratch folders.
#include "MovieFrames.h"

#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <filesystem>

namespace kptest {

namespace fs = std::filesystem;

ScratchFolder::ScratchFolder(const std::string& tag) {
    static std::atomic<int> serial{0};
    _path = (fs::temp_directory_path() /
             ("kpimage-" + tag + "-" + std::to_string(getpid()) + "-" + std::to_string(serial.fetch_add(1))))
                .string();
    std::error_code error;
    fs::remove_all(_path, error);
    fs::create_directories(_path, error);
}

ScratchFolder::~ScratchFolder() {
    std::error_code error;
    // A test may have made parts read-only; removal as root ignores that, as another user it may not.
    fs::permissions(_path, fs::perms::owner_all, fs::perm_options::add, error);
    fs::remove_all(_path, error);
}

namespace {

// Visits every visible row of every plane: f(plane, rowPointer, rowBytes).
template <typename F> void forEachRow(const kp::CVPixelBufferRef& buffer, F f) {
    const size_t planes = buffer->planeCount() == 0 ? 1 : buffer->planeCount();
    for (size_t p = 0; p < planes; ++p) {
        const kp::CVPixelBuffer::Plane& plane = buffer->plane(p);
        const size_t rowBytes = buffer->pixelFormat() == kp::kCVPixelFormatType_32BGRA ? plane.width * 4
                                : p == 0                                              ? plane.width
                                                                                      : plane.width * 2;
        for (size_t y = 0; y < plane.height; ++y) {
            f(p, y, buffer->bytes() + plane.offset + y * plane.bytesPerRow, rowBytes);
        }
    }
}

} // namespace

kp::CMSampleBufferRef patternFrame(kp::OSType format, size_t width, size_t height, int index, kp::CMTime time,
                                   bool dataReady) {
    kp::CVPixelBufferRef pixels;
    if (kp::CVPixelBufferCreate(width, height, format, &pixels) != kp::kCVReturnSuccess) {
        return nullptr;
    }
    // Smooth gradients that move with the index: exact codecs must keep every byte, lossy ones stay close.
    const auto i = static_cast<size_t>(index);
    forEachRow(pixels, [&](size_t plane, size_t y, uint8_t* row, size_t bytes) {
        if (format == kp::kCVPixelFormatType_32BGRA) {
            for (size_t x = 0; x + 3 < bytes; x += 4) {
                const size_t px = x / 4;
                row[x] = static_cast<uint8_t>(px * 3 + i * 9);
                row[x + 1] = static_cast<uint8_t>(y * 3 + i * 5);
                row[x + 2] = static_cast<uint8_t>(px + y + i * 3);
                row[x + 3] = 255; // opaque, so premultiplied and straight agree
            }
        } else {
            for (size_t x = 0; x < bytes; ++x) {
                row[x] = plane == 0 ? static_cast<uint8_t>(x * 2 + y + i * 9)
                                    : static_cast<uint8_t>(96 + (x / 2) + (x % 2) * 40 + y + i);
            }
        }
    });
    kp::CMSampleTimingInfo timing;
    timing.presentationTimeStamp = time;
    timing.duration = kp::CMTimeMake(1, 30);
    kp::CMSampleBufferRef sample;
    kp::CMSampleBufferCreateForImageBuffer(pixels, dataReady, timing, &sample);
    return sample;
}

bool samePixels(const kp::CVPixelBufferRef& a, const kp::CVPixelBufferRef& b) {
    return a && b && meanDifference(a, b) == 0.0;
}

double meanDifference(const kp::CVPixelBufferRef& a, const kp::CVPixelBufferRef& b) {
    if (!a || !b || a->pixelFormat() != b->pixelFormat() || a->width() != b->width() || a->height() != b->height()) {
        return 255.0;
    }
    double total = 0;
    double count = 0;
    forEachRow(a, [&](size_t plane, size_t y, uint8_t* row, size_t bytes) {
        const kp::CVPixelBuffer::Plane& other = b->plane(plane);
        const uint8_t* otherRow = b->bytes() + other.offset + y * other.bytesPerRow;
        for (size_t x = 0; x < bytes; ++x) {
            total += std::abs(static_cast<int>(row[x]) - static_cast<int>(otherRow[x]));
        }
        count += static_cast<double>(bytes);
    });
    return count > 0 ? total / count : 0.0;
}

size_t fileCount(const std::string& folder) {
    std::error_code error;
    size_t count = 0;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        count += it->is_regular_file() && it->path().filename().string()[0] != '.' ? 1 : 0;
    }
    return count;
}

} // namespace kptest
