// SPDX-License-Identifier: MIT
// Views: geometry through the layer, the subview tree, and drawRect into the layer's contents.
#include "KPImage/Platform/UIView.h"

#include "KPImage/Platform/CARenderer.h"
#include "KPImage/Platform/UIGraphics.h"

#include <algorithm>
#include <typeinfo>

namespace kp {

std::shared_ptr<UIView> UIView::initWithFrame(CGRect frame) { return std::make_shared<UIView>(frame); }

UIView::UIView(CGRect frame) : _layer(CALayer::layer()) {
    _layer->setDelegate(this);
    _layer->setFrame(frame);
}

UIView::~UIView() {
    // The layer may outlive the view (someone else holds it): it must not call back into a dead view.
    _layer->setDelegate(nullptr);
    for (auto& subview : _subviews) {
        subview->_superview.reset();
    }
}

CGRect UIView::frame() const { return _layer->frame(); }

void UIView::setFrame(CGRect frame) {
    const CGSize old = _layer->bounds().size;
    _layer->setFrame(frame);
    redrawIfResized(old);
}

CGRect UIView::bounds() const { return _layer->bounds(); }

void UIView::setBounds(CGRect bounds) {
    const CGSize old = _layer->bounds().size;
    _layer->setBounds(bounds);
    redrawIfResized(old);
}

void UIView::redrawIfResized(CGSize old) {
    const CGSize now = _layer->bounds().size;
    if (old.width == now.width && old.height == now.height) {
        return;
    }
    const bool wasEmpty = old.width <= 0 || old.height <= 0;
    const bool isEmpty = now.width <= 0 || now.height <= 0;
    // A view that draws is drawn again at its new size, and drawn for the first time when it first gets an area
    // (a drawing made at size zero is no picture).
    if (_layer->contents() || (drawsContent() && wasEmpty && !isEmpty)) {
        setNeedsDisplay();
    }
}

CGPoint UIView::center() const { return _layer->position(); }
void UIView::setCenter(CGPoint center) { _layer->setPosition(center); }

void UIView::addSubview(const std::shared_ptr<UIView>& view) {
    if (!view) {
        return;
    }
    for (const UIView* v = this; v != nullptr;) {
        if (v == view.get()) {
            return;
        }
        auto up = v->_superview.lock();
        v = up.get();
    }
    std::shared_ptr<UIView> keep = view;
    keep->removeFromSuperview();
    _subviews.push_back(keep);
    keep->_superview = weak_from_this();
    _layer->addSublayer(keep->_layer);
}

void UIView::removeFromSuperview() {
    if (auto parent = _superview.lock()) {
        std::shared_ptr<UIView> keep = shared_from_this();
        std::erase_if(parent->_subviews, [this](const auto& v) { return v.get() == this; });
        _superview.reset();
    }
    _layer->removeFromSuperlayer();
}

bool UIView::isHidden() const { return _layer->isHidden(); }
void UIView::setHidden(bool hidden) { _layer->setHidden(hidden); }

void UIView::setBackgroundColor(std::optional<UIColor> color) {
    _backgroundColor = color;
    _layer->setBackgroundColor(color ? std::optional<CGColor>(color->CGColor()) : std::nullopt);
}

CGFloat UIView::alpha() const { return _layer->opacity(); }
void UIView::setAlpha(CGFloat alpha) { _layer->setOpacity(static_cast<float>(alpha)); }

void UIView::setNeedsDisplay() { _layer->setNeedsDisplay(); }

void UIView::drawRect(CGRect /*rect*/) {}

bool UIView::drawsContent() const { return typeid(*this) != typeid(UIView); }

void UIView::drawLayerInContext(CALayer& /*layer*/, const CGContextRef& context) {
    // drawRect finds its context as the current one.
    UIGraphicsPushContext(context);
    drawRect(bounds());
    UIGraphicsPopContext();
}

std::optional<UIImage> UIViewRenderToImage(const std::shared_ptr<UIView>& view, CGSize size, CGFloat scale) {
    return view ? CARenderLayerToImage(view->layer(), size, scale) : std::nullopt;
}

} // namespace kp
