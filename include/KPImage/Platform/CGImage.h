// SPDX-License-Identifier: MIT
// Colour spaces, data providers and immutable bitmap images of the platform layer.
#pragma once

#include "KPImage/Platform/Geometry.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace kp {

/// Colour models, values as the platform numbers them.
enum CGColorSpaceModel : int32_t {
    kCGColorSpaceModelUnknown = -1,
    kCGColorSpaceModelMonochrome = 0,
    kCGColorSpaceModelRGB = 1,
    kCGColorSpaceModelCMYK = 2,
    kCGColorSpaceModelLab = 3,
    kCGColorSpaceModelDeviceN = 4,
    kCGColorSpaceModelIndexed = 5,
    kCGColorSpaceModelPattern = 6,
    kCGColorSpaceModelXYZ = 7,
};

/// A colour space: only its model and component count matter to this library.
class CGColorSpace {
public:
    explicit CGColorSpace(CGColorSpaceModel model) : _model(model) {}
    CGColorSpaceModel model() const { return _model; }
    /// Colour components per pixel, without alpha (1 grey, 3 RGB, 4 CMYK, 0 for models without a fixed count).
    size_t numberOfComponents() const;

private:
    CGColorSpaceModel _model;
};
using CGColorSpaceRef = std::shared_ptr<const CGColorSpace>;

CGColorSpaceRef CGColorSpaceCreateDeviceGray();
CGColorSpaceRef CGColorSpaceCreateDeviceRGB();
/// A colour space of any model (used to describe bitmaps of other models).
CGColorSpaceRef CGColorSpaceCreateWithModel(CGColorSpaceModel model);
/// The model of the space; kCGColorSpaceModelUnknown for null.
CGColorSpaceModel CGColorSpaceGetModel(const CGColorSpaceRef& space);
size_t CGColorSpaceGetNumberOfComponents(const CGColorSpaceRef& space);

/// Bitmap info: alpha placement in the low bits, byte order in bits 12..14.
using CGBitmapInfo = uint32_t;
inline constexpr CGBitmapInfo kCGImageAlphaNone = 0;
inline constexpr CGBitmapInfo kCGImageAlphaPremultipliedLast = 1;
inline constexpr CGBitmapInfo kCGImageAlphaPremultipliedFirst = 2;
inline constexpr CGBitmapInfo kCGImageAlphaLast = 3;
inline constexpr CGBitmapInfo kCGImageAlphaFirst = 4;
inline constexpr CGBitmapInfo kCGImageAlphaNoneSkipLast = 5;
inline constexpr CGBitmapInfo kCGImageAlphaNoneSkipFirst = 6;
inline constexpr CGBitmapInfo kCGImageAlphaOnly = 7;
inline constexpr CGBitmapInfo kCGBitmapAlphaInfoMask = 0x1F;
inline constexpr CGBitmapInfo kCGBitmapFloatComponents = 1u << 8;
inline constexpr CGBitmapInfo kCGBitmapByteOrderMask = 0x7000;
inline constexpr CGBitmapInfo kCGBitmapByteOrderDefault = 0;
inline constexpr CGBitmapInfo kCGBitmapByteOrder16Little = 1u << 12;
inline constexpr CGBitmapInfo kCGBitmapByteOrder32Little = 2u << 12;
inline constexpr CGBitmapInfo kCGBitmapByteOrder16Big = 3u << 12;
inline constexpr CGBitmapInfo kCGBitmapByteOrder32Big = 4u << 12;

/// The four pixel layouts the library works with.
/// Grey: 8 bits per pixel. RGB: 24 bits, bytes R, G, B. RGBA: 32 bits, straight alpha last (info 3).
/// BGRA: 32 bits, premultiplied alpha first in a little-endian word, bytes B, G, R, A (info 8194).
inline constexpr CGBitmapInfo kKPBitmapInfoGray = kCGImageAlphaNone;
inline constexpr CGBitmapInfo kKPBitmapInfoRGB = kCGImageAlphaNone;
inline constexpr CGBitmapInfo kKPBitmapInfoRGBA = kCGImageAlphaLast;
inline constexpr CGBitmapInfo kKPBitmapInfoBGRA = kCGImageAlphaPremultipliedFirst | kCGBitmapByteOrder32Little;

/// Images larger than this many pixels are refused before anything is allocated.
inline constexpr uint64_t kKPMaxImagePixels = uint64_t{1} << 30;

/// Immutable bytes behind an image.
class CGDataProvider {
public:
    explicit CGDataProvider(std::vector<uint8_t> bytes) : _bytes(std::move(bytes)) {}
    const std::vector<uint8_t>& bytes() const { return _bytes; }

private:
    std::vector<uint8_t> _bytes;
};
using CGDataProviderRef = std::shared_ptr<const CGDataProvider>;

CGDataProviderRef CGDataProviderCreateWithData(std::vector<uint8_t> bytes);
/// A copy of the provider's bytes (empty for null).
std::vector<uint8_t> CGDataProviderCopyData(const CGDataProviderRef& provider);

/// An immutable bitmap: size in pixels, layout and the bytes. Made only through CGImageCreate and friends.
class CGImage {
public:
    size_t width() const { return _width; }
    size_t height() const { return _height; }
    size_t bitsPerComponent() const { return _bitsPerComponent; }
    size_t bitsPerPixel() const { return _bitsPerPixel; }
    size_t bytesPerRow() const { return _bytesPerRow; }
    const CGColorSpaceRef& colorSpace() const { return _colorSpace; }
    CGBitmapInfo bitmapInfo() const { return _bitmapInfo; }
    bool shouldInterpolate() const { return _shouldInterpolate; }
    const CGDataProviderRef& dataProvider() const { return _provider; }
    /// The pixel bytes; at least bytesPerRow * (height - 1) + width * bitsPerPixel / 8 of them.
    const uint8_t* bytes() const { return _provider->bytes().data(); }
    size_t byteCount() const { return _provider->bytes().size(); }

private:
    friend std::shared_ptr<const CGImage> CGImageCreate(size_t, size_t, size_t, size_t, size_t, CGColorSpaceRef,
                                                        CGBitmapInfo, CGDataProviderRef, const CGFloat*, bool, int);
    CGImage() = default;

    size_t _width = 0;
    size_t _height = 0;
    size_t _bitsPerComponent = 0;
    size_t _bitsPerPixel = 0;
    size_t _bytesPerRow = 0;
    CGColorSpaceRef _colorSpace;
    CGBitmapInfo _bitmapInfo = 0;
    bool _shouldInterpolate = true;
    CGDataProviderRef _provider;
};
using CGImageRef = std::shared_ptr<const CGImage>;

/// Default rendering intent.
inline constexpr int kCGRenderingIntentDefault = 0;

/// Makes a bitmap image; null when the layout is inconsistent (8 bits per component only; bits per pixel a
/// whole number of components that the colour space and alpha need; bytes per row that hold a row), the
/// size is zero or over kKPMaxImagePixels, or the provider holds fewer bytes than the rows need.
CGImageRef CGImageCreate(size_t width, size_t height, size_t bitsPerComponent, size_t bitsPerPixel, size_t bytesPerRow,
                         CGColorSpaceRef space, CGBitmapInfo bitmapInfo, CGDataProviderRef provider,
                         const CGFloat* decode = nullptr, bool shouldInterpolate = true,
                         int intent = kCGRenderingIntentDefault);
/// Another reference to the same immutable bitmap (null for null).
CGImageRef CGImageCreateCopy(const CGImageRef& image);
/// The part of the bitmap inside rect (made integral, then clipped to the bitmap), copied; null when that is empty.
CGImageRef CGImageCreateWithImageInRect(const CGImageRef& image, CGRect rect);

size_t CGImageGetWidth(const CGImageRef& image);
size_t CGImageGetHeight(const CGImageRef& image);
size_t CGImageGetBitsPerComponent(const CGImageRef& image);
size_t CGImageGetBitsPerPixel(const CGImageRef& image);
size_t CGImageGetBytesPerRow(const CGImageRef& image);
CGColorSpaceRef CGImageGetColorSpace(const CGImageRef& image);
CGBitmapInfo CGImageGetBitmapInfo(const CGImageRef& image);
CGDataProviderRef CGImageGetDataProvider(const CGImageRef& image);

} // namespace kp
