// SPDX-License-Identifier: MIT
// Layers: geometry, the tree, appearance, display of contents and running animations.
#include "KPImage/Platform/CALayer.h"

#include "KPImage/Platform/CARenderer.h"
#include "KPImage/Platform/Dispatch.h"
#include "KPImage/Platform/NSRunLoop.h"
#include "KPImage/Platform/NSThread.h"
#include "KPImage/Platform/SystemLog.h"
#include "KPImage/Platform/UIGraphics.h"
#include "Platform/Graphics/FiniteGeometry.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>

namespace kp {

using detail::finitePoint;
using detail::finiteRect;

namespace {

struct RenderRequests {
    std::mutex mutex;
    std::function<void()> handler;
    std::atomic<bool> forwarded{false};
};
RenderRequests& renderRequests() {
    static RenderRequests* requests = new RenderRequests; // lives until the process ends
    return *requests;
}

double now() { return NSRunLoop::mainRunLoop().currentTime(); }
} // namespace

std::shared_ptr<CALayer> CALayer::layer() { return std::make_shared<CALayer>(); }

CALayer::CALayer() = default;

CALayer::~CALayer() {
    for (auto& sublayer : _sublayers) {
        sublayer->_superlayer.reset();
    }
}

void CALayer::checkMainThread([[maybe_unused]] const char* operation) {
#ifndef NDEBUG
    if (!NSThread::isMainThread()) {
        NSLog("CALayer: %s called off the main thread", operation);
    }
#endif
}

void CALayer::setRenderRequestHandler(std::function<void()> handler) {
    auto& r = renderRequests();
    std::lock_guard lock(r.mutex);
    r.handler = std::move(handler);
}

void CALayer::requestRender() {
    auto& r = renderRequests();
    if (!NSThread::isMainThread()) {
        if (!r.forwarded.exchange(true, std::memory_order_acq_rel)) {
            dispatch_async(dispatch_get_main_queue(), [] {
                renderRequests().forwarded.store(false, std::memory_order_release);
                requestRender();
            });
        }
        return;
    }
    std::function<void()> handler;
    {
        std::lock_guard lock(r.mutex);
        handler = r.handler;
    }
    if (handler) {
        handler();
    }
}

void CALayer::didChange() const { requestRender(); }

CGRect CALayer::frame() const {
    checkMainThread("frame");
    if (_frameIsNull) {
        return CGRectNull;
    }
    // The bounds around the anchor point, transformed, then placed at the position.
    const CGRect local = CGRectMake(-_anchorPoint.x * _bounds.size.width, -_anchorPoint.y * _bounds.size.height,
                                    _bounds.size.width, _bounds.size.height);
    CGAffineTransform t = CATransform3DProjectedAffineTransform(_transform);
    t = CGAffineTransformConcat(t, CGAffineTransformMakeTranslation(_position.x, _position.y));
    return CGRectApplyAffineTransform(local, t);
}

void CALayer::setFrame(CGRect rect) {
    checkMainThread("setFrame:");
    if (CGRectIsNull(rect)) {
        // The null rectangle (what an inset larger than the rectangle gives) is kept and reported as it is; the
        // layer has no area meanwhile, so nothing of it is drawn.
        _frameIsNull = true;
        _bounds.size = CGSizeZero;
        didChange();
        return;
    }
    if (!finiteRect(rect)) {
        return;
    }
    _frameIsNull = false;
    rect = CGRectStandardize(rect);
    _bounds.size = rect.size;
    _position = CGPointMake(rect.origin.x + _anchorPoint.x * rect.size.width,
                            rect.origin.y + _anchorPoint.y * rect.size.height);
    didChange();
}

void CALayer::setBounds(CGRect bounds) {
    checkMainThread("setBounds:");
    if (finiteRect(bounds)) {
        _frameIsNull = false;
        _bounds = CGRectStandardize(bounds);
        didChange();
    }
}

void CALayer::setPosition(CGPoint position) {
    checkMainThread("setPosition:");
    if (finitePoint(position)) {
        _frameIsNull = false;
        _position = position;
        didChange();
    }
}

void CALayer::setAnchorPoint(CGPoint anchorPoint) {
    checkMainThread("setAnchorPoint:");
    if (finitePoint(anchorPoint)) {
        _anchorPoint = anchorPoint;
        didChange();
    }
}

void CALayer::setTransform(const CATransform3D& transform) {
    checkMainThread("setTransform:");
    const CGFloat* m = &transform.m11;
    if (std::all_of(m, m + 16, [](CGFloat v) { return std::isfinite(v); })) {
        _transform = transform;
        didChange();
    }
}

bool CALayer::isAncestorOrSelf(const CALayer* other) const {
    for (const CALayer* l = this; l != nullptr;) {
        if (l == other) {
            return true;
        }
        auto up = l->_superlayer.lock();
        l = up.get(); // the tree above holds it while we walk
    }
    return false;
}

void CALayer::detach() {
    if (auto parent = _superlayer.lock()) {
        auto& siblings = parent->_sublayers;
        siblings.erase(std::remove_if(siblings.begin(), siblings.end(), [this](const auto& l) { return l.get() == this; }),
                       siblings.end());
        parent->didChange();
    }
    _superlayer.reset();
}

void CALayer::addSublayer(const std::shared_ptr<CALayer>& layer) {
    insertSublayer(layer, _sublayers.size() + 1);
}

void CALayer::insertSublayer(const std::shared_ptr<CALayer>& layer, size_t index) {
    checkMainThread("insertSublayer:atIndex:");
    if (!layer || isAncestorOrSelf(layer.get())) {
        return;
    }
    std::shared_ptr<CALayer> keep = layer; // the old superlayer may hold the last other reference
    keep->detach();
    index = std::min(index, _sublayers.size());
    _sublayers.insert(_sublayers.begin() + static_cast<std::ptrdiff_t>(index), keep);
    keep->_superlayer = weak_from_this();
    didChange();
}

void CALayer::removeFromSuperlayer() {
    checkMainThread("removeFromSuperlayer");
    std::shared_ptr<CALayer> keep = shared_from_this();
    detach();
}

void CALayer::setBackgroundColor(std::optional<CGColor> color) {
    checkMainThread("setBackgroundColor:");
    _backgroundColor = color;
    didChange();
}

void CALayer::setBorderWidth(CGFloat width) {
    checkMainThread("setBorderWidth:");
    if (std::isfinite(width)) {
        _borderWidth = std::max(width, 0.0);
        didChange();
    }
}

void CALayer::setBorderColor(std::optional<CGColor> color) {
    checkMainThread("setBorderColor:");
    _borderColor = color;
    didChange();
}

void CALayer::setMasksToBounds(bool masks) {
    checkMainThread("setMasksToBounds:");
    _masksToBounds = masks;
    didChange();
}

void CALayer::setHidden(bool hidden) {
    checkMainThread("setHidden:");
    _hidden = hidden;
    didChange();
}

void CALayer::setOpacity(float opacity) {
    checkMainThread("setOpacity:");
    if (std::isfinite(opacity)) {
        _opacity = std::clamp(opacity, 0.0f, 1.0f);
        didChange();
    }
}

void CALayer::setContents(CGImageRef contents) {
    checkMainThread("setContents:");
    _contents = std::move(contents);
    didChange();
}

void CALayer::setContentsScale(CGFloat scale) {
    checkMainThread("setContentsScale:");
    if (std::isfinite(scale) && scale > 0 && scale != _contentsScale) {
        _contentsScale = scale;
        if (_delegate != nullptr) {
            setNeedsDisplay();
        }
    }
}

void CALayer::setNeedsDisplay() {
    checkMainThread("setNeedsDisplay");
    _needsDisplay = true;
    if (_displayQueued) {
        return;
    }
    _displayQueued = true;
    dispatch_async(dispatch_get_main_queue(), [weak = weak_from_this()] {
        if (auto layer = weak.lock()) {
            layer->_displayQueued = false;
            layer->displayIfNeeded();
        }
    });
}

void CALayer::displayIfNeeded() {
    if (_needsDisplay) {
        display();
    }
}

void CALayer::display() {
    checkMainThread("display");
    _needsDisplay = false;
    if (_delegate == nullptr) {
        // Layers without a delegate keep their contents; the ones that draw (shapes, the camera picture) draw
        // when rendered.
        didChange();
        return;
    }
    if (_bounds.size.width <= 0 || _bounds.size.height <= 0) {
        _contents.reset();
        didChange();
        return;
    }
    UIGraphicsBeginImageContextWithOptions(_bounds.size, false, _contentsScale);
    if (auto context = UIGraphicsGetCurrentContext()) {
        context->setLineWidth(1.0); // the platform's default line width
        context->translateCTM(-_bounds.origin.x, -_bounds.origin.y);
        _delegate->drawLayerInContext(*this, context);
        auto image = UIGraphicsGetImageFromCurrentImageContext();
        _contents = image ? image->CGImage() : nullptr;
    } else {
        _contents.reset(); // too large for a bitmap
    }
    UIGraphicsEndImageContext();
    didChange();
}

void CALayer::renderInContext(const CGContextRef& context) {
    checkMainThread("renderInContext:");
    if (context) {
        CARenderLayerTree(context->cairo(), *this, context->getCTM().a);
    }
}

void CALayer::addAnimation(const std::shared_ptr<CABasicAnimation>& animation, const std::string& key) {
    checkMainThread("addAnimation:forKey:");
    if (!animation) {
        return;
    }
    std::string k = key.empty() ? "animation-" + std::to_string(++_unnamedAnimations) : key;
    removeAnimationForKey(k);
    _animations.push_back({k, std::make_shared<CABasicAnimation>(*animation), now()});
    didChange();
}

std::shared_ptr<CABasicAnimation> CALayer::animationForKey(const std::string& key) const {
    pruneFinishedAnimations();
    for (const auto& a : _animations) {
        if (a.key == key) {
            return a.animation;
        }
    }
    return nullptr;
}

std::vector<std::string> CALayer::animationKeys() const {
    pruneFinishedAnimations();
    std::vector<std::string> keys;
    for (const auto& a : _animations) {
        keys.push_back(a.key);
    }
    return keys;
}

void CALayer::removeAnimationForKey(const std::string& key) {
    std::erase_if(_animations, [&](const RunningAnimation& a) { return a.key == key; });
    didChange();
}

void CALayer::removeAllAnimations() {
    _animations.clear();
    didChange();
}

void CALayer::pruneFinishedAnimations() const {
    const double t = now();
    std::erase_if(_animations, [&](const RunningAnimation& a) {
        return t - a.beginTime >= a.animation->activeDuration();
    });
}

std::optional<NSValue> CALayer::valueForKeyPath(const std::string& keyPath) const {
    if (keyPath == "transform") {
        return NSValue::valueWithCATransform3D(_transform);
    }
    if (keyPath == "opacity") {
        return NSValue::numberWithDouble(_opacity);
    }
    if (keyPath == "position") {
        return NSValue::valueWithCGPoint(_position);
    }
    if (keyPath == "bounds") {
        return NSValue::valueWithCGRect(_bounds);
    }
    if (keyPath == "borderWidth") {
        return NSValue::numberWithDouble(_borderWidth);
    }
    return std::nullopt;
}

std::optional<NSValue> CALayer::presentationValueForKeyPath(const std::string& keyPath) const {
    std::optional<NSValue> value = valueForKeyPath(keyPath);
    if (!value) {
        return value;
    }
    pruneFinishedAnimations();
    const double t = now();
    for (const auto& a : _animations) {
        if (a.animation->keyPath() != keyPath) {
            continue;
        }
        if (auto p = a.animation->progressAt(t - a.beginTime)) {
            const NSValue from = a.animation->fromValue().value_or(*value);
            const NSValue to = a.animation->toValue().value_or(*value);
            value = CAInterpolateValue(from, to, *p);
        }
    }
    return value;
}

CATransform3D CALayer::presentationTransform() const {
    return presentationValueForKeyPath("transform")->CATransform3DValue();
}

float CALayer::presentationOpacity() const {
    return std::clamp(static_cast<float>(presentationValueForKeyPath("opacity")->doubleValue()), 0.0f, 1.0f);
}

CGPoint CALayer::presentationPosition() const {
    const auto v = presentationValueForKeyPath("position");
    const CGPoint* p = std::get_if<CGPoint>(&v->storage());
    return p != nullptr ? *p : _position;
}

CGRect CALayer::presentationBounds() const {
    const auto v = presentationValueForKeyPath("bounds");
    const CGRect* r = std::get_if<CGRect>(&v->storage());
    return r != nullptr ? CGRectStandardize(*r) : _bounds;
}

bool CALayer::hasRunningAnimationsInTree() const {
    pruneFinishedAnimations();
    if (!_animations.empty()) {
        return true;
    }
    return std::any_of(_sublayers.begin(), _sublayers.end(),
                       [](const auto& l) { return l->hasRunningAnimationsInTree(); });
}

} // namespace kp
