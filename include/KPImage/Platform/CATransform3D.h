// SPDX-License-Identifier: MIT
// 3-D transforms of layers: 4 x 4 matrices applied to row vectors (x, y, z, 1), translation in the last row.
#pragma once

#include "KPImage/Platform/Geometry.h"

namespace kp {

/// A layer transform. A point p maps to p x M; with y pointing down, a positive rotation about z turns
/// clockwise as seen, as the platform's affine rotations do.
struct CATransform3D {
    CGFloat m11 = 1, m12 = 0, m13 = 0, m14 = 0;
    CGFloat m21 = 0, m22 = 1, m23 = 0, m24 = 0;
    CGFloat m31 = 0, m32 = 0, m33 = 1, m34 = 0;
    CGFloat m41 = 0, m42 = 0, m43 = 0, m44 = 1;
    friend bool operator==(const CATransform3D&, const CATransform3D&) = default;
};

inline constexpr CATransform3D CATransform3DIdentity{};

bool CATransform3DIsIdentity(const CATransform3D& t);
bool CATransform3DEqualToTransform(const CATransform3D& a, const CATransform3D& b);
CATransform3D CATransform3DMakeTranslation(CGFloat tx, CGFloat ty, CGFloat tz);
CATransform3D CATransform3DMakeScale(CGFloat sx, CGFloat sy, CGFloat sz);
/// A rotation by angle radians about the axis (x, y, z); the identity for a zero or non-finite axis.
CATransform3D CATransform3DMakeRotation(CGFloat angle, CGFloat x, CGFloat y, CGFloat z);
/// a then b.
CATransform3D CATransform3DConcat(const CATransform3D& a, const CATransform3D& b);
/// t preceded by a translation / scale / rotation (the new operation applies first).
CATransform3D CATransform3DTranslate(const CATransform3D& t, CGFloat tx, CGFloat ty, CGFloat tz);
CATransform3D CATransform3DScale(const CATransform3D& t, CGFloat sx, CGFloat sy, CGFloat sz);
CATransform3D CATransform3DRotate(const CATransform3D& t, CGFloat angle, CGFloat x, CGFloat y, CGFloat z);
CATransform3D CATransform3DMakeAffineTransform(const CGAffineTransform& m);
/// True when the transform is an affine 2-D transform (no z terms, no perspective).
bool CATransform3DIsAffine(const CATransform3D& t);
/// The affine part (a = m11, b = m12, c = m21, d = m22, tx = m41, ty = m42).
CGAffineTransform CATransform3DGetAffineTransform(const CATransform3D& t);
/// How the transform draws a flat layer (z = 0) on screen: the orthographic projection onto the x-y plane, which
/// is what a layer tree shows with the default (identity) sublayer transform. Perspective terms (m14, m24) are
/// taken at the layer's anchor, so the result is always affine.
CGAffineTransform CATransform3DProjectedAffineTransform(const CATransform3D& t);

} // namespace kp
