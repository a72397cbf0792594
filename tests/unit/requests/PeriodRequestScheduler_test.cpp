#include "requests/PeriodRequestScheduler.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "NetnsGuard.h"
#include "TestRequest.h"

namespace {
using std::chrono::milliseconds;

// One shared wait of a little over three seconds covers the timing, the
// next-time rule, repeating after failure and the self-removal of a finished
// request.
TEST(PeriodRequestScheduler, RunsAfterTwoSecondsThenEverySecondUntilFinished) {
    ManualTickClock::Install(500000);  // now = 500 s, for the next-time rule
    RequestJournal timing, other;
    // Timing; next time equal to now, which passes; in the future; failing; finishing at its first run.
    TestRequest* apRequests[5] = {new TestRequest(&timing, 1, REQUEST_TYPE_ACKNACK, 1),
                                  new TestRequest(&other, 2, REQUEST_TYPE_ACKNACK, 2, Time_t(500, 0)),
                                  new TestRequest(&other, 3, REQUEST_TYPE_ACKNACK, 3, Time_t(500, 1000000)),
                                  new TestRequest(&other, 4, REQUEST_TYPE_ACKNACK, 4),
                                  new TestRequest(&other, 5, REQUEST_TYPE_ACKNACK, 5)};
    apRequests[3]->m_uiResult = REQUEST_EXECUTE_FAILED;
    apRequests[4]->m_iFinishAtRun = 1;
    PeriodRequestScheduler* pScheduler = new PeriodRequestScheduler(nullptr, nullptr);
    const auto start = std::chrono::steady_clock::now();
    for (TestRequest* pRequest : apRequests) EXPECT_EQ(0, pScheduler->RequestAdd(pRequest));
    EXPECT_EQ(1, pScheduler->RequestAdd(apRequests[0]));  // one timer per request
    EXPECT_EQ(1, pScheduler->RequestAdd(nullptr));
    EXPECT_EQ(5u, pScheduler->GetTimerCount());

    ASSERT_TRUE(WaitFor([&] { return apRequests[0]->m_iRuns >= 2; }, 4000));
    // The other timers started a moment later; let their second tick pass too.
    std::this_thread::sleep_for(milliseconds(200));
    {
        std::lock_guard<std::mutex> lock(timing.mutex);
        ASSERT_EQ(2u, timing.times.size());
        EXPECT_GE(timing.times[0] - start, milliseconds(1950));
        EXPECT_LE(timing.times[0] - start, milliseconds(2300));
        EXPECT_GE(timing.times[1] - timing.times[0], milliseconds(900));
        EXPECT_LE(timing.times[1] - timing.times[0], milliseconds(1250));
    }
    const int aiRuns[5] = {2, 2, 0, 2, 1};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(aiRuns[i], apRequests[i]->m_iRuns) << i;
    // The finished request removed its own timer from inside its callback; the
    // creator still owns it, and its own later removal is harmless.
    EXPECT_EQ(4u, pScheduler->GetTimerCount());
    EXPECT_EQ(0, pScheduler->RequestRemove(apRequests[4]));
    // Removal stops and deletes the timer only; the request stays the creator's.
    EXPECT_EQ(0, pScheduler->RequestRemove(apRequests[0]));
    EXPECT_EQ(3u, pScheduler->GetTimerCount());
    EXPECT_EQ(0, timing.destroyed + other.destroyed);

    // The destructor stops the timers that are left.
    delete pScheduler;
    const int iRuns = apRequests[1]->m_iRuns + apRequests[3]->m_iRuns;
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(iRuns, apRequests[1]->m_iRuns + apRequests[3]->m_iRuns);
    EXPECT_EQ(0, other.destroyed.load());
    for (TestRequest* pRequest : apRequests) delete pRequest;
    ManualTickClock::Uninstall();
}

// Removals from other threads while Execute runs: the removal returns only
// after that Execute, none follows, and a request finishing at the same
// moment (removing itself) neither deadlocks nor touches freed memory. The
// third case is the scheduler's destructor instead of a removal.
TEST(PeriodRequestScheduler_removal, WaitsForExecuteInFlightAndNeverDeadlocks) {
    RequestJournal journals[3];
    TestRequest* apRequests[3];
    PeriodRequestScheduler* apSchedulers[3];  // one each, so that no removal waits behind another's lock
    for (int i = 0; i < 3; ++i) {
        apRequests[i] = new TestRequest(&journals[i], i, REQUEST_TYPE_ACKNACK, octet(i + 1));
        apRequests[i]->m_iExecuteMs = 400;
        apRequests[i]->m_iFinishAtRun = i == 0 ? 0 : 1;
        apSchedulers[i] = new PeriodRequestScheduler(nullptr, nullptr);
        ASSERT_EQ(0, apSchedulers[i]->RequestAdd(apRequests[i]));
    }
    ASSERT_TRUE(WaitFor(
        [&] { return journals[0].inExecute + journals[1].inExecute + journals[2].inExecute == 3; }, 3500, 1));

    // Each flag: the Execute had ended when the removal returned.
    std::atomic<int> ended[3] = {{0}, {0}, {0}};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            if (i < 2)
                apSchedulers[i]->RequestRemove(apRequests[i]);
            else
                delete apSchedulers[i];
            ended[i] = journals[i].executed.load() == 1 && journals[i].inExecute.load() == 0 ? 1 : 2;
        });
    }
    // Deadlocked: threads still blocked on the scheduler can be neither joined nor left behind.
    if (!WaitFor([&] { return ended[0] && ended[1] && ended[2]; }, 3000)) std::abort();
    for (std::thread& thread : threads) thread.join();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(1, ended[i].load()) << i;
    EXPECT_EQ(0u, apSchedulers[0]->GetTimerCount() + apSchedulers[1]->GetTimerCount());
    // The next tick would have come a second after the first run.
    EXPECT_TRUE(HoldsFor(
        [&] { return journals[0].executed + journals[1].executed + journals[2].executed == 3; }, 1200, 20));
    delete apSchedulers[0];
    delete apSchedulers[1];
    for (TestRequest* pRequest : apRequests) delete pRequest;
}

}  // namespace
