#include "core/Semaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace
{
using Clock = std::chrono::steady_clock;

long long ElapsedMs(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}
} // namespace

TEST(Semaphore, WaitZeroOnEmptyTimesOutAtOnce)
{
    Semaphore semaphore(0, 1);
    const auto start = Clock::now();
    EXPECT_EQ(-100, semaphore.Wait(0));
    EXPECT_LT(ElapsedMs(start), 50);
}

TEST(Semaphore, DefaultHoldsOneToken)
{
    Semaphore semaphore;
    EXPECT_EQ(0, semaphore.Wait(0));
    EXPECT_EQ(-100, semaphore.Wait(0));
    EXPECT_EQ(0, semaphore.Post());
    EXPECT_EQ(0, semaphore.Wait(0));
}

TEST(Semaphore, TimedWaitHonoursTheLimit)
{
    Semaphore semaphore(0, 1);
    const auto start = Clock::now();
    EXPECT_EQ(-100, semaphore.Wait(120));
    const long long elapsed = ElapsedMs(start);
    EXPECT_GE(elapsed, 115);
    EXPECT_LT(elapsed, 1000);
}

TEST(Semaphore, PostBeyondMaximumIsRefusedAndCountKept)
{
    Semaphore semaphore(0, 2);
    EXPECT_EQ(0, semaphore.Post());
    EXPECT_EQ(0, semaphore.Post());
    EXPECT_NE(0, semaphore.Post());
    EXPECT_EQ(0, semaphore.Wait(0));
    EXPECT_EQ(0, semaphore.Wait(0));
    EXPECT_EQ(-100, semaphore.Wait(0));
}

TEST(Semaphore, InitialCountAboveMaximumIsClamped)
{
    Semaphore semaphore(5, 1);
    EXPECT_EQ(0, semaphore.Wait(0));
    EXPECT_EQ(-100, semaphore.Wait(0));
}

TEST(Semaphore, PostReleasesWaiterOnAnotherThread)
{
    Semaphore semaphore(0, 1);
    std::atomic<int> result{1};
    std::atomic<long long> waited{-1};
    std::thread waiter([&] {
        const auto start = Clock::now();
        result = semaphore.Wait(5000);
        waited = ElapsedMs(start);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0, semaphore.Post());
    waiter.join();
    EXPECT_EQ(0, result.load());
    EXPECT_LT(waited.load(), 2000);
}

TEST(Semaphore, InfiniteWaitReturnsOnPost)
{
    Semaphore semaphore(0, 3);
    std::atomic<int> released{0};
    std::thread first([&] {
        if (semaphore.Wait(Semaphore::INFINITE_WAIT) == 0)
            ++released;
    });
    std::thread second([&] {
        if (semaphore.Wait(Semaphore::INFINITE_WAIT) == 0)
            ++released;
    });
    EXPECT_EQ(0, semaphore.Post());
    EXPECT_EQ(0, semaphore.Post());
    first.join();
    second.join();
    EXPECT_EQ(2, released.load());
    EXPECT_EQ(-100, semaphore.Wait(0));
}
