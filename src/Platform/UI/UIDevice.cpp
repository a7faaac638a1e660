// SPDX-License-Identifier: MIT
// The device of the platform layer.
#include "KPImage/Platform/UIDevice.h"

namespace kp {

UIDevice& UIDevice::currentDevice() {
    static UIDevice device;
    return device;
}

} // namespace kp
