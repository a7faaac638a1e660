// SPDX-License-Identifier: MIT
// Finite-value checks for the geometry that drawing and layers accept: a NaN or infinite coordinate is ignored.
#pragma once

#include "KPImage/Platform/Geometry.h"

#include <cmath>

namespace kp::detail {

inline bool finite(CGFloat v) {
    return std::isfinite(v);
}
inline bool finitePoint(CGPoint p) {
    return finite(p.x) && finite(p.y);
}
inline bool finiteRect(CGRect r) {
    return finite(r.origin.x) && finite(r.origin.y) && finite(r.size.width) && finite(r.size.height);
}

} // namespace kp::detail
