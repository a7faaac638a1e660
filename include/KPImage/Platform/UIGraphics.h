// SPDX-License-Identifier: MIT
// Image contexts of the platform layer: a per-thread stack of drawing contexts that make images.
#pragma once

#include "KPImage/Platform/CGContext.h"
#include "KPImage/Platform/UIImage.h"

#include <optional>

namespace kp {

/// Pushes a new image context of size points (not opaque, scale 1) on this thread's stack. The bitmap is
/// ceil(size * scale) pixels, 32-bit BGRA premultiplied, transparent; no context is pushed for an empty or
/// oversized size (the current context is then null and no image comes out).
void UIGraphicsBeginImageContext(CGSize size);
/// As above with opacity and scale (0 means the screen's scale, 1).
void UIGraphicsBeginImageContextWithOptions(CGSize size, bool opaque, CGFloat scale);
/// The context on top of this thread's stack; null when none is open.
CGContextRef UIGraphicsGetCurrentContext();
/// An image of what the current context holds (scale and orientation up); nil without a context, once a
/// drawing into it failed (CGContext::failed) or when memory for the copy runs out.
std::optional<UIImage> UIGraphicsGetImageFromCurrentImageContext();
/// Pops the current image context (no-op when none is open).
void UIGraphicsEndImageContext();

/// Pushes an existing context as the current one (for drawing a view into a bitmap).
void UIGraphicsPushContext(CGContextRef context);
void UIGraphicsPopContext();

} // namespace kp
