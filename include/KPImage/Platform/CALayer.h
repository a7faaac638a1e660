// SPDX-License-Identifier: MIT
// Layers: a retained tree of rectangles with geometry, colours, borders, opacity, transforms, contents and
// animations, drawn by the layer renderer (CARenderer.h).
#pragma once

#include "KPImage/Platform/CABasicAnimation.h"
#include "KPImage/Platform/CATransform3D.h"
#include "KPImage/Platform/CGContext.h"
#include "KPImage/Platform/CGImage.h"
#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/UIColor.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kp {

class CALayer;

/// Draws a layer's contents when the layer displays (a view is the delegate of its layer). Borrowed: the
/// delegate clears itself from the layer before it goes.
class CALayerDelegate {
public:
    virtual ~CALayerDelegate() = default;
    /// Draws into context, whose coordinates are the layer's bounds (origin top-left, y down).
    virtual void drawLayerInContext(CALayer& layer, const CGContextRef& context) = 0;
};

/// A layer. Layers are shared objects; a layer holds its sublayers strongly and its superlayer weakly. Every
/// method is for the main thread (debug builds log a call from another thread). The geometry follows the
/// platform: position is where the anchor point (default the centre) of the bounds sits in the superlayer,
/// the transform turns the layer about its anchor point, and frame is derived from them.
class CALayer : public std::enable_shared_from_this<CALayer> {
public:
    static std::shared_ptr<CALayer> layer();
    CALayer();
    virtual ~CALayer();
    CALayer(const CALayer&) = delete;
    CALayer& operator=(const CALayer&) = delete;

    // Geometry.
    /// The bounding box of the transformed bounds in the superlayer's coordinates; CGRectNull while the last
    /// geometry change was setFrame with the null rectangle.
    CGRect frame() const;
    /// Sets bounds size and position so that the untransformed layer covers rect. The null rectangle is kept
    /// (frame reports it, the bounds become empty) until the next frame, bounds or position change; other
    /// rectangles with an infinite or NaN value are ignored.
    void setFrame(CGRect rect);
    CGRect bounds() const { return _bounds; }
    void setBounds(CGRect bounds);
    CGPoint position() const { return _position; }
    void setPosition(CGPoint position);
    /// In unit coordinates of the bounds; default (0.5, 0.5).
    CGPoint anchorPoint() const { return _anchorPoint; }
    void setAnchorPoint(CGPoint anchorPoint);
    const CATransform3D& transform() const { return _transform; }
    void setTransform(const CATransform3D& transform);
    CGAffineTransform affineTransform() const { return CATransform3DGetAffineTransform(_transform); }
    void setAffineTransform(const CGAffineTransform& m) { setTransform(CATransform3DMakeAffineTransform(m)); }

    // The tree.
    const std::vector<std::shared_ptr<CALayer>>& sublayers() const { return _sublayers; }
    /// Null for a root layer.
    std::shared_ptr<CALayer> superlayer() const { return _superlayer.lock(); }
    /// Appends the layer on top of the others, taking it out of its old superlayer first. Ignores null, the
    /// layer itself and its ancestors.
    void addSublayer(const std::shared_ptr<CALayer>& layer);
    /// Inserts at index (clamped to the count) after taking the layer out of its old superlayer.
    void insertSublayer(const std::shared_ptr<CALayer>& layer, size_t index);
    void removeFromSuperlayer();

    // Appearance.
    /// Nil (the default) draws no background.
    const std::optional<CGColor>& backgroundColor() const { return _backgroundColor; }
    void setBackgroundColor(std::optional<CGColor> color);
    CGFloat borderWidth() const { return _borderWidth; }
    /// The border is drawn inside the bounds, above the contents and the sublayers.
    void setBorderWidth(CGFloat width);
    /// Default opaque black; nil draws no border.
    const std::optional<CGColor>& borderColor() const { return _borderColor; }
    void setBorderColor(std::optional<CGColor> color);
    bool masksToBounds() const { return _masksToBounds; }
    /// Clips contents and sublayers to the bounds.
    void setMasksToBounds(bool masks);
    bool isHidden() const { return _hidden; }
    void setHidden(bool hidden);
    /// 0..1 (clamped); the layer and its sublayers are composited as a group with this alpha.
    float opacity() const { return _opacity; }
    void setOpacity(float opacity);
    /// An image drawn stretched over the bounds (what display() makes for a layer with a delegate).
    const CGImageRef& contents() const { return _contents; }
    void setContents(CGImageRef contents);
    /// Pixels of contents per point (default 1).
    CGFloat contentsScale() const { return _contentsScale; }
    void setContentsScale(CGFloat scale);
    const std::string& name() const { return _name; }
    void setName(std::string name) { _name = std::move(name); }

    // Display.
    /// Marks the contents out of date and queues one display on the main queue (several calls coalesce).
    void setNeedsDisplay();
    bool needsDisplay() const { return _needsDisplay; }
    /// Redraws the contents now through the delegate into a new bitmap of bounds x contentsScale (layers without
    /// a delegate keep theirs). Clears needsDisplay.
    void display();
    void displayIfNeeded();
    /// For the renderer: draws what the layer itself shows above its background (contents stretched over the
    /// bounds here; a shape, the camera picture in subclasses), in the layer's coordinates on cr. scale is
    /// the number of device pixels per point.
    virtual void drawContents(cairo_t* cr, CGFloat scale);
    /// For the renderer: true when drawContents paints every point of the bounds opaquely, so the background
    /// under it need not be drawn. False here.
    virtual bool contentsCoverBoundsOpaquely() const { return false; }
    /// Borrowed; see CALayerDelegate.
    CALayerDelegate* delegate() const { return _delegate; }
    void setDelegate(CALayerDelegate* delegate) { _delegate = delegate; }
    /// Draws the tree of this layer into a context in the layer's own coordinates (as the renderer does).
    void renderInContext(const CGContextRef& context);

    // Animations.
    /// Adds a copy of the animation under key (an empty key gets a unique one); the same key replaces a running
    /// animation. It begins now on the main run loop's clock. Ignores null.
    void addAnimation(const std::shared_ptr<CABasicAnimation>& animation, const std::string& key);
    /// The running animation under key (a copy of the one added); null when none.
    std::shared_ptr<CABasicAnimation> animationForKey(const std::string& key) const;
    std::vector<std::string> animationKeys() const;
    void removeAnimationForKey(const std::string& key);
    void removeAllAnimations();
    /// The value the renderer draws at the main run loop's current time: the model value changed by running
    /// animations. Finished animations are removed here; the model value is never changed by them.
    CATransform3D presentationTransform() const;
    float presentationOpacity() const;
    CGPoint presentationPosition() const;
    CGRect presentationBounds() const;
    /// The model value of an animatable key path ("transform", "opacity", ...); nil for other key paths.
    virtual std::optional<NSValue> valueForKeyPath(const std::string& keyPath) const;
    /// The presentation value of a key path: the model value, or the running animation's value.
    std::optional<NSValue> presentationValueForKeyPath(const std::string& keyPath) const;
    /// True while an animation in this tree is running (a host keeps redrawing meanwhile).
    bool hasRunningAnimationsInTree() const;

    /// Called (on the main thread) whenever something a renderer draws has changed in any layer: a host window
    /// redraws then. Replaces the previous handler; empty removes it. Any thread may set it.
    static void setRenderRequestHandler(std::function<void()> handler);
    /// Tells the render request handler that the tree needs drawing. Any thread: from another thread the call
    /// is forwarded to the main queue.
    static void requestRender();

protected:
    /// Logs a call from a thread other than the main thread (debug builds only).
    static void checkMainThread(const char* operation);
    /// Something this layer draws changed.
    void didChange() const;

private:
    struct RunningAnimation {
        std::string key;
        std::shared_ptr<CABasicAnimation> animation;
        double beginTime = 0;
    };
    void pruneFinishedAnimations() const;
    bool isAncestorOrSelf(const CALayer* other) const;
    void detach();

    CGRect _bounds = CGRectZero;
    bool _frameIsNull = false;
    CGPoint _position = CGPointZero;
    CGPoint _anchorPoint{0.5, 0.5};
    CATransform3D _transform = CATransform3DIdentity;
    std::vector<std::shared_ptr<CALayer>> _sublayers;
    std::weak_ptr<CALayer> _superlayer;
    std::optional<CGColor> _backgroundColor;
    CGFloat _borderWidth = 0;
    std::optional<CGColor> _borderColor = CGColor{0, 0, 0, 1};
    bool _masksToBounds = false;
    bool _hidden = false;
    float _opacity = 1;
    CGImageRef _contents;
    CGFloat _contentsScale = 1;
    std::string _name;
    bool _needsDisplay = false;
    bool _displayQueued = false;
    CALayerDelegate* _delegate = nullptr;
    mutable std::vector<RunningAnimation> _animations;
    uint64_t _unnamedAnimations = 0;
};

} // namespace kp
