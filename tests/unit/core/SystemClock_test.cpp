#include "core/SystemClock.h"

#include <gtest/gtest.h>

#include <cstdlib>

TEST(SystemClock, FileTimeCountsFrom1601AndLocalTimeIsCalendar) {
    const int64_t wall = SystemClock::WallSeconds();
    const uint64_t ticks = SystemClock::FileTimeTicks();
    ASSERT_GT(ticks, SystemClock::FILETIME_UNIX_EPOCH);
    EXPECT_LE(std::llabs(int64_t((ticks - SystemClock::FILETIME_UNIX_EPOCH) / 10000000ull) - wall), 2);

    LocalClockTime now;
    SystemClock::LocalTime(now);
    EXPECT_GE(now.year, 2020);
    EXPECT_GE(now.month, 1);
    EXPECT_LE(now.month, 12);
    EXPECT_GE(now.day, 1);
    EXPECT_LE(now.dayOfWeek, 6);
    EXPECT_LE(now.millisecond, 999);
}

TEST(SystemClock, TickCountSourceIsReplacedAndRestored) {
    SystemClock::SetTickCountSource([] { return 0xFFFFFFF0u; });
    EXPECT_EQ(0xFFFFFFF0u, SystemClock::TickCountMs());
    SystemClock::SetTickCountSource(nullptr);
    const uint32_t first = SystemClock::TickCountMs();
    SystemClock::SleepMs(20);
    const uint32_t elapsed = SystemClock::TickCountMs() - first;
    EXPECT_GE(elapsed, 19u);
    EXPECT_LT(elapsed, 1000u);
}
