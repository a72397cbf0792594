#include "core/SystemClock.h"

#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include <atomic>

namespace {
std::atomic<SystemClock::file_time_source> g_FileTimeSource{nullptr};
std::atomic<SystemClock::tick_count_source> g_TickCountSource{nullptr};

uint64_t RealFileTimeTicks() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 10000000ull + static_cast<uint64_t>(now.tv_nsec) / 100u +
           SystemClock::FILETIME_UNIX_EPOCH;
}

uint32_t RealTickCountMs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t ms =
        static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
    return static_cast<uint32_t>(ms);
}
}  // namespace

uint64_t SystemClock::FileTimeTicks() {
    const file_time_source pSource = g_FileTimeSource.load();
    return pSource != nullptr ? pSource() : RealFileTimeTicks();
}

uint32_t SystemClock::TickCountMs() {
    const tick_count_source pSource = g_TickCountSource.load();
    return pSource != nullptr ? pSource() : RealTickCountMs();
}

int64_t SystemClock::WallSeconds() {
    return static_cast<int64_t>(time(nullptr));
}

void SystemClock::LocalTime(LocalClockTime& out) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local;
    const time_t seconds = now.tv_sec;
    localtime_r(&seconds, &local);
    out.year = local.tm_year + 1900;
    out.month = local.tm_mon + 1;
    out.dayOfWeek = local.tm_wday;
    out.day = local.tm_mday;
    out.hour = local.tm_hour;
    out.minute = local.tm_min;
    out.second = local.tm_sec;
    out.millisecond = static_cast<int>(now.tv_nsec / 1000000);
}

uint32_t SystemClock::ProcessId() {
    return static_cast<uint32_t>(getpid());
}

void SystemClock::SleepMs(int iMilliseconds) {
    if (iMilliseconds <= 0) {
        sched_yield();
        return;
    }
    struct timespec request;
    request.tv_sec = iMilliseconds / 1000;
    request.tv_nsec = static_cast<long>(iMilliseconds % 1000) * 1000000L;
    // Resume after signals until the whole time has passed.
    while (nanosleep(&request, &request) != 0 && errno == EINTR) {
    }
}

void SystemClock::SetFileTimeSource(file_time_source pSource) {
    g_FileTimeSource.store(pSource);
}

void SystemClock::SetTickCountSource(tick_count_source pSource) {
    g_TickCountSource.store(pSource);
}
