// SPDX-License-Identifier: MIT
// Geometry records and functions of the platform (points, sizes, rectangles, affine transforms).
#pragma once

#include <cmath>
#include <limits>
#include <span>

namespace kp {

/// The platform's graphics float: 64-bit on every machine this library runs on.
using CGFloat = double;

struct CGPoint {
    CGFloat x = 0;
    CGFloat y = 0;
    friend bool operator==(const CGPoint&, const CGPoint&) = default;
};

struct CGSize {
    CGFloat width = 0;
    CGFloat height = 0;
    friend bool operator==(const CGSize&, const CGSize&) = default;
};

struct CGRect {
    CGPoint origin;
    CGSize size;
    friend bool operator==(const CGRect&, const CGRect&) = default;
};

/// Affine transform [a b 0; c d 0; tx ty 1]: x' = a*x + c*y + tx, y' = b*x + d*y + ty.
struct CGAffineTransform {
    CGFloat a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;
    friend bool operator==(const CGAffineTransform&, const CGAffineTransform&) = default;
};

inline constexpr CGPoint CGPointZero{0, 0};
inline constexpr CGSize CGSizeZero{0, 0};
inline constexpr CGRect CGRectZero{{0, 0}, {0, 0}};
/// The null rectangle: the result of intersecting rectangles that do not meet.
inline constexpr CGRect CGRectNull{{std::numeric_limits<CGFloat>::infinity(), std::numeric_limits<CGFloat>::infinity()},
                                   {0, 0}};
inline constexpr CGAffineTransform CGAffineTransformIdentity{};

constexpr CGPoint CGPointMake(CGFloat x, CGFloat y) { return {x, y}; }
constexpr CGSize CGSizeMake(CGFloat w, CGFloat h) { return {w, h}; }
constexpr CGRect CGRectMake(CGFloat x, CGFloat y, CGFloat w, CGFloat h) { return {{x, y}, {w, h}}; }

/// The same rectangle with non-negative width and height.
CGRect CGRectStandardize(CGRect r);
bool CGRectIsNull(CGRect r);
/// True for the null rectangle and for rectangles of zero width or height.
bool CGRectIsEmpty(CGRect r);
bool CGRectEqualToRect(CGRect a, CGRect b);
bool CGPointEqualToPoint(CGPoint a, CGPoint b);
bool CGSizeEqualToSize(CGSize a, CGSize b);
CGFloat CGRectGetMinX(CGRect r);
CGFloat CGRectGetMinY(CGRect r);
CGFloat CGRectGetMaxX(CGRect r);
CGFloat CGRectGetMaxY(CGRect r);
CGFloat CGRectGetMidX(CGRect r);
CGFloat CGRectGetMidY(CGRect r);
CGFloat CGRectGetWidth(CGRect r);
CGFloat CGRectGetHeight(CGRect r);
/// Shrinks (positive dx, dy) or grows the rectangle on every side; null if it would turn negative.
CGRect CGRectInset(CGRect r, CGFloat dx, CGFloat dy);
CGRect CGRectOffset(CGRect r, CGFloat dx, CGFloat dy);
/// The smallest rectangle with integral coordinates that contains the rectangle.
CGRect CGRectIntegral(CGRect r);
/// The common part of two rectangles, CGRectNull when they do not meet.
CGRect CGRectIntersection(CGRect a, CGRect b);
CGRect CGRectUnion(CGRect a, CGRect b);
bool CGRectIntersectsRect(CGRect a, CGRect b);
/// True when b lies within a (edges may touch); false when either is null.
bool CGRectContainsRect(CGRect a, CGRect b);
/// True when the point lies in [minX, maxX) x [minY, maxY).
bool CGRectContainsPoint(CGRect r, CGPoint p);

CGAffineTransform CGAffineTransformMake(CGFloat a, CGFloat b, CGFloat c, CGFloat d, CGFloat tx, CGFloat ty);
CGAffineTransform CGAffineTransformMakeScale(CGFloat sx, CGFloat sy);
CGAffineTransform CGAffineTransformMakeTranslation(CGFloat tx, CGFloat ty);
/// Rotation by angle radians (positive turns +x towards +y).
CGAffineTransform CGAffineTransformMakeRotation(CGFloat angle);
/// t1 followed by t2.
CGAffineTransform CGAffineTransformConcat(CGAffineTransform t1, CGAffineTransform t2);
/// Translation applied before t (in t's untransformed space).
CGAffineTransform CGAffineTransformTranslate(CGAffineTransform t, CGFloat tx, CGFloat ty);
CGAffineTransform CGAffineTransformScale(CGAffineTransform t, CGFloat sx, CGFloat sy);
CGAffineTransform CGAffineTransformRotate(CGAffineTransform t, CGFloat angle);
CGAffineTransform CGAffineTransformInvert(CGAffineTransform t);
bool CGAffineTransformIsIdentity(CGAffineTransform t);
CGPoint CGPointApplyAffineTransform(CGPoint p, CGAffineTransform t);
CGSize CGSizeApplyAffineTransform(CGSize s, CGAffineTransform t);
/// The bounding box of the transformed (standardised) rectangle.
CGRect CGRectApplyAffineTransform(CGRect r, CGAffineTransform t);

/// The smallest rectangle that holds every point; CGRectNull when there are none.
CGRect boundingRectOfPoints(std::span<const CGPoint> points);

} // namespace kp
