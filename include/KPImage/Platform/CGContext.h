// SPDX-License-Identifier: MIT
// The drawing context of the platform layer: a bitmap of one of the library's layouts drawn with Cairo.
#pragma once

#include "KPImage/Platform/CGImage.h"
#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/UIColor.h"

#include <cstdint>
#include <memory>
#include <vector>

typedef struct _cairo cairo_t;
typedef struct _cairo_surface cairo_surface_t;

namespace kp {

enum CGInterpolationQuality : int32_t {
    kCGInterpolationDefault = 0,
    kCGInterpolationNone = 1,
    kCGInterpolationLow = 2,
    kCGInterpolationMedium = 4,
    kCGInterpolationHigh = 3,
};

enum CGLineCap : int32_t { kCGLineCapButt = 0, kCGLineCapRound = 1, kCGLineCapSquare = 2 };

/// A bitmap drawing context. Coordinates are in pixels with the origin at the top left and y down, so
/// drawing an image into a rect shows it upright there. Layouts: 8-bit grey (info 0), RGB 24-bit (info 0),
/// 32-bit RGBA/ARGB with any alpha placement and 32-bit byte order. Colour conversion happens at the edges:
/// the drawing itself is premultiplied ARGB; grey is taken as (77 R + 150 G + 29 B + 128) >> 8.
class CGContext {
public:
    ~CGContext();
    CGContext(const CGContext&) = delete;
    CGContext& operator=(const CGContext&) = delete;

    size_t width() const { return _width; }
    size_t height() const { return _height; }
    size_t bitsPerComponent() const { return 8; }
    size_t bitsPerPixel() const { return _bitsPerPixel; }
    size_t bytesPerRow() const { return _bytesPerRow; }
    const CGColorSpaceRef& colorSpace() const { return _colorSpace; }
    CGBitmapInfo bitmapInfo() const { return _bitmapInfo; }

    /// The bitmap bytes in the context's layout, brought up to date with what was drawn.
    void* data();
    /// A new image of what has been drawn so far (the bytes are copied); null once a drawing failed.
    CGImageRef createImage();
    /// True once a drawing could not be done (an image Cairo cannot show, more than 32767 pixels a side, or
    /// Cairo's own error state): the context then makes no more images.
    bool failed() const;

    void saveGState();
    void restoreGState();
    void translateCTM(CGFloat tx, CGFloat ty);
    void rotateCTM(CGFloat angle);
    void scaleCTM(CGFloat sx, CGFloat sy);
    void concatCTM(CGAffineTransform t);
    CGAffineTransform getCTM() const;

    void setFillColor(const CGColor& color);
    void setStrokeColor(const CGColor& color);
    /// In user-space units; negative and non-finite widths are ignored. Width 0 strokes the thinnest line the
    /// device shows (one device pixel wide).
    void setLineWidth(CGFloat width);
    void setLineCap(CGLineCap cap);
    void setAlpha(CGFloat alpha);
    void setInterpolationQuality(CGInterpolationQuality quality);
    CGInterpolationQuality interpolationQuality() const { return _interpolation; }

    void fillRect(CGRect rect);
    void strokeRect(CGRect rect);
    void strokeRectWithWidth(CGRect rect, CGFloat width);
    /// Makes the rect fully transparent (black for layouts without alpha).
    void clearRect(CGRect rect);
    void fillEllipseInRect(CGRect rect);
    void strokeEllipseInRect(CGRect rect);

    void beginPath();
    void moveToPoint(CGFloat x, CGFloat y);
    void addLineToPoint(CGFloat x, CGFloat y);
    /// Arc about (x, y) from startAngle to endAngle in radians; angles grow from +x towards +y (clockwise as
    /// seen, since y points down), and clockwise = true sweeps the other way, as in a top-left context.
    void addArc(CGFloat x, CGFloat y, CGFloat radius, CGFloat startAngle, CGFloat endAngle, bool clockwise);
    void addRect(CGRect rect);
    void closePath();
    void fillPath();
    void strokePath();
    void clipToRect(CGRect rect);

    /// Draws the image upright into rect with the current transform, resampled bilinearly (nearest with
    /// kCGInterpolationNone). An image that cannot be shown (more than 32767 pixels a side, or no memory)
    /// fails the context; an image of a layout the context cannot read is skipped.
    void drawImage(CGRect rect, const CGImageRef& image);

    /// The Cairo context behind this context, for the platform layer's own drawing (text). Borrowed.
    cairo_t* cairo() const { return _cr; }

private:
    friend std::shared_ptr<CGContext> CGBitmapContextCreate(void*, size_t, size_t, size_t, size_t, CGColorSpaceRef,
                                                           CGBitmapInfo);
    CGContext() = default;
    void loadFromBytes();
    void storeToBytes();
    void applyColor(const CGColor& color);

    size_t _width = 0;
    size_t _height = 0;
    size_t _bitsPerPixel = 0;
    size_t _bytesPerRow = 0;
    CGColorSpaceRef _colorSpace;
    CGBitmapInfo _bitmapInfo = 0;
    uint8_t* _bytes = nullptr;      // the layout bytes (caller's or _ownBytes)
    std::vector<uint8_t> _ownBytes; // when the context allocated them
    bool _direct = false;           // Cairo draws straight into _bytes (BGRA premultiplied)
    bool _failed = false;           // a drawing could not be done; no image comes out any more
    cairo_surface_t* _surface = nullptr;
    cairo_t* _cr = nullptr;
    CGColor _fill{0, 0, 0, 1};
    CGColor _stroke{0, 0, 0, 1};
    CGInterpolationQuality _interpolation = kCGInterpolationDefault;
    CGFloat _alpha = 1.0;
    struct SavedState {
        CGColor fill;
        CGColor stroke;
        CGFloat alpha;
        CGInterpolationQuality interpolation;
    };
    std::vector<SavedState> _savedStates; // what saveGState keeps beside Cairo's own state
};
using CGContextRef = std::shared_ptr<CGContext>;

/// Makes a bitmap context. With data null the context allocates (zeroed) bytes; otherwise it draws into
/// the caller's bytes, which must hold bytesPerRow * height bytes and outlive the context. Null for an
/// unsupported layout, bytes per row too small for a row, zero size or more than kKPMaxImagePixels pixels.
CGContextRef CGBitmapContextCreate(void* data, size_t width, size_t height, size_t bitsPerComponent,
                                   size_t bytesPerRow, CGColorSpaceRef space, CGBitmapInfo bitmapInfo);
void* CGBitmapContextGetData(const CGContextRef& context);
CGImageRef CGBitmapContextCreateImage(const CGContextRef& context);
void CGContextDrawImage(const CGContextRef& context, CGRect rect, const CGImageRef& image);
void CGContextTranslateCTM(const CGContextRef& context, CGFloat tx, CGFloat ty);
void CGContextRotateCTM(const CGContextRef& context, CGFloat angle);
void CGContextScaleCTM(const CGContextRef& context, CGFloat sx, CGFloat sy);
void CGContextSetFillColorWithColor(const CGContextRef& context, const CGColor& color);
void CGContextSetStrokeColorWithColor(const CGContextRef& context, const CGColor& color);
void CGContextFillRect(const CGContextRef& context, CGRect rect);
void CGContextStrokeRectWithWidth(const CGContextRef& context, CGRect rect, CGFloat width);
void CGContextSetInterpolationQuality(const CGContextRef& context, CGInterpolationQuality quality);

} // namespace kp
