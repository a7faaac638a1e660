// SPDX-License-Identifier: MIT
// Path drawing calls of the drawing context, on the context's Cairo state.
#include "KPImage/Platform/CGContextPath.h"

#include "Platform/UI/CairoPath.h"

#include <cairo.h>

#include <cmath>

namespace kp {

void CGContextBeginPath(const CGContextRef& context) {
    if (context) {
        context->beginPath();
    }
}

void CGContextMoveToPoint(const CGContextRef& context, CGFloat x, CGFloat y) {
    if (context) {
        context->moveToPoint(x, y);
    }
}

void CGContextAddLineToPoint(const CGContextRef& context, CGFloat x, CGFloat y) {
    if (context) {
        context->addLineToPoint(x, y);
    }
}

void CGContextAddArc(const CGContextRef& context, CGFloat x, CGFloat y, CGFloat radius, CGFloat startAngle,
                     CGFloat endAngle, int clockwise) {
    if (context) {
        context->addArc(x, y, radius, startAngle, endAngle, clockwise != 0);
    }
}

void CGContextAddLines(const CGContextRef& context, const CGPoint* points, size_t count) {
    if (!context || points == nullptr || count == 0) {
        return;
    }
    context->moveToPoint(points[0].x, points[0].y);
    for (size_t i = 1; i < count; ++i) {
        context->addLineToPoint(points[i].x, points[i].y);
    }
}

void CGContextAddRect(const CGContextRef& context, CGRect rect) {
    if (context) {
        context->addRect(rect);
    }
}

void CGContextAddEllipseInRect(const CGContextRef& context, CGRect rect) {
    CGContextAddPath(context, CGPathCreateWithEllipseInRect(rect, nullptr));
}

void CGContextAddPath(const CGContextRef& context, const CGPathRef& path) {
    if (!context || !path) {
        return;
    }
    appendPathToCairo(context->cairo(), *path);
}

void CGContextClosePath(const CGContextRef& context) {
    if (context) {
        context->closePath();
    }
}

void CGContextDrawPath(const CGContextRef& context, CGPathDrawingMode mode) {
    if (!context) {
        return;
    }
    cairo_t* cr = context->cairo();
    const bool evenOdd = mode == kCGPathEOFill || mode == kCGPathEOFillStroke;
    const bool fill = mode != kCGPathStroke;
    const bool stroke = mode == kCGPathStroke || mode == kCGPathFillStroke || mode == kCGPathEOFillStroke;
    if (fill) {
        cairo_path_t* kept = stroke ? cairo_copy_path(cr) : nullptr;
        const cairo_fill_rule_t rule = cairo_get_fill_rule(cr);
        cairo_set_fill_rule(cr, evenOdd ? CAIRO_FILL_RULE_EVEN_ODD : CAIRO_FILL_RULE_WINDING);
        context->fillPath();
        cairo_set_fill_rule(cr, rule);
        if (kept != nullptr) {
            cairo_append_path(cr, kept);
            cairo_path_destroy(kept);
        }
    }
    if (stroke) {
        context->strokePath();
    }
}

void CGContextFillPath(const CGContextRef& context) { CGContextDrawPath(context, kCGPathFill); }
void CGContextEOFillPath(const CGContextRef& context) { CGContextDrawPath(context, kCGPathEOFill); }
void CGContextStrokePath(const CGContextRef& context) { CGContextDrawPath(context, kCGPathStroke); }

void CGContextFillEllipseInRect(const CGContextRef& context, CGRect rect) {
    if (context) {
        context->fillEllipseInRect(rect);
    }
}

void CGContextStrokeEllipseInRect(const CGContextRef& context, CGRect rect) {
    if (context) {
        context->strokeEllipseInRect(rect);
    }
}

void CGContextStrokeRect(const CGContextRef& context, CGRect rect) {
    if (context) {
        context->strokeRect(rect);
    }
}

void CGContextSetLineWidth(const CGContextRef& context, CGFloat width) {
    if (context) {
        context->setLineWidth(width);
    }
}

void CGContextSetLineCap(const CGContextRef& context, CGLineCap cap) {
    if (context) {
        context->setLineCap(cap);
    }
}

void CGContextSetAlpha(const CGContextRef& context, CGFloat alpha) {
    if (context) {
        context->setAlpha(alpha);
    }
}

void CGContextSaveGState(const CGContextRef& context) {
    if (context) {
        context->saveGState();
    }
}

void CGContextRestoreGState(const CGContextRef& context) {
    if (context) {
        context->restoreGState();
    }
}

void CGContextClipToRect(const CGContextRef& context, CGRect rect) {
    if (context) {
        context->clipToRect(rect);
    }
}

} // namespace kp
