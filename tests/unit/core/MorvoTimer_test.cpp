#include "core/MorvoTimer.h"

#include "core/Semaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace {
using Clock = std::chrono::steady_clock;

struct Recorder {
    std::mutex mutex;
    std::vector<long long> firedAtMs;
    Clock::time_point start = Clock::now();
    std::thread::id callbackThread;
    int iLastFlag = -1;

    size_t Count() {
        std::lock_guard<std::mutex> lock(mutex);
        return firedAtMs.size();
    }
    static void Record(void* pArgument, unsigned char flag) {
        Recorder* pSelf = static_cast<Recorder*>(pArgument);
        std::lock_guard<std::mutex> lock(pSelf->mutex);
        pSelf->firedAtMs.push_back(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - pSelf->start).count());
        pSelf->callbackThread = std::this_thread::get_id();
        pSelf->iLastFlag = flag;
    }
};

// Shared by a timer's owner and its callback, which may delete the owner.
struct Shared {
    Semaphore entered{0, 100};
    std::atomic<int> calls{0};
    std::atomic<int> finished{0};
    MorvoTimer* pTimer = nullptr;
    int* pTouched = nullptr;
};
}  // namespace

// Three timers side by side to keep the suite short: a 100 ms period, a period
// whose ms word is huge (a QoS nanosecond word passed unchanged), and period 0.
// A fourth is restarted at once and stopped: it never fires for either start.
TEST(MorvoTimer, FirstFiresAfterTwoSecondsThenEveryPeriod) {
    Recorder periodic, huge, once, replaced;
    MorvoTimer periodicTimer, hugeTimer, onceTimer, restarted;
    EXPECT_EQ(0, restarted.Stop());  // never started: nothing to do
    ASSERT_EQ(0, periodicTimer.Start(0, 100, Recorder::Record, &periodic));
    ASSERT_EQ(0, hugeTimer.Start(1, 500000000, Recorder::Record, &huge));
    ASSERT_EQ(0, onceTimer.Start(0, 0, Recorder::Record, &once));
    ASSERT_EQ(0, restarted.Start(0, 10, Recorder::Record, &replaced));
    ASSERT_EQ(0, restarted.Start(0, 10, Recorder::Record, &replaced));
    restarted.Stop();

    for (int i = 0; i < 400 && periodic.Count() < 5; ++i)
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
    EXPECT_EQ(1, periodic.iLastFlag);
    EXPECT_EQ(1u, huge.Count());
    EXPECT_EQ(1u, once.Count());
    EXPECT_EQ(0u, replaced.Count());
}

TEST(MorvoTimer, StopFromOwnCallbackReturnsAndEndsTheTimer) {
    Shared shared;
    shared.pTimer = new MorvoTimer;
    auto deleteFromCallback = [](void* pArgument, unsigned char) {
        Shared* pShared = static_cast<Shared*>(pArgument);
        ++pShared->calls;
        pShared->pTimer->Stop();
        delete pShared->pTimer;  // the destructor stops again: must be a no-op
        pShared->entered.Post();
    };
    ASSERT_EQ(0, shared.pTimer->Start(0, 20, deleteFromCallback, &shared));
    ASSERT_EQ(0, shared.entered.Wait(5000));  // a deadlock in Stop would never post
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(1, shared.calls.load());
}

TEST(MorvoTimer, StopFromOtherThreadWaitsForCallbackInFlight) {
    Shared shared;
    shared.pTimer = new MorvoTimer;
    shared.pTouched = new int(0);
    auto slow = [](void* pArgument, unsigned char) {
        Shared* pShared = static_cast<Shared*>(pArgument);
        ++pShared->calls;
        pShared->entered.Post();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ++*pShared->pTouched;  // freed memory if Stop had not waited
        ++pShared->finished;
    };
    ASSERT_EQ(0, shared.pTimer->Start(0, 10, slow, &shared));
    ASSERT_EQ(0, shared.entered.Wait(5000));
    shared.pTimer->Stop();
    EXPECT_EQ(shared.calls.load(), shared.finished.load());
    delete shared.pTimer;
    delete shared.pTouched;
    const int iCallsAtStop = shared.calls.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(iCallsAtStop, shared.calls.load());
}
