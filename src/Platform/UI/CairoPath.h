// SPDX-License-Identifier: MIT
// Appends a path's elements to a Cairo context's current path.
#pragma once

#include "KPImage/Platform/CGPath.h"

#include <cairo.h>

namespace kp {

inline void appendPathToCairo(cairo_t* cr, const CGPath& path) {
    for (const auto& e : path.elements()) {
        const CGPoint* p = e.points;
        switch (e.type) {
        case CGPathElement::Type::MoveToPoint: cairo_move_to(cr, p[0].x, p[0].y); break;
        case CGPathElement::Type::AddLineToPoint: cairo_line_to(cr, p[0].x, p[0].y); break;
        case CGPathElement::Type::AddCurveToPoint:
            cairo_curve_to(cr, p[0].x, p[0].y, p[1].x, p[1].y, p[2].x, p[2].y);
            break;
        case CGPathElement::Type::CloseSubpath: cairo_close_path(cr); break;
        }
    }
}

} // namespace kp
