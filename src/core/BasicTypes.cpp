#include "BasicTypes.h"

#include "core/SystemClock.h"

// The RTPS timestamp: seconds since 1970 and a 2^-32 fraction, from the
// 100 ns wall clock. The fraction goes through floating point and truncates.
Time_t GetRtpsTimestamp() {
    const uint64_t ticks = SystemClock::FileTimeTicks();
    const uint64_t fraction = ticks % 10000000ULL;
    Time_t t;
    t.sec = static_cast<int32_t>((ticks - 0x019DB1DED53E8000ULL) / 10000000ULL);
    t.nanosec = static_cast<uint32_t>((static_cast<double>(fraction) / 1e7) * 4294967296.0);
    return t;
}
