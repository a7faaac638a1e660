// SPDX-License-Identifier: MIT
// Conversions into images: raw pixel buffers of the library's layouts, a solid colour, device orientation.
#include "KPImage/KPImagingHelper.h"

#include "KPImage/Platform/CGContext.h"
#include "KPImage/Platform/UIDevice.h"
#include "KPImage/Platform/UIGraphics.h"
#include "Platform/Graphics/Allocation.h"

#include <limits>
#include <vector>

namespace kp {

namespace {

struct RawLayout {
    int32_t bytesPerPixel;
    bool gray;
    CGBitmapInfo bitmapInfo;
};

constexpr RawLayout kGrayLayout{1, true, kKPBitmapInfoGray};
constexpr RawLayout kRGBLayout{3, false, kKPBitmapInfoRGB};
constexpr RawLayout kRGBALayout{4, false, kKPBitmapInfoRGBA};
constexpr RawLayout kBGRALayout{4, false, kKPBitmapInfoBGRA};

// The number of bytes the image reads (bytesPerRow * height as a 32-bit product), or -1 when the sizes
// cannot describe a buffer.
int64_t rawByteCount(const RawLayout& layout, int32_t width, int32_t height, int32_t bytesPerRow) {
    if (width <= 0 || height <= 0 || bytesPerRow <= 0) {
        return -1;
    }
    const int64_t rowBytes = int64_t{width} * layout.bytesPerPixel;
    const int64_t total = int64_t{bytesPerRow} * height;
    if (rowBytes > bytesPerRow || total > std::numeric_limits<int32_t>::max()) {
        return -1;
    }
    return total;
}

std::optional<UIImage> makeImage(const RawLayout& layout, std::span<const uint8_t> data, int32_t width,
                                 int32_t height, int32_t bytesPerRow) {
    const int64_t count = rawByteCount(layout, width, height, bytesPerRow);
    if (count < 0 || data.data() == nullptr || data.size() < static_cast<uint64_t>(count)) {
        return std::nullopt;
    }
    const CGImageRef image = detail::orOnAllocationFailure<CGImageRef>(nullptr, [&] {
        std::vector<uint8_t> copy(data.begin(), data.begin() + count);
        return CGImageCreate(static_cast<size_t>(width), static_cast<size_t>(height), 8,
                             static_cast<size_t>(layout.bytesPerPixel) * 8, static_cast<size_t>(bytesPerRow),
                             layout.gray ? CGColorSpaceCreateDeviceGray() : CGColorSpaceCreateDeviceRGB(),
                             layout.bitmapInfo, CGDataProviderCreateWithData(std::move(copy)), nullptr, false,
                             kCGRenderingIntentDefault);
    });
    if (!image) {
        return std::nullopt;
    }
    return UIImage::imageWithCGImage(image);
}

std::optional<UIImage> makeImage(const RawLayout& layout, const uint8_t* data, int32_t width, int32_t height,
                                 int32_t bytesPerRow) {
    const int64_t count = rawByteCount(layout, width, height, bytesPerRow);
    if (count < 0 || data == nullptr) {
        return std::nullopt;
    }
    return makeImage(layout, std::span<const uint8_t>(data, static_cast<size_t>(count)), width, height,
                     bytesPerRow);
}

} // namespace

UIImageOrientation KPImagingHelper::convertToImageOrientation(int32_t deviceOrientation) {
    switch (deviceOrientation) {
    case UIDeviceOrientationPortrait: return UIImageOrientationRight;
    case UIDeviceOrientationPortraitUpsideDown: return UIImageOrientationLeft;
    case UIDeviceOrientationLandscapeLeft: return UIImageOrientationUp;
    case UIDeviceOrientationLandscapeRight: return UIImageOrientationDown;
    default: return UIImageOrientationRight;
    }
}

std::optional<UIImage> KPImagingHelper::makeUIImageFromCMSampleBuffer(const CMSampleBufferRef& sampleBuffer,
                                                                      int32_t position,
                                                                      std::optional<UIImage>* rawImage) {
    const CVImageBufferRef pixels = CMSampleBufferGetImageBuffer(sampleBuffer);
    if (!pixels || CVPixelBufferGetPixelFormatType(pixels) != kCVPixelFormatType_32BGRA) {
        return std::nullopt;
    }
    if (CVPixelBufferLockBaseAddress(pixels, 0) != kCVReturnSuccess) {
        return std::nullopt;
    }
    const auto* base = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(pixels, 0));
    const size_t bytesPerRow = CVPixelBufferGetBytesPerRow(pixels);
    const size_t width = CVPixelBufferGetWidth(pixels);
    const size_t height = CVPixelBufferGetHeight(pixels);
    CGImageRef bitmap;
    // The copy leaves the frame free for the camera to reuse as soon as it is unlocked.
    if (base != nullptr && height > 0 && bytesPerRow <= CVPixelBufferGetDataSize(pixels) / height) {
        // Out of memory leaves no bitmap, and the frame is unlocked all the same.
        bitmap = detail::orOnAllocationFailure<CGImageRef>(nullptr, [&] {
            std::vector<uint8_t> copy(base, base + bytesPerRow * height);
            return CGImageCreate(width, height, 8, 32, bytesPerRow, CGColorSpaceCreateDeviceRGB(), kKPBitmapInfoBGRA,
                                 CGDataProviderCreateWithData(std::move(copy)));
        });
    }
    CVPixelBufferUnlockBaseAddress(pixels, 0);
    if (!bitmap) {
        return std::nullopt;
    }

    CGFloat angle = 0;
    switch (convertToImageOrientation(UIDevice::currentDevice().orientation())) {
    case UIImageOrientationUp: angle = position == 1 ? 0 : 180; break;
    case UIImageOrientationDown: angle = position == 1 ? 180 : 0; break;
    case UIImageOrientationLeft:
    case UIImageOrientationRight: angle = -90; break;
    default: angle = 0; break;
    }
    const UIImage raw = UIImage::imageWithCGImage(std::move(bitmap));
    if (rawImage != nullptr) {
        *rawImage = raw;
    }
    return raw.rotatedByAngle(angle);
}

std::optional<UIImage> KPImagingHelper::makeUIImageFromCMSampleBuffer(const CMSampleBufferRef& sampleBuffer,
                                                                      int32_t position) {
    return makeUIImageFromCMSampleBuffer(sampleBuffer, position, nullptr);
}

std::optional<UIImage> KPImagingHelper::imageFromColor(const UIColor& color) {
    const CGRect rect = CGRectMake(0, 0, 10, 10);
    UIGraphicsBeginImageContext(rect.size);
    const CGContextRef context = UIGraphicsGetCurrentContext();
    CGContextSetFillColorWithColor(context, color.CGColor());
    CGContextFillRect(context, rect);
    std::optional<UIImage> image = UIGraphicsGetImageFromCurrentImageContext();
    UIGraphicsEndImageContext();
    return image;
}

std::optional<UIImage> KPImagingHelper::makeUIImageFromGrayScaleData(const uint8_t* data, int32_t width,
                                                                     int32_t height, int32_t bytesPerRow) {
    return makeImage(kGrayLayout, data, width, height, bytesPerRow);
}
std::optional<UIImage> KPImagingHelper::makeUIImageFromGrayScaleData(std::span<const uint8_t> data, int32_t width,
                                                                     int32_t height, int32_t bytesPerRow) {
    return makeImage(kGrayLayout, data, width, height, bytesPerRow);
}
std::optional<UIImage> KPImagingHelper::makeUIImageFromRGBData(const uint8_t* data, int32_t width, int32_t height,
                                                               int32_t bytesPerRow) {
    return makeImage(kRGBLayout, data, width, height, bytesPerRow);
}
std::optional<UIImage> KPImagingHelper::makeUIImageFromRGBData(std::span<const uint8_t> data, int32_t width,
                                                               int32_t height, int32_t bytesPerRow) {
    return makeImage(kRGBLayout, data, width, height, bytesPerRow);
}
std::optional<UIImage> KPImagingHelper::makeUIImageFromRGBAData(const uint8_t* data, int32_t width, int32_t height,
                                                                int32_t bytesPerRow) {
    return makeImage(kRGBALayout, data, width, height, bytesPerRow);
}
std::optional<UIImage> KPImagingHelper::makeUIImageFromRGBAData(std::span<const uint8_t> data, int32_t width,
                                                                int32_t height, int32_t bytesPerRow) {
    return makeImage(kRGBALayout, data, width, height, bytesPerRow);
}
std::optional<UIImage> KPImagingHelper::makeUIImageFromBGRAData(const uint8_t* data, int32_t width, int32_t height,
                                                                int32_t bytesPerRow) {
    return makeImage(kBGRALayout, data, width, height, bytesPerRow);
}
std::optional<UIImage> KPImagingHelper::makeUIImageFromBGRAData(std::span<const uint8_t> data, int32_t width,
                                                                int32_t height, int32_t bytesPerRow) {
    return makeImage(kBGRALayout, data, width, height, bytesPerRow);
}

uint8_t* KPImagingHelper::convertBGRAtoRGB(const uint8_t* data, int32_t width, int32_t height, int32_t bytesPerRow) {
    (void)data;
    (void)width;
    (void)height;
    (void)bytesPerRow;
    return nullptr;
}

} // namespace kp
