#include "requests/ImmeditRequestScheduler.h"

#include <gtest/gtest.h>

#include "DDSLogManagementFactory.h"
#include "DataSendRig.h"
#include "NetnsGuard.h"
#include "TestRequest.h"
#include "core/Thread.h"

// Queue order and merge rules, removal, the wait for the next add, and the
// send loop's stop with its wake.
namespace {
using Clock = std::chrono::steady_clock;

const uint32_t kNowMs = 100000;  // the tick clock stands at 100 s

std::vector<int> CodesOf(LogRecorder& log, const std::string& strText) {
    std::vector<int> codes;
    for (const LogEntry& entry : log.Entries())
        if (entry.text == strText) codes.push_back(entry.code);
    return codes;
}

class ImmeditRequestSchedulerTest : public ::testing::Test {
protected:
    void SetUp() override { ManualTickClock::Install(kNowMs); }
    void TearDown() override { ManualTickClock::Uninstall(); }

    TestRequest* Make(int iLabel, uint32_t uiPriority = 0, Time_t nextTime = Time_t(0, 0),
                      const char* szType = REQUEST_TYPE_DATA, EntityId_t entity = TestEntity(1)) {
        TestRequest* pRequest =
            new TestRequest(entity, &m_Journal, iLabel, szType, nullptr, nullptr, Time_t(0, 0), nextTime);
        pRequest->setPriority(uiPriority);
        return pRequest;
    }
    TestRequest* MakeHeartbeat(int iLabel, octet entityKey, uint32_t uiPriority = 0,
                               Time_t nextTime = Time_t(0, 0)) {
        return Make(iLabel, uiPriority, nextTime, REQUEST_TYPE_HEARTBEAT, TestEntity(entityKey));
    }
    long long MsSince(Clock::time_point start) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    }

    RequestJournal m_Journal;
    ImmeditRequestScheduler m_Scheduler{nullptr, nullptr};
};

TEST_F(ImmeditRequestSchedulerTest, OrderIsPriorityThenNextTimeThenArrivalAndFailuresAreNotRetried) {
    struct Row {
        int iLabel;
        uint32_t uiPriority;
        Time_t nextTime;
    };
    // Seconds compare signed, the second word unsigned.
    const Row rows[] = {{1, 5, Time_t(0, 0)},
                        {2, 5, Time_t(0, 0)},
                        {3, 9, Time_t(0, 0)},
                        {4, 0, Time_t(50, 0)},
                        {5, 0, Time_t(10, 0x80000000u)},
                        {6, 0, Time_t(50, 0)},
                        {7, 0, Time_t(10, 5)},
                        {8, 0, Time_t(-1, 0)}};
    for (const Row& row : rows) {
        TestRequest* pRequest = Make(row.iLabel, row.uiPriority, row.nextTime);
        // Failed deletes without retry; finished means nothing here.
        if (row.iLabel == 1) pRequest->m_uiResult = REQUEST_EXECUTE_FAILED;
        if (row.iLabel == 2) pRequest->m_uiResult = REQUEST_EXECUTE_FINISHED;
        EXPECT_EQ(0, m_Scheduler.RequestAdd(pRequest));
    }
    m_Scheduler.ExcuteRequest();
    m_Scheduler.RequestAdd(Make(9));
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ((std::vector<int>{3, 1, 2, 8, 7, 5, 4, 6, 9}), m_Journal.Order());
    EXPECT_EQ(9, m_Journal.destroyed.load());  // executed requests are deleted
}

TEST_F(ImmeditRequestSchedulerTest, HeartbeatOfSameEntityOnlyMovesTheWaitingOnesNextTime) {
    m_Scheduler.RequestAdd(MakeHeartbeat(1, 7));
    // The second heartbeat is deleted inside RequestAdd; its later next time
    // now holds the first one back.
    m_Scheduler.RequestAdd(MakeHeartbeat(2, 7, 0, Time_t(200, 0)));
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
    m_Scheduler.RequestAdd(MakeHeartbeat(1, 1, 1));
    m_Scheduler.RequestAdd(MakeHeartbeat(2, 2, 1));
    // Priority 9 does not overtake the heartbeats of priority 1 ...
    m_Scheduler.RequestAdd(MakeHeartbeat(3, 3, 9));
    // ... but any other request does, and a heartbeat stops at it by priority.
    m_Scheduler.RequestAdd(Make(4, 5));
    m_Scheduler.RequestAdd(MakeHeartbeat(5, 4, 6));
    // A heartbeat whose walk stops before the waiting one of its entity is
    // queued apart from it, not merged.
    m_Scheduler.RequestAdd(MakeHeartbeat(6, 1, 7));
    EXPECT_EQ(0, m_Journal.destroyed.load());
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ((std::vector<int>{5, 6, 4, 1, 2, 3}), m_Journal.Order());
}

TEST_F(ImmeditRequestSchedulerTest, RemoveDeletesQueuedAndReportsTheRest) {
    LogRecorder capture;
    TestRequest* pQueued = Make(1, 0, Time_t(500, 0));  // not due: stays queued
    TestRequest* pExecuted = Make(2);
    m_Scheduler.RequestAdd(pQueued);
    m_Scheduler.RequestAdd(pExecuted);
    m_Scheduler.ExcuteRequest();
    ASSERT_EQ((std::vector<int>{2}), m_Journal.Order());

    // Pointers are only compared, never followed, once they are gone.
    EXPECT_EQ(DELETEREQUEST_NOT_EXIST, m_Scheduler.RequestRemove(pExecuted));
    EXPECT_EQ(0, m_Scheduler.RequestRemove(pQueued));
    EXPECT_EQ(DELETEREQUEST_NOT_EXIST, m_Scheduler.RequestRemove(pQueued));
    EXPECT_EQ(2, m_Journal.destroyed.load());
    EXPECT_EQ(1, m_Journal.executed.load());
    EXPECT_EQ((std::vector<int>{DDSLOG_INFO, DDSLOG_INFO}),
              CodesOf(capture, "[ImmeditRequestScheduler::RequestRemove] DELETEREQUEST_NOT_EXIST"));
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
    EXPECT_EQ(0, m_Journal.executed.load());
    EXPECT_EQ(0, m_Journal.destroyed.load());

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
        if (iWake)
            pScheduler->RequestStop();
        else
            pScheduler->SetRunFlag(false);
        const bool bStopped = WaitFor([&] { return pScheduler->GetStoppedFlag() != 0; }, 3000, 1);
        const long long llStopMs = MsSince(start);
        const std::string strOut = testing::internal::GetCapturedStdout();
        ASSERT_TRUE(bStopped);
        EXPECT_LT(llStopMs, iWake ? 200 : 1100);
        EXPECT_EQ("Stop Send Thread .. \n", strOut);
        EXPECT_EQ((std::vector<int>{DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO}),
                  CodesOf(capture, "Stop Send Thread Sucess"));
        delete pThread;
        // Left in the queue at the stop: deleted with the scheduler, unexecuted.
        pScheduler->RequestAdd(Make(iBase + 4));
        delete pScheduler;
        EXPECT_EQ(4 * iWake + 4, m_Journal.destroyed.load());
    }
    EXPECT_EQ((std::vector<int>{1, 3, 11, 13}), m_Journal.Order());
}

}  // namespace
