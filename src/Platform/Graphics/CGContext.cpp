// SPDX-License-Identifier: MIT
// The drawing context on Cairo: one ARGB32 surface, converted to the bitmap's own layout at the edges.
#include "KPImage/Platform/CGContext.h"

#include "Platform/Graphics/Allocation.h"
#include "Platform/Graphics/PixelLayout.h"
#include "Platform/Graphics/FiniteGeometry.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kp {

using detail::finite;
using detail::finiteRect;

namespace {


/// Converts the image's rows into an ARGB32 surface of its size.
void fillFromImage(cairo_surface_t* surface, const CGImage& image, const detail::PixelLayout& layout) {
    cairo_surface_flush(surface);
    uint8_t* dst = cairo_image_surface_get_data(surface);
    const size_t stride = static_cast<size_t>(cairo_image_surface_get_stride(surface));
    for (size_t y = 0; y < image.height(); ++y) {
        detail::rowToARGB32(image.bytes() + y * image.bytesPerRow(), layout, image.width(),
                            reinterpret_cast<uint32_t*>(dst + y * stride));
    }
    cairo_surface_mark_dirty(surface);
}

/// A Cairo surface showing an image's pixels: the image's own bytes when they are already ARGB32,
/// otherwise a converted copy (kept alive by the surface). Null for a layout the context cannot read or
/// when Cairo cannot make the surface.
cairo_surface_t* surfaceForImage(const CGImage& image) {
    const auto layout = detail::pixelLayoutOf(image);
    // Cairo refuses more than 32767 pixels a side with an error surface, which would put the drawing
    // context into a permanent error state.
    if (!layout || image.width() > 32767 || image.height() > 32767) {
        return nullptr;
    }
    const int w = static_cast<int>(image.width());
    const int h = static_cast<int>(image.height());
    const bool direct = layout->isCairoARGB32() && image.bytesPerRow() % 4 == 0 && image.bytesPerRow() <= INT32_MAX;
    cairo_surface_t* surface =
        direct ? cairo_image_surface_create_for_data(const_cast<uint8_t*>(image.bytes()), CAIRO_FORMAT_ARGB32, w, h,
                                                     static_cast<int>(image.bytesPerRow()))
               : cairo_image_surface_create(CAIRO_FORMAT_ARGB32, w, h);
    if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) {
        cairo_surface_destroy(surface);
        return nullptr;
    }
    if (!direct) {
        // Cairo only reads a source surface; a direct one shows the image's immutable bytes, which outlive
        // the call.
        fillFromImage(surface, image, *layout);
    }
    return surface;
}

/// Makes rect the current path; false (and no path change) for a rect that is not finite.
bool rectPath(cairo_t* cr, CGRect rect) {
    if (!finiteRect(rect)) {
        return false;
    }
    cairo_new_path(cr);
    cairo_rectangle(cr, rect.origin.x, rect.origin.y, rect.size.width, rect.size.height);
    return true;
}

cairo_filter_t filterFor(CGInterpolationQuality q) {
    return q == kCGInterpolationNone ? CAIRO_FILTER_NEAREST : CAIRO_FILTER_BILINEAR;
}

} // namespace

CGContextRef CGBitmapContextCreate(void* data, size_t width, size_t height, size_t bitsPerComponent,
                                   size_t bytesPerRow, CGColorSpaceRef space, CGBitmapInfo bitmapInfo) {
    if (width == 0 || height == 0 || bitsPerComponent != 8 || !space) {
        return nullptr;
    }
    // Cairo surfaces are limited to 32767 pixels a side.
    if (width > 32767 || height > 32767 || uint64_t{width} * height > kKPMaxImagePixels) {
        return nullptr;
    }
    const size_t components = space->numberOfComponents();
    const CGBitmapInfo alpha = bitmapInfo & kCGBitmapAlphaInfoMask;
    const size_t bitsPerPixel = 8 * (components + (alpha == kCGImageAlphaNone ? 0 : 1));
    const auto layout = detail::pixelLayoutFor(space->model(), bitsPerPixel, bitmapInfo);
    if (!layout) {
        return nullptr;
    }
    const uint64_t rowBytes = uint64_t{width} * static_cast<uint64_t>(layout->bytesPerPixel);
    if (bytesPerRow == 0 && data == nullptr) {
        bytesPerRow = static_cast<size_t>(rowBytes);
    }
    if (bytesPerRow < rowBytes || uint64_t{bytesPerRow} * height > (uint64_t{1} << 36)) {
        return nullptr;
    }

    // The context's own bytes are as large as the caller asks: running out of memory gives no context.
    return detail::orOnAllocationFailure<CGContextRef>(nullptr, [&]() -> CGContextRef {
        auto ctx = std::shared_ptr<CGContext>(new CGContext());
        ctx->_width = width;
        ctx->_height = height;
        ctx->_bitsPerPixel = bitsPerPixel;
        ctx->_bytesPerRow = bytesPerRow;
        ctx->_colorSpace = std::move(space);
        ctx->_bitmapInfo = bitmapInfo;
        if (data != nullptr) {
            ctx->_bytes = static_cast<uint8_t*>(data);
        } else {
            ctx->_ownBytes.assign(bytesPerRow * height, 0);
            ctx->_bytes = ctx->_ownBytes.data();
        }
        ctx->_direct = layout->isCairoARGB32() && bytesPerRow % 4 == 0 && bytesPerRow <= INT32_MAX;
        if (ctx->_direct) {
            ctx->_surface =
                cairo_image_surface_create_for_data(ctx->_bytes, CAIRO_FORMAT_ARGB32, static_cast<int>(width),
                                                    static_cast<int>(height), static_cast<int>(bytesPerRow));
        } else {
            ctx->_surface =
                cairo_image_surface_create(CAIRO_FORMAT_ARGB32, static_cast<int>(width), static_cast<int>(height));
        }
        if (cairo_surface_status(ctx->_surface) != CAIRO_STATUS_SUCCESS) {
            return nullptr;
        }
        if (!ctx->_direct && data != nullptr) {
            ctx->loadFromBytes();
        }
        ctx->_cr = cairo_create(ctx->_surface);
        if (cairo_status(ctx->_cr) != CAIRO_STATUS_SUCCESS) {
            return nullptr;
        }
        cairo_set_antialias(ctx->_cr, CAIRO_ANTIALIAS_DEFAULT);
        // A new drawing context strokes one unit wide (Cairo's own default is two).
        cairo_set_line_width(ctx->_cr, 1.0);
        return ctx;
    });
}

CGContext::~CGContext() {
    // Drawing into a caller's bytes must be there when the context goes.
    if (_surface != nullptr && !_direct && _ownBytes.empty() && _bytes != nullptr &&
        cairo_surface_status(_surface) == CAIRO_STATUS_SUCCESS) {
        storeToBytes();
    }
    if (_cr != nullptr) {
        cairo_destroy(_cr);
    }
    if (_surface != nullptr) {
        cairo_surface_destroy(_surface);
    }
}

void CGContext::loadFromBytes() {
    const auto layout = detail::pixelLayoutFor(_colorSpace->model(), _bitsPerPixel, _bitmapInfo);
    cairo_surface_flush(_surface);
    uint8_t* dst = cairo_image_surface_get_data(_surface);
    const size_t stride = static_cast<size_t>(cairo_image_surface_get_stride(_surface));
    for (size_t y = 0; y < _height; ++y) {
        detail::rowToARGB32(_bytes + y * _bytesPerRow, *layout, _width, reinterpret_cast<uint32_t*>(dst + y * stride));
    }
    cairo_surface_mark_dirty(_surface);
}

void CGContext::storeToBytes() {
    cairo_surface_flush(_surface);
    if (_direct) {
        return;
    }
    const auto layout = detail::pixelLayoutFor(_colorSpace->model(), _bitsPerPixel, _bitmapInfo);
    const uint8_t* src = cairo_image_surface_get_data(_surface);
    const size_t stride = static_cast<size_t>(cairo_image_surface_get_stride(_surface));
    for (size_t y = 0; y < _height; ++y) {
        detail::rowFromARGB32(reinterpret_cast<const uint32_t*>(src + y * stride), _width, *layout,
                              _bytes + y * _bytesPerRow);
    }
}

void* CGContext::data() {
    storeToBytes();
    return _bytes;
}

bool CGContext::failed() const { return _failed || cairo_status(_cr) != CAIRO_STATUS_SUCCESS; }

CGImageRef CGContext::createImage() {
    if (failed()) {
        return nullptr;
    }
    storeToBytes();
    return detail::orOnAllocationFailure<CGImageRef>(nullptr, [&] {
        std::vector<uint8_t> copy(_bytes, _bytes + _bytesPerRow * _height);
        return CGImageCreate(_width, _height, 8, _bitsPerPixel, _bytesPerRow, _colorSpace, _bitmapInfo,
                             CGDataProviderCreateWithData(std::move(copy)));
    });
}

void CGContext::saveGState() {
    cairo_save(_cr);
    _savedStates.push_back({_fill, _stroke, _alpha, _interpolation});
}

void CGContext::restoreGState() {
    if (_savedStates.empty()) {
        return;
    }
    cairo_restore(_cr);
    const SavedState& saved = _savedStates.back();
    _fill = saved.fill;
    _stroke = saved.stroke;
    _alpha = saved.alpha;
    _interpolation = saved.interpolation;
    _savedStates.pop_back();
}

void CGContext::translateCTM(CGFloat tx, CGFloat ty) {
    if (finite(tx) && finite(ty)) {
        cairo_translate(_cr, tx, ty);
    }
}

void CGContext::rotateCTM(CGFloat angle) {
    if (finite(angle)) {
        cairo_rotate(_cr, angle);
    }
}

void CGContext::scaleCTM(CGFloat sx, CGFloat sy) {
    // A degenerate transform would put Cairo into a permanent error state; it could draw nothing anyway.
    if (finite(sx) && finite(sy) && sx != 0 && sy != 0) {
        cairo_scale(_cr, sx, sy);
    }
}

void CGContext::concatCTM(CGAffineTransform t) {
    cairo_matrix_t m;
    cairo_matrix_init(&m, t.a, t.b, t.c, t.d, t.tx, t.ty);
    if (finite(t.a) && finite(t.b) && finite(t.c) && finite(t.d) && finite(t.tx) && finite(t.ty) &&
        t.a * t.d - t.b * t.c != 0) {
        cairo_transform(_cr, &m);
    }
}

CGAffineTransform CGContext::getCTM() const {
    cairo_matrix_t m;
    cairo_get_matrix(_cr, &m);
    return {m.xx, m.yx, m.xy, m.yy, m.x0, m.y0};
}

void CGContext::setFillColor(const CGColor& color) { _fill = color; }
void CGContext::setStrokeColor(const CGColor& color) { _stroke = color; }
void CGContext::setLineWidth(CGFloat width) {
    if (finite(width) && width >= 0) {
        cairo_set_line_width(_cr, width);
    }
}
void CGContext::setLineCap(CGLineCap cap) {
    cairo_set_line_cap(_cr, cap == kCGLineCapRound    ? CAIRO_LINE_CAP_ROUND
                            : cap == kCGLineCapSquare ? CAIRO_LINE_CAP_SQUARE
                                                      : CAIRO_LINE_CAP_BUTT);
}
void CGContext::setAlpha(CGFloat alpha) {
    if (finite(alpha)) {
        _alpha = std::clamp(alpha, 0.0, 1.0);
    }
}
void CGContext::setInterpolationQuality(CGInterpolationQuality quality) { _interpolation = quality; }

void CGContext::applyColor(const CGColor& c) { cairo_set_source_rgba(_cr, c.red, c.green, c.blue, c.alpha * _alpha); }

void CGContext::fillRect(CGRect rect) {
    if (rectPath(_cr, rect)) {
        fillPath();
    }
}

void CGContext::strokeRect(CGRect rect) {
    if (rectPath(_cr, rect)) {
        strokePath();
    }
}

void CGContext::strokeRectWithWidth(CGRect rect, CGFloat width) {
    const double saved = cairo_get_line_width(_cr);
    setLineWidth(width);
    strokeRect(rect);
    cairo_set_line_width(_cr, saved);
}

void CGContext::clearRect(CGRect rect) {
    if (!rectPath(_cr, rect)) {
        return;
    }
    cairo_save(_cr);
    cairo_set_operator(_cr, CAIRO_OPERATOR_CLEAR);
    cairo_fill(_cr);
    cairo_restore(_cr);
}

namespace {
void ellipsePath(cairo_t* cr, CGRect rect) {
    rect = CGRectStandardize(rect);
    cairo_new_path(cr);
    if (rect.size.width <= 0 || rect.size.height <= 0) {
        return;
    }
    cairo_save(cr);
    cairo_translate(cr, rect.origin.x + rect.size.width / 2, rect.origin.y + rect.size.height / 2);
    cairo_scale(cr, rect.size.width / 2, rect.size.height / 2);
    cairo_arc(cr, 0, 0, 1, 0, 2 * std::numbers::pi);
    cairo_close_path(cr);
    cairo_restore(cr);
}
} // namespace

void CGContext::fillEllipseInRect(CGRect rect) {
    if (!finiteRect(rect)) {
        return;
    }
    ellipsePath(_cr, rect);
    fillPath();
}

void CGContext::strokeEllipseInRect(CGRect rect) {
    if (!finiteRect(rect)) {
        return;
    }
    ellipsePath(_cr, rect);
    strokePath();
}

void CGContext::beginPath() { cairo_new_path(_cr); }
void CGContext::moveToPoint(CGFloat x, CGFloat y) {
    if (finite(x) && finite(y)) {
        cairo_move_to(_cr, x, y);
    }
}
void CGContext::addLineToPoint(CGFloat x, CGFloat y) {
    if (finite(x) && finite(y)) {
        cairo_line_to(_cr, x, y);
    }
}
void CGContext::addArc(CGFloat x, CGFloat y, CGFloat radius, CGFloat startAngle, CGFloat endAngle, bool clockwise) {
    if (!finite(x) || !finite(y) || !finite(radius) || radius < 0 || !finite(startAngle) || !finite(endAngle)) {
        return;
    }
    if (clockwise) {
        cairo_arc_negative(_cr, x, y, radius, startAngle, endAngle);
    } else {
        cairo_arc(_cr, x, y, radius, startAngle, endAngle);
    }
}
void CGContext::addRect(CGRect rect) {
    if (finiteRect(rect)) {
        cairo_rectangle(_cr, rect.origin.x, rect.origin.y, rect.size.width, rect.size.height);
    }
}
void CGContext::closePath() { cairo_close_path(_cr); }
void CGContext::fillPath() {
    applyColor(_fill);
    cairo_fill(_cr);
}
void CGContext::strokePath() {
    applyColor(_stroke);
    const double width = cairo_get_line_width(_cr);
    if (width > 0) {
        cairo_stroke(_cr);
        return;
    }
    // Width 0 is the thinnest line the device shows: one device pixel, whatever the transform.
    double xx = 1, xy = 0, yx = 0, yy = 1;
    cairo_device_to_user_distance(_cr, &xx, &xy);
    cairo_device_to_user_distance(_cr, &yx, &yy);
    const double hairline = std::min(std::hypot(xx, xy), std::hypot(yx, yy));
    cairo_set_line_width(_cr, std::isfinite(hairline) && hairline > 0 ? hairline : 1.0);
    cairo_stroke(_cr);
    cairo_set_line_width(_cr, 0);
}
void CGContext::clipToRect(CGRect rect) {
    if (rectPath(_cr, rect)) {
        cairo_clip(_cr);
    }
}

void CGContext::drawImage(CGRect rect, const CGImageRef& image) {
    if (!image || !finiteRect(rect) || rect.size.width == 0 || rect.size.height == 0) {
        return;
    }
    if (!detail::pixelLayoutOf(*image)) {
        return;
    }
    cairo_surface_t* source = surfaceForImage(*image);
    if (source == nullptr) {
        // The picture cannot be shown: what the context holds is no longer what was drawn.
        _failed = true;
        return;
    }
    const double iw = static_cast<double>(image->width());
    const double ih = static_cast<double>(image->height());
    cairo_save(_cr);
    cairo_translate(_cr, rect.origin.x, rect.origin.y);
    cairo_scale(_cr, rect.size.width / iw, rect.size.height / ih);
    cairo_set_source_surface(_cr, source, 0, 0);
    cairo_pattern_t* pattern = cairo_get_source(_cr);
    cairo_pattern_set_filter(pattern, filterFor(_interpolation));
    // Pad, so that resampling at the image's edges does not fade into transparency.
    cairo_pattern_set_extend(pattern, CAIRO_EXTEND_PAD);
    cairo_new_path(_cr);
    cairo_rectangle(_cr, 0, 0, iw, ih);
    cairo_clip(_cr);
    cairo_paint_with_alpha(_cr, _alpha);
    cairo_restore(_cr);
    cairo_surface_destroy(source);
}

void* CGBitmapContextGetData(const CGContextRef& context) { return context ? context->data() : nullptr; }
CGImageRef CGBitmapContextCreateImage(const CGContextRef& context) {
    return context ? context->createImage() : nullptr;
}
void CGContextDrawImage(const CGContextRef& context, CGRect rect, const CGImageRef& image) {
    if (context) {
        context->drawImage(rect, image);
    }
}
void CGContextTranslateCTM(const CGContextRef& context, CGFloat tx, CGFloat ty) {
    if (context) {
        context->translateCTM(tx, ty);
    }
}
void CGContextRotateCTM(const CGContextRef& context, CGFloat angle) {
    if (context) {
        context->rotateCTM(angle);
    }
}
void CGContextScaleCTM(const CGContextRef& context, CGFloat sx, CGFloat sy) {
    if (context) {
        context->scaleCTM(sx, sy);
    }
}
void CGContextSetFillColorWithColor(const CGContextRef& context, const CGColor& color) {
    if (context) {
        context->setFillColor(color);
    }
}
void CGContextSetStrokeColorWithColor(const CGContextRef& context, const CGColor& color) {
    if (context) {
        context->setStrokeColor(color);
    }
}
void CGContextFillRect(const CGContextRef& context, CGRect rect) {
    if (context) {
        context->fillRect(rect);
    }
}
void CGContextStrokeRectWithWidth(const CGContextRef& context, CGRect rect, CGFloat width) {
    if (context) {
        context->strokeRectWithWidth(rect, width);
    }
}
void CGContextSetInterpolationQuality(const CGContextRef& context, CGInterpolationQuality quality) {
    if (context) {
        context->setInterpolationQuality(quality);
    }
}

} // namespace kp
