// SPDX-License-Identifier: MIT
// Colours: named colours and making a colour current in the image context.
#include "KPImage/Platform/UIColor.h"

#include "KPImage/Platform/UIGraphics.h"

#include <algorithm>

namespace kp {

namespace {
CGFloat unit(CGFloat v) { return std::isfinite(v) ? std::clamp(v, 0.0, 1.0) : 0.0; }
} // namespace

UIColor UIColor::colorWithRed(CGFloat red, CGFloat green, CGFloat blue, CGFloat alpha) {
    return UIColor(kp::CGColor{unit(red), unit(green), unit(blue), unit(alpha)});
}
UIColor UIColor::colorWithWhite(CGFloat white, CGFloat alpha) { return colorWithRed(white, white, white, alpha); }
UIColor UIColor::blackColor() { return colorWithRed(0, 0, 0, 1); }
UIColor UIColor::whiteColor() { return colorWithRed(1, 1, 1, 1); }
UIColor UIColor::grayColor() { return colorWithRed(0.5, 0.5, 0.5, 1); }
UIColor UIColor::redColor() { return colorWithRed(1, 0, 0, 1); }
UIColor UIColor::greenColor() { return colorWithRed(0, 1, 0, 1); }
UIColor UIColor::blueColor() { return colorWithRed(0, 0, 1, 1); }
UIColor UIColor::yellowColor() { return colorWithRed(1, 1, 0, 1); }
UIColor UIColor::clearColor() { return colorWithRed(0, 0, 0, 0); }

void UIColor::set() const {
    setFill();
    setStroke();
}

void UIColor::setFill() const {
    if (auto ctx = UIGraphicsGetCurrentContext()) {
        ctx->setFillColor(_color);
    }
}

void UIColor::setStroke() const {
    if (auto ctx = UIGraphicsGetCurrentContext()) {
        ctx->setStrokeColor(_color);
    }
}

} // namespace kp
