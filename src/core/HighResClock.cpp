#include "core/HighResClock.h"

#include <time.h>

uint64_t g_HighResClockLastNow = 0;

uint64_t HighResClock::Now() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t value =
        static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
    g_HighResClockLastNow = value;
    return value;
}

uint64_t HighResClock::Frequency() {
    return 1000000000ull;
}

int64_t HighResClock::ElapsedMicroseconds(uint64_t start, uint64_t end) {
    const int64_t diff = static_cast<int64_t>(end - start);
    const int64_t frequency = static_cast<int64_t>(Frequency());
    // Split so that a nanosecond counter does not overflow after a few hours;
    // gives the same truncated result as diff * 1000000 / frequency.
    return diff / frequency * 1000000 + diff % frequency * 1000000 / frequency;
}
