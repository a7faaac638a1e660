// SPDX-License-Identifier: MIT
// Media time arithmetic, done in 128 bits so that rescaling never overflows silently.
#include "KPImage/Platform/CMTime.h"

#include <chrono>
#include <cmath>
#include <limits>

namespace kp {

namespace {
using Wide = __int128;

bool fits(Wide v) {
    return v >= std::numeric_limits<int64_t>::min() && v <= std::numeric_limits<int64_t>::max();
}

// value * to / from, rounded to nearest (half away from zero).
Wide rescale(Wide value, Wide from, Wide to) {
    const Wide n = value * to;
    const Wide half = from / 2;
    return n >= 0 ? (n + half) / from : -((-n + half) / from);
}

CMTime combine(CMTime a, CMTime b, int sign) {
    if (!CMTIME_IS_VALID(a) || !CMTIME_IS_VALID(b) || a.timescale <= 0 || b.timescale <= 0) {
        return kCMTimeInvalid;
    }
    const int32_t scale = a.timescale >= b.timescale ? a.timescale : b.timescale;
    const Wide v = rescale(a.value, a.timescale, scale) + sign * rescale(b.value, b.timescale, scale);
    if (!fits(v)) {
        return kCMTimeInvalid;
    }
    return CMTime{static_cast<int64_t>(v), scale, kCMTimeFlags_Valid, 0};
}
} // namespace

CMTime CMTimeMake(int64_t value, int32_t timescale) {
    if (timescale <= 0) {
        return kCMTimeInvalid;
    }
    return CMTime{value, timescale, kCMTimeFlags_Valid, 0};
}

CMTime CMTimeMakeWithSeconds(double seconds, int32_t preferredTimescale) {
    if (!std::isfinite(seconds) || preferredTimescale <= 0) {
        return kCMTimeInvalid;
    }
    const double v = std::round(seconds * preferredTimescale);
    if (!(v >= -9.2e18 && v <= 9.2e18)) {
        return kCMTimeInvalid;
    }
    return CMTime{static_cast<int64_t>(v), preferredTimescale, kCMTimeFlags_Valid, 0};
}

double CMTimeGetSeconds(CMTime time) {
    if (!CMTIME_IS_VALID(time) || time.timescale <= 0) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    return static_cast<double>(time.value) / time.timescale;
}

int32_t CMTimeCompare(CMTime a, CMTime b) {
    const bool va = CMTIME_IS_VALID(a) && a.timescale > 0;
    const bool vb = CMTIME_IS_VALID(b) && b.timescale > 0;
    if (!va || !vb) {
        return va == vb ? 0 : (va ? 1 : -1);
    }
    const Wide l = static_cast<Wide>(a.value) * b.timescale;
    const Wide r = static_cast<Wide>(b.value) * a.timescale;
    return l < r ? -1 : (l > r ? 1 : 0);
}

CMTime CMTimeAdd(CMTime a, CMTime b) { return combine(a, b, 1); }
CMTime CMTimeSubtract(CMTime a, CMTime b) { return combine(a, b, -1); }

CMTime CMTimeConvertScale(CMTime time, int32_t newTimescale) {
    if (!CMTIME_IS_VALID(time) || time.timescale <= 0 || newTimescale <= 0) {
        return kCMTimeInvalid;
    }
    const Wide v = rescale(time.value, time.timescale, newTimescale);
    if (!fits(v)) {
        return kCMTimeInvalid;
    }
    CMTime out{static_cast<int64_t>(v), newTimescale, kCMTimeFlags_Valid, time.epoch};
    if (static_cast<Wide>(out.value) * time.timescale != static_cast<Wide>(time.value) * newTimescale) {
        out.flags |= kCMTimeFlags_HasBeenRounded;
    }
    return out;
}

CMTime CMClockGetHostTimeNow() {
    const auto ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch());
    return CMTime{static_cast<int64_t>(ns.count()), 1000000000, kCMTimeFlags_Valid, 0};
}

} // namespace kp
