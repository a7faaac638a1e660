// SPDX-License-Identifier: MIT
// Shape layers: a layer that fills and strokes a path in its own coordinates.
#pragma once

#include "KPImage/Platform/CALayer.h"
#include "KPImage/Platform/CGPath.h"

#include <memory>
#include <optional>
#include <string>

namespace kp {

/// Line caps of shape layers.
using CAShapeLayerLineCap = std::string;
inline const CAShapeLayerLineCap kCALineCapButt = "butt";
inline const CAShapeLayerLineCap kCALineCapRound = "round";
inline const CAShapeLayerLineCap kCALineCapSquare = "square";

/// Fill rules of shape layers.
using CAShapeLayerFillRule = std::string;
inline const CAShapeLayerFillRule kCAFillRuleNonZero = "non-zero";
inline const CAShapeLayerFillRule kCAFillRuleEvenOdd = "even-odd";

/// A layer drawing a path above its background and contents, below its sublayers. Defaults as on the platform:
/// fill opaque black, no stroke, line width 1, butt caps, non-zero fill rule. The path is not clipped to the
/// bounds unless masksToBounds is set. Main thread only, as every layer.
class CAShapeLayer : public CALayer {
public:
    static std::shared_ptr<CAShapeLayer> layer();

    /// The path (shared, not copied); null draws nothing.
    const CGPathRef& path() const { return _path; }
    void setPath(CGPathRef path);
    /// Nil fills nothing.
    const std::optional<CGColor>& fillColor() const { return _fillColor; }
    void setFillColor(std::optional<CGColor> color);
    /// Nil strokes nothing.
    const std::optional<CGColor>& strokeColor() const { return _strokeColor; }
    void setStrokeColor(std::optional<CGColor> color);
    CGFloat lineWidth() const { return _lineWidth; }
    /// Non-negative; other values are ignored.
    void setLineWidth(CGFloat width);
    const CAShapeLayerLineCap& lineCap() const { return _lineCap; }
    /// kCALineCapButt, kCALineCapRound or kCALineCapSquare; other names are ignored.
    void setLineCap(const CAShapeLayerLineCap& cap);
    const CAShapeLayerFillRule& fillRule() const { return _fillRule; }
    void setFillRule(const CAShapeLayerFillRule& rule);

    std::optional<NSValue> valueForKeyPath(const std::string& keyPath) const override;
    void drawContents(cairo_t* cr, CGFloat scale) override;

private:
    CGPathRef _path;
    std::optional<CGColor> _fillColor = CGColor{0, 0, 0, 1};
    std::optional<CGColor> _strokeColor;
    CGFloat _lineWidth = 1;
    CAShapeLayerLineCap _lineCap = kCALineCapButt;
    CAShapeLayerFillRule _fillRule = kCAFillRuleNonZero;
};

} // namespace kp
