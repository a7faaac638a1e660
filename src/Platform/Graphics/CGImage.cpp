// SPDX-License-Identifier: MIT
// Colour spaces, data providers and bitmap images.
#include "KPImage/Platform/CGImage.h"

#include "Platform/Graphics/Allocation.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kp {

size_t CGColorSpace::numberOfComponents() const {
    switch (_model) {
    case kCGColorSpaceModelMonochrome: return 1;
    case kCGColorSpaceModelRGB:
    case kCGColorSpaceModelLab:
    case kCGColorSpaceModelXYZ: return 3;
    case kCGColorSpaceModelCMYK: return 4;
    case kCGColorSpaceModelIndexed: return 1;
    default: return 0;
    }
}

CGColorSpaceRef CGColorSpaceCreateDeviceGray() {
    static const CGColorSpaceRef gray = std::make_shared<const CGColorSpace>(kCGColorSpaceModelMonochrome);
    return gray;
}

CGColorSpaceRef CGColorSpaceCreateDeviceRGB() {
    static const CGColorSpaceRef rgb = std::make_shared<const CGColorSpace>(kCGColorSpaceModelRGB);
    return rgb;
}

CGColorSpaceRef CGColorSpaceCreateWithModel(CGColorSpaceModel model) {
    return std::make_shared<const CGColorSpace>(model);
}

CGColorSpaceModel CGColorSpaceGetModel(const CGColorSpaceRef& space) {
    return space ? space->model() : kCGColorSpaceModelUnknown;
}

size_t CGColorSpaceGetNumberOfComponents(const CGColorSpaceRef& space) {
    return space ? space->numberOfComponents() : 0;
}

CGDataProviderRef CGDataProviderCreateWithData(std::vector<uint8_t> bytes) {
    return std::make_shared<const CGDataProvider>(std::move(bytes));
}

std::vector<uint8_t> CGDataProviderCopyData(const CGDataProviderRef& provider) {
    return detail::orOnAllocationFailure(std::vector<uint8_t>{},
                                         [&] { return provider ? provider->bytes() : std::vector<uint8_t>{}; });
}

CGImageRef CGImageCreate(size_t width, size_t height, size_t bitsPerComponent, size_t bitsPerPixel,
                         size_t bytesPerRow, CGColorSpaceRef space, CGBitmapInfo bitmapInfo,
                         CGDataProviderRef provider, const CGFloat* /*decode*/, bool shouldInterpolate,
                         int /*intent*/) {
    if (width == 0 || height == 0 || !space || !provider || bitsPerComponent != 8) {
        return nullptr;
    }
    if (bitsPerPixel == 0 || bitsPerPixel % 8 != 0 || bitsPerPixel > 32) {
        return nullptr;
    }
    const CGBitmapInfo alpha = bitmapInfo & kCGBitmapAlphaInfoMask;
    if (alpha > kCGImageAlphaOnly || (bitmapInfo & kCGBitmapFloatComponents) != 0) {
        return nullptr;
    }
    const size_t colour = space->numberOfComponents();
    const size_t components = (alpha == kCGImageAlphaNone ? 0 : 1) + (alpha == kCGImageAlphaOnly ? 0 : colour);
    if (components == 0 || components * bitsPerComponent != bitsPerPixel) {
        return nullptr;
    }
    // 64-bit size checks before trusting the layout.
    const uint64_t w = width;
    const uint64_t h = height;
    if (w > kKPMaxImagePixels || h > kKPMaxImagePixels || w * h > kKPMaxImagePixels) {
        return nullptr;
    }
    const uint64_t rowBytes = w * (bitsPerPixel / 8);
    if (bytesPerRow < rowBytes || bytesPerRow > (uint64_t{1} << 40)) {
        return nullptr;
    }
    const uint64_t needed = static_cast<uint64_t>(bytesPerRow) * (h - 1) + rowBytes;
    if (provider->bytes().size() < needed) {
        return nullptr;
    }
    auto image = std::shared_ptr<CGImage>(new CGImage());
    image->_width = width;
    image->_height = height;
    image->_bitsPerComponent = bitsPerComponent;
    image->_bitsPerPixel = bitsPerPixel;
    image->_bytesPerRow = bytesPerRow;
    image->_colorSpace = std::move(space);
    image->_bitmapInfo = bitmapInfo;
    image->_shouldInterpolate = shouldInterpolate;
    image->_provider = std::move(provider);
    return image;
}

CGImageRef CGImageCreateCopy(const CGImageRef& image) {
    if (!image) {
        return nullptr;
    }
    return CGImageCreate(image->width(), image->height(), image->bitsPerComponent(), image->bitsPerPixel(),
                         image->bytesPerRow(), image->colorSpace(), image->bitmapInfo(), image->dataProvider(),
                         nullptr, image->shouldInterpolate());
}

CGImageRef CGImageCreateWithImageInRect(const CGImageRef& image, CGRect rect) {
    if (!image || CGRectIsNull(rect) || !std::isfinite(rect.origin.x) || !std::isfinite(rect.origin.y) ||
        !std::isfinite(rect.size.width) || !std::isfinite(rect.size.height)) {
        return nullptr;
    }
    const CGRect bounds = CGRectMake(0, 0, static_cast<CGFloat>(image->width()), static_cast<CGFloat>(image->height()));
    const CGRect cut = CGRectIntersection(CGRectIntegral(rect), bounds);
    if (CGRectIsEmpty(cut)) {
        return nullptr;
    }
    const auto x0 = static_cast<size_t>(cut.origin.x);
    const auto y0 = static_cast<size_t>(cut.origin.y);
    const auto w = static_cast<size_t>(cut.size.width);
    const auto h = static_cast<size_t>(cut.size.height);
    const size_t bpp = image->bitsPerPixel() / 8;
    const size_t outRow = w * bpp;
    return detail::orOnAllocationFailure<CGImageRef>(nullptr, [&] {
        std::vector<uint8_t> bytes(outRow * h);
        const uint8_t* src = image->bytes();
        for (size_t y = 0; y < h; ++y) {
            std::memcpy(bytes.data() + y * outRow, src + (y0 + y) * image->bytesPerRow() + x0 * bpp, outRow);
        }
        return CGImageCreate(w, h, image->bitsPerComponent(), image->bitsPerPixel(), outRow, image->colorSpace(),
                             image->bitmapInfo(), CGDataProviderCreateWithData(std::move(bytes)), nullptr,
                             image->shouldInterpolate());
    });
}

size_t CGImageGetWidth(const CGImageRef& image) { return image ? image->width() : 0; }
size_t CGImageGetHeight(const CGImageRef& image) { return image ? image->height() : 0; }
size_t CGImageGetBitsPerComponent(const CGImageRef& image) { return image ? image->bitsPerComponent() : 0; }
size_t CGImageGetBitsPerPixel(const CGImageRef& image) { return image ? image->bitsPerPixel() : 0; }
size_t CGImageGetBytesPerRow(const CGImageRef& image) { return image ? image->bytesPerRow() : 0; }
CGColorSpaceRef CGImageGetColorSpace(const CGImageRef& image) { return image ? image->colorSpace() : nullptr; }
CGBitmapInfo CGImageGetBitmapInfo(const CGImageRef& image) { return image ? image->bitmapInfo() : 0; }
CGDataProviderRef CGImageGetDataProvider(const CGImageRef& image) {
    return image ? image->dataProvider() : nullptr;
}

} // namespace kp
