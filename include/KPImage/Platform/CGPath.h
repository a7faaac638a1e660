// SPDX-License-Identifier: MIT
// Paths of the platform layer: an immutable or mutable list of subpaths (moves, lines, arcs, curves, closes).
#pragma once

#include "KPImage/Platform/Geometry.h"

#include <memory>
#include <vector>

namespace kp {

/// One element of a path, in the path's own coordinates.
struct CGPathElement {
    enum class Type { MoveToPoint, AddLineToPoint, AddCurveToPoint, CloseSubpath };
    Type type = Type::MoveToPoint;
    /// One point for moves and lines; control 1, control 2, end for curves; none for closes.
    CGPoint points[3] = {};
};

/// A path: subpaths made of straight lines and cubic Bezier curves (arcs and ellipses are stored as curves).
/// Paths are shared objects; a path handed to a layer is not copied, so a mutable path changed afterwards
/// changes what the layer draws at its next render, as on the platform.
class CGPath {
public:
    const std::vector<CGPathElement>& elements() const { return _elements; }
    bool isEmpty() const { return _elements.empty(); }
    /// The point the next element starts from; CGPointZero for an empty path.
    CGPoint currentPoint() const { return _current; }

    void moveTo(CGPoint p);
    /// A line from the current point; starts a subpath at p when the path is empty.
    void lineTo(CGPoint p);
    void curveTo(CGPoint c1, CGPoint c2, CGPoint end);
    void close();

private:
    std::vector<CGPathElement> _elements;
    CGPoint _current{};
    CGPoint _subpathStart{};
};

using CGPathRef = std::shared_ptr<const CGPath>;
using CGMutablePathRef = std::shared_ptr<CGPath>;

/// A new, empty mutable path.
CGMutablePathRef CGPathCreateMutable();
/// A mutable copy of a path; an empty path for null.
CGMutablePathRef CGPathCreateMutableCopy(const CGPathRef& path);
/// Releases the caller's reference (the path lives on while a layer or another path holds it).
void CGPathRelease(CGPathRef& path);
void CGPathRelease(CGMutablePathRef& path);

/// The path operations. m, when not null, transforms the given coordinates first. A null path or non-finite
/// coordinates are ignored.
void CGPathMoveToPoint(const CGMutablePathRef& path, const CGAffineTransform* m, CGFloat x, CGFloat y);
void CGPathAddLineToPoint(const CGMutablePathRef& path, const CGAffineTransform* m, CGFloat x, CGFloat y);
void CGPathAddCurveToPoint(const CGMutablePathRef& path, const CGAffineTransform* m, CGFloat cp1x, CGFloat cp1y,
                           CGFloat cp2x, CGFloat cp2y, CGFloat x, CGFloat y);
/// Appends every element of path2 (transformed by m) to path1.
void CGPathAddPath(const CGMutablePathRef& path1, const CGAffineTransform* m, const CGPathRef& path2);
/// An arc about (x, y) from startAngle to endAngle (radians, angles growing from +x towards +y); clockwise
/// sweeps the other way, as in a top-left context. A line joins the current point to the arc's start.
void CGPathAddArc(const CGMutablePathRef& path, const CGAffineTransform* m, CGFloat x, CGFloat y, CGFloat radius,
                  CGFloat startAngle, CGFloat endAngle, bool clockwise);
/// A closed rectangle subpath (standardised).
void CGPathAddRect(const CGMutablePathRef& path, const CGAffineTransform* m, CGRect rect);
/// A closed ellipse subpath inscribed in rect.
void CGPathAddEllipseInRect(const CGMutablePathRef& path, const CGAffineTransform* m, CGRect rect);
void CGPathCloseSubpath(const CGMutablePathRef& path);

/// A new path with the rectangle / ellipse.
CGPathRef CGPathCreateWithRect(CGRect rect, const CGAffineTransform* m);
CGPathRef CGPathCreateWithEllipseInRect(CGRect rect, const CGAffineTransform* m);

/// True for null or a path without elements.
bool CGPathIsEmpty(const CGPathRef& path);
/// The smallest rectangle holding every point of the path, control points included; CGRectNull when empty.
CGRect CGPathGetBoundingBox(const CGPathRef& path);
/// The current point; CGPointZero for null or empty.
CGPoint CGPathGetCurrentPoint(const CGPathRef& path);

} // namespace kp
