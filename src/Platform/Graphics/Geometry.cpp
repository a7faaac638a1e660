// SPDX-License-Identifier: MIT
// Geometry functions of the platform layer.
#include "KPImage/Platform/Geometry.h"

#include <algorithm>

namespace kp {

CGRect CGRectStandardize(CGRect r) {
    if (CGRectIsNull(r)) {
        return r;
    }
    if (r.size.width < 0) {
        r.origin.x += r.size.width;
        r.size.width = -r.size.width;
    }
    if (r.size.height < 0) {
        r.origin.y += r.size.height;
        r.size.height = -r.size.height;
    }
    return r;
}

bool CGRectIsNull(CGRect r) { return std::isinf(r.origin.x) || std::isinf(r.origin.y); }

bool CGRectIsEmpty(CGRect r) { return CGRectIsNull(r) || r.size.width == 0 || r.size.height == 0; }

bool CGRectEqualToRect(CGRect a, CGRect b) {
    if (CGRectIsNull(a) || CGRectIsNull(b)) {
        return CGRectIsNull(a) && CGRectIsNull(b);
    }
    return CGRectStandardize(a) == CGRectStandardize(b);
}

bool CGPointEqualToPoint(CGPoint a, CGPoint b) { return a == b; }
bool CGSizeEqualToSize(CGSize a, CGSize b) { return a == b; }

CGFloat CGRectGetMinX(CGRect r) { return CGRectStandardize(r).origin.x; }
CGFloat CGRectGetMinY(CGRect r) { return CGRectStandardize(r).origin.y; }
CGFloat CGRectGetMaxX(CGRect r) {
    r = CGRectStandardize(r);
    return r.origin.x + r.size.width;
}
CGFloat CGRectGetMaxY(CGRect r) {
    r = CGRectStandardize(r);
    return r.origin.y + r.size.height;
}
CGFloat CGRectGetMidX(CGRect r) {
    r = CGRectStandardize(r);
    return r.origin.x + r.size.width / 2;
}
CGFloat CGRectGetMidY(CGRect r) {
    r = CGRectStandardize(r);
    return r.origin.y + r.size.height / 2;
}
CGFloat CGRectGetWidth(CGRect r) { return std::fabs(r.size.width); }
CGFloat CGRectGetHeight(CGRect r) { return std::fabs(r.size.height); }

CGRect CGRectInset(CGRect r, CGFloat dx, CGFloat dy) {
    if (CGRectIsNull(r)) {
        return r;
    }
    r = CGRectStandardize(r);
    CGRect out{{r.origin.x + dx, r.origin.y + dy}, {r.size.width - 2 * dx, r.size.height - 2 * dy}};
    if (out.size.width < 0 || out.size.height < 0) {
        return CGRectNull;
    }
    return out;
}

CGRect CGRectOffset(CGRect r, CGFloat dx, CGFloat dy) {
    if (CGRectIsNull(r)) {
        return r;
    }
    r = CGRectStandardize(r);
    r.origin.x += dx;
    r.origin.y += dy;
    return r;
}

CGRect CGRectIntegral(CGRect r) {
    if (CGRectIsNull(r)) {
        return r;
    }
    r = CGRectStandardize(r);
    const CGFloat x0 = std::floor(r.origin.x);
    const CGFloat y0 = std::floor(r.origin.y);
    const CGFloat x1 = std::ceil(r.origin.x + r.size.width);
    const CGFloat y1 = std::ceil(r.origin.y + r.size.height);
    return {{x0, y0}, {x1 - x0, y1 - y0}};
}

CGRect CGRectIntersection(CGRect a, CGRect b) {
    if (CGRectIsNull(a) || CGRectIsNull(b)) {
        return CGRectNull;
    }
    a = CGRectStandardize(a);
    b = CGRectStandardize(b);
    const CGFloat x0 = std::max(a.origin.x, b.origin.x);
    const CGFloat y0 = std::max(a.origin.y, b.origin.y);
    const CGFloat x1 = std::min(a.origin.x + a.size.width, b.origin.x + b.size.width);
    const CGFloat y1 = std::min(a.origin.y + a.size.height, b.origin.y + b.size.height);
    if (x1 < x0 || y1 < y0) {
        return CGRectNull;
    }
    return {{x0, y0}, {x1 - x0, y1 - y0}};
}

CGRect CGRectUnion(CGRect a, CGRect b) {
    if (CGRectIsNull(a)) {
        return CGRectStandardize(b);
    }
    if (CGRectIsNull(b)) {
        return CGRectStandardize(a);
    }
    a = CGRectStandardize(a);
    b = CGRectStandardize(b);
    const CGFloat x0 = std::min(a.origin.x, b.origin.x);
    const CGFloat y0 = std::min(a.origin.y, b.origin.y);
    const CGFloat x1 = std::max(a.origin.x + a.size.width, b.origin.x + b.size.width);
    const CGFloat y1 = std::max(a.origin.y + a.size.height, b.origin.y + b.size.height);
    return {{x0, y0}, {x1 - x0, y1 - y0}};
}

bool CGRectIntersectsRect(CGRect a, CGRect b) { return !CGRectIsNull(CGRectIntersection(a, b)); }

bool CGRectContainsRect(CGRect a, CGRect b) {
    if (CGRectIsNull(a) || CGRectIsNull(b)) {
        return false;
    }
    a = CGRectStandardize(a);
    b = CGRectStandardize(b);
    return b.origin.x >= a.origin.x && b.origin.y >= a.origin.y &&
           b.origin.x + b.size.width <= a.origin.x + a.size.width &&
           b.origin.y + b.size.height <= a.origin.y + a.size.height;
}

bool CGRectContainsPoint(CGRect r, CGPoint p) {
    if (CGRectIsNull(r)) {
        return false;
    }
    r = CGRectStandardize(r);
    return p.x >= r.origin.x && p.x < r.origin.x + r.size.width && p.y >= r.origin.y &&
           p.y < r.origin.y + r.size.height;
}

CGAffineTransform CGAffineTransformMake(CGFloat a, CGFloat b, CGFloat c, CGFloat d, CGFloat tx, CGFloat ty) {
    return {a, b, c, d, tx, ty};
}
CGAffineTransform CGAffineTransformMakeScale(CGFloat sx, CGFloat sy) { return {sx, 0, 0, sy, 0, 0}; }
CGAffineTransform CGAffineTransformMakeTranslation(CGFloat tx, CGFloat ty) { return {1, 0, 0, 1, tx, ty}; }
CGAffineTransform CGAffineTransformMakeRotation(CGFloat angle) {
    const CGFloat s = std::sin(angle);
    const CGFloat c = std::cos(angle);
    return {c, s, -s, c, 0, 0};
}

CGAffineTransform CGAffineTransformConcat(CGAffineTransform t1, CGAffineTransform t2) {
    return {t1.a * t2.a + t1.b * t2.c,         t1.a * t2.b + t1.b * t2.d,
            t1.c * t2.a + t1.d * t2.c,         t1.c * t2.b + t1.d * t2.d,
            t1.tx * t2.a + t1.ty * t2.c + t2.tx, t1.tx * t2.b + t1.ty * t2.d + t2.ty};
}

CGAffineTransform CGAffineTransformTranslate(CGAffineTransform t, CGFloat tx, CGFloat ty) {
    return CGAffineTransformConcat(CGAffineTransformMakeTranslation(tx, ty), t);
}
CGAffineTransform CGAffineTransformScale(CGAffineTransform t, CGFloat sx, CGFloat sy) {
    return CGAffineTransformConcat(CGAffineTransformMakeScale(sx, sy), t);
}
CGAffineTransform CGAffineTransformRotate(CGAffineTransform t, CGFloat angle) {
    return CGAffineTransformConcat(CGAffineTransformMakeRotation(angle), t);
}

CGAffineTransform CGAffineTransformInvert(CGAffineTransform t) {
    const CGFloat det = t.a * t.d - t.b * t.c;
    if (det == 0) {
        return t;
    }
    return {t.d / det,
            -t.b / det,
            -t.c / det,
            t.a / det,
            (t.c * t.ty - t.d * t.tx) / det,
            (t.b * t.tx - t.a * t.ty) / det};
}

bool CGAffineTransformIsIdentity(CGAffineTransform t) { return t == CGAffineTransformIdentity; }

CGPoint CGPointApplyAffineTransform(CGPoint p, CGAffineTransform t) {
    return {t.a * p.x + t.c * p.y + t.tx, t.b * p.x + t.d * p.y + t.ty};
}

CGSize CGSizeApplyAffineTransform(CGSize s, CGAffineTransform t) {
    return {t.a * s.width + t.c * s.height, t.b * s.width + t.d * s.height};
}

CGRect CGRectApplyAffineTransform(CGRect r, CGAffineTransform t) {
    if (CGRectIsNull(r)) {
        return r;
    }
    r = CGRectStandardize(r);
    const CGPoint corners[4] = {
        CGPointApplyAffineTransform({r.origin.x, r.origin.y}, t),
        CGPointApplyAffineTransform({r.origin.x + r.size.width, r.origin.y}, t),
        CGPointApplyAffineTransform({r.origin.x, r.origin.y + r.size.height}, t),
        CGPointApplyAffineTransform({r.origin.x + r.size.width, r.origin.y + r.size.height}, t),
    };
    return boundingRectOfPoints(corners);
}

CGRect boundingRectOfPoints(std::span<const CGPoint> points) {
    if (points.empty()) {
        return CGRectNull;
    }
    CGFloat x0 = points[0].x, x1 = points[0].x, y0 = points[0].y, y1 = points[0].y;
    for (const CGPoint& p : points) {
        x0 = std::min(x0, p.x);
        x1 = std::max(x1, p.x);
        y0 = std::min(y0, p.y);
        y1 = std::max(y1, p.y);
    }
    return {{x0, y0}, {x1 - x0, y1 - y0}};
}

} // namespace kp
