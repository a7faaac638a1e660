// SPDX-License-Identifier: MIT
// The progress circle view: clamped properties, the ring drawing and the one-degree step worker.
#include "KPImage/KPProgressCircleView.h"

#include "KPImage/Platform/CGContextPath.h"
#include "KPImage/Platform/Dispatch.h"
#include "KPImage/Platform/NSThread.h"
#include "KPImage/Platform/UIGraphics.h"

#include <algorithm>
#include <cmath>
#include <thread>

extern "C" {
const int32_t INNER_BORDER_RADIUS_PERCENTAGE = 8;
const kp::CGFloat kAngleOffset = -90.0;
}

namespace kp {

namespace {
constexpr auto kRelaxed = std::memory_order_relaxed;
constexpr double kStepSleep = 0.002;
constexpr CGFloat kTop = -1.5707963267948966;

// min with the maximum, then max with 0, both in single precision.
CGFloat clampSingle(CGFloat value, CGFloat maximum) {
    const float v = std::fmax(std::fmin(static_cast<float>(value), static_cast<float>(maximum)), 0.0f);
    return static_cast<CGFloat>(v);
}
} // namespace

std::shared_ptr<KPProgressCircleView> KPProgressCircleView::initWithFrame(CGRect frame) {
    auto view = std::make_shared<KPProgressCircleView>(frame);
    view->baseInit();
    return view;
}

KPProgressCircleView::KPProgressCircleView(CGRect frame) : UIView(frame) {}

KPProgressCircleView::~KPProgressCircleView() = default;

void KPProgressCircleView::baseInit() {
    setMaximumValue(100);
    setCenterSize(0);
}

void KPProgressCircleView::setValue(CGFloat value) {
    if (_continousAnimation.load(kRelaxed)) {
        return;
    }
    _invert.store(false, kRelaxed);
    _value.store(clampSingle(value, _maxValue.load(kRelaxed)), kRelaxed);
    doAnmiation();
}

void KPProgressCircleView::setValue(CGFloat value, bool animated) {
    if (animated) {
        setValue(value);
        return;
    }
    _value.store(value, kRelaxed);
    _counterValue.store(value, kRelaxed);
    postRedraw();
}

void KPProgressCircleView::setMaximumValue(CGFloat maximumValue) {
    if (_continousAnimation.load(kRelaxed)) {
        return;
    }
    const CGFloat maximum = static_cast<CGFloat>(std::fmax(static_cast<float>(maximumValue), 1.0f));
    _maxValue.store(maximum, kRelaxed);
    setValue(clampSingle(_value.load(kRelaxed), maximum));
}

namespace {
// A colour that is made (and kept) on first read when unset.
UIColor colorOrDefault(std::optional<UIColor>& color, UIColor (*makeDefault)()) {
    if (!color) {
        color = makeDefault();
    }
    return *color;
}
} // namespace

UIColor KPProgressCircleView::trackColor() { return colorOrDefault(_trackColor, UIColor::greenColor); }
UIColor KPProgressCircleView::borderColor() { return colorOrDefault(_borderColor, UIColor::greenColor); }
UIColor KPProgressCircleView::tintColor() { return colorOrDefault(_tintColor, UIColor::clearColor); }

void KPProgressCircleView::setTrackColor(std::optional<UIColor> color) {
    _trackColor = color;
    setNeedsDisplay();
}

void KPProgressCircleView::setBorderColor(std::optional<UIColor> color) {
    _borderColor = color;
    setNeedsDisplay();
}

void KPProgressCircleView::setTintColor(std::optional<UIColor> color) {
    _tintColor = color;
    setNeedsDisplay();
}

void KPProgressCircleView::setBorderSize(CGFloat borderSize) {
    _borderSize = std::fmax(borderSize, 0.0);
    setNeedsDisplay();
}

void KPProgressCircleView::setBorderOffsetMargin(CGFloat margin) {
    _borderOffsetMargin = std::fmax(margin, 0.0);
    setNeedsDisplay();
}

void KPProgressCircleView::setInterierOffsetMargin(CGFloat margin) {
    _interierOffsetMargin = std::fmax(margin, 0.0);
    setNeedsDisplay();
}

void KPProgressCircleView::setCenterSize(CGFloat centerSize) {
    _centerSize = std::fmax(centerSize, 0.0);
    _centerSize = std::fmin(_interierOffsetMargin, centerSize);
    setNeedsDisplay();
}

CGFloat KPProgressCircleView::convertToAngle(CGFloat value) const {
    return ((value / _maxValue.load(kRelaxed)) * 360.0 + (-90.0)) / 180.0 * 3.141592653589793;
}

CGRect KPProgressCircleView::calculateDrawRectFromRect(CGRect rect, CGFloat circleWidth) const {
    CGRect square = rect;
    if (rect.size.width > rect.size.height) {
        square = CGRectInset(rect, (rect.size.width - rect.size.height) / 2, 0);
    } else if (rect.size.height > rect.size.width) {
        square = CGRectInset(rect, 0, (rect.size.height - rect.size.width) / 2);
    }
    return CGRectInset(square, circleWidth, circleWidth);
}

void KPProgressCircleView::drawRect(CGRect rect) {
    CGContextRef context = UIGraphicsGetCurrentContext();
    const CGRect circle = calculateDrawRectFromRect(rect, _borderSize);

    tintColor().set();
    CGContextFillEllipseInRect(context, circle);

    borderColor().set();
    CGContextSetLineWidth(context, _borderSize);
    CGContextStrokeEllipseInRect(context, circle);

    const CGFloat cx = CGRectGetMidX(rect);
    const CGFloat cy = CGRectGetMidY(rect);

    trackColor().set();
    if (_centerSize > 0) {
        const CGFloat s = _centerSize;
        const CGRect disc = CGRectMake(cx - s, cy - s, 2 * s, 2 * s);
        CGContextFillEllipseInRect(context, disc);
        CGContextStrokeEllipseInRect(context, disc);
    }

    const CGFloat top = _borderSize > 0 ? _borderSize + _borderOffsetMargin : 0;
    const CGFloat counter = _counterValue.load(kRelaxed);
    const CGFloat a = convertToAngle(counter);
    const CGFloat R = cy - top;
    if (_interierOffsetMargin > R - 1) {
        _interierOffsetMargin = R - 1;
    }

    if (value() == 0 && counter == 0) {
        CGContextSetLineWidth(context, 1.0);
        const CGPoint line[2] = {{cx, cy - _interierOffsetMargin}, {cx, top}};
        CGContextAddLines(context, line, 2);
        CGContextDrawPath(context, kCGPathStroke);
        return;
    }

    const bool inverted = _invert.load(kRelaxed);
    const CGFloat ri = R - (R - _interierOffsetMargin);
    CGContextMoveToPoint(context, cx, top);
    CGContextAddLineToPoint(context, cx, cy - _interierOffsetMargin);
    CGContextAddArc(context, cx, cy, ri, kTop, a, inverted ? 1 : 0);
    const float af = static_cast<float>(a);
    CGContextAddLineToPoint(context, cx + R * static_cast<CGFloat>(std::cos(af)),
                            cy + R * static_cast<CGFloat>(std::sin(af)));
    CGContextAddArc(context, cx, cy, R, a, kTop, inverted ? 0 : 1);
    CGContextDrawPath(context, kCGPathFill);
}

void KPProgressCircleView::startAnimating() {
    setHidden(false);
    while (_animating.load(kRelaxed)) {
        _stopAnimationCalled.store(true, kRelaxed);
        std::this_thread::yield();
    }
    _stopAnimationCalled.store(false, kRelaxed);
    _continousAnimation.store(true, kRelaxed);
    _value.store(_maxValue.load(kRelaxed), kRelaxed);
    doAnmiation();
}

void KPProgressCircleView::stopAnimating() {
    if (_hideWhenAnimationStops) {
        setHidden(true);
    }
    _stopAnimationCalled.store(true, kRelaxed);
    _continousAnimation.store(false, kRelaxed);
    _value.store(_counterValue.load(kRelaxed), kRelaxed);
}

void KPProgressCircleView::doAnmiation() {
    {
        std::lock_guard lock(_lock);
        if (_animating.load(kRelaxed)) {
            return;
        }
        _animating.store(true, kRelaxed);
    }
    auto self = std::static_pointer_cast<KPProgressCircleView>(shared_from_this());
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [self] { self->runSteps(); });
}

void KPProgressCircleView::runSteps() {
    if (_stopAnimationCalled.load(kRelaxed)) {
        _animating.store(false, kRelaxed);
        _stopAnimationCalled.store(false, kRelaxed);
        return;
    }
    do {
        if (_value.load(kRelaxed) == _counterValue.load(kRelaxed)) {
            if (!_continousAnimation.load(kRelaxed)) {
                break;
            }
            _counterValue.store(0, kRelaxed);
            _invert.store(!_invert.load(kRelaxed), kRelaxed);
        }
        const CGFloat step = _maxValue.load(kRelaxed) / 360.0;
        if (std::fabs(_value.load(kRelaxed) - _counterValue.load(kRelaxed)) < step) {
            _counterValue.store(_value.load(kRelaxed), kRelaxed);
        }
        const CGFloat counter = _counterValue.load(kRelaxed);
        const CGFloat value = _value.load(kRelaxed);
        _counterValue.store(counter > value ? counter - step : counter < value ? counter + step : value, kRelaxed);
        postRedraw();
        sleepBetweenSteps(kStepSleep);
    } while (!_stopAnimationCalled.load(kRelaxed));
    _animating.store(false, kRelaxed);
    _stopAnimationCalled.store(false, kRelaxed);
}

void KPProgressCircleView::postRedraw() {
    auto self = std::static_pointer_cast<KPProgressCircleView>(shared_from_this());
    dispatch_async(dispatch_get_main_queue(), [self] { self->setNeedsDisplay(); });
}

void KPProgressCircleView::sleepBetweenSteps(double seconds) { NSThread::sleepForTimeInterval(seconds); }

} // namespace kp
