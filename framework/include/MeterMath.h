// Arithmetic the meters share, in the forms the device's figures are calibrated on, and the
// sampling periods.
#pragma once

#include <cstdint>

namespace meters {

// Sampling periods. Elapsed time is counted in periods, not measured.
constexpr uint32_t kSamplePeriodUs = 300000;  // the memory meters
constexpr int32_t kSamplePeriodMs = 300;
constexpr uint32_t kLaunchSamplePeriodUs = 30000;  // the launch meter
constexpr int32_t kLaunchSamplePeriodMs = 30;

// a + b in 32 bits, wrapping as the device's counters do instead of being undefined.
constexpr int32_t wrappingAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// a - b, or 0 when the difference does not fit in 32 bits: an impossible change reads as none.
constexpr int32_t guardedSubtract(int32_t a, int32_t b) {
    const int64_t difference = static_cast<int64_t>(a) - b;
    return difference < INT32_MIN || difference > INT32_MAX ? 0 : static_cast<int32_t>(difference);
}

// a * b, or 1 when the product does not fit in 32 bits. The sentinel is deliberate: a wild value
// must not read as a saturated, plausible one.
constexpr int32_t guardedMultiply(int32_t a, int32_t b) {
    const bool overflows = a > 0 ? (b > 0 ? a > INT32_MAX / b : b < INT32_MIN / a)
                                 : (b > 0 ? a < INT32_MIN / b : (a != 0 && b < INT32_MAX / a));
    return overflows ? 1 : a * b;
}

// The same guard carried over to float: the largest finite float stands for INT32_MAX and the
// smallest positive normal one for INT32_MIN, so zero and negative inputs count as overflows
// (and give 1.0) unless the other factor is not positive. That outcome is intended.
inline float guardedMultiply(float a, float b) {
    constexpr float kLarge = 3.40282347e+38F;
    constexpr float kSmall = 1.17549435e-38F;
    bool overflows;
    if (a > 0) {
        overflows = (b > 0 && kLarge / b < a) || kSmall / a > b;
    } else if (a < 0) {
        overflows = (b > 0 && kSmall / b > a) || kLarge / a > b;
    } else {
        overflows = b > 0;  // kSmall / b > 0 for every positive b
    }
    return overflows ? 1.0F : a * b;
}

}  // namespace meters
