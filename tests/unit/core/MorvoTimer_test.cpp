#include "core/MorvoTimer.h"

#include "core/Semaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace
{
using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

struct Recorder
{
    std::mutex mutex;
    std::vector<long long> firedAtMs;
    Clock::time_point start = Clock::now();
    std::thread::id callbackThread;
    std::atomic<int> iLastFlag{-1};
};

void Record(void* pArgument, unsigned char flag)
{
    Recorder* pRecorder = static_cast<Recorder*>(pArgument);
    std::lock_guard<std::mutex> lock(pRecorder->mutex);
    pRecorder->firedAtMs.push_back(MsSince(pRecorder->start));
    pRecorder->callbackThread = std::this_thread::get_id();
    pRecorder->iLastFlag = flag;
}

size_t Count(Recorder& recorder)
{
    std::lock_guard<std::mutex> lock(recorder.mutex);
    return recorder.firedAtMs.size();
}
} // namespace

// Three timers side by side to keep the suite short: a 100 ms period, a period
// whose ms word is huge (a QoS nanosecond word passed unchanged), and period 0.
TEST(MorvoTimer, FirstFiresAfterTwoSecondsThenEveryPeriod)
{
    Recorder periodic, huge, once;
    MorvoTimer periodicTimer, hugeTimer, onceTimer;
    ASSERT_EQ(0, periodicTimer.Start(0, 100, Record, &periodic));
    ASSERT_EQ(0, hugeTimer.Start(1, 500000000, Record, &huge));
    ASSERT_EQ(0, onceTimer.Start(0, 0, Record, &once));
    EXPECT_TRUE(periodicTimer.IsRunning());

    for (int i = 0; i < 400 && Count(periodic) < 5; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    periodicTimer.Stop();
    hugeTimer.Stop();
    onceTimer.Stop();
    EXPECT_FALSE(periodicTimer.IsRunning());

    std::lock_guard<std::mutex> lock(periodic.mutex);
    ASSERT_GE(periodic.firedAtMs.size(), 5u);
    EXPECT_GE(periodic.firedAtMs[0], 1900);
    EXPECT_LE(periodic.firedAtMs[0], 2600);
    const long long span = periodic.firedAtMs[4] - periodic.firedAtMs[0];
    EXPECT_GE(span, 350);
    EXPECT_LE(span, 700);
    EXPECT_NE(std::this_thread::get_id(), periodic.callbackThread);
    EXPECT_EQ(1, periodic.iLastFlag.load());

    EXPECT_EQ(1u, Count(huge));
    EXPECT_EQ(1u, Count(once));
}

TEST(MorvoTimer, StopOnNeverStartedTimerDoesNothing)
{
    MorvoTimer timer;
    EXPECT_FALSE(timer.IsRunning());
    EXPECT_EQ(0, timer.Stop());
    EXPECT_EQ(0, timer.Stop());
}

namespace
{
// An owner that deletes itself, and so its timer, from the timer's callback.
struct SelfDeletingOwner
{
    MorvoTimer timer;
    std::atomic<int>* pCalls;
    Semaphore* pDone;
};

void DeleteOwnerFromCallback(void* pArgument, unsigned char)
{
    SelfDeletingOwner* pOwner = static_cast<SelfDeletingOwner*>(pArgument);
    std::atomic<int>* pCalls = pOwner->pCalls;
    Semaphore* pDone = pOwner->pDone;
    ++*pCalls;
    pOwner->timer.Stop();
    delete pOwner; // the destructor stops again: must be a no-op
    pDone->Post();
}
} // namespace

TEST(MorvoTimer, StopFromOwnCallbackReturnsAndEndsTheTimer)
{
    std::atomic<int> calls{0};
    Semaphore done(0, 10);
    SelfDeletingOwner* pOwner = new SelfDeletingOwner;
    pOwner->pCalls = &calls;
    pOwner->pDone = &done;
    ASSERT_EQ(0, pOwner->timer.Start(0, 20, DeleteOwnerFromCallback, pOwner));

    ASSERT_EQ(0, done.Wait(5000)); // a deadlock in Stop would never post
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(1, calls.load());
}

namespace
{
struct SlowOwner
{
    MorvoTimer timer;
    int iTouched = 0;
};

struct SlowShared
{
    Semaphore entered{0, 100};
    std::atomic<int> calls{0};
    std::atomic<int> finished{0};
    SlowOwner* pOwner = nullptr;
};

void SlowCallback(void* pArgument, unsigned char)
{
    SlowShared* pShared = static_cast<SlowShared*>(pArgument);
    ++pShared->calls;
    pShared->entered.Post();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ++pShared->pOwner->iTouched; // freed memory if Stop had not waited
    ++pShared->finished;
}
} // namespace

TEST(MorvoTimer, StopFromOtherThreadWaitsForCallbackInFlight)
{
    SlowShared shared;
    shared.pOwner = new SlowOwner;
    ASSERT_EQ(0, shared.pOwner->timer.Start(0, 10, SlowCallback, &shared));

    ASSERT_EQ(0, shared.entered.Wait(5000));
    shared.pOwner->timer.Stop();
    EXPECT_EQ(shared.calls.load(), shared.finished.load());
    delete shared.pOwner;
    const int iCallsAtStop = shared.calls.load();

    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(iCallsAtStop, shared.calls.load());
}

TEST(MorvoTimer, RestartReplacesTheRunningTimer)
{
    Recorder first, second;
    MorvoTimer timer;
    ASSERT_EQ(0, timer.Start(0, 10, Record, &first));
    ASSERT_EQ(0, timer.Start(0, 10, Record, &second));
    timer.Stop();
    EXPECT_EQ(0u, Count(first));
    EXPECT_EQ(0u, Count(second));
}
