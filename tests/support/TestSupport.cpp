// SPDX-License-Identifier: MIT
// Shared helpers for the tests.
#include "support/TestSupport.h"

#include "KPImage/Platform/SystemLog.h"

namespace kptest {

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
