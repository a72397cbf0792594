// Monotonic high-resolution counter for measuring intervals. Free to call from
// any thread; takes no lock.
#pragma once

#include <cstdint>

// Last value read by HighResClock::Now(); written without a guard, read by no one.
extern uint64_t g_HighResClockLastNow;

class HighResClock {
public:
    // Counter value (monotonic, nanoseconds); also stored in g_HighResClockLastNow.
    static uint64_t Now();
    // Counts per second of Now().
    static uint64_t Frequency();
    // (end - start) * 1,000,000 / Frequency(), without intermediate overflow.
    static int64_t ElapsedMicroseconds(uint64_t start, uint64_t end);
};
