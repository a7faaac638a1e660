// SPDX-License-Identifier: MIT
// ImagingHelper category: bitmap access, the focus pipeline, the focus quality score and brightness.
#include "KPImage/UIImage+ImagingHelper.h"

#include "KPImage/ImagingHelperSupport.h"
#include "KPImage/Platform/CGContext.h"
#include "KPImage/Platform/SystemLog.h"
#include "Platform/Graphics/Allocation.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace kp {

namespace {

constexpr const char* kRectOutsideFormat = "%s [Line %d] *** error: rect is outside of image";

/// Truncates a size in points to an integer, or -1 when it is not a usable size.
int64_t truncatedSide(CGFloat v) {
    if (!std::isfinite(v) || v < 0 || v >= static_cast<CGFloat>(kKPMaxImagePixels)) {
        return -1;
    }
    return static_cast<int64_t>(v);
}

/// The bitmap drawn (resampled) into a new w x h bitmap of the given layout, as an image; nil when no such
/// bitmap can be made.
std::optional<UIImage> drawnIntoBitmap(const CGImageRef& bitmap, size_t w, size_t h, size_t bytesPerRow,
                                       const CGColorSpaceRef& space, CGBitmapInfo info) {
    CGContextRef ctx = CGBitmapContextCreate(nullptr, w, h, 8, bytesPerRow, space, info);
    if (!ctx) {
        return std::nullopt;
    }
    CGContextDrawImage(ctx, CGRectMake(0, 0, static_cast<CGFloat>(w), static_cast<CGFloat>(h)), bitmap);
    CGImageRef drawn = CGBitmapContextCreateImage(ctx);
    if (!drawn) {
        return std::nullopt;
    }
    return UIImage::imageWithCGImage(std::move(drawn));
}

/// The sampling step of the brightness measures: min(W, 10), 1 when that is 0.
uint64_t brightnessStep(uint64_t width) {
    const uint64_t s = std::min<uint64_t>(width, 10);
    return s == 0 ? 1 : s;
}

/// The divisor of the border brightness measures: the sampled area over the step squared, computed in
/// unsigned arithmetic that may wrap, then taken as a 32-bit integer.
int32_t brightnessDivisor(uint64_t w, uint64_t h, uint64_t ex, uint64_t ey, uint64_t s) {
    const uint64_t n = ((h - 2 * ey) * (w - 2 * ex)) / s / s;
    return static_cast<int32_t>(static_cast<uint32_t>(n));
}

/// Mean of a float sum over the divisor, truncated; 0 for a zero divisor.
int32_t brightnessResult(float sum, int32_t n) {
    if (n == 0) {
        return 0;
    }
    const float mean = sum / static_cast<float>(n);
    if (!std::isfinite(mean) || std::fabs(mean) >= 2147483648.0f) {
        return 0;
    }
    return static_cast<int32_t>(mean);
}

} // namespace

// --- Bitmap access ---

uint8_t* UIImage::makeDataArray() const {
    const CGImageRef copy = CGImageCreateCopy(_image);
    if (!copy) {
        return nullptr;
    }
    const std::vector<uint8_t>& bytes = copy->dataProvider()->bytes();
    auto* out = static_cast<uint8_t*>(std::malloc(std::max<size_t>(bytes.size(), 1)));
    if (out != nullptr) {
        std::memcpy(out, bytes.data(), bytes.size());
    }
    return out;
}

bool UIImage::isGrayScale() const {
    return CGColorSpaceGetModel(CGImageGetColorSpace(_image)) == kCGColorSpaceModelMonochrome;
}

std::optional<UIImage> UIImage::makeGrayScale() const {
    const CGSize s = size();
    const int64_t width = truncatedSide(s.width);
    const int64_t height = truncatedSide(s.height);
    if (width <= 0 || height <= 0) {
        return std::nullopt;
    }
    return drawnIntoBitmap(_image, static_cast<size_t>(width), static_cast<size_t>(height), static_cast<size_t>(width),
                           CGColorSpaceCreateDeviceGray(), kCGImageAlphaNone);
}

std::optional<UIImage> UIImage::makeGrayScaleAndScale(int32_t scale) const {
    if (scale <= 1) {
        return makeGrayScale();
    }
    const CGImageRef copy = CGImageCreateCopy(_image);
    const uint64_t W = CGImageGetWidth(copy);
    const uint64_t H = CGImageGetHeight(copy);
    const uint64_t s = static_cast<uint64_t>(scale);
    const uint64_t w = W / s;
    const uint64_t h = H / s;
    if (w == 0 || h == 0) {
        // Nothing is left after the reduction: an empty image, as a zero-sized bitmap would give.
        return UIImage();
    }
    // The source is read as 4 bytes per pixel with rows of exactly 4 W bytes, whatever its real layout
    // (the reduction is meant for 32-bit colour). Bytes past the end of the bitmap's data count as 0.
    const std::vector<uint8_t>& src = copy->dataProvider()->bytes();
    const uint64_t length = src.size();
    const auto byteAt = [&](uint64_t row, uint64_t col, uint64_t k) -> uint32_t {
        const uint64_t index = (row * W + col) * 4 + k;
        return index < length ? src[index] : 0u;
    };
    const uint64_t d = s / 2;
    std::optional<std::vector<uint8_t>> buffer = detail::orOnAllocationFailure<std::optional<std::vector<uint8_t>>>(
        std::nullopt, [&] { return std::vector<uint8_t>(w * h); });
    if (!buffer) {
        return std::nullopt;
    }
    std::vector<uint8_t>& out = *buffer;
    for (uint64_t j = 0; j < h; ++j) {
        for (uint64_t i = 0; i < w; ++i) {
            const uint64_t r0 = s * j, r1 = s * j + d;
            const uint64_t c0 = s * i, c1 = s * i + d;
            const uint32_t g = byteAt(r0, c0, 1) + byteAt(r0, c1, 1) + byteAt(r1, c1, 1) + byteAt(r1, c0, 1);
            const uint32_t b = byteAt(r0, c0, 2) + byteAt(r0, c1, 2) + byteAt(r1, c1, 2) + byteAt(r1, c0, 2);
            out[j * w + i] = static_cast<uint8_t>((4 * g + b) / 20);
        }
    }
    CGImageRef gray = CGImageCreate(w, h, 8, 8, w, CGColorSpaceCreateDeviceGray(), kCGImageAlphaNone,
                                    CGDataProviderCreateWithData(std::move(out)));
    if (!gray) {
        return std::nullopt;
    }
    return UIImage::imageWithCGImage(std::move(gray));
}

// --- Focus pipeline ---

std::optional<UIImage> scaleImage(const UIImage& image) {
    const CGSize size = image.size();
    const int64_t W = truncatedSide(size.width);
    const int64_t H = truncatedSide(size.height);
    const CGImageRef& cg = image.CGImage();
    if (W <= 0 || H <= 0 || !cg) {
        return std::nullopt;
    }
    const float f = 1.0f / std::max(static_cast<float>(W) / 640.0f, static_cast<float>(H) / 480.0f);
    const float sw = static_cast<float>(W) * f;
    const float sh = static_cast<float>(H) * f;
    if (!(sw >= 1.0f && sh >= 1.0f && sw < 32768.0f && sh < 32768.0f)) {
        return std::nullopt;
    }
    const auto w = static_cast<size_t>(sw);
    const auto h = static_cast<size_t>(sh);
    return drawnIntoBitmap(cg, w, h, w * (cg->bitsPerPixel() / 8), cg->colorSpace(), cg->bitmapInfo());
}

uint8_t* padImage(const UIImage& image) {
    const CGSize size = image.size();
    const int64_t W = truncatedSide(size.width);
    const int64_t H = truncatedSide(size.height);
    if (W < 0 || H < 0) {
        return nullptr;
    }
    const CGImageRef& cg = image.CGImage();
    if (!cg && W > 0 && H > 0) {
        return nullptr;
    }
    // The source is read as 1 byte per pixel in rows of W bytes; bytes it does not have are left as they are.
    const uint8_t* src = cg ? cg->bytes() : nullptr;
    const uint64_t length = cg ? cg->byteCount() : 0;
    auto* frame = static_cast<uint8_t*>(std::calloc(kFocusFrameBytes, 1));
    if (frame == nullptr) {
        return nullptr;
    }
    if (H == kFocusFrameHeight && W == kFocusFrameWidth) {
        std::memcpy(frame, src, std::min<uint64_t>(length, kFocusFrameBytes));
        return frame;
    }
    std::memset(frame, 128, kFocusFrameBytes);
    // Truncating division: negative for a larger image, which is then centre-cropped.
    const int64_t padX = (kFocusFrameWidth - W) / 2;
    const int64_t padY = (kFocusFrameHeight - H) / 2;
    const int64_t i0 = std::max<int64_t>(0, -padY);
    const int64_t i1 = std::min<int64_t>(H, kFocusFrameHeight - padY);
    const int64_t j0 = std::max<int64_t>(0, -padX);
    const int64_t j1 = std::min<int64_t>(W, kFocusFrameWidth - padX);
    for (int64_t i = i0; i < i1; ++i) {
        for (int64_t j = j0; j < j1; ++j) {
            const uint64_t index = static_cast<uint64_t>(i * W + j);
            if (index < length) {
                frame[(padY + i) * kFocusFrameWidth + padX + j] = src[index];
            }
        }
    }
    return frame;
}

int32_t UIImage::calculateFocus() const {
    const std::optional<UIImage> prepared = isGrayScale() ? scaleImage(*this) : makeGrayScaleAndScale(2);
    if (!prepared) {
        return 0;
    }
    uint8_t* frame = padImage(*prepared);
    if (frame == nullptr) {
        return 0;
    }
    const int32_t score = TwoPiFocusAssess(frame);
    std::free(frame);
    return score;
}

// --- Focus quality score ---

int32_t UIImage::calculateFocusScore(int32_t offset, int32_t skip, int32_t edgePercent) const {
    const std::optional<UIImage> gray = makeGrayScaleAndScale(1);
    if (!gray || !gray->CGImage()) {
        return 0;
    }
    const CGImageRef& g = gray->CGImage();
    uint8_t* data = gray->makeDataArray();
    if (data == nullptr) {
        return 0;
    }
    const float q = CalculateFocusQuality(data, static_cast<uint32_t>(g->width()), static_cast<uint32_t>(g->height()),
                                          1, offset, skip, static_cast<uint32_t>(edgePercent));
    std::free(data);
    const double scaled = std::sqrt(static_cast<double>(q)) * 3.0;
    if (!(scaled < 100.0)) {
        return 100;
    }
    return static_cast<int32_t>(scaled);
}

// --- Brightness ---

int32_t UIImage::calculateBrightness() const {
    if (!_image) {
        detail::logMissingBitmap("-[UIImage(ImagingHelper) calculateBrightness]", 580, *this);
        return 0;
    }
    const uint64_t W = _image->width();
    const uint64_t H = _image->height();
    const uint8_t* data = _image->bytes();
    const uint64_t length = _image->byteCount();
    const uint64_t s = brightnessStep(W);
    const uint64_t ex = std::min<uint64_t>(W, 20);
    const uint64_t ey = std::min<uint64_t>(H, 20);
    float sum = 0;
    for (uint64_t y = ey; y < H - ey; y += s) {
        for (uint64_t x = ex; x < W - ex; x += s) {
            const uint64_t index = y * W + x;
            if (index < length) {
                sum += static_cast<float>(data[index]);
            }
        }
    }
    return brightnessResult(sum, brightnessDivisor(W, H, ex, ey, s));
}

int32_t UIImage::calculateBrightness(int32_t channels, int32_t edgePercentSkip) const {
    if (!_image) {
        detail::logMissingBitmap("-[UIImage(ImagingHelper) calculateBrightness:edgePercentSkip:]", 632, *this);
        return 0;
    }
    const uint64_t W = _image->width();
    const uint64_t H = _image->height();
    const uint8_t* data = _image->bytes();
    const uint64_t length = _image->byteCount();
    const uint64_t s = brightnessStep(W);
    const uint64_t c = (channels >= 1 && channels <= 4) ? static_cast<uint64_t>(channels) : 1;
    // Compared unsigned, so a negative percentage counts as large.
    const uint32_t e = static_cast<uint32_t>(edgePercentSkip) < 100 ? static_cast<uint32_t>(edgePercentSkip) : 0;
    uint64_t ex = static_cast<uint64_t>(static_cast<float>(e) * static_cast<float>(W) / 100.0f);
    uint64_t ey = static_cast<uint64_t>(static_cast<float>(e) * static_cast<float>(H) / 100.0f);
    ex = std::min(ex, W);
    ey = std::min(ey, H);
    const uint64_t k = c > 2 ? 1 : 0;
    float sum = 0;
    for (uint64_t y = ey; y < H - ey; y += s) {
        for (uint64_t x = ex; x < W - ex; x += s) {
            // Row length W x c; a layout with fewer bytes per pixel than c runs out early: missing bytes add 0.
            const uint64_t index = W * c * y + x * c + k;
            if (index < length) {
                sum += static_cast<float>(data[index]);
            }
        }
    }
    return brightnessResult(sum, brightnessDivisor(W, H, ex, ey, s));
}

int32_t UIImage::calculateBrightness(CGRect rect) const {
    if (!_image) {
        detail::logMissingBitmap("-[UIImage(ImagingHelper) calculateBrightness:]", 689, *this);
        return 0;
    }
    const uint64_t W = _image->width();
    const uint64_t H = _image->height();
    // The accepted area is (0, 0, H, W): height and width crossed, on purpose.
    if (!CGRectContainsRect(CGRectMake(0, 0, static_cast<CGFloat>(H), static_cast<CGFloat>(W)), rect)) {
        NSLog(kRectOutsideFormat, "-[UIImage(ImagingHelper) calculateBrightness:]", 698);
        return 0;
    }
    const uint8_t* data = _image->bytes();
    const uint64_t length = _image->byteCount();
    const uint64_t s = brightnessStep(W);
    const uint64_t y0 = detail::toUnsigned(rect.origin.y);
    const uint64_t y1 = detail::toUnsigned(rect.size.height + static_cast<CGFloat>(y0));
    const uint64_t x0 = detail::toUnsigned(rect.origin.x);
    const uint64_t x1 = detail::toUnsigned(rect.size.width + static_cast<CGFloat>(x0));
    float sum = 0;
    if (y0 <= y1) {
        // Both ends inclusive; the last row or column may lie past the bitmap, whose missing bytes add 0.
        for (uint64_t y = y0; y <= y1; y += s) {
            for (uint64_t x = x0; x <= x1; x += s) {
                const uint64_t index = y * W + x;
                if (index < length) {
                    sum += static_cast<float>(data[index]);
                }
            }
        }
    }
    // The area is taken as the height squared.
    const double area = rect.size.height * rect.size.height / static_cast<double>(s) / static_cast<double>(s);
    const int32_t n = (std::isfinite(area) && std::fabs(area) < 2147483648.0) ? static_cast<int32_t>(area) : 0;
    return brightnessResult(sum, n);
}

} // namespace kp

// --- Focus quality (C linkage) ---

extern "C" float CalculateFocusQuality(const uint8_t* data, uint32_t width, uint32_t height, int32_t channels,
                                       int32_t offset, int32_t step, uint32_t edgePercent) {
    if (data == nullptr || step <= 0) {
        return 0;
    }
    // Products as 32-bit values, then signed truncating division.
    const int32_t ey = static_cast<int32_t>(edgePercent * height) / 100;
    const int32_t ex = static_cast<int32_t>(edgePercent * width) / 100;
    // The comparisons mix a signed border with unsigned sizes, so they are unsigned.
    const uint32_t yEnd = height - static_cast<uint32_t>(ey);
    const uint32_t xEnd = width - static_cast<uint32_t>(ex);
    if (static_cast<uint32_t>(ey) >= yEnd) {
        return 0;
    }
    // The bytes that exist: height rows of width pixels of channels bytes.
    const uint64_t length =
        channels > 0 ? uint64_t{width} * uint64_t{height} * static_cast<uint64_t>(channels) : uint64_t{0};
    const uint32_t c = static_cast<uint32_t>(channels);
    const uint32_t k = channels >= 3 ? 1 : 0;
    const uint32_t stride = static_cast<uint32_t>(step);
    float sum = 0;
    int32_t n = 0;
    for (uint64_t y = static_cast<uint32_t>(ey); y < yEnd; y += stride) {
        const uint32_t rowStart = static_cast<uint32_t>(y) * width * c;
        for (uint64_t x = static_cast<uint32_t>(ex); x < xEnd; x += stride) {
            const uint32_t xp = static_cast<uint32_t>(x);
            // Index arithmetic wraps at 32 bits; x + offset may run into the next row, as designed, but
            // samples whose bytes lie outside the buffer are left out.
            const uint32_t pIndex = rowStart + xp * c + k;
            const uint32_t qIndex = rowStart + (xp + static_cast<uint32_t>(offset)) * c + k;
            if (pIndex >= length || qIndex >= length) {
                continue;
            }
            const int32_t d = static_cast<int32_t>(data[pIndex]) - static_cast<int32_t>(data[qIndex]);
            sum += static_cast<float>(d * d);
            n += 1;
        }
    }
    return n == 0 ? 0.0f : sum / static_cast<float>(n);
}
