// SPDX-License-Identifier: MIT
// Paths: element lists built by moves, lines, arcs (as cubic curves), rectangles and ellipses.
#include "KPImage/Platform/CGPath.h"
#include "Platform/Graphics/FiniteGeometry.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace kp {

using detail::finite;
using detail::finitePoint;

void CGPath::moveTo(CGPoint p) {
    _elements.push_back({CGPathElement::Type::MoveToPoint, {p}});
    _current = _subpathStart = p;
}

void CGPath::lineTo(CGPoint p) {
    if (_elements.empty()) {
        moveTo(p);
        return;
    }
    _elements.push_back({CGPathElement::Type::AddLineToPoint, {p}});
    _current = p;
}

void CGPath::curveTo(CGPoint c1, CGPoint c2, CGPoint end) {
    if (_elements.empty()) {
        moveTo(c1);
    }
    _elements.push_back({CGPathElement::Type::AddCurveToPoint, {c1, c2, end}});
    _current = end;
}

void CGPath::close() {
    if (_elements.empty() || _elements.back().type == CGPathElement::Type::CloseSubpath) {
        return;
    }
    _elements.push_back({CGPathElement::Type::CloseSubpath, {}});
    _current = _subpathStart;
}

namespace {
CGPoint apply(const CGAffineTransform* m, CGFloat x, CGFloat y) {
    return m != nullptr ? CGPointApplyAffineTransform(CGPoint{x, y}, *m) : CGPoint{x, y};
}
} // namespace

CGMutablePathRef CGPathCreateMutable() { return std::make_shared<CGPath>(); }

CGMutablePathRef CGPathCreateMutableCopy(const CGPathRef& path) {
    return path ? std::make_shared<CGPath>(*path) : CGPathCreateMutable();
}

void CGPathRelease(CGPathRef& path) { path.reset(); }
void CGPathRelease(CGMutablePathRef& path) { path.reset(); }

void CGPathMoveToPoint(const CGMutablePathRef& path, const CGAffineTransform* m, CGFloat x, CGFloat y) {
    if (CGPoint p = apply(m, x, y); path && finitePoint(p)) {
        path->moveTo(p);
    }
}

void CGPathAddLineToPoint(const CGMutablePathRef& path, const CGAffineTransform* m, CGFloat x, CGFloat y) {
    if (CGPoint p = apply(m, x, y); path && finitePoint(p)) {
        path->lineTo(p);
    }
}

void CGPathAddCurveToPoint(const CGMutablePathRef& path, const CGAffineTransform* m, CGFloat cp1x, CGFloat cp1y,
                           CGFloat cp2x, CGFloat cp2y, CGFloat x, CGFloat y) {
    CGPoint c1 = apply(m, cp1x, cp1y), c2 = apply(m, cp2x, cp2y), e = apply(m, x, y);
    if (path && finitePoint(c1) && finitePoint(c2) && finitePoint(e)) {
        path->curveTo(c1, c2, e);
    }
}

void CGPathAddPath(const CGMutablePathRef& path1, const CGAffineTransform* m, const CGPathRef& path2) {
    if (!path1 || !path2) {
        return;
    }
    // Copied first: path1 and path2 may be the same path.
    const std::vector<CGPathElement> elements = path2->elements();
    for (const auto& e : elements) {
        auto at = [&](int i) { return apply(m, e.points[i].x, e.points[i].y); };
        switch (e.type) {
        case CGPathElement::Type::MoveToPoint: path1->moveTo(at(0)); break;
        case CGPathElement::Type::AddLineToPoint: path1->lineTo(at(0)); break;
        case CGPathElement::Type::AddCurveToPoint: path1->curveTo(at(0), at(1), at(2)); break;
        case CGPathElement::Type::CloseSubpath: path1->close(); break;
        }
    }
}

void CGPathAddArc(const CGMutablePathRef& path, const CGAffineTransform* m, CGFloat x, CGFloat y, CGFloat radius,
                  CGFloat startAngle, CGFloat endAngle, bool clockwise) {
    if (!path || !finite(x) || !finite(y) || !finite(radius) || radius < 0 || !finite(startAngle) ||
        !finite(endAngle)) {
        return;
    }
    constexpr CGFloat kTwoPi = 2 * std::numbers::pi;
    // Sweep direction as the drawing context's addArc: increasing angles unless clockwise is set.
    CGFloat sweep = endAngle - startAngle;
    if (!clockwise && sweep < 0) {
        sweep = kTwoPi + std::fmod(sweep, kTwoPi);
    } else if (clockwise && sweep > 0) {
        sweep = std::fmod(sweep, kTwoPi) - kTwoPi;
    }
    sweep = std::clamp(sweep, -kTwoPi, kTwoPi);
    auto pointAt = [&](CGFloat a) { return apply(m, x + radius * std::cos(a), y + radius * std::sin(a)); };
    if (path->isEmpty()) {
        path->moveTo(pointAt(startAngle));
    } else {
        path->lineTo(pointAt(startAngle));
    }
    const int segments = std::max(1, static_cast<int>(std::ceil(std::abs(sweep) / (std::numbers::pi / 2) - 1e-9)));
    const CGFloat step = sweep / segments;
    const CGFloat k = 4.0 / 3.0 * std::tan(step / 4);
    for (int i = 0; i < segments; ++i) {
        const CGFloat a0 = startAngle + step * i;
        const CGFloat a1 = a0 + step;
        const CGFloat c0 = std::cos(a0), s0 = std::sin(a0), c1 = std::cos(a1), s1 = std::sin(a1);
        path->curveTo(apply(m, x + radius * (c0 - k * s0), y + radius * (s0 + k * c0)),
                      apply(m, x + radius * (c1 + k * s1), y + radius * (s1 - k * c1)), pointAt(a1));
    }
}

void CGPathAddRect(const CGMutablePathRef& path, const CGAffineTransform* m, CGRect rect) {
    rect = CGRectStandardize(rect);
    if (!path || !finite(rect.origin.x) || !finite(rect.origin.y) || !finite(rect.size.width) ||
        !finite(rect.size.height)) {
        return;
    }
    path->moveTo(apply(m, CGRectGetMinX(rect), CGRectGetMinY(rect)));
    path->lineTo(apply(m, CGRectGetMaxX(rect), CGRectGetMinY(rect)));
    path->lineTo(apply(m, CGRectGetMaxX(rect), CGRectGetMaxY(rect)));
    path->lineTo(apply(m, CGRectGetMinX(rect), CGRectGetMaxY(rect)));
    path->close();
}

void CGPathAddEllipseInRect(const CGMutablePathRef& path, const CGAffineTransform* m, CGRect rect) {
    rect = CGRectStandardize(rect);
    if (!path || !finite(rect.origin.x) || !finite(rect.origin.y) || !finite(rect.size.width) ||
        !finite(rect.size.height)) {
        return;
    }
    // A unit circle arc scaled into the rectangle, as one closed subpath starting at the right-hand side.
    CGAffineTransform t = CGAffineTransformMake(rect.size.width / 2, 0, 0, rect.size.height / 2, CGRectGetMidX(rect),
                                                CGRectGetMidY(rect));
    if (m != nullptr) {
        t = CGAffineTransformConcat(t, *m);
    }
    auto circle = CGPathCreateMutable();
    CGPathAddArc(circle, &t, 0, 0, 1, 0, 2 * std::numbers::pi, false);
    circle->close();
    CGPathAddPath(path, nullptr, circle);
}

void CGPathCloseSubpath(const CGMutablePathRef& path) {
    if (path) {
        path->close();
    }
}

CGPathRef CGPathCreateWithRect(CGRect rect, const CGAffineTransform* m) {
    auto path = CGPathCreateMutable();
    CGPathAddRect(path, m, rect);
    return path;
}

CGPathRef CGPathCreateWithEllipseInRect(CGRect rect, const CGAffineTransform* m) {
    auto path = CGPathCreateMutable();
    CGPathAddEllipseInRect(path, m, rect);
    return path;
}

bool CGPathIsEmpty(const CGPathRef& path) { return !path || path->isEmpty(); }

CGRect CGPathGetBoundingBox(const CGPathRef& path) {
    if (CGPathIsEmpty(path)) {
        return CGRectNull;
    }
    CGFloat minX = INFINITY, minY = INFINITY, maxX = -INFINITY, maxY = -INFINITY;
    for (const auto& e : path->elements()) {
        const int n = e.type == CGPathElement::Type::AddCurveToPoint ? 3
                      : e.type == CGPathElement::Type::CloseSubpath  ? 0
                                                                     : 1;
        for (int i = 0; i < n; ++i) {
            minX = std::min(minX, e.points[i].x);
            minY = std::min(minY, e.points[i].y);
            maxX = std::max(maxX, e.points[i].x);
            maxY = std::max(maxY, e.points[i].y);
        }
    }
    return CGRectMake(minX, minY, maxX - minX, maxY - minY);
}

CGPoint CGPathGetCurrentPoint(const CGPathRef& path) { return path ? path->currentPoint() : CGPointZero; }

} // namespace kp
