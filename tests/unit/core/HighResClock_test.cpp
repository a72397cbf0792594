#include "core/HighResClock.h"

#include <gtest/gtest.h>

#include <thread>

TEST(HighResClock, NowIsMonotonicAndStoresTheGlobal) {
    const uint64_t first = HighResClock::Now();
    EXPECT_EQ(first, g_HighResClockLastNow);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const int64_t elapsed = HighResClock::ElapsedMicroseconds(first, HighResClock::Now());
    EXPECT_GE(elapsed, 19000);
    EXPECT_LT(elapsed, 1000000);
}

TEST(HighResClock, ElapsedMicrosecondsArithmetic) {
    const uint64_t frequency = HighResClock::Frequency();
    EXPECT_EQ(-1000000, HighResClock::ElapsedMicroseconds(frequency, 0));
    // Ten days of counts: the product with 1,000,000 would overflow 64 bits.
    EXPECT_EQ(864000LL * 1000000, HighResClock::ElapsedMicroseconds(1000, 1000 + frequency * 864000));
    // Truncation as in (end - start) * 1,000,000 / frequency.
    const uint64_t oneAndAHalfMicro = frequency * 3 / 2000000;
    EXPECT_EQ(1, HighResClock::ElapsedMicroseconds(0, oneAndAHalfMicro));
    EXPECT_EQ(-1, HighResClock::ElapsedMicroseconds(oneAndAHalfMicro, 0));
}
