#include "core/SystemClock.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace
{
uint64_t FixedFileTime()
{
    return 0x019DB1DED53E8000ull + 12345ull * 10000000ull + 6789ull;
}

uint32_t NearWrapTicks()
{
    return 0xFFFFFFF0u;
}
} // namespace

TEST(SystemClock, FileTimeCountsFrom1601)
{
    const int64_t wall = SystemClock::WallSeconds();
    const uint64_t ticks = SystemClock::FileTimeTicks();
    ASSERT_GT(ticks, SystemClock::FILETIME_UNIX_EPOCH);
    const int64_t unixSeconds =
        static_cast<int64_t>((ticks - SystemClock::FILETIME_UNIX_EPOCH) / 10000000ull);
    EXPECT_LE(std::llabs(unixSeconds - wall), 2);
    EXPECT_EQ(0x019DB1DED53E8000ull, SystemClock::FILETIME_UNIX_EPOCH);
}

TEST(SystemClock, SourcesCanBeReplacedAndRestored)
{
    SystemClock::SetFileTimeSource(FixedFileTime);
    SystemClock::SetTickCountSource(NearWrapTicks);
    EXPECT_EQ(FixedFileTime(), SystemClock::FileTimeTicks());
    EXPECT_EQ(0xFFFFFFF0u, SystemClock::TickCountMs());

    SystemClock::SetFileTimeSource(nullptr);
    SystemClock::SetTickCountSource(nullptr);
    EXPECT_NE(FixedFileTime(), SystemClock::FileTimeTicks());
    const uint32_t first = SystemClock::TickCountMs();
    SystemClock::SleepMs(20);
    const uint32_t second = SystemClock::TickCountMs();
    const uint32_t elapsed = second - first; // wraps like the 32-bit tick count
    EXPECT_GE(elapsed, 19u);
    EXPECT_LT(elapsed, 1000u);
}

TEST(SystemClock, LocalTimeFieldsInRange)
{
    LocalClockTime now;
    SystemClock::LocalTime(now);
    EXPECT_GE(now.year, 2020);
    EXPECT_GE(now.month, 1);
    EXPECT_LE(now.month, 12);
    EXPECT_GE(now.day, 1);
    EXPECT_LE(now.day, 31);
    EXPECT_GE(now.dayOfWeek, 0);
    EXPECT_LE(now.dayOfWeek, 6);
    EXPECT_LE(now.hour, 23);
    EXPECT_LE(now.minute, 59);
    EXPECT_LE(now.second, 60);
    EXPECT_GE(now.millisecond, 0);
    EXPECT_LE(now.millisecond, 999);
    EXPECT_NE(0u, SystemClock::ProcessId());
}
