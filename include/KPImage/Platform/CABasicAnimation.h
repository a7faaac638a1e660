// SPDX-License-Identifier: MIT
// Basic animations of layer properties: a key path, a duration, from- and to-values, auto-reverse.
#pragma once

#include "KPImage/Platform/CATransform3D.h"
#include "KPImage/Platform/Geometry.h"

#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace kp {

/// A boxed value for animations: a number, point, size, rectangle or 3-D transform.
class NSValue {
public:
    using Storage = std::variant<CGFloat, CGPoint, CGSize, CGRect, CATransform3D>;
    static NSValue numberWithDouble(double v) { return NSValue(Storage{CGFloat(v)}); }
    static NSValue valueWithCGPoint(CGPoint p) { return NSValue(Storage{p}); }
    static NSValue valueWithCGSize(CGSize s) { return NSValue(Storage{s}); }
    static NSValue valueWithCGRect(CGRect r) { return NSValue(Storage{r}); }
    static NSValue valueWithCATransform3D(const CATransform3D& t) { return NSValue(Storage{t}); }
    const Storage& storage() const { return _value; }
    /// The number; 0 for another kind of value.
    CGFloat doubleValue() const;
    /// The transform; the identity for another kind of value.
    CATransform3D CATransform3DValue() const;

private:
    explicit NSValue(Storage v) : _value(v) {}
    Storage _value;
};

/// An animation of one layer property from one value to another, linear in time. Animations are shared
/// objects; a layer takes a copy when one is added, so changing it afterwards does not change the running one.
class CABasicAnimation {
public:
    static std::shared_ptr<CABasicAnimation> animationWithKeyPath(const std::string& keyPath);

    /// The animated property: "transform", "opacity", "position", "bounds", "borderWidth", "lineWidth".
    const std::string& keyPath() const { return _keyPath; }
    void setKeyPath(const std::string& keyPath) { _keyPath = keyPath; }
    /// Seconds of one pass; 0 (the default) means 0.25 s, as on the platform.
    double duration() const { return _duration; }
    void setDuration(double seconds) { _duration = seconds; }
    /// Where the animation starts and ends; nil means the layer's model value.
    const std::optional<NSValue>& fromValue() const { return _fromValue; }
    void setFromValue(std::optional<NSValue> value) { _fromValue = std::move(value); }
    const std::optional<NSValue>& toValue() const { return _toValue; }
    void setToValue(std::optional<NSValue> value) { _toValue = std::move(value); }
    /// Runs back to the start after reaching the end (doubling the time).
    bool autoreverses() const { return _autoreverses; }
    void setAutoreverses(bool autoreverses) { _autoreverses = autoreverses; }
    /// Passes to run (0 means 1).
    double repeatCount() const { return _repeatCount; }
    void setRepeatCount(double count) { _repeatCount = count; }

    /// Seconds one pass takes (the default duration applied).
    double effectiveDuration() const;
    /// Seconds until the animation is over: passes x duration, doubled when it autoreverses.
    double activeDuration() const;
    /// Where the animation stands elapsed seconds after it began: 0 at the from-value, 1 at the to-value; nil
    /// once it is over (and before it began).
    std::optional<double> progressAt(double elapsed) const;

private:
    std::string _keyPath;
    double _duration = 0;
    std::optional<NSValue> _fromValue;
    std::optional<NSValue> _toValue;
    bool _autoreverses = false;
    double _repeatCount = 0;
};

/// The value between from and to at progress p (0..1), component by component; to when the kinds differ.
NSValue CAInterpolateValue(const NSValue& from, const NSValue& to, double p);

} // namespace kp
