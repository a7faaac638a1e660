// SPDX-License-Identifier: MIT
// The device of the platform layer: its current orientation, which the host sets (default portrait).
#pragma once

#include <atomic>
#include <cstdint>

namespace kp {

/// Device orientations, values as the platform numbers them.
enum UIDeviceOrientation : int32_t {
    UIDeviceOrientationUnknown = 0,
    UIDeviceOrientationPortrait = 1,
    UIDeviceOrientationPortraitUpsideDown = 2,
    UIDeviceOrientationLandscapeLeft = 3,
    UIDeviceOrientationLandscapeRight = 4,
    UIDeviceOrientationFaceUp = 5,
    UIDeviceOrientationFaceDown = 6,
};

/// The device the library runs on. A desktop has no orientation sensor: the host reports the orientation
/// (for example from a tablet's accelerometer or a rotated display); until then it is portrait.
class UIDevice {
public:
    /// The process-wide device.
    static UIDevice& currentDevice();

    /// The current orientation; safe from any thread.
    UIDeviceOrientation orientation() const {
        return static_cast<UIDeviceOrientation>(_orientation.load(std::memory_order_relaxed));
    }
    /// Sets the current orientation (any value passes through unchanged); safe from any thread.
    void setOrientation(UIDeviceOrientation orientation) {
        _orientation.store(orientation, std::memory_order_relaxed);
    }

    UIDevice(const UIDevice&) = delete;
    UIDevice& operator=(const UIDevice&) = delete;

private:
    UIDevice() = default;
    std::atomic<int32_t> _orientation{UIDeviceOrientationPortrait};
};

} // namespace kp
