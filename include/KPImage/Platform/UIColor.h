// SPDX-License-Identifier: MIT
// Colours of the platform layer: an RGBA colour and the named colours the library draws with.
#pragma once

#include "KPImage/Platform/Geometry.h"

namespace kp {

/// A device-RGB colour with straight alpha, components in 0..1.
struct CGColor {
    CGFloat red = 0, green = 0, blue = 0, alpha = 1;
    friend bool operator==(const CGColor&, const CGColor&) = default;
};

/// The platform colour object.
class UIColor {
public:
    UIColor() = default;
    static UIColor colorWithRed(CGFloat red, CGFloat green, CGFloat blue, CGFloat alpha);
    static UIColor colorWithWhite(CGFloat white, CGFloat alpha);
    static UIColor blackColor();
    static UIColor whiteColor();
    static UIColor grayColor();
    static UIColor redColor();
    static UIColor greenColor();
    static UIColor blueColor();
    static UIColor yellowColor();
    static UIColor clearColor();

    kp::CGColor CGColor() const { return _color; }
    /// Makes the colour current for fill and stroke in the current image context (no-op without one).
    void set() const;
    /// Makes the colour current for fill in the current image context.
    void setFill() const;
    /// Makes the colour current for stroke in the current image context.
    void setStroke() const;

    friend bool operator==(const UIColor&, const UIColor&) = default;

private:
    explicit UIColor(kp::CGColor c) : _color(c) {}
    kp::CGColor _color;
};

} // namespace kp
