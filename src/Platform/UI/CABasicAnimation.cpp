// SPDX-License-Identifier: MIT
// Basic animations: timing of passes and auto-reverse, and interpolation of boxed values.
#include "KPImage/Platform/CABasicAnimation.h"

#include <algorithm>
#include <cmath>

namespace kp {

CGFloat NSValue::doubleValue() const {
    const CGFloat* v = std::get_if<CGFloat>(&_value);
    return v != nullptr ? *v : 0;
}

CATransform3D NSValue::CATransform3DValue() const {
    const CATransform3D* v = std::get_if<CATransform3D>(&_value);
    return v != nullptr ? *v : CATransform3DIdentity;
}

std::shared_ptr<CABasicAnimation> CABasicAnimation::animationWithKeyPath(const std::string& keyPath) {
    auto animation = std::make_shared<CABasicAnimation>();
    animation->_keyPath = keyPath;
    return animation;
}

double CABasicAnimation::effectiveDuration() const {
    return std::isfinite(_duration) && _duration > 0 ? _duration : 0.25;
}

double CABasicAnimation::activeDuration() const {
    const double passes = std::isfinite(_repeatCount) && _repeatCount > 0 ? _repeatCount : 1;
    return effectiveDuration() * passes * (_autoreverses ? 2 : 1);
}

std::optional<double> CABasicAnimation::progressAt(double elapsed) const {
    if (!std::isfinite(elapsed) || elapsed < 0 || elapsed >= activeDuration()) {
        return std::nullopt;
    }
    const double d = effectiveDuration();
    const double cycle = _autoreverses ? 2 * d : d;
    double t = std::fmod(elapsed, cycle) / d;
    if (t > 1) {
        t = 2 - t;
    }
    return t;
}

namespace {
CGFloat mix(CGFloat a, CGFloat b, double p) { return a + (b - a) * p; }
CGPoint mix(CGPoint a, CGPoint b, double p) { return {mix(a.x, b.x, p), mix(a.y, b.y, p)}; }
CGSize mix(CGSize a, CGSize b, double p) { return {mix(a.width, b.width, p), mix(a.height, b.height, p)}; }
CGRect mix(CGRect a, CGRect b, double p) { return {mix(a.origin, b.origin, p), mix(a.size, b.size, p)}; }
CATransform3D mix(const CATransform3D& a, const CATransform3D& b, double p) {
    return {mix(a.m11, b.m11, p), mix(a.m12, b.m12, p), mix(a.m13, b.m13, p), mix(a.m14, b.m14, p),
            mix(a.m21, b.m21, p), mix(a.m22, b.m22, p), mix(a.m23, b.m23, p), mix(a.m24, b.m24, p),
            mix(a.m31, b.m31, p), mix(a.m32, b.m32, p), mix(a.m33, b.m33, p), mix(a.m34, b.m34, p),
            mix(a.m41, b.m41, p), mix(a.m42, b.m42, p), mix(a.m43, b.m43, p), mix(a.m44, b.m44, p)};
}

// Rotations about one axis through the origin are interpolated by angle, so that a quarter turn passes through
// the intermediate angles (a component-wise blend would shrink the layer instead of turning it).
struct AxisAngle {
    CGFloat angle = 0;
    CGFloat x = 0, y = 0, z = 0;
};

bool sameMatrix(const CATransform3D& a, const CATransform3D& b) {
    const CGFloat* pa = &a.m11;
    const CGFloat* pb = &b.m11;
    for (int i = 0; i < 16; ++i) {
        if (std::abs(pa[i] - pb[i]) > 1e-9) {
            return false;
        }
    }
    return true;
}

std::optional<AxisAngle> pureRotation(const CATransform3D& t) {
    AxisAngle r;
    r.angle = std::acos(std::clamp((t.m11 + t.m22 + t.m33 - 1) / 2, -1.0, 1.0));
    const CGFloat x = t.m23 - t.m32, y = t.m31 - t.m13, z = t.m12 - t.m21;
    const CGFloat n = std::sqrt(x * x + y * y + z * z);
    if (n > 1e-12) {
        r.x = x / n, r.y = y / n, r.z = z / n;
    } else if (r.angle > 1e-9) {
        return std::nullopt; // a half turn: the axis is not recoverable this way
    }
    const CATransform3D rebuilt = r.angle > 1e-9 ? CATransform3DMakeRotation(r.angle, r.x, r.y, r.z) : CATransform3DIdentity;
    if (!sameMatrix(rebuilt, t)) {
        return std::nullopt;
    }
    return r;
}

std::optional<CATransform3D> mixRotation(const CATransform3D& a, const CATransform3D& b, double p) {
    auto ra = pureRotation(a), rb = pureRotation(b);
    if (!ra || !rb) {
        return std::nullopt;
    }
    const AxisAngle& axis = rb->angle > 1e-9 ? *rb : *ra;
    CGFloat angleA = ra->angle;
    if (ra->angle > 1e-9 && rb->angle > 1e-9) {
        const CGFloat dot = ra->x * rb->x + ra->y * rb->y + ra->z * rb->z;
        if (std::abs(std::abs(dot) - 1) > 1e-9) {
            return std::nullopt;
        }
        if (dot < 0) {
            angleA = -angleA;
        }
    }
    const CGFloat angleB = rb->angle > 1e-9 ? rb->angle : 0;
    if (axis.angle <= 1e-9) {
        return CATransform3DIdentity;
    }
    return CATransform3DMakeRotation(mix(angleA, angleB, p), axis.x, axis.y, axis.z);
}
} // namespace

NSValue CAInterpolateValue(const NSValue& from, const NSValue& to, double p) {
    return std::visit(
        [&](const auto& a) -> NSValue {
            using T = std::decay_t<decltype(a)>;
            const T* b = std::get_if<T>(&to.storage());
            if (b == nullptr) {
                return to;
            }
            if constexpr (std::is_same_v<T, CATransform3D>) {
                if (auto r = mixRotation(a, *b, p)) {
                    return NSValue::valueWithCATransform3D(*r);
                }
                return NSValue::valueWithCATransform3D(mix(a, *b, p));
            } else if constexpr (std::is_same_v<T, CGFloat>) {
                return NSValue::numberWithDouble(mix(a, *b, p));
            } else if constexpr (std::is_same_v<T, CGPoint>) {
                return NSValue::valueWithCGPoint(mix(a, *b, p));
            } else if constexpr (std::is_same_v<T, CGSize>) {
                return NSValue::valueWithCGSize(mix(a, *b, p));
            } else {
                return NSValue::valueWithCGRect(mix(a, *b, p));
            }
        },
        from.storage());
}

} // namespace kp
