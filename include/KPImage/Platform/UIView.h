// SPDX-License-Identifier: MIT
// Views: a rectangle in a view tree, backed by a layer, that can draw itself in drawRect.
#pragma once

#include "KPImage/Platform/CALayer.h"
#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/UIColor.h"
#include "KPImage/Platform/UIImage.h"

#include <memory>
#include <optional>
#include <vector>

namespace kp {

/// A view. Views are shared objects (make them with initWithFrame or std::make_shared of a subclass); a view
/// owns its layer and holds its subviews strongly and its superview weakly. Main thread only, as on the
/// platform. drawRect runs on the main queue after setNeedsDisplay (several requests coalesce into one
/// drawing), when a subclass's view first gets a non-empty size, and after each size change once it has drawn,
/// with UIGraphicsGetCurrentContext giving a context in the view's bounds coordinates; what it
/// draws becomes the layer's contents.
class UIView : public std::enable_shared_from_this<UIView>, public CALayerDelegate {
public:
    static std::shared_ptr<UIView> initWithFrame(CGRect frame);
    explicit UIView(CGRect frame);
    ~UIView() override;
    UIView(const UIView&) = delete;
    UIView& operator=(const UIView&) = delete;

    /// The view's rectangle in its superview (its layer's frame).
    CGRect frame() const;
    virtual void setFrame(CGRect frame);
    /// The view's own coordinates (origin and size); changing the size keeps the centre.
    CGRect bounds() const;
    /// Subclasses may override to react to size changes (a host window passes its size here).
    virtual void setBounds(CGRect bounds);
    CGPoint center() const;
    void setCenter(CGPoint center);

    /// The backing layer (same object for the view's life).
    const std::shared_ptr<CALayer>& layer() const { return _layer; }

    /// Adds the view on top of the subviews, taking it out of its old superview first. Ignores null, the view
    /// itself and its ancestors.
    void addSubview(const std::shared_ptr<UIView>& view);
    void removeFromSuperview();
    std::shared_ptr<UIView> superview() const { return _superview.lock(); }
    const std::vector<std::shared_ptr<UIView>>& subviews() const { return _subviews; }

    bool isHidden() const;
    void setHidden(bool hidden);
    /// Nil (the default) draws no background.
    const std::optional<UIColor>& backgroundColor() const { return _backgroundColor; }
    void setBackgroundColor(std::optional<UIColor> color);
    CGFloat alpha() const;
    void setAlpha(CGFloat alpha);

    /// Asks for drawRect on the main queue (coalesced).
    void setNeedsDisplay();
    /// Draws the view's picture; the base view draws nothing. rect is the bounds.
    virtual void drawRect(CGRect rect);

    void drawLayerInContext(CALayer& layer, const CGContextRef& context) override;

protected:
    /// Whether drawRect draws anything: such a view is drawn when it first gets a non-empty size. True for
    /// subclasses, false for the base view; a subclass whose drawRect draws nothing answers false and gets no bitmap.
    virtual bool drawsContent() const;

private:
    void redrawIfResized(CGSize old);

    std::shared_ptr<CALayer> _layer;
    std::weak_ptr<UIView> _superview;
    std::vector<std::shared_ptr<UIView>> _subviews;
    std::optional<UIColor> _backgroundColor;
};

/// A new image of the view tree (main thread): the view's bounds at size points and scale pixels per point (0
/// means 1), transparent where nothing is drawn. Nil for a null view, an empty or too large size.
std::optional<UIImage> UIViewRenderToImage(const std::shared_ptr<UIView>& view, CGSize size, CGFloat scale);

} // namespace kp
