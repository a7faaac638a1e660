// SPDX-License-Identifier: MIT
// Text drawing of the platform layer: fonts and drawing a string into a rect of the current image context.
#pragma once

#include "KPImage/Platform/Geometry.h"
#include "KPImage/Platform/UIColor.h"

#include <optional>
#include <string>

namespace kp {

/// A font: the fontconfig family "Sans" in regular or bold at a size in points.
class UIFont {
public:
    /// The bold system font ("Sans Bold") of the size in points.
    static UIFont boldSystemFontOfSize(CGFloat fontSize) { return UIFont(fontSize, true); }
    /// The regular system font ("Sans") of the size in points.
    static UIFont systemFontOfSize(CGFloat fontSize) { return UIFont(fontSize, false); }
    CGFloat pointSize() const { return _pointSize; }
    bool isBold() const { return _bold; }
    /// The Pango description of the font, e.g. "Sans Bold".
    std::string fontDescription() const { return _bold ? "Sans Bold" : "Sans"; }

private:
    UIFont(CGFloat pointSize, bool bold) : _pointSize(pointSize), _bold(bold) {}
    CGFloat _pointSize;
    bool _bold;
};

/// Attributes of drawn text. Unset font: the 12-point system font; unset colour: black, whatever fill or
/// stroke colour is set in the context (text takes its colour from the attributes only).
struct NSStringAttributes {
    /// NSFontAttributeName.
    std::optional<UIFont> font;
    /// NSForegroundColorAttributeName.
    std::optional<UIColor> foregroundColor;
    /// NSBaselineOffsetAttributeName: points by which the baseline is raised.
    float baselineOffset = 0;
};

/// Draws UTF-8 text (invalid sequences replaced) into rect of the current image context with Pango: lines
/// start at the rect's top left, wrap at its width and are clipped to it. No-op without a context or for a
/// font size that is not positive.
void NSStringDrawInRect(const std::string& text, CGRect rect, const NSStringAttributes& attributes);

} // namespace kp
