#include "core/Semaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {
using Clock = std::chrono::steady_clock;

long long ElapsedMs(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}
}  // namespace

TEST(Semaphore, CountIsBoundedByTheMaximum) {
    Semaphore byDefault;  // one token, maximum one
    EXPECT_EQ(0, byDefault.Wait(0));
    EXPECT_EQ(-100, byDefault.Wait(0));

    Semaphore clamped(5, 2);  // the initial count is clamped too
    EXPECT_EQ(0, clamped.Wait(0));
    EXPECT_EQ(0, clamped.Wait(0));
    EXPECT_EQ(-100, clamped.Wait(0));
    EXPECT_EQ(0, clamped.Post());
    EXPECT_EQ(0, clamped.Post());
    EXPECT_NE(0, clamped.Post());  // refused beyond the maximum, count kept
    EXPECT_EQ(0, clamped.Wait(0));
    EXPECT_EQ(0, clamped.Wait(0));
    const auto start = Clock::now();
    EXPECT_EQ(-100, clamped.Wait(0));
    EXPECT_LT(ElapsedMs(start), 50);
}

TEST(Semaphore, TimedWaitHonoursTheLimit) {
    Semaphore semaphore(0, 1);
    const auto start = Clock::now();
    EXPECT_EQ(-100, semaphore.Wait(120));
    const long long elapsed = ElapsedMs(start);
    EXPECT_GE(elapsed, 115);
    EXPECT_LT(elapsed, 1000);
}

TEST(Semaphore, PostReleasesWaitersOnOtherThreads) {
    Semaphore semaphore(0, 3);
    std::atomic<int> released{0};
    auto wait = [&](unsigned int uiMs) {
        if (semaphore.Wait(uiMs) == 0) ++released;
    };
    std::thread timed(wait, 5000u);
    std::thread infinite(wait, Semaphore::INFINITE_WAIT);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto start = Clock::now();
    EXPECT_EQ(0, semaphore.Post());
    EXPECT_EQ(0, semaphore.Post());
    timed.join();
    infinite.join();
    EXPECT_LT(ElapsedMs(start), 2000);
    EXPECT_EQ(2, released.load());
    EXPECT_EQ(-100, semaphore.Wait(0));
}
