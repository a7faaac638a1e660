// SPDX-License-Identifier: MIT
// Media time stamps: a rational time (value / timescale) with validity flags, and the host clock.
#pragma once

#include <cstdint>

namespace kp {

using CMTimeValue = int64_t;
using CMTimeScale = int32_t;
using CMTimeFlags = uint32_t;

inline constexpr CMTimeFlags kCMTimeFlags_Valid = 1U << 0;
inline constexpr CMTimeFlags kCMTimeFlags_HasBeenRounded = 1U << 1;
inline constexpr CMTimeFlags kCMTimeFlags_PositiveInfinity = 1U << 2;
inline constexpr CMTimeFlags kCMTimeFlags_NegativeInfinity = 1U << 3;

/// A time of value / timescale seconds; invalid unless flags has kCMTimeFlags_Valid.
struct CMTime {
    CMTimeValue value = 0;
    CMTimeScale timescale = 0;
    CMTimeFlags flags = 0;
    int64_t epoch = 0;
};

inline constexpr CMTime kCMTimeInvalid{0, 0, 0, 0};
inline constexpr CMTime kCMTimeZero{0, 1, kCMTimeFlags_Valid, 0};

/// value / timescale; invalid for a timescale <= 0.
CMTime CMTimeMake(int64_t value, int32_t timescale);
/// The nearest time in the given timescale; invalid for NaN, infinities or a timescale <= 0.
CMTime CMTimeMakeWithSeconds(double seconds, int32_t preferredTimescale);
/// Seconds as a double; NaN for an invalid time.
double CMTimeGetSeconds(CMTime time);
/// -1, 0 or 1; an invalid time compares less than every valid one.
int32_t CMTimeCompare(CMTime a, CMTime b);
/// a + b in the larger timescale (rounded); invalid when either is invalid or on overflow.
CMTime CMTimeAdd(CMTime a, CMTime b);
/// a - b in the larger timescale (rounded); invalid when either is invalid or on overflow.
CMTime CMTimeSubtract(CMTime a, CMTime b);
/// The same time in another timescale (rounded to nearest); invalid on overflow.
CMTime CMTimeConvertScale(CMTime time, int32_t newTimescale);

inline bool CMTIME_IS_VALID(CMTime t) { return (t.flags & kCMTimeFlags_Valid) != 0; }
inline bool CMTIME_IS_INVALID(CMTime t) { return !CMTIME_IS_VALID(t); }

/// The host clock's time now: monotonic nanoseconds (timescale 1 000 000 000). Capture time stamps use it.
CMTime CMClockGetHostTimeNow();

} // namespace kp
