// Queue order and merge rules, removal, the wait for the next add, and the
// send loop's stop with its wake.
#include "requests/ImmeditRequestScheduler.h"

#include <gtest/gtest.h>

#include "DataSendRig.h"
#include "NetnsGuard.h"
#include "TestRequest.h"
#include "core/Thread.h"

namespace {
using Clock = std::chrono::steady_clock;

const uint32_t kNowMs = 100000;  // the tick clock stands at 100 s
const Time_t kZero(0, 0);

long long MsSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

class ImmeditRequestSchedulerTest : public ::testing::Test {
protected:
    void SetUp() override { ManualTickClock::Install(kNowMs); }
    void TearDown() override { ManualTickClock::Uninstall(); }

    // A data request of entity 1, or a heartbeat of the given entity key.
    TestRequest* Make(int iLabel, uint32_t uiPriority = 0, Time_t nextTime = kZero, octet heartbeatOf = 0) {
        TestRequest* pRequest =
            new TestRequest(&m_Journal, iLabel, heartbeatOf ? REQUEST_TYPE_HEARTBEAT : REQUEST_TYPE_DATA,
                            heartbeatOf ? heartbeatOf : 1, nextTime);
        pRequest->setPriority(uiPriority);
        return pRequest;
    }

    RequestJournal m_Journal;
    ImmeditRequestScheduler m_Scheduler{nullptr, nullptr};
};

TEST_F(ImmeditRequestSchedulerTest, OrderIsPriorityThenNextTimeThenArrivalAndFailuresAreNotRetried) {
    // Labelled 1 to 8 in arrival order. Seconds compare signed, the second word unsigned.
    const struct {
        uint32_t uiPriority;
        int32_t iSec;
        uint32_t uiFraction;
    } rows[] = {{5, 0, 0},  {5, 0, 0},  {9, 0, 0}, {0, 50, 0}, {0, 10, 0x80000000u},
                {0, 50, 0}, {0, 10, 5}, {0, -1, 0}};
    for (int i = 0; i < 8; ++i) {
        TestRequest* pRequest = Make(i + 1, rows[i].uiPriority, Time_t(rows[i].iSec, rows[i].uiFraction));
        // Failed is deleted without retry; finished means nothing here.
        if (i < 2) pRequest->m_uiResult = i == 0 ? REQUEST_EXECUTE_FAILED : REQUEST_EXECUTE_FINISHED;
        EXPECT_EQ(0, m_Scheduler.RequestAdd(pRequest));
    }
    m_Scheduler.ExcuteRequest();
    m_Scheduler.RequestAdd(Make(9));
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ((std::vector<int>{3, 1, 2, 8, 7, 5, 4, 6, 9}), m_Journal.Order());
    EXPECT_EQ(9, m_Journal.destroyed.load());  // executed requests are deleted
}

TEST_F(ImmeditRequestSchedulerTest, HeartbeatOfSameEntityOnlyMovesTheWaitingOnesNextTime) {
    m_Scheduler.RequestAdd(Make(1, 0, kZero, 7));
    // The second heartbeat is deleted inside RequestAdd; its later next time
    // now holds the first one back.
    m_Scheduler.RequestAdd(Make(2, 0, Time_t(200, 0), 7));
    EXPECT_EQ(1, m_Journal.destroyed.load());
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ(0, m_Journal.executed.load());

    ManualTickClock::Set(201000);
    m_Scheduler.RequestAdd(Make(3));
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ((std::vector<int>{3, 1}), m_Journal.Order());
    EXPECT_EQ(3, m_Journal.destroyed.load());
}

TEST_F(ImmeditRequestSchedulerTest, HeartbeatsOfOtherEntitiesNeverStopTheWalk) {
    // Heartbeats 1 and 2 of priority 1. Heartbeat 3 of priority 9 does not
    // overtake them, but data 4 of priority 5 does, and heartbeat 5 stops at it
    // by priority. Heartbeat 6, whose walk stops before the waiting heartbeat of
    // its entity, is queued apart from it, not merged.
    for (TestRequest* pRequest : {Make(1, 1, kZero, 1), Make(2, 1, kZero, 2), Make(3, 9, kZero, 3),
                                  Make(4, 5), Make(5, 6, kZero, 4), Make(6, 7, kZero, 1)})
        m_Scheduler.RequestAdd(pRequest);
    EXPECT_EQ(0, m_Journal.destroyed.load());
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ((std::vector<int>{5, 6, 4, 1, 2, 3}), m_Journal.Order());
}

TEST_F(ImmeditRequestSchedulerTest, RemoveDeletesQueuedAndReportsTheRest) {
    LogRecorder capture;
    TestRequest *pQueued = Make(1, 0, Time_t(500, 0)), *pExecuted = Make(2);  // not due: stays queued
    m_Scheduler.RequestAdd(pQueued);
    m_Scheduler.RequestAdd(pExecuted);
    m_Scheduler.ExcuteRequest();
    // Pointers are only compared, never followed, once they are gone.
    EXPECT_EQ(DELETEREQUEST_NOT_EXIST, m_Scheduler.RequestRemove(pExecuted));
    EXPECT_EQ(0, m_Scheduler.RequestRemove(pQueued));
    EXPECT_EQ(DELETEREQUEST_NOT_EXIST, m_Scheduler.RequestRemove(pQueued));
    EXPECT_EQ((std::vector<int>{2}), m_Journal.Order());
    EXPECT_EQ(2, m_Journal.destroyed.load());
    EXPECT_EQ(2, capture.Count("[ImmeditRequestScheduler::RequestRemove] DELETEREQUEST_NOT_EXIST"));
}

TEST_F(ImmeditRequestSchedulerTest, DueRequestsWaitForTheNextAddAndAStopWakeWalksNoList) {
    m_Scheduler.RequestAdd(Make(1, 0, Time_t(105, 0)));
    // Due exactly now: the send thread wants a strictly earlier time.
    m_Scheduler.RequestAdd(Make(2, 0, Time_t(100, 0)));
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ(0, m_Journal.executed.load());

    // Both are due now, yet a pass without a RequestAdd only times out ...
    ManualTickClock::Set(110000);
    Clock::time_point start = Clock::now();
    m_Scheduler.ExcuteRequest();
    EXPECT_GE(MsSince(start), 900);
    EXPECT_LE(MsSince(start), 1500);
    // ... and one woken by the stop ends at once, walking nothing either.
    m_Scheduler.RequestStop();
    EXPECT_EQ(0, m_Scheduler.GetRunFlag());
    start = Clock::now();
    EXPECT_EQ(0, m_Scheduler.ExcuteRequest());
    EXPECT_LT(MsSince(start), 200);
    EXPECT_EQ(0, m_Journal.executed.load() + m_Journal.destroyed.load());

    // The participant queues its last words and stops right after: the add's
    // wake and the stop's merge into one token, and that pass runs them.
    m_Scheduler.RequestAdd(Make(3));
    m_Scheduler.RequestStop();
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ((std::vector<int>{3, 2, 1}), m_Journal.Order());
}

TEST_F(ImmeditRequestSchedulerTest, SendLoopStopsWithinItsLimitAndLeavesTheRestUnexecuted) {
    // By the flag the loop ends at its next one-second wait; RequestStop wakes
    // it at once and runs no batch for what fell due meanwhile.
    for (int iWake = 0; iWake < 2; ++iWake) {
        SCOPED_TRACE(iWake);
        const int iBase = 10 * iWake;
        LogRecorder capture;
        ManualTickClock::Set(kNowMs);
        ImmeditRequestScheduler* pScheduler = new ImmeditRequestScheduler(nullptr, nullptr);
        Thread* pThread = new Thread(std::string("0_SEND"));
        ASSERT_EQ(0, pThread->Start(&ImmeditRequestScheduler::SendRun, pScheduler, 0, ""));
        pScheduler->RequestAdd(Make(iBase + 1));
        pScheduler->RequestAdd(Make(iBase + 2, 0, Time_t(105, 0)));
        ASSERT_TRUE(WaitFor([&] { return m_Journal.executed.load() == 2 * iWake + 1; }, 2000));
        pScheduler->RequestAdd(Make(iBase + 3));  // the thread is back waiting; this wakes it
        ASSERT_TRUE(WaitFor([&] { return m_Journal.executed.load() == 2 * iWake + 2; }, 2000));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // back in the wait
        ManualTickClock::Set(110000);

        testing::internal::CaptureStdout();
        const Clock::time_point start = Clock::now();
        iWake ? pScheduler->RequestStop() : pScheduler->SetRunFlag(false);
        const bool bStopped = WaitFor([&] { return pScheduler->GetStoppedFlag() != 0; }, 3000, 1);
        const long long llStopMs = MsSince(start);
        EXPECT_EQ("Stop Send Thread .. \n", testing::internal::GetCapturedStdout());
        ASSERT_TRUE(bStopped);
        EXPECT_LT(llStopMs, iWake ? 200 : 1100);
        EXPECT_EQ(4, capture.Count("Stop Send Thread Sucess"));  // one line per level
        delete pThread;
        // Left in the queue at the stop: deleted with the scheduler, unexecuted.
        pScheduler->RequestAdd(Make(iBase + 4));
        delete pScheduler;
        EXPECT_EQ(4 * iWake + 4, m_Journal.destroyed.load());
    }
    EXPECT_EQ((std::vector<int>{1, 3, 11, 13}), m_Journal.Order());
}

}  // namespace
