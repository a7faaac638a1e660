// SPDX-License-Identifier: MIT
// Turning a failed allocation into the nil, NO or empty result the documented API promises (internal).
#pragma once

#include <new>
#include <stdexcept>
#include <utility>

namespace kp::detail {

/// Runs f and returns its result, or fallback when memory runs out while it runs: std::bad_alloc, or
/// std::length_error for a size no container can hold. Buffers sized by a caller (pixels, files) are made
/// inside such a call, so the API above them never throws.
template <typename R, typename F> R orOnAllocationFailure(R fallback, F&& f) noexcept {
    try {
        return std::forward<F>(f)();
    } catch (const std::bad_alloc&) {
    } catch (const std::length_error&) {
    }
    return fallback;
}

/// The same for an operation without a result: it stops where memory ran out.
template <typename F> void onAllocationFailureStop(F&& f) noexcept {
    try {
        std::forward<F>(f)();
    } catch (const std::bad_alloc&) {
    } catch (const std::length_error&) {
    }
}

} // namespace kp::detail
