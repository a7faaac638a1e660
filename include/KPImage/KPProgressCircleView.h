// SPDX-License-Identifier: MIT
// The progress circle view: a ring sector from the top, clockwise, growing to a value out of a maximum, moved
// towards the set value in one-degree steps by a background worker; also an endless busy indicator.
#pragma once

#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/UIColor.h"
#include "KPImage/Platform/UIView.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

extern "C" {
/// 8 (exported; the view does not read it).
extern const int32_t INNER_BORDER_RADIUS_PERCENTAGE;
/// -90.0 (exported; the view uses its own literal).
extern const kp::CGFloat kAngleOffset;
}

namespace kp {

/// The progress circle. Setters, drawing, startAnimating and stopAnimating are for the main thread; the step
/// worker runs on the global queue and posts each redraw to the main queue. Values shared with the worker are
/// relaxed atomics.
class KPProgressCircleView : public UIView {
public:
    /// A new view: the view's initialiser, then baseInit (maximum 100, value 0, centre size 0).
    static std::shared_ptr<KPProgressCircleView> initWithFrame(CGRect frame);
    explicit KPProgressCircleView(CGRect frame);
    ~KPProgressCircleView() override;

    /// setMaximumValue: 100, then setCenterSize: 0. Runs after construction (initWithFrame calls it).
    void baseInit();

    CGFloat value() const { return _value.load(std::memory_order_relaxed); }
    /// Ignored in the endless mode; otherwise clears invert, clamps to [0, maximum] in single precision and
    /// starts the step worker.
    void setValue(CGFloat value);
    /// animated YES: setValue. NO: value and counter set unclamped at once, one redraw posted to the main queue.
    void setValue(CGFloat value, bool animated);
    CGFloat maximumValue() const { return _maxValue.load(std::memory_order_relaxed); }
    /// Ignored in the endless mode; otherwise max(value, 1) in single precision, then the value clamped again.
    void setMaximumValue(CGFloat maximumValue);

    /// Colours, created on first read when unset: green track and border, clear tint.
    UIColor trackColor();
    void setTrackColor(std::optional<UIColor> color);
    UIColor borderColor();
    void setBorderColor(std::optional<UIColor> color);
    UIColor tintColor();
    void setTintColor(std::optional<UIColor> color);

    CGFloat borderSize() const { return _borderSize; }
    void setBorderSize(CGFloat borderSize);
    CGFloat borderOffsetMargin() const { return _borderOffsetMargin; }
    void setBorderOffsetMargin(CGFloat margin);
    /// The sector's inner radius; drawing lowers it for good to the outer radius less 1 when it is larger.
    CGFloat interierOffsetMargin() const { return _interierOffsetMargin; }
    void setInterierOffsetMargin(CGFloat margin);
    CGFloat centerSize() const { return _centerSize; }
    /// Stores max(size, 0), then min(interierOffsetMargin, size): set the inner margin first.
    void setCenterSize(CGFloat centerSize);

    uint8_t hideWhenAnimationStops() const { return _hideWhenAnimationStops; }
    void setHideWhenAnimationStops(uint8_t hide) { _hideWhenAnimationStops = hide; }
    bool continousAnimation() const { return _continousAnimation.load(std::memory_order_relaxed); }
    void setContinousAnimation(bool on) { _continousAnimation.store(on, std::memory_order_relaxed); }
    bool animating() const { return _animating.load(std::memory_order_relaxed); }
    void setAnimating(bool on) { _animating.store(on, std::memory_order_relaxed); }
    bool stopAnimationCalled() const { return _stopAnimationCalled.load(std::memory_order_relaxed); }
    void setStopAnimationCalled(bool on) { _stopAnimationCalled.store(on, std::memory_order_relaxed); }
    bool invert() const { return _invert.load(std::memory_order_relaxed); }
    void setInvert(bool on) { _invert.store(on, std::memory_order_relaxed); }
    CGFloat counterValue() const { return _counterValue.load(std::memory_order_relaxed); }
    void setCounterValue(CGFloat value) { _counterValue.store(value, std::memory_order_relaxed); }

    /// Radians of a value: ((value / maximum) x 360 - 90) / 180 x pi.
    CGFloat convertToAngle(CGFloat value) const;
    /// The largest square centred in rect, inset by width on every side.
    CGRect calculateDrawRectFromRect(CGRect rect, CGFloat circleWidth) const;

    /// The endless mode: shows the view, waits for a running worker to end, then fills and empties the ring
    /// without end.
    void startAnimating();
    /// Hides the view when hideWhenAnimationStops, ends the worker after its current step and freezes the ring.
    void stopAnimating();
    /// Starts the step worker on the global queue unless one is running (it then picks up the new value).
    void doAnmiation();

    void drawRect(CGRect rect) override;

protected:
    /// The worker's pause between steps (0.002 s); a test may stand a stepped clock in for the real one.
    virtual void sleepBetweenSteps(double seconds);

private:
    void runSteps();
    void postRedraw();

    uint8_t _hideWhenAnimationStops = 0;
    std::atomic<bool> _continousAnimation{false};
    std::atomic<bool> _animating{false};
    std::atomic<bool> _stopAnimationCalled{false};
    std::atomic<bool> _invert{false};
    std::atomic<CGFloat> _value{0};
    std::atomic<CGFloat> _maxValue{0};
    std::optional<UIColor> _trackColor;
    std::optional<UIColor> _borderColor;
    std::optional<UIColor> _tintColor;
    CGFloat _borderSize = 0;
    CGFloat _borderOffsetMargin = 0;
    CGFloat _interierOffsetMargin = 0;
    CGFloat _centerSize = 0;
    std::atomic<CGFloat> _counterValue{0};
    std::recursive_mutex _lock; // the lock keyed by the view: guards the worker's test-and-set of _animating
};

} // namespace kp
