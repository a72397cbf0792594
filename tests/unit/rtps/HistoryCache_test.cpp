#include "rtps/HistoryCache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "DDSLogManagementFactory.h"
#include "DataSendRig.h"
#include "NetnsGuard.h"
#include "rtps/CacheChange.h"

namespace {
SequenceNumber_t Sn(uint32_t low) {
    return SequenceNumber_t(0, low);
}

// Runs AddChange on a thread of its own so that a blocking add can be watched
// with bounded waits. If the add never finishes, the thread is detached and
// the cache must outlive the process (tests allocate it on the heap for this).
class AsyncAdd {
public:
    AsyncAdd(HistoryCache* pCache, CacheChange* pChange)
        : m_Thread([this, pCache, pChange] {
              pCache->AddChange(pChange);
              m_Done = true;
          }) {}
    ~AsyncAdd() { m_Done ? m_Thread.join() : m_Thread.detach(); }
    bool Blocked() {
        return HoldsFor([this] { return !m_Done.load(); }, 100);
    }
    bool Finishes() {
        return WaitFor([this] { return m_Done.load(); }, 2000);
    }

private:
    std::atomic<bool> m_Done{false};
    std::thread m_Thread;
};

Time_t g_Now;
Time_t FakeNow() {
    return g_Now;
}
}  // namespace

// ---------------------------------------------------------------- store and semaphore

TEST(HistoryCache, DuplicateKeyIsDroppedButTokenComesBack) {
    HistoryCache* pCache = new HistoryCache(3);
    CacheChange* pFirst = MakeChange(1);
    CacheChange* pSecond = MakeChange(1);
    pCache->AddChange(pFirst);
    pCache->AddChange(pSecond);
    EXPECT_EQ(1u, pCache->GetChangeCount());
    EXPECT_EQ(pFirst, pCache->GetChange(Sn(1)));
    // Three slots, one used: two more adds go through without waiting.
    AsyncAdd second(pCache, MakeChange(2));
    ASSERT_TRUE(second.Finishes());
    AsyncAdd third(pCache, MakeChange(3));
    ASSERT_TRUE(third.Finishes());
    EXPECT_TRUE(pCache->IsFull());
    CacheChange::FreeData(pSecond->data);  // not freed by the cache (ASan would report a double free)
    delete pSecond;
    delete pCache;
}

TEST(HistoryCache, AddOnFullCacheBlocksAndEachRemovalLetsExactlyOneThrough) {
    HistoryCache* pCache = new HistoryCache(2);
    pCache->AddChange(MakeChange(1));
    pCache->AddChange(MakeChange(2));
    ASSERT_TRUE(pCache->IsFull());
    AsyncAdd third(pCache, MakeChange(3));
    ASSERT_TRUE(third.Blocked()) << "an add on a full cache must wait for a removal";
    EXPECT_EQ(0, pCache->RemoveChange(Sn(1)));
    ASSERT_TRUE(third.Finishes());
    EXPECT_EQ(Sn(2), pCache->GetSeqNumMin());
    EXPECT_EQ(Sn(3), pCache->GetSeqNumMax());

    AsyncAdd fourth(pCache, MakeChange(4));
    ASSERT_TRUE(fourth.Blocked());
    pCache->RemoveChange(Sn(2));
    ASSERT_TRUE(fourth.Finishes());
    delete pCache;
}

// ---------------------------------------------------------------- failing look-ups

TEST(HistoryCache, FailedLookupsLogOneInfoLineAndChangeNothing) {
    struct Case {
        bool bFilled;                                // holds keys 1 and 2
        std::function<bool(HistoryCache&)> fnFails;  // the call and its failure answer
        const char* szLog;                           // "" : nothing logged
        const char* szConsole;                       // "" : nothing printed
    };
    const Case aCases[] = {
        {false, [](HistoryCache& c) { return c.RemoveChange(Sn(5)) == -1; },
         "[HistoryCache::RemoveChange] m_ChangesMap.empty = NULL and TopicName = Square and SeqNum = 5", ""},
        // Logs print only the low word.
        {true, [](HistoryCache& c) { return c.RemoveChange(SequenceNumber_t(3, 9)) == -1; },
         "[HistoryCache::RemoveChange] m_ChangesMap.end() and TopicName = Square and SeqNum = 9",
         " HistoryCache::RemoveChange Error\n"},
        {false, [](HistoryCache& c) { return c.GetChange(Sn(2)) == nullptr; },
         "[HistoryCache::GetChange] m_ChangesMap.empty() and  TopicName = Square SeqNum = 2", ""},
        {true, [](HistoryCache& c) { return c.GetChange(Sn(4)) == nullptr; },
         "[HistoryCache::GetChange] m_ChangesMap.end() and TopicName = Square SeqNum = 4",
         " HistoryCache::GetChange Error\n"},
        {true, [](HistoryCache& c) { return c.takeChange(Sn(8)) == nullptr; },
         "[HistoryCache::takeChange] pCacheChange = NULL and TopicName = Square Seq = 8 MapSize = 2", ""},
        {false, [](HistoryCache& c) { return c.GetSeqNumMin() == SEQUENCENUMBER_UNKNOWN; },
         "[HistoryCache::GetSeqNumMin] m_ChangesMap.empty and TopicName = Square", ""},
        {false, [](HistoryCache& c) { return c.GetSeqNumMax() == SEQUENCENUMBER_UNKNOWN; },
         "[HistoryCache::GetSeqNumMax] m_ChangesMap.empty and TopicName = Square", ""},
        {false, [](HistoryCache& c) { return c.GetSeqNumAt(0) == SEQUENCENUMBER_UNKNOWN; }, "", ""},
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.szLog);
        HistoryCache cache(4);
        cache.SetTopic(7, "Square");
        for (uint32_t i = 1; c.bFilled && i <= 2; ++i) cache.AddChange(MakeChange(i));
        LogRecorder logs;
        testing::internal::CaptureStdout();
        EXPECT_TRUE(c.fnFails(cache));
        const std::string strConsole = testing::internal::GetCapturedStdout();
        EXPECT_EQ(c.szConsole[0] == '\0', strConsole.empty());
        EXPECT_NE(std::string::npos, strConsole.find(c.szConsole));
        EXPECT_EQ(c.bFilled ? 2u : 0u, cache.GetChangeCount());
        const std::vector<std::string> expected =
            c.szLog[0] == '\0' ? std::vector<std::string>() : std::vector<std::string>{c.szLog};
        EXPECT_EQ(expected, logs.Texts());
        for (const LogEntry& entry : logs.Entries()) EXPECT_TRUE(entry.key == 7 && entry.code == DDSLOG_INFO);
    }
}

// ---------------------------------------------------------------- take and return

TEST(HistoryCache, TakenSlotStaysInTheMapButLeavesCountAndPositions) {
    LogRecorder logs;
    HistoryCache cache(3);
    for (uint32_t i = 1; i <= 3; ++i) cache.AddChange(MakeChange(i));
    CacheChange* pTaken = cache.takeChange(Sn(2));
    ASSERT_NE(nullptr, pTaken);
    EXPECT_EQ(2u, cache.GetChangeCount());
    EXPECT_TRUE(cache.IsFull());  // the slot is still held
    EXPECT_EQ(nullptr, cache.GetChange(Sn(2)));
    EXPECT_EQ(Sn(3), cache.GetSeqNumAt(1));
    EXPECT_EQ(SEQUENCENUMBER_UNKNOWN, cache.GetSeqNumAt(2));
    EXPECT_EQ(nullptr, cache.takeChange(Sn(2)));  // a second take answers null quietly
    EXPECT_TRUE(logs.Entries().empty());

    EXPECT_EQ(0, cache.returnChange(pTaken));
    EXPECT_EQ(3u, cache.GetChangeCount());
    EXPECT_EQ(pTaken, cache.GetChange(Sn(2)));
    EXPECT_EQ(Sn(2), cache.GetSeqNumAt(1));
}

TEST(HistoryCache, RemovingATakenChangeErasesTheSlotAndReturnDeletesTheRecord) {
    HistoryCache cache(2);
    cache.AddChange(MakeChange(1));
    cache.AddChange(MakeChange(2));
    CacheChange* pTaken = cache.takeChange(Sn(1));
    ASSERT_NE(nullptr, pTaken);
    octet* pPayload = pTaken->data;
    EXPECT_EQ(0, cache.RemoveChange(Sn(1)));
    EXPECT_EQ(1u, cache.GetChangeCount());  // the taken change was not counted any more
    EXPECT_FALSE(cache.IsFull());
    EXPECT_EQ(0, cache.returnChange(pTaken));
    EXPECT_EQ(1u, cache.GetChangeCount());
    EXPECT_EQ(Sn(2), cache.GetSeqNumMin());
    CacheChange::FreeData(pPayload);  // the record is gone, the payload left alone: this is the only free
}

// ---------------------------------------------------------------- lifespan

TEST(HistoryCache_lifespan, ExpiresOnlyOnceTheTimeIsBeyondStampPlusLifespan) {
    struct Case {
        Time_t stamp, lifespan, now;
        bool bKept;
    };
    const Case aCases[] = {
        {Time_t(100, 900000000), Time_t(0, 200000000), Time_t(101, 100000000), true},  // at the expiry
        {Time_t(100, 900000000), Time_t(0, 200000000), Time_t(101, 100000001), false},
        {Time_t(0, 0), DURATION_INFINITE, Time_t(0x7FFFFFF0, 0), true},
        {Time_t(1700000000, 0), Time_t(0x7FFFFFFF, 0), Time_t(1700000001, 0), true},  // no wrap into the past
    };
    HistoryCache::SetTimeSource(&FakeNow);
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.now.sec);
        HistoryCache cache(4);
        CacheChange* pChange = MakeChange(1);
        pChange->sourceTimestamp = c.stamp;
        pChange->lifespan = c.lifespan;
        cache.AddChange(pChange);
        g_Now = c.now;
        cache.RemoveExpiredChanges();
        EXPECT_EQ(c.bKept ? 1u : 0u, cache.GetChangeCount());
    }
    HistoryCache::SetTimeSource(nullptr);
}

TEST(HistoryCache_lifespan, TakenSlotsWaitAndASweepReleasesABlockedAdd) {
    HistoryCache::SetTimeSource(&FakeNow);
    g_Now = Time_t(5, 0);
    HistoryCache* pCache = new HistoryCache(2);
    for (uint32_t i = 1; i <= 2; ++i) {
        CacheChange* pOld = MakeChange(i);
        pOld->sourceTimestamp = Time_t(1, 0);
        pOld->lifespan = Time_t(1, 0);
        pCache->AddChange(pOld);
    }
    CacheChange* pTaken = pCache->takeChange(Sn(1));
    AsyncAdd add(pCache, MakeChange(3));
    ASSERT_TRUE(add.Blocked());

    g_Now = Time_t(20, 0);
    pCache->RemoveExpiredChanges();
    ASSERT_TRUE(add.Finishes());
    EXPECT_EQ(Sn(1), pCache->GetSeqNumMin());  // the taken slot was not swept
    EXPECT_EQ(1u, pCache->GetChangeCount());
    // Back in its slot, the expired change goes with the next sweep.
    pCache->returnChange(pTaken);
    pCache->RemoveExpiredChanges();
    EXPECT_EQ(Sn(3), pCache->GetSeqNumMin());
    // A holder of the pointer may still read a swept record.
    EXPECT_EQ(Sn(1), pTaken->sequenceNumber);
    delete pCache;
    HistoryCache::SetTimeSource(nullptr);
}
