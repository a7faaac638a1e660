// SPDX-License-Identifier: MIT
// Path drawing calls of the drawing context: the C-style functions views use in drawRect.
#pragma once

#include "KPImage/Platform/CGContext.h"
#include "KPImage/Platform/CGPath.h"

#include <cstddef>

namespace kp {

/// How CGContextDrawPath paints the current path.
enum CGPathDrawingMode : int32_t {
    kCGPathFill = 0,
    kCGPathEOFill = 1,
    kCGPathStroke = 2,
    kCGPathFillStroke = 3,
    kCGPathEOFillStroke = 4,
};

// Each function ignores a null context.
void CGContextBeginPath(const CGContextRef& context);
void CGContextMoveToPoint(const CGContextRef& context, CGFloat x, CGFloat y);
void CGContextAddLineToPoint(const CGContextRef& context, CGFloat x, CGFloat y);
/// Arc about (x, y); angles grow from +x towards +y (clockwise as seen, y pointing down); clockwise = 1 sweeps
/// the other way, as the platform's flag does in a top-left context.
void CGContextAddArc(const CGContextRef& context, CGFloat x, CGFloat y, CGFloat radius, CGFloat startAngle,
                     CGFloat endAngle, int clockwise);
/// A move to points[0] and lines through the others; nothing for a null array or count 0.
void CGContextAddLines(const CGContextRef& context, const CGPoint* points, size_t count);
void CGContextAddRect(const CGContextRef& context, CGRect rect);
void CGContextAddEllipseInRect(const CGContextRef& context, CGRect rect);
/// Appends a path (in the context's current transform).
void CGContextAddPath(const CGContextRef& context, const CGPathRef& path);
void CGContextClosePath(const CGContextRef& context);
/// Paints the current path and clears it: fill (non-zero or even-odd) with the fill colour, then stroke with
/// the stroke colour, as the mode asks.
void CGContextDrawPath(const CGContextRef& context, CGPathDrawingMode mode);
void CGContextFillPath(const CGContextRef& context);
void CGContextEOFillPath(const CGContextRef& context);
void CGContextStrokePath(const CGContextRef& context);
void CGContextFillEllipseInRect(const CGContextRef& context, CGRect rect);
void CGContextStrokeEllipseInRect(const CGContextRef& context, CGRect rect);
void CGContextStrokeRect(const CGContextRef& context, CGRect rect);
void CGContextSetLineWidth(const CGContextRef& context, CGFloat width);
void CGContextSetLineCap(const CGContextRef& context, CGLineCap cap);
void CGContextSetAlpha(const CGContextRef& context, CGFloat alpha);
void CGContextSaveGState(const CGContextRef& context);
void CGContextRestoreGState(const CGContextRef& context);
void CGContextClipToRect(const CGContextRef& context, CGRect rect);

} // namespace kp
