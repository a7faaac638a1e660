// SPDX-License-Identifier: MIT
// The layer renderer: draws a layer tree with Cairo, into a host's Cairo context or a new image.
#pragma once

#include "KPImage/Platform/CALayer.h"
#include "KPImage/Platform/UIImage.h"

#include <memory>
#include <optional>

typedef struct _cairo cairo_t;

namespace kp {

/// Draws the tree of root on cr (main thread): root in its own coordinates (the origin of its bounds at cr's
/// origin, its position and transform ignored), every sublayer at its presentation geometry. Layers whose
/// contents are out of date display first (at scale, the device pixels per point of cr). Draws backgrounds,
/// contents, sublayers in order (later ones on top) and borders, clipped by masksToBounds, with group opacity,
/// skipping hidden layers and layers turned edge-on.
void CARenderLayerTree(cairo_t* cr, CALayer& root, CGFloat scale);

/// A new image of the tree of root (main thread): size in points, scale pixels per point (0 means 1), a
/// transparent background. Nil for a null root, an empty size or one too large for a bitmap.
std::optional<UIImage> CARenderLayerToImage(const std::shared_ptr<CALayer>& root, CGSize size, CGFloat scale);

} // namespace kp
