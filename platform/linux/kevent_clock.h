/// Clocks in nanoseconds, and sums of times that do not overflow.
#ifndef RV_PLATFORM_LINUX_KEVENT_CLOCK_H
#define RV_PLATFORM_LINUX_KEVENT_CLOCK_H

#include <stdint.h>
#include <time.h>

namespace rvkevent {

inline constexpr int64_t kNsPerSecond = 1'000'000'000;

/// A clock's time in nanoseconds.
inline int64_t clockNs(clockid_t clock) {
    timespec ts{};
    (void)clock_gettime(clock, &ts);  // fails for unknown clocks only
    return ts.tv_sec * kNsPerSecond + ts.tv_nsec;
}

/// a * b and a + b, held within int64_t.
inline int64_t mulClamped(int64_t a, int64_t b) {
    int64_t result = 0;
    if (!__builtin_mul_overflow(a, b, &result)) return result;
    return (a < 0) == (b < 0) ? INT64_MAX : INT64_MIN;
}

inline int64_t addClamped(int64_t a, int64_t b) {
    int64_t result = 0;
    if (!__builtin_add_overflow(a, b, &result)) return result;
    return b < 0 ? INT64_MIN : INT64_MAX;
}

}  // namespace rvkevent

#endif
