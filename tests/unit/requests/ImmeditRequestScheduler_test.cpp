#include "requests/ImmeditRequestScheduler.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DDSLogManagementFactory.h"
#include "NetnsGuard.h"
#include "TestRequest.h"
#include "core/Thread.h"
#include "log/LogObserver.h"

namespace {

using Clock = std::chrono::steady_clock;

const uint32_t kNowMs = 100000;  // the tick clock stands at 100 s

struct LogCapture {
    std::mutex mutex;
    std::vector<std::pair<std::string, int>> lines;

    static void Observe(void* pContext, int, const char* szText, size_t length, int iCode) {
        LogCapture* pCapture = static_cast<LogCapture*>(pContext);
        std::lock_guard<std::mutex> lock(pCapture->mutex);
        pCapture->lines.emplace_back(std::string(szText, length), iCode);
    }
    std::vector<int> CodesOf(const std::string& strText) {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<int> codes;
        for (auto& line : lines)
            if (line.first == strText) codes.push_back(line.second);
        return codes;
    }
};

class ImmeditRequestSchedulerTest : public ::testing::Test {
protected:
    void SetUp() override { ManualTickClock::Install(kNowMs); }
    void TearDown() override {
        SetLogObserver(nullptr, nullptr);
        ManualTickClock::Uninstall();
    }

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

    RequestJournal m_Journal;
    ImmeditRequestScheduler m_Scheduler{nullptr, nullptr};
};

TEST_F(ImmeditRequestSchedulerTest, HigherPriorityRunsFirstEvenWhenItCameLast) {
    EXPECT_EQ(0, m_Scheduler.RequestAdd(Make(1, 5)));
    EXPECT_EQ(0, m_Scheduler.RequestAdd(Make(2, 5)));
    EXPECT_EQ(0, m_Scheduler.RequestAdd(Make(3, 9)));
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ((std::vector<int>{3, 1, 2}), m_Journal.Order());
    EXPECT_EQ(3, m_Journal.destroyed.load());  // executed requests are deleted
}

TEST_F(ImmeditRequestSchedulerTest, EqualPrioritiesOrderByNextTimeThenArrival) {
    // Seconds compare signed, the second word unsigned.
    m_Scheduler.RequestAdd(Make(1, 0, Time_t(50, 0)));
    m_Scheduler.RequestAdd(Make(2, 0, Time_t(10, 0x80000000u)));
    m_Scheduler.RequestAdd(Make(3, 0, Time_t(50, 0)));
    m_Scheduler.RequestAdd(Make(4, 0, Time_t(10, 5)));
    m_Scheduler.RequestAdd(Make(5, 0, Time_t(-1, 0)));
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ((std::vector<int>{5, 4, 2, 1, 3}), m_Journal.Order());
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
    LogCapture capture;
    SetLogObserver(&LogCapture::Observe, &capture);

    TestRequest* pQueued = Make(1, 0, Time_t(500, 0));  // not due: stays queued
    TestRequest* pExecuted = Make(2);
    m_Scheduler.RequestAdd(pQueued);
    m_Scheduler.RequestAdd(pExecuted);
    m_Scheduler.ExcuteRequest();
    ASSERT_EQ((std::vector<int>{2}), m_Journal.Order());

    // Pointers are only compared, never followed, once they are gone.
    EXPECT_EQ(DELETEREQUEST_NOT_EXIST, m_Scheduler.RequestRemove(pExecuted));
    EXPECT_EQ(0, m_Scheduler.RequestRemove(pQueued));
    EXPECT_EQ(2, m_Journal.destroyed.load());
    EXPECT_EQ(DELETEREQUEST_NOT_EXIST, m_Scheduler.RequestRemove(pQueued));
    EXPECT_EQ(2, m_Journal.destroyed.load());
    EXPECT_EQ(1, m_Journal.executed.load());
    EXPECT_EQ((std::vector<int>{DDSLOG_INFO, DDSLOG_INFO}),
              capture.CodesOf("[ImmeditRequestScheduler::RequestRemove] DELETEREQUEST_NOT_EXIST"));
}

TEST_F(ImmeditRequestSchedulerTest, RequestNotYetDueWaitsForTheNextAdd) {
    m_Scheduler.RequestAdd(Make(1, 0, Time_t(105, 0)));
    // Due exactly now: the send thread wants a strictly earlier time.
    m_Scheduler.RequestAdd(Make(2, 0, Time_t(100, 0)));
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ(0, m_Journal.executed.load());

    // Both are due now, yet a pass without a RequestAdd only times out.
    ManualTickClock::Set(110000);
    const Clock::time_point start = Clock::now();
    m_Scheduler.ExcuteRequest();
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    EXPECT_GE(waited, 900);
    EXPECT_LE(waited, 1500);
    EXPECT_EQ(0, m_Journal.executed.load());

    m_Scheduler.RequestAdd(Make(3));
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ((std::vector<int>{3, 2, 1}), m_Journal.Order());
}

TEST_F(ImmeditRequestSchedulerTest, FailedRequestIsDeletedWithoutRetry) {
    TestRequest* pFailing = Make(1);
    pFailing->m_uiResult = REQUEST_EXECUTE_FAILED;
    TestRequest* pFinished = Make(2);
    pFinished->m_uiResult = REQUEST_EXECUTE_FINISHED;  // means nothing here
    m_Scheduler.RequestAdd(pFailing);
    m_Scheduler.RequestAdd(pFinished);
    m_Scheduler.ExcuteRequest();
    m_Scheduler.RequestAdd(Make(3));
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ((std::vector<int>{1, 2, 3}), m_Journal.Order());
    EXPECT_EQ(3, m_Journal.destroyed.load());
}

// RequestStop: the wake that ends the send loop's wait on a stop.
TEST_F(ImmeditRequestSchedulerTest, StopWakeAloneWalksNoList) {
    m_Scheduler.RequestAdd(Make(1, 0, Time_t(105, 0)));
    m_Scheduler.ExcuteRequest();   // the add's pass: not yet due
    ManualTickClock::Set(110000);  // due now, but no RequestAdd came since

    m_Scheduler.RequestStop();
    EXPECT_EQ(0, m_Scheduler.GetRunFlag());
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(0, m_Scheduler.ExcuteRequest());
    const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    EXPECT_LT(waited, 200);  // woken, not timed out
    // As after a time-out: the request stays queued, to be deleted unexecuted.
    EXPECT_EQ(0, m_Journal.executed.load());
    EXPECT_EQ(0, m_Journal.destroyed.load());
}

TEST_F(ImmeditRequestSchedulerTest, RequestAddedJustBeforeTheStopStillRuns) {
    // The participant queues its last words and stops the send thread right after:
    // the add's wake and the stop's merge into one token, and that pass runs them.
    m_Scheduler.ExcuteRequest();  // spends the initial token
    m_Scheduler.RequestAdd(Make(1));
    m_Scheduler.RequestStop();
    m_Scheduler.ExcuteRequest();
    EXPECT_EQ((std::vector<int>{1}), m_Journal.Order());
    EXPECT_EQ(1, m_Journal.destroyed.load());
}

TEST_F(ImmeditRequestSchedulerTest, SendLoopStopsWithinMillisecondsAndLeavesNotDueRequests) {
    LogCapture capture;
    SetLogObserver(&LogCapture::Observe, &capture);
    ImmeditRequestScheduler* pScheduler = new ImmeditRequestScheduler(nullptr, nullptr);
    Thread* pThread = new Thread(std::string("0_SEND"));
    ASSERT_EQ(0, pThread->Start(&ImmeditRequestScheduler::SendRun, pScheduler, 0, ""));

    pScheduler->RequestAdd(Make(1));
    pScheduler->RequestAdd(Make(2, 0, Time_t(105, 0)));
    ASSERT_TRUE(WaitFor([&] { return m_Journal.executed.load() == 1; }, 2000));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // back in the wait
    ManualTickClock::Set(110000);

    testing::internal::CaptureStdout();
    const Clock::time_point start = Clock::now();
    pScheduler->RequestStop();
    const bool bStopped = WaitFor([&] { return pScheduler->GetStoppedFlag() != 0; }, 3000, 1);
    const auto stopMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    const std::string strOut = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(bStopped);
    EXPECT_LT(stopMs, 200);
    EXPECT_EQ("Stop Send Thread .. \n", strOut);
    EXPECT_EQ((std::vector<int>{DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO}),
              capture.CodesOf("Stop Send Thread Sucess"));
    delete pThread;

    // The stop's wake ran no batch: the request that fell due meanwhile goes
    // unexecuted with the scheduler, as it did when the loop timed out instead.
    delete pScheduler;
    SetLogObserver(nullptr, nullptr);
    EXPECT_EQ((std::vector<int>{1}), m_Journal.Order());
    EXPECT_EQ(2, m_Journal.destroyed.load());
}

TEST(ImmeditRequestScheduler_sendThread, RunsQueuedRequestsAndStopsWithinTheWakeTimeout) {
    LogCapture capture;
    SetLogObserver(&LogCapture::Observe, &capture);
    RequestJournal journal;
    auto make = [&journal](int iLabel) {
        return new TestRequest(TestEntity(1), &journal, iLabel, REQUEST_TYPE_DATA, nullptr, nullptr,
                               Time_t(0, 0), Time_t(0, 0));
    };

    ImmeditRequestScheduler* pScheduler = new ImmeditRequestScheduler(nullptr, nullptr);
    Thread* pThread = new Thread(std::string("0_SEND"));
    ASSERT_EQ(0, pThread->Start(&ImmeditRequestScheduler::SendRun, pScheduler, 0, ""));

    pScheduler->RequestAdd(make(1));
    ASSERT_TRUE(WaitFor([&] { return journal.executed.load() == 1; }, 2000));
    pScheduler->RequestAdd(make(2));  // the thread is back waiting; this wakes it
    ASSERT_TRUE(WaitFor([&] { return journal.executed.load() == 2; }, 2000));
    EXPECT_EQ(2, journal.destroyed.load());

    testing::internal::CaptureStdout();
    const Clock::time_point start = Clock::now();
    pScheduler->SetRunFlag(false);
    const bool bStopped = WaitFor([&] { return pScheduler->GetStoppedFlag() != 0; }, 3000, 1);
    const auto stopMs = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    const std::string strOut = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(bStopped);
    EXPECT_LT(stopMs, 1100);
    EXPECT_NE(std::string::npos, strOut.find("Stop Send Thread .. \n"));
    std::vector<int> codes = capture.CodesOf("Stop Send Thread Sucess");
    EXPECT_EQ((std::vector<int>{DDSLOG_RECV, DDSLOG_WRITE, DDSLOG_ERROR, DDSLOG_INFO}), codes);
    delete pThread;

    // Left in the queue at the stop: deleted with the scheduler, unexecuted.
    pScheduler->RequestAdd(make(3));
    delete pScheduler;
    EXPECT_EQ(2, journal.executed.load());
    EXPECT_EQ(3, journal.destroyed.load());
    SetLogObserver(nullptr, nullptr);
}

}  // namespace
