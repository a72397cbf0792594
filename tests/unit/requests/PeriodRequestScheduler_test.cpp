#include "requests/PeriodRequestScheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "NetnsGuard.h"
#include "TestRequest.h"

namespace {

using Clock = std::chrono::steady_clock;

long long MsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

TestRequest* MakeOn(RequestJournal* pJournal, int iLabel, Time_t nextTime = Time_t(0, 0)) {
    return new TestRequest(TestEntity(static_cast<octet>(iLabel)), pJournal, iLabel, REQUEST_TYPE_ACKNACK,
                           nullptr, nullptr, Time_t(0, 0), nextTime);
}

// One shared wait of a little over three seconds covers the timing, the
// next-time rule, repeating after failure and the self-removal of a finished
// request.
TEST(PeriodRequestScheduler, RunsAfterTwoSecondsThenEverySecondUntilFinished) {
    ManualTickClock::Install(500000);  // now = 500 s, for the next-time rule
    RequestJournal timingJournal, equalJournal, futureJournal, failingJournal, finishedJournal;
    TestRequest* pTiming = MakeOn(&timingJournal, 1);
    TestRequest* pEqual = MakeOn(&equalJournal, 2, Time_t(500, 0));  // equal to now passes
    TestRequest* pFuture = MakeOn(&futureJournal, 3, Time_t(500, 1000000));
    TestRequest* pFailing = MakeOn(&failingJournal, 4);
    pFailing->m_uiResult = REQUEST_EXECUTE_FAILED;
    TestRequest* pFinished = MakeOn(&finishedJournal, 5);
    pFinished->m_iFinishAtRun = 1;

    PeriodRequestScheduler* pScheduler = new PeriodRequestScheduler(nullptr, nullptr);
    const Clock::time_point start = Clock::now();
    for (TestRequest* pRequest : {pTiming, pEqual, pFuture, pFailing, pFinished})
        EXPECT_EQ(0, pScheduler->RequestAdd(pRequest));
    EXPECT_EQ(1, pScheduler->RequestAdd(pTiming));  // one timer per request
    EXPECT_EQ(1, pScheduler->RequestAdd(nullptr));
    EXPECT_EQ(5u, pScheduler->GetTimerCount());

    ASSERT_TRUE(WaitFor([&] { return pTiming->Runs() >= 2; }, 4000));
    // The other timers started a moment later; let their second tick pass too.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));

    const auto times = timingJournal.Times();
    ASSERT_EQ(2u, times.size());
    EXPECT_GE(MsBetween(start, times[0]), 1950);
    EXPECT_LE(MsBetween(start, times[0]), 2300);
    EXPECT_GE(MsBetween(times[0], times[1]), 900);
    EXPECT_LE(MsBetween(times[0], times[1]), 1250);
    EXPECT_EQ(2, pEqual->Runs());
    EXPECT_EQ(0, pFuture->Runs());
    EXPECT_EQ(2, pFailing->Runs());
    // The finished request removed its own timer from inside its callback.
    EXPECT_EQ(1, pFinished->Runs());
    EXPECT_EQ(4u, pScheduler->GetTimerCount());

    // The creator still owns it: its own later removal is harmless.
    EXPECT_EQ(0, pScheduler->RequestRemove(pFinished));
    delete pFinished;
    EXPECT_EQ(1, finishedJournal.destroyed.load());

    // Removal stops and deletes the timer only; the request stays the creator's.
    EXPECT_EQ(0, pScheduler->RequestRemove(pTiming));
    EXPECT_EQ(0, timingJournal.destroyed.load());
    EXPECT_EQ(3u, pScheduler->GetTimerCount());
    delete pTiming;

    // The destructor stops the timers that are left.
    delete pScheduler;
    const int iEqualRuns = pEqual->Runs();
    const int iFailingRuns = pFailing->Runs();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(iEqualRuns, pEqual->Runs());
    EXPECT_EQ(iFailingRuns, pFailing->Runs());
    EXPECT_EQ(0, equalJournal.destroyed.load());
    delete pEqual;
    delete pFuture;
    delete pFailing;
    ManualTickClock::Uninstall();
}

// Removals from other threads while Execute runs: the removal returns only
// after that Execute, none follows, and a request finishing at the same
// moment (removing itself) neither deadlocks nor touches freed memory.
TEST(PeriodRequestScheduler_removal, WaitsForExecuteInFlightAndNeverDeadlocks) {
    RequestJournal plainJournal, finishingJournal, destroyedJournal;
    TestRequest* pPlain = MakeOn(&plainJournal, 1);
    pPlain->m_iExecuteMs = 400;
    TestRequest* pFinishing = MakeOn(&finishingJournal, 2);
    pFinishing->m_iExecuteMs = 400;
    pFinishing->m_iFinishAtRun = 1;
    TestRequest* pOnDestroyed = MakeOn(&destroyedJournal, 3);
    pOnDestroyed->m_iExecuteMs = 400;
    pOnDestroyed->m_iFinishAtRun = 1;

    // One scheduler each, so that no removal waits behind another's lock.
    PeriodRequestScheduler* pScheduler = new PeriodRequestScheduler(nullptr, nullptr);
    PeriodRequestScheduler* pSecond = new PeriodRequestScheduler(nullptr, nullptr);
    PeriodRequestScheduler* pDoomed = new PeriodRequestScheduler(nullptr, nullptr);
    ASSERT_EQ(0, pScheduler->RequestAdd(pPlain));
    ASSERT_EQ(0, pSecond->RequestAdd(pFinishing));
    ASSERT_EQ(0, pDoomed->RequestAdd(pOnDestroyed));

    ASSERT_TRUE(WaitFor(
        [&] {
            return plainJournal.inExecute.load() == 1 && finishingJournal.inExecute.load() == 1 &&
                   destroyedJournal.inExecute.load() == 1;
        },
        3500, 1));

    // Each flag: the Execute had ended when the removal returned.
    std::atomic<int> done{0};
    std::atomic<bool> bPlainEnded{false}, bFinishingEnded{false}, bDestroyedEnded{false};
    std::thread removePlain([&] {
        pScheduler->RequestRemove(pPlain);
        bPlainEnded = plainJournal.executed.load() == 1 && plainJournal.inExecute.load() == 0;
        ++done;
    });
    std::thread removeFinishing([&] {
        pSecond->RequestRemove(pFinishing);
        bFinishingEnded = finishingJournal.executed.load() == 1;
        ++done;
    });
    std::thread destroy([&] {
        delete pDoomed;
        bDestroyedEnded = destroyedJournal.executed.load() == 1;
        ++done;
    });
    if (!WaitFor([&] { return done.load() == 3; }, 3000)) {
        // Threads still blocked on the scheduler cannot be joined or left behind.
        fprintf(stderr, "PeriodRequestScheduler removal deadlocked\n");
        std::abort();
    }
    removePlain.join();
    removeFinishing.join();
    destroy.join();

    EXPECT_TRUE(bPlainEnded.load());
    EXPECT_TRUE(bFinishingEnded.load());
    EXPECT_TRUE(bDestroyedEnded.load());
    EXPECT_EQ(0u, pScheduler->GetTimerCount());
    EXPECT_EQ(0u, pSecond->GetTimerCount());
    // The next tick would have come a second after the first run.
    EXPECT_TRUE(HoldsFor(
        [&] {
            return plainJournal.executed.load() == 1 && finishingJournal.executed.load() == 1 &&
                   destroyedJournal.executed.load() == 1;
        },
        1200, 20));

    delete pScheduler;
    delete pSecond;
    delete pPlain;
    delete pFinishing;
    delete pOnDestroyed;
}

}  // namespace
