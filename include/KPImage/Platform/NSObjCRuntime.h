// SPDX-License-Identifier: MIT
// The runtime's version number and class lookup, for code that adapts to what the platform offers.
#pragma once

#include <string_view>

namespace kp {

/// The version of the platform's foundation layer: this platform layer offers what the 8.0 release does (the
/// preferred stabilisation mode, the metadata output).
inline constexpr double NSFoundationVersionNumber = 1140.11;

/// True when the platform has a class of that name (its capture, layer and view classes).
bool NSClassFromString(std::string_view name);

} // namespace kp
