// SPDX-License-Identifier: MIT
// 3-D transforms: construction, concatenation and the projection a layer is drawn with.
#include "KPImage/Platform/CATransform3D.h"

#include <cmath>

namespace kp {

bool CATransform3DIsIdentity(const CATransform3D& t) { return t == CATransform3DIdentity; }
bool CATransform3DEqualToTransform(const CATransform3D& a, const CATransform3D& b) { return a == b; }

CATransform3D CATransform3DMakeTranslation(CGFloat tx, CGFloat ty, CGFloat tz) {
    CATransform3D t;
    t.m41 = tx;
    t.m42 = ty;
    t.m43 = tz;
    return t;
}

CATransform3D CATransform3DMakeScale(CGFloat sx, CGFloat sy, CGFloat sz) {
    CATransform3D t;
    t.m11 = sx;
    t.m22 = sy;
    t.m33 = sz;
    return t;
}

CATransform3D CATransform3DMakeRotation(CGFloat angle, CGFloat x, CGFloat y, CGFloat z) {
    const CGFloat length = std::sqrt(x * x + y * y + z * z);
    if (!std::isfinite(angle) || !std::isfinite(length) || length == 0) {
        return CATransform3DIdentity;
    }
    x /= length;
    y /= length;
    z /= length;
    const CGFloat c = std::cos(angle), s = std::sin(angle), k = 1 - c;
    CATransform3D t;
    t.m11 = k * x * x + c;
    t.m12 = k * x * y + s * z;
    t.m13 = k * x * z - s * y;
    t.m21 = k * x * y - s * z;
    t.m22 = k * y * y + c;
    t.m23 = k * y * z + s * x;
    t.m31 = k * x * z + s * y;
    t.m32 = k * y * z - s * x;
    t.m33 = k * z * z + c;
    return t;
}

CATransform3D CATransform3DConcat(const CATransform3D& a, const CATransform3D& b) {
    const CGFloat A[4][4] = {{a.m11, a.m12, a.m13, a.m14},
                             {a.m21, a.m22, a.m23, a.m24},
                             {a.m31, a.m32, a.m33, a.m34},
                             {a.m41, a.m42, a.m43, a.m44}};
    const CGFloat B[4][4] = {{b.m11, b.m12, b.m13, b.m14},
                             {b.m21, b.m22, b.m23, b.m24},
                             {b.m31, b.m32, b.m33, b.m34},
                             {b.m41, b.m42, b.m43, b.m44}};
    CGFloat R[4][4] = {};
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 4; ++j) {
            for (int k = 0; k < 4; ++k) {
                R[i][j] += A[i][k] * B[k][j];
            }
        }
    }
    return {R[0][0], R[0][1], R[0][2], R[0][3], R[1][0], R[1][1], R[1][2], R[1][3],
            R[2][0], R[2][1], R[2][2], R[2][3], R[3][0], R[3][1], R[3][2], R[3][3]};
}

CATransform3D CATransform3DTranslate(const CATransform3D& t, CGFloat tx, CGFloat ty, CGFloat tz) {
    return CATransform3DConcat(CATransform3DMakeTranslation(tx, ty, tz), t);
}
CATransform3D CATransform3DScale(const CATransform3D& t, CGFloat sx, CGFloat sy, CGFloat sz) {
    return CATransform3DConcat(CATransform3DMakeScale(sx, sy, sz), t);
}
CATransform3D CATransform3DRotate(const CATransform3D& t, CGFloat angle, CGFloat x, CGFloat y, CGFloat z) {
    return CATransform3DConcat(CATransform3DMakeRotation(angle, x, y, z), t);
}

CATransform3D CATransform3DMakeAffineTransform(const CGAffineTransform& m) {
    CATransform3D t;
    t.m11 = m.a;
    t.m12 = m.b;
    t.m21 = m.c;
    t.m22 = m.d;
    t.m41 = m.tx;
    t.m42 = m.ty;
    return t;
}

bool CATransform3DIsAffine(const CATransform3D& t) {
    return t.m13 == 0 && t.m14 == 0 && t.m23 == 0 && t.m24 == 0 && t.m31 == 0 && t.m32 == 0 && t.m33 == 1 &&
           t.m34 == 0 && t.m43 == 0 && t.m44 == 1;
}

CGAffineTransform CATransform3DGetAffineTransform(const CATransform3D& t) {
    return CGAffineTransformMake(t.m11, t.m12, t.m21, t.m22, t.m41, t.m42);
}

CGAffineTransform CATransform3DProjectedAffineTransform(const CATransform3D& t) {
    // The homogeneous divisor of the anchor point (the origin of the layer's own space).
    const CGFloat w = t.m44 != 0 && std::isfinite(t.m44) ? t.m44 : 1;
    return CGAffineTransformMake(t.m11 / w, t.m12 / w, t.m21 / w, t.m22 / w, t.m41 / w, t.m42 / w);
}

} // namespace kp
