// SPDX-License-Identifier: MIT
// Frames of known content for movie-writer tests, their comparison, and scratch folders.
#pragma once

#include "KPImage/Platform/CMSampleBuffer.h"

#include <cstdint>
#include <string>

namespace kptest {

/// A fresh folder under the temporary directory, removed with everything in it at the end.
class ScratchFolder {
public:
    explicit ScratchFolder(const std::string& tag);
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::string& path() const { return _path; }
    std::string file(const std::string& name) const { return _path + "/" + name; }

private:
    std::string _path;
};

/// A frame whose every byte depends on (x, y, index), BGRA or '420f', with the time stamp and a duration of
/// 1/30 s. Distinct indices give distinct frames.
kp::CMSampleBufferRef patternFrame(kp::OSType format, size_t width, size_t height, int index, kp::CMTime time,
                                   bool dataReady = true);

/// True when both buffers have the same format, size and visible bytes (row padding ignored).
bool samePixels(const kp::CVPixelBufferRef& a, const kp::CVPixelBufferRef& b);

/// Mean absolute difference of the visible bytes of two buffers of the same format and size (255 otherwise).
double meanDifference(const kp::CVPixelBufferRef& a, const kp::CVPixelBufferRef& b);

/// Regular files of a folder that are not hidden (dot files); 0 when it does not exist.
size_t fileCount(const std::string& folder);

} // namespace kptest
