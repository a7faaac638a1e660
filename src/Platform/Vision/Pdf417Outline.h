// SPDX-License-Identifier: MIT
// The outline of a PDF417 symbol from its start and stop patterns, and the plausibility of a code's corners.
#pragma once

#include "Platform/Vision/LumaImage.h"

#include "KPImage/Platform/Geometry.h"

#include <array>
#include <optional>

namespace kp {

/// Whether four corners (bottom-left, bottom-right, top-right, top-left) can outline a printed code seen roughly
/// face-on: no two corners within minSide pixels of each other, no crossing sides, each side within a factor of
/// its opposite side's length, and the corners going round the same way as an upright code's.
bool isPlausibleCodeOutline(const std::array<CGPoint, 4>& corners, double minSide = 4.0);

/// The corners of the PDF417 symbol in a picture whose rows of modules run along one of its axes give or take a
/// few degrees, at any quarter turn: [0] bottom-left, [1] bottom-right, [2] top-right, [3] top-left of the symbol
/// as seen upright, in the picture's pixels. The left and right edges are lines fitted through the outer edges of
/// the start and stop patterns found on the picture's rows (or columns); the top and bottom are where those
/// patterns begin and end. Nothing when either pattern is found on too few lines or the outline is implausible.
/// down, when given, is roughly the symbol's downward direction in the picture (from its top-left corner to its
/// bottom-left one): the quarter turn it points to is looked at first, the others only when that one fails.
std::optional<std::array<CGPoint, 4>> findPdf417Outline(const LumaImage& image,
                                                        std::optional<CGPoint> down = std::nullopt);

} // namespace kp
