// SPDX-License-Identifier: MIT
// Image contexts: a per-thread stack of drawing contexts.
#include "KPImage/Platform/UIGraphics.h"

#include <cmath>
#include <vector>

namespace kp {

namespace {

struct StackEntry {
    CGContextRef context; // null when the context could not be made; the entry keeps Begin/End balanced
    CGFloat scale = 1;
    bool imageContext = true;
};

std::vector<StackEntry>& stack() {
    thread_local std::vector<StackEntry> entries;
    return entries;
}

} // namespace

void UIGraphicsBeginImageContext(CGSize size) { UIGraphicsBeginImageContextWithOptions(size, false, 1.0); }

void UIGraphicsBeginImageContextWithOptions(CGSize size, bool opaque, CGFloat scale) {
    if (!std::isfinite(scale) || scale <= 0) {
        scale = 1.0;
    }
    CGContextRef context;
    const CGFloat w = std::ceil(size.width * scale);
    const CGFloat h = std::ceil(size.height * scale);
    if (std::isfinite(w) && std::isfinite(h) && w >= 1 && h >= 1 && w <= 32767 && h <= 32767) {
        const CGBitmapInfo info = (opaque ? kCGImageAlphaNoneSkipFirst : kCGImageAlphaPremultipliedFirst) |
                                  kCGBitmapByteOrder32Little;
        context = CGBitmapContextCreate(nullptr, static_cast<size_t>(w), static_cast<size_t>(h), 8, 0,
                                        CGColorSpaceCreateDeviceRGB(), info);
        if (context) {
            context->scaleCTM(scale, scale);
        }
    }
    stack().push_back({context, scale, true});
}

CGContextRef UIGraphicsGetCurrentContext() { return stack().empty() ? nullptr : stack().back().context; }

std::optional<UIImage> UIGraphicsGetImageFromCurrentImageContext() {
    if (stack().empty() || !stack().back().context || !stack().back().imageContext) {
        return std::nullopt;
    }
    CGImageRef image = stack().back().context->createImage();
    if (!image) {
        return std::nullopt;
    }
    return UIImage::imageWithCGImage(std::move(image), stack().back().scale, UIImageOrientationUp);
}

void UIGraphicsEndImageContext() {
    if (!stack().empty() && stack().back().imageContext) {
        stack().pop_back();
    }
}

void UIGraphicsPushContext(CGContextRef context) { stack().push_back({std::move(context), 1.0, false}); }

void UIGraphicsPopContext() {
    if (!stack().empty() && !stack().back().imageContext) {
        stack().pop_back();
    }
}

} // namespace kp
