// SPDX-License-Identifier: MIT
// Cairo surfaces over image pixels, converting layouts Cairo cannot read directly.
#include "Platform/UI/CairoImageSource.h"

#include "KPImage/Platform/CGContext.h"

#include <cairo.h>

#include <limits>

namespace kp {

namespace {
bool isCairoLayout(const CGImage& image) {
    const CGBitmapInfo alpha = image.bitmapInfo() & 0x1f;
    const CGBitmapInfo order = image.bitmapInfo() & (7u << 12);
    return image.bitsPerPixel() == 32 && image.bitsPerComponent() == 8 && order == kCGBitmapByteOrder32Little &&
           alpha == kCGImageAlphaPremultipliedFirst;
}
} // namespace

CairoImageSource::CairoImageSource(const uint8_t* bgra, size_t width, size_t height, size_t bytesPerRow,
                                   bool opaque) {
    constexpr size_t kMax = static_cast<size_t>(std::numeric_limits<int>::max());
    if (bgra == nullptr || width == 0 || height == 0 || width > kMax / 4 || height > kMax || bytesPerRow > kMax ||
        bytesPerRow < width * 4 || bytesPerRow % 4 != 0) {
        return;
    }
    _surface = cairo_image_surface_create_for_data(const_cast<uint8_t*>(bgra),
                                                   opaque ? CAIRO_FORMAT_RGB24 : CAIRO_FORMAT_ARGB32,
                                                   static_cast<int>(width), static_cast<int>(height),
                                                   static_cast<int>(bytesPerRow));
    if (cairo_surface_status(_surface) != CAIRO_STATUS_SUCCESS) {
        cairo_surface_destroy(_surface);
        _surface = nullptr;
        return;
    }
    _width = width;
    _height = height;
}

CairoImageSource::CairoImageSource(const CGImageRef& image) {
    if (!image || image->width() == 0 || image->height() == 0) {
        return;
    }
    const CGImage* source = image.get();
    if (!isCairoLayout(*source)) {
        auto context = CGBitmapContextCreate(nullptr, image->width(), image->height(), 8, image->width() * 4,
                                             CGColorSpaceCreateDeviceRGB(), kKPBitmapInfoBGRA);
        if (!context) {
            return;
        }
        context->drawImage(CGRectMake(0, 0, static_cast<CGFloat>(image->width()), static_cast<CGFloat>(image->height())),
                           image);
        _converted = context->createImage();
        if (!_converted) {
            return;
        }
        source = _converted.get();
    }
    if (source->bytesPerRow() == 0 || source->byteCount() / source->bytesPerRow() < source->height()) {
        return; // fewer bytes than the rows claim
    }
    CairoImageSource view(source->bytes(), source->width(), source->height(), source->bytesPerRow());
    std::swap(_surface, view._surface);
    _width = view._width;
    _height = view._height;
}

CairoImageSource::~CairoImageSource() {
    if (_surface != nullptr) {
        cairo_surface_destroy(_surface);
    }
}

} // namespace kp
