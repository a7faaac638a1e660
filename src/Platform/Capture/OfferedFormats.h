// SPDX-License-Identifier: MIT
// The pixel formats the video and still outputs deliver.
#pragma once

#include "KPImage/Platform/CVPixelBuffer.h"

#include <cstdint>

namespace kp {

/// True for a format an output can be set to (BGRA or bi-planar 4:2:0); settings arrive as 64-bit numbers.
inline bool isOfferedPixelFormat(int64_t format) {
    return format == kCVPixelFormatType_32BGRA ||
           (format >= 0 && format <= UINT32_MAX && isBiPlanar420(static_cast<OSType>(format)));
}

} // namespace kp
