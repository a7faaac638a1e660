// SPDX-License-Identifier: MIT
// The layer renderer: walks a layer tree and draws it with Cairo at presentation values.
#include "KPImage/Platform/CARenderer.h"

#include "KPImage/Platform/UIGraphics.h"
#include "Platform/UI/CairoImageSource.h"

#include <cairo.h>

#include <cmath>

namespace kp {

namespace {

void setColor(cairo_t* cr, const CGColor& c) { cairo_set_source_rgba(cr, c.red, c.green, c.blue, c.alpha); }

void renderLayer(cairo_t* cr, CALayer& layer, CGFloat scale, bool isRoot) {
    if (layer.delegate() != nullptr && layer.contentsScale() != scale) {
        layer.setContentsScale(scale);
    }
    layer.displayIfNeeded();
    if (layer.isHidden()) {
        return;
    }
    const float opacity = layer.presentationOpacity();
    if (opacity <= 0) {
        return;
    }
    const CGRect bounds = layer.presentationBounds();
    cairo_save(cr);
    if (isRoot) {
        cairo_translate(cr, -bounds.origin.x, -bounds.origin.y);
    } else {
        // Layer space: bounds about the anchor point, then the transform, then the position in the superlayer.
        const CGPoint anchor = layer.anchorPoint();
        const CGPoint position = layer.presentationPosition();
        CGAffineTransform m = CGAffineTransformMakeTranslation(-bounds.origin.x - anchor.x * bounds.size.width,
                                                               -bounds.origin.y - anchor.y * bounds.size.height);
        m = CGAffineTransformConcat(m, CATransform3DProjectedAffineTransform(layer.presentationTransform()));
        m = CGAffineTransformConcat(m, CGAffineTransformMakeTranslation(position.x, position.y));
        const CGFloat det = m.a * m.d - m.b * m.c;
        if (!std::isfinite(det) || std::abs(det) < 1e-12 || !std::isfinite(m.tx) || !std::isfinite(m.ty)) {
            cairo_restore(cr); // edge-on (or degenerate): the layer covers no area
            return;
        }
        cairo_matrix_t cm;
        cairo_matrix_init(&cm, m.a, m.b, m.c, m.d, m.tx, m.ty);
        cairo_transform(cr, &cm);
    }
    const bool group = opacity < 1;
    if (group) {
        cairo_push_group(cr);
    }
    if (const auto& bg = layer.backgroundColor();
        bg && bounds.size.width > 0 && bounds.size.height > 0 && !layer.contentsCoverBoundsOpaquely()) {
        cairo_rectangle(cr, bounds.origin.x, bounds.origin.y, bounds.size.width, bounds.size.height);
        setColor(cr, *bg);
        cairo_fill(cr);
    }
    if (layer.masksToBounds()) {
        cairo_rectangle(cr, bounds.origin.x, bounds.origin.y, bounds.size.width, bounds.size.height);
        cairo_clip(cr);
    }
    layer.drawContents(cr, scale);
    // A copy: drawing must not be disturbed by a tree that changes underneath (a display callback may).
    const std::vector<std::shared_ptr<CALayer>> sublayers = layer.sublayers();
    for (const auto& sublayer : sublayers) {
        renderLayer(cr, *sublayer, scale, false);
    }
    const CGFloat border = layer.presentationValueForKeyPath("borderWidth")->doubleValue();
    if (const auto& bc = layer.borderColor(); bc && border > 0 && bounds.size.width > 0 && bounds.size.height > 0) {
        // The border lies inside the bounds: four bands along the edges (rectangles that do not overlap, which
        // Cairo fills fastest), or the whole bounds when the border is wider than half of them.
        const CGFloat x = bounds.origin.x, y = bounds.origin.y, w = bounds.size.width, h = bounds.size.height;
        if (2 * border < w && 2 * border < h) {
            cairo_rectangle(cr, x, y, w, border);
            cairo_rectangle(cr, x, y + h - border, w, border);
            cairo_rectangle(cr, x, y + border, border, h - 2 * border);
            cairo_rectangle(cr, x + w - border, y + border, border, h - 2 * border);
        } else {
            cairo_rectangle(cr, x, y, w, h);
        }
        setColor(cr, *bc);
        cairo_fill(cr);
    }
    if (group) {
        cairo_pop_group_to_source(cr);
        cairo_paint_with_alpha(cr, opacity);
    }
    cairo_restore(cr);
}

} // namespace

void CALayer::drawContents(cairo_t* cr, CGFloat /*scale*/) {
    const CGRect b = bounds();
    if (!_contents || b.size.width <= 0 || b.size.height <= 0) {
        return;
    }
    CairoImageSource source(_contents);
    if (source.surface() == nullptr) {
        return;
    }
    cairo_save(cr);
    cairo_rectangle(cr, b.origin.x, b.origin.y, b.size.width, b.size.height);
    cairo_clip(cr);
    cairo_translate(cr, b.origin.x, b.origin.y);
    cairo_scale(cr, b.size.width / static_cast<double>(source.width()),
                b.size.height / static_cast<double>(source.height()));
    cairo_set_source_surface(cr, source.surface(), 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_BILINEAR);
    cairo_paint(cr);
    cairo_restore(cr);
}

void CARenderLayerTree(cairo_t* cr, CALayer& root, CGFloat scale) {
    if (cr == nullptr || cairo_status(cr) != CAIRO_STATUS_SUCCESS) {
        return;
    }
    if (!std::isfinite(scale) || scale <= 0) {
        scale = 1;
    }
    renderLayer(cr, root, scale, true);
}

std::optional<UIImage> CARenderLayerToImage(const std::shared_ptr<CALayer>& root, CGSize size, CGFloat scale) {
    if (!root) {
        return std::nullopt;
    }
    if (!std::isfinite(scale) || scale <= 0) {
        scale = 1;
    }
    UIGraphicsBeginImageContextWithOptions(size, false, scale);
    auto context = UIGraphicsGetCurrentContext();
    if (!context) {
        return std::nullopt; // nothing was pushed
    }
    CARenderLayerTree(context->cairo(), *root, scale);
    auto image = UIGraphicsGetImageFromCurrentImageContext();
    UIGraphicsEndImageContext();
    return image;
}

} // namespace kp
