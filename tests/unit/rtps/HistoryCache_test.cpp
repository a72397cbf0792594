#include "rtps/HistoryCache.h"

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "RtpsFixture.h"

namespace {
// Runs AddChange on a thread of its own so that a blocking add can be watched
// with bounded waits. If the add never finishes, the thread is detached and
// the cache must outlive the process (tests allocate it on the heap for this).
class AsyncAdd {
public:
    AsyncAdd(HistoryCache* pCache, uint32_t uiSeq)
        : m_Thread([this, pCache, uiSeq] {
              pCache->AddChange(MakeChange(uiSeq));
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

CacheChange* Stamped(uint32_t uiSeq, const Time_t& stamp, const Time_t& lifespan) {
    CacheChange* pChange = MakeChange(uiSeq);
    pChange->sourceTimestamp = stamp;
    pChange->lifespan = lifespan;
    return pChange;
}

using HistoryCache_lifespan = RtpsTest;
}  // namespace

TEST(HistoryCache, AddWaitsOnlyOnAFullCacheAndEachRemovalLetsOneThrough) {
    HistoryCache* pCache = new HistoryCache(3);
    CacheChange *pFirst = MakeChange(1), *pDuplicate = MakeChange(1);
    pCache->AddChange(pFirst);
    pCache->AddChange(pDuplicate);  // dropped, and its slot token comes back
    EXPECT_EQ(pFirst, pCache->GetChange(Sn(1)));
    AsyncAdd second(pCache, 2), third(pCache, 3);
    ASSERT_TRUE(second.Finishes() && third.Finishes());
    EXPECT_TRUE(pCache->IsFull());
    for (uint32_t uiSeq : {4u, 5u}) {
        AsyncAdd add(pCache, uiSeq);
        ASSERT_TRUE(add.Blocked());
        EXPECT_EQ(0, pCache->RemoveChange(Sn(uiSeq - 3)));
        ASSERT_TRUE(add.Finishes());
    }
    EXPECT_EQ(std::make_tuple(Sn(3), Sn(5)), std::make_tuple(pCache->GetSeqNumMin(), pCache->GetSeqNumMax()));
    CacheChange::FreeData(pDuplicate->data);  // not the cache's (ASan would report a double free)
    delete pDuplicate;
    delete pCache;
}

TEST(HistoryCache, FailedLookupsLogOneInfoLineAndChangeNothing) {
    // Whether the cache holds keys 1 and 2, and the call that must fail.
    const std::pair<bool, std::function<bool(HistoryCache&)>> aCases[] = {
        {false, [](HistoryCache& c) { return c.RemoveChange(Sn(5)) == -1; }},
        {true, [](HistoryCache& c) { return c.RemoveChange(SequenceNumber_t(3, 9)) == -1; }},
        {true, [](HistoryCache& c) { return c.GetChange(Sn(4)) == nullptr; }},
        {true, [](HistoryCache& c) { return c.takeChange(Sn(8)) == nullptr; }},
        {false, [](HistoryCache& c) { return c.GetSeqNumMin() == SEQUENCENUMBER_UNKNOWN; }},
        {false, [](HistoryCache& c) { return c.GetSeqNumAt(0) == SEQUENCENUMBER_UNKNOWN; }},  // logs nothing
    };
    LogRecorder logs;
    for (const auto& [bFilled, fnFails] : aCases) {
        HistoryCache cache(4);
        cache.SetTopic(7, "Square");
        for (uint32_t i = 1; bFilled && i <= 2; ++i) cache.AddChange(MakeChange(i));
        EXPECT_TRUE(fnFails(cache)) << logs.Entries().size();
        EXPECT_EQ(bFilled ? 2u : 0u, cache.GetChangeCount());
    }
    EXPECT_EQ(5u, logs.Entries().size());
    EXPECT_EQ(1,
              logs.Count("[HistoryCache::RemoveChange] m_ChangesMap.empty = NULL and TopicName = Square and "
                         "SeqNum = 5"));
}

TEST(HistoryCache, TakenSlotLeavesCountAndPositionsButStaysHeldUntilReturned) {
    LogRecorder logs;
    HistoryCache cache(3);
    for (uint32_t i = 1; i <= 3; ++i) cache.AddChange(MakeChange(i));
    CacheChange* pTaken = cache.takeChange(Sn(2));
    ASSERT_NE(nullptr, pTaken);
    EXPECT_EQ(std::make_tuple(2u, true, (CacheChange*)nullptr, Sn(3), SEQUENCENUMBER_UNKNOWN),
              std::make_tuple(cache.GetChangeCount(), cache.IsFull(), cache.GetChange(Sn(2)),
                              cache.GetSeqNumAt(1), cache.GetSeqNumAt(2)));
    EXPECT_EQ(nullptr, cache.takeChange(Sn(2)));  // a second take answers null quietly
    EXPECT_TRUE(logs.Entries().empty());
    EXPECT_EQ(0, cache.returnChange(pTaken));
    EXPECT_EQ(std::make_tuple(3u, pTaken, Sn(2)),
              std::make_tuple(cache.GetChangeCount(), cache.GetChange(Sn(2)), cache.GetSeqNumAt(1)));

    // Removing a taken change frees its slot; its return then deletes the record, not the payload.
    pTaken = cache.takeChange(Sn(1));
    octet* pPayload = pTaken->data;
    EXPECT_EQ(0, cache.RemoveChange(Sn(1)));
    EXPECT_EQ(std::make_tuple(2u, false), std::make_tuple(cache.GetChangeCount(), cache.IsFull()));
    EXPECT_EQ(0, cache.returnChange(pTaken));
    EXPECT_EQ(std::make_tuple(2u, Sn(2)), std::make_tuple(cache.GetChangeCount(), cache.GetSeqNumMin()));
    CacheChange::FreeData(pPayload);  // the only free of it
}

TEST_F(HistoryCache_lifespan, ExpiresOnlyPastStampPlusLifespanAndSparesTakenSlots) {
    // Source timestamp, lifespan, time of the sweep, and changes kept.
    const std::tuple<Time_t, Time_t, Time_t, uint32_t> aCases[] = {
        {Time_t(100, 900000000), Time_t(0, 200000000), Time_t(101, 100000000), 1},  // at the expiry
        {Time_t(100, 900000000), Time_t(0, 200000000), Time_t(101, 100000001), 0},
        {Time_t(0, 0), DURATION_INFINITE, Time_t(0x7FFFFFF0, 0), 1},
        {Time_t(1700000000, 0), Time_t(0x7FFFFFFF, 0), Time_t(1700000001, 0), 1},  // no wrap into the past
    };
    FakeNow();
    for (const auto& [stamp, lifespan, now, uiKept] : aCases) {
        HistoryCache cache(4);
        cache.AddChange(Stamped(1, stamp, lifespan));
        s_Now = now;
        cache.RemoveExpiredChanges();
        EXPECT_EQ(uiKept, cache.GetChangeCount()) << now.sec;
    }

    // A sweep passes taken slots over, and what it frees lets a blocked add through.
    s_Now = Time_t(5, 0);
    HistoryCache* pCache = new HistoryCache(2);
    for (uint32_t i = 1; i <= 2; ++i) pCache->AddChange(Stamped(i, Time_t(1, 0), Time_t(1, 0)));
    CacheChange* pTaken = pCache->takeChange(Sn(1));
    AsyncAdd add(pCache, 3);
    ASSERT_TRUE(add.Blocked());
    s_Now = Time_t(20, 0);
    pCache->RemoveExpiredChanges();
    ASSERT_TRUE(add.Finishes());
    EXPECT_EQ(std::make_tuple(Sn(1), 1u), std::make_tuple(pCache->GetSeqNumMin(), pCache->GetChangeCount()));
    // Back in its slot, the expired change goes with the next sweep; its holder may still read it.
    pCache->returnChange(pTaken);
    pCache->RemoveExpiredChanges();
    EXPECT_EQ(std::make_tuple(Sn(3), Sn(1)), std::make_tuple(pCache->GetSeqNumMin(), pTaken->sequenceNumber));
    delete pCache;
}
