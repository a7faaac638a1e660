// SPDX-License-Identifier: MIT
// Shape layers: path, colours, line width and cap, drawn with Cairo.
#include "KPImage/Platform/CAShapeLayer.h"

#include "Platform/UI/CairoPath.h"

#include <cairo.h>

#include <cmath>

namespace kp {

namespace {
// False when every subpath is a single straight segment (or a lone point): such a path fills nothing, and the
// fill is skipped rather than rasterised.
bool canEncloseArea(const CGPath& path) {
    int segments = 0;
    for (const auto& e : path.elements()) {
        switch (e.type) {
        case CGPathElement::Type::MoveToPoint: segments = 0; break;
        case CGPathElement::Type::AddLineToPoint:
            if (++segments >= 2) {
                return true;
            }
            break;
        case CGPathElement::Type::AddCurveToPoint: return true;
        case CGPathElement::Type::CloseSubpath: break;
        }
    }
    return false;
}
} // namespace

std::shared_ptr<CAShapeLayer> CAShapeLayer::layer() { return std::make_shared<CAShapeLayer>(); }

void CAShapeLayer::setPath(CGPathRef path) {
    checkMainThread("setPath:");
    _path = std::move(path);
    didChange();
}

void CAShapeLayer::setFillColor(std::optional<CGColor> color) {
    checkMainThread("setFillColor:");
    _fillColor = color;
    didChange();
}

void CAShapeLayer::setStrokeColor(std::optional<CGColor> color) {
    checkMainThread("setStrokeColor:");
    _strokeColor = color;
    didChange();
}

void CAShapeLayer::setLineWidth(CGFloat width) {
    checkMainThread("setLineWidth:");
    if (std::isfinite(width) && width >= 0) {
        _lineWidth = width;
        didChange();
    }
}

void CAShapeLayer::setLineCap(const CAShapeLayerLineCap& cap) {
    checkMainThread("setLineCap:");
    if (cap == kCALineCapButt || cap == kCALineCapRound || cap == kCALineCapSquare) {
        _lineCap = cap;
        didChange();
    }
}

void CAShapeLayer::setFillRule(const CAShapeLayerFillRule& rule) {
    checkMainThread("setFillRule:");
    if (rule == kCAFillRuleNonZero || rule == kCAFillRuleEvenOdd) {
        _fillRule = rule;
        didChange();
    }
}

std::optional<NSValue> CAShapeLayer::valueForKeyPath(const std::string& keyPath) const {
    if (keyPath == "lineWidth") {
        return NSValue::numberWithDouble(_lineWidth);
    }
    return CALayer::valueForKeyPath(keyPath);
}

void CAShapeLayer::drawContents(cairo_t* cr, CGFloat scale) {
    CALayer::drawContents(cr, scale);
    if (!_path || _path->isEmpty() || (!_fillColor && !_strokeColor)) {
        return;
    }
    cairo_save(cr);
    cairo_new_path(cr);
    appendPathToCairo(cr, *_path);
    if (_fillColor && canEncloseArea(*_path)) {
        cairo_set_fill_rule(cr, _fillRule == kCAFillRuleEvenOdd ? CAIRO_FILL_RULE_EVEN_ODD : CAIRO_FILL_RULE_WINDING);
        cairo_set_source_rgba(cr, _fillColor->red, _fillColor->green, _fillColor->blue, _fillColor->alpha);
        cairo_fill_preserve(cr);
    }
    const CGFloat width = presentationValueForKeyPath("lineWidth")->doubleValue();
    if (_strokeColor && width > 0) {
        cairo_set_line_width(cr, width);
        cairo_set_line_cap(cr, _lineCap == kCALineCapRound    ? CAIRO_LINE_CAP_ROUND
                               : _lineCap == kCALineCapSquare ? CAIRO_LINE_CAP_SQUARE
                                                              : CAIRO_LINE_CAP_BUTT);
        cairo_set_line_join(cr, CAIRO_LINE_JOIN_MITER);
        cairo_set_source_rgba(cr, _strokeColor->red, _strokeColor->green, _strokeColor->blue, _strokeColor->alpha);
        cairo_stroke_preserve(cr);
    }
    cairo_new_path(cr);
    cairo_restore(cr);
}

} // namespace kp
