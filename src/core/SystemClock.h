// The wall, tick and local-time reads the library needs, behind one wrapper so
// that tests can replace the clock. Free to call from any thread; no lock.
#pragma once

#include <cstdint>

// Broken-down local time with milliseconds.
struct LocalClockTime {
    int year;
    int month;      // 1..12
    int dayOfWeek;  // 0 = Sunday
    int day;        // 1..31
    int hour;
    int minute;
    int second;
    int millisecond;
};

class SystemClock {
public:
    // Offset from 1601-01-01 to 1970-01-01 in 100 ns ticks.
    static constexpr uint64_t FILETIME_UNIX_EPOCH = 116444736000000000ull;

    // 100 ns ticks since 1601-01-01 (UTC).
    static uint64_t FileTimeTicks();
    // Milliseconds since system start, wrapping at 2^32.
    static uint32_t TickCountMs();
    // Seconds since 1970-01-01.
    static int64_t WallSeconds();
    static void LocalTime(LocalClockTime& out);
    static uint32_t ProcessId();
    static void SleepMs(int iMilliseconds);

    // Test seams: replace a clock; nullptr restores the system's.
    typedef uint64_t (*file_time_source)();
    typedef uint32_t (*tick_count_source)();
    static void SetFileTimeSource(file_time_source pSource);
    static void SetTickCountSource(tick_count_source pSource);
};
