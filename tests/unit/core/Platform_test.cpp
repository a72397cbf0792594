// The platform wrappers where a fault could slip past the higher-level tests: a
// semaphore's bound and time-out and the clock's overflow-safe arithmetic. The
// timer's first fire and period are timed by the period scheduler's test.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "core/HighResClock.h"
#include "core/Semaphore.h"

TEST(Semaphore, CountIsBoundedAndWaitsEndByPostOrTimeLimit) {
    Semaphore semaphore(5, 2);  // the initial count is clamped too
    // Two tokens, none; two posts, a third refused; two tokens again, none.
    for (int iExpected : {0, 0, -100}) EXPECT_EQ(iExpected, semaphore.Wait(0));
    EXPECT_EQ(0, semaphore.Post() + semaphore.Post());
    EXPECT_NE(0, semaphore.Post());
    for (int iExpected : {0, 0, -100}) EXPECT_EQ(iExpected, semaphore.Wait(0));

    // A timed wait ends at its limit; two others, one of them without a limit, end by posts.
    std::atomic<int> released{0};
    auto wait = [&](unsigned int uiMs) { released += semaphore.Wait(uiMs) == 0; };
    std::thread timed(wait, 5000u), infinite(wait, Semaphore::INFINITE_WAIT);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(-100, semaphore.Wait(120));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(115));
    EXPECT_EQ(0, semaphore.Post() + semaphore.Post());
    timed.join();
    infinite.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(2, released.load());
}

TEST(HighResClock, ElapsedMicrosecondsIsSignedTruncatedAndSafeFromOverflow) {
    const uint64_t f = HighResClock::Frequency(), oneAndAHalfMicro = f * 3 / 2000000;
    // Ten days of counts (second row): times 1,000,000 would overflow 64 bits.
    const struct {
        uint64_t start, end;
        int64_t expected;
    } rows[] = {{f, 0, -1000000},
                {1000, 1000 + f * 864000, 864000LL * 1000000},
                {0, oneAndAHalfMicro, 1},
                {oneAndAHalfMicro, 0, -1}};
    for (const auto& row : rows)
        EXPECT_EQ(row.expected, HighResClock::ElapsedMicroseconds(row.start, row.end)) << row.end;
}
