#include "rtps/HistoryCache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DDSLogManagementFactory.h"
#include "log/LogObserver.h"
#include "rtps/CacheChange.h"

namespace
{
struct LogLine
{
    int key;
    int code;
    std::string text;
};

// Collects every log text while alive.
class LogCapture
{
public:
    LogCapture() { SetLogObserver(&LogCapture::Observe, this); }
    ~LogCapture() { SetLogObserver(nullptr, nullptr); }

    std::vector<LogLine> Lines()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Lines;
    }

private:
    static void Observe(void* context, int key, const char* text, size_t length, int code)
    {
        LogCapture* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> lock(self->m_Mutex);
        self->m_Lines.push_back(LogLine{key, code, std::string(text, length)});
    }

    std::mutex m_Mutex;
    std::vector<LogLine> m_Lines;
};

CacheChange* MakeChange(int32_t high, uint32_t low, uint32_t uiLength = 4)
{
    CacheChange* pChange = new CacheChange();
    pChange->sequenceNumber = SequenceNumber_t(high, low);
    pChange->dataLength = uiLength;
    pChange->data = CacheChange::AllocData(uiLength);
    return pChange;
}

CacheChange* MakeChange(uint32_t low)
{
    return MakeChange(0, low);
}

void FreeChange(CacheChange* pChange)
{
    CacheChange::FreeData(pChange->data);
    delete pChange;
}

// Runs AddChange on a thread of its own so that a blocking add can be watched
// with bounded waits. If the add never finishes, the thread is detached and
// the cache must outlive the process (tests allocate it on the heap for this).
class AsyncAdd
{
public:
    AsyncAdd(HistoryCache* pCache, CacheChange* pChange)
        : m_Done(false), m_Thread([this, pCache, pChange] {
              pCache->AddChange(pChange);
              m_Done = true;
          })
    {
    }
    ~AsyncAdd()
    {
        if (m_Done)
            m_Thread.join();
        else
            m_Thread.detach();
    }
    bool WaitDone(int iMilliseconds)
    {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(iMilliseconds);
        while (!m_Done && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return m_Done;
    }
    bool Done() const { return m_Done; }

private:
    std::atomic<bool> m_Done;
    std::thread m_Thread;
};

std::atomic<int32_t> g_NowSec{0};
std::atomic<uint32_t> g_NowFrac{0};
Time_t FakeNow()
{
    return Time_t(g_NowSec.load(), g_NowFrac.load());
}

class HistoryCache_lifespan : public ::testing::Test
{
protected:
    void SetUp() override { HistoryCache::SetTimeSource(&FakeNow); }
    void TearDown() override { HistoryCache::SetTimeSource(nullptr); }
    static void SetNow(int32_t sec, uint32_t frac)
    {
        g_NowSec = sec;
        g_NowFrac = frac;
    }
};
} // namespace

// ---------------------------------------------------------------- basic store

TEST(HistoryCache, KeepsKeyOrderWithSignedHighAndUnsignedLow)
{
    HistoryCache cache(10);
    cache.AddChange(MakeChange(0, 0x80000000u));
    cache.AddChange(MakeChange(0, 1));
    cache.AddChange(MakeChange(-1, 5));
    cache.AddChange(MakeChange(1, 0));

    EXPECT_EQ(SequenceNumber_t(-1, 5), cache.GetSeqNumMin());
    EXPECT_EQ(SequenceNumber_t(1, 0), cache.GetSeqNumMax());
    EXPECT_EQ(SequenceNumber_t(0, 1), cache.GetSeqNumAt(1));
    EXPECT_EQ(SequenceNumber_t(0, 0x80000000u), cache.GetSeqNumAt(2));
    EXPECT_EQ(4u, cache.GetChangeCount());
    EXPECT_EQ(10u, cache.GetCapacity());
    EXPECT_FALSE(cache.IsFull());
}

TEST(HistoryCache, DuplicateKeyIsDroppedButTokenComesBack)
{
    HistoryCache* pCache = new HistoryCache(3);
    CacheChange* pFirst = MakeChange(1);
    CacheChange* pSecond = MakeChange(1);
    pCache->AddChange(pFirst);
    pCache->AddChange(pSecond);
    EXPECT_EQ(1u, pCache->GetChangeCount());
    EXPECT_EQ(pFirst, pCache->GetChange(SequenceNumber_t(0, 1)));

    // The cache is not full, so the duplicate add gave the token back.
    AsyncAdd add(pCache, MakeChange(2));
    ASSERT_TRUE(add.WaitDone(2000));
    EXPECT_EQ(2u, pCache->GetChangeCount());

    FreeChange(pSecond); // not freed by the cache (ASan would report a double free)
    delete pCache;
}

TEST(HistoryCache, AddOnFullCacheBlocksUntilRemoveChange)
{
    HistoryCache* pCache = new HistoryCache(2);
    pCache->AddChange(MakeChange(1));
    pCache->AddChange(MakeChange(2));
    ASSERT_TRUE(pCache->IsFull());

    AsyncAdd add(pCache, MakeChange(3));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    ASSERT_FALSE(add.Done()) << "an add on a full cache must wait for a removal";

    EXPECT_EQ(0, pCache->RemoveChange(SequenceNumber_t(0, 1)));
    ASSERT_TRUE(add.WaitDone(2000));
    EXPECT_EQ(SequenceNumber_t(0, 2), pCache->GetSeqNumMin());
    EXPECT_EQ(SequenceNumber_t(0, 3), pCache->GetSeqNumMax());
    EXPECT_TRUE(pCache->IsFull());
    delete pCache;
}

TEST(HistoryCache, RemoveGivesRoomForExactlyOneAdd)
{
    HistoryCache* pCache = new HistoryCache(1);
    pCache->AddChange(MakeChange(1));
    EXPECT_EQ(0, pCache->RemoveChange(SequenceNumber_t(0, 1)));
    EXPECT_EQ(0u, pCache->GetChangeCount());
    {
        AsyncAdd add(pCache, MakeChange(2));
        ASSERT_TRUE(add.WaitDone(2000));
    }
    AsyncAdd blocked(pCache, MakeChange(3));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(blocked.Done());
    pCache->RemoveChange(SequenceNumber_t(0, 2));
    ASSERT_TRUE(blocked.WaitDone(2000));
    delete pCache;
}

// ---------------------------------------------------------------- failing look-ups

TEST(HistoryCache, RemoveChangeOfMissingKeysLogsAndAnswersMinusOne)
{
    LogCapture logs;
    HistoryCache cache(4);
    cache.SetTopic(7, "Square");

    EXPECT_EQ(-1, cache.RemoveChange(SequenceNumber_t(0, 5)));
    cache.AddChange(MakeChange(1));
    testing::internal::CaptureStdout();
    EXPECT_EQ(-1, cache.RemoveChange(SequenceNumber_t(0, 9)));
    const std::string strConsole = testing::internal::GetCapturedStdout();

    const std::vector<LogLine> lines = logs.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("[HistoryCache::RemoveChange] m_ChangesMap.empty = NULL and TopicName = Square and "
              "SeqNum = 5",
              lines[0].text);
    EXPECT_EQ("[HistoryCache::RemoveChange] m_ChangesMap.end() and TopicName = Square and SeqNum = 9",
              lines[1].text);
    EXPECT_EQ(7, lines[0].key);
    EXPECT_EQ(DDSLOG_INFO, lines[0].code);
    EXPECT_EQ(DDSLOG_INFO, lines[1].code);
    EXPECT_NE(std::string::npos, strConsole.find(" HistoryCache::RemoveChange Error\n"));
    EXPECT_EQ(1u, cache.GetChangeCount());
}

TEST(HistoryCache, GetChangeOfMissingKeysLogsAndAnswersNull)
{
    LogCapture logs;
    HistoryCache cache(4);
    cache.SetTopic(3, "Circle");

    EXPECT_EQ(nullptr, cache.GetChange(SequenceNumber_t(0, 2)));
    cache.AddChange(MakeChange(1));
    testing::internal::CaptureStdout();
    EXPECT_EQ(nullptr, cache.GetChange(SequenceNumber_t(0, 4)));
    const std::string strConsole = testing::internal::GetCapturedStdout();

    const std::vector<LogLine> lines = logs.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("[HistoryCache::GetChange] m_ChangesMap.empty() and  TopicName = Circle SeqNum = 2",
              lines[0].text);
    EXPECT_EQ("[HistoryCache::GetChange] m_ChangesMap.end() and TopicName = Circle SeqNum = 4",
              lines[1].text);
    EXPECT_NE(std::string::npos, strConsole.find(" HistoryCache::GetChange Error\n"));
}

TEST(HistoryCache, RangeQueriesOnEmptyCacheAnswerUnknownWithOneLineEach)
{
    LogCapture logs;
    HistoryCache cache(4);
    cache.SetTopic(1, "T");

    EXPECT_EQ(SEQUENCENUMBER_UNKNOWN, cache.GetSeqNumMin());
    EXPECT_EQ(SEQUENCENUMBER_UNKNOWN, cache.GetSeqNumMax());
    EXPECT_EQ(SEQUENCENUMBER_UNKNOWN, cache.GetSeqNumAt(0));

    const std::vector<LogLine> lines = logs.Lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("[HistoryCache::GetSeqNumMin] m_ChangesMap.empty and TopicName = T", lines[0].text);
    EXPECT_EQ("[HistoryCache::GetSeqNumMax] m_ChangesMap.empty and TopicName = T", lines[1].text);
    EXPECT_EQ(DDSLOG_INFO, lines[0].code);
}

TEST(HistoryCache, LogTextsPrintOnlyTheLowWord)
{
    LogCapture logs;
    HistoryCache cache(4);
    cache.SetTopic(1, "T");
    cache.RemoveChange(SequenceNumber_t(3, 12));
    const std::vector<LogLine> lines = logs.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].text.find("SeqNum = 12"));
}

// ---------------------------------------------------------------- take and return

TEST(HistoryCache, TakenSlotStaysInTheMapButLeavesTheCount)
{
    LogCapture logs;
    HistoryCache cache(2);
    cache.AddChange(MakeChange(1));
    cache.AddChange(MakeChange(2));

    CacheChange* pTaken = cache.takeChange(SequenceNumber_t(0, 1));
    ASSERT_NE(nullptr, pTaken);
    EXPECT_EQ(1u, cache.GetChangeCount());
    EXPECT_TRUE(cache.IsFull());
    EXPECT_EQ(SequenceNumber_t(0, 1), cache.GetSeqNumMin());
    EXPECT_EQ(nullptr, cache.GetChange(SequenceNumber_t(0, 1)));

    // A second take of a taken key answers null quietly.
    EXPECT_EQ(nullptr, cache.takeChange(SequenceNumber_t(0, 1)));
    EXPECT_TRUE(logs.Lines().empty());

    EXPECT_EQ(0, cache.returnChange(pTaken));
    EXPECT_EQ(2u, cache.GetChangeCount());
    EXPECT_EQ(pTaken, cache.GetChange(SequenceNumber_t(0, 1)));
}

TEST(HistoryCache, TakeOfAbsentKeyLogsWithTheMapSize)
{
    LogCapture logs;
    HistoryCache cache(4);
    cache.SetTopic(2, "Tri");
    cache.AddChange(MakeChange(1));
    cache.AddChange(MakeChange(2));
    EXPECT_EQ(nullptr, cache.takeChange(SequenceNumber_t(0, 8)));
    const std::vector<LogLine> lines = logs.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("[HistoryCache::takeChange] pCacheChange = NULL and TopicName = Tri Seq = 8 MapSize = 2",
              lines[0].text);
}

TEST(HistoryCache, RemovingATakenChangeErasesTheSlotAndReturnDeletesTheRecord)
{
    HistoryCache cache(2);
    cache.AddChange(MakeChange(1));
    cache.AddChange(MakeChange(2));
    CacheChange* pTaken = cache.takeChange(SequenceNumber_t(0, 1));
    ASSERT_NE(nullptr, pTaken);
    octet* pPayload = pTaken->data;

    EXPECT_EQ(0, cache.RemoveChange(SequenceNumber_t(0, 1)));
    EXPECT_EQ(1u, cache.GetChangeCount()); // the taken change was not counted any more
    EXPECT_FALSE(cache.IsFull());
    EXPECT_EQ(SequenceNumber_t(0, 2), cache.GetSeqNumMin());

    EXPECT_EQ(0, cache.returnChange(pTaken));
    EXPECT_EQ(1u, cache.GetChangeCount());
    EXPECT_EQ(SequenceNumber_t(0, 2), cache.GetSeqNumMin());
    // The record is gone, the payload left alone: freeing it here must be the only free.
    CacheChange::FreeData(pPayload);
}

TEST(HistoryCache, GetSeqNumAtCountsOnlyHeldChanges)
{
    HistoryCache cache(5);
    for (uint32_t i = 1; i <= 4; ++i)
        cache.AddChange(MakeChange(i));
    CacheChange* pTaken = cache.takeChange(SequenceNumber_t(0, 2));

    EXPECT_EQ(SequenceNumber_t(0, 1), cache.GetSeqNumAt(0));
    EXPECT_EQ(SequenceNumber_t(0, 3), cache.GetSeqNumAt(1));
    EXPECT_EQ(SequenceNumber_t(0, 4), cache.GetSeqNumAt(2));
    EXPECT_EQ(SEQUENCENUMBER_UNKNOWN, cache.GetSeqNumAt(3));
    EXPECT_EQ(SEQUENCENUMBER_UNKNOWN, cache.GetSeqNumAt(100));

    cache.returnChange(pTaken);
    EXPECT_EQ(SequenceNumber_t(0, 2), cache.GetSeqNumAt(1));
}

// ---------------------------------------------------------------- lifespan

TEST_F(HistoryCache_lifespan, ExpiresOnlyOnceTheTimeIsBeyondStampPlusLifespan)
{
    HistoryCache cache(4);
    CacheChange* pChange = MakeChange(1);
    pChange->sourceTimestamp = Time_t(100, 900000000);
    pChange->lifespan = Time_t(0, 200000000); // expires at 101 s + 100000000
    cache.AddChange(pChange);

    SetNow(101, 100000000);
    cache.RemoveExpiredChanges();
    EXPECT_EQ(1u, cache.GetChangeCount());

    SetNow(101, 100000001);
    cache.RemoveExpiredChanges();
    EXPECT_EQ(0u, cache.GetChangeCount());
    EXPECT_EQ(SEQUENCENUMBER_UNKNOWN, cache.GetSeqNumAt(0));
    // A holder of the pointer may still read the swept record.
    EXPECT_EQ(SequenceNumber_t(0, 1), pChange->sequenceNumber);
}

TEST_F(HistoryCache_lifespan, InfiniteLifespanAndTakenSlotsAreNeverSwept)
{
    HistoryCache cache(4);
    CacheChange* pForever = MakeChange(1);
    pForever->sourceTimestamp = Time_t(0, 0);
    cache.AddChange(pForever);
    CacheChange* pTakenAway = MakeChange(2);
    pTakenAway->lifespan = Time_t(1, 0);
    cache.AddChange(pTakenAway);
    CacheChange* pTaken = cache.takeChange(SequenceNumber_t(0, 2));

    SetNow(0x7FFFFFF0, 0);
    cache.RemoveExpiredChanges();
    EXPECT_EQ(1u, cache.GetChangeCount());
    EXPECT_EQ(pForever, cache.GetChange(SequenceNumber_t(0, 1)));

    // Back in its slot, the expired change goes with the next sweep.
    cache.returnChange(pTaken);
    cache.RemoveExpiredChanges();
    EXPECT_EQ(SequenceNumber_t(0, 1), cache.GetSeqNumMax());
}

TEST_F(HistoryCache_lifespan, LongFiniteLifespanDoesNotWrapIntoThePast)
{
    HistoryCache cache(4);
    CacheChange* pChange = MakeChange(1);
    pChange->sourceTimestamp = Time_t(1700000000, 0);
    pChange->lifespan = Time_t(0x7FFFFFFF, 0);
    cache.AddChange(pChange);
    SetNow(1700000001, 0);
    cache.RemoveExpiredChanges();
    EXPECT_EQ(1u, cache.GetChangeCount());
}

TEST_F(HistoryCache_lifespan, SweepOfAFullCacheReleasesABlockedAdd)
{
    HistoryCache* pCache = new HistoryCache(1);
    CacheChange* pOld = MakeChange(1);
    pOld->sourceTimestamp = Time_t(10, 0);
    pOld->lifespan = Time_t(1, 0);
    pCache->AddChange(pOld);
    ASSERT_TRUE(pCache->IsFull());

    AsyncAdd add(pCache, MakeChange(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_FALSE(add.Done());

    SetNow(20, 0);
    pCache->RemoveExpiredChanges();
    ASSERT_TRUE(add.WaitDone(2000));
    EXPECT_EQ(SequenceNumber_t(0, 2), pCache->GetSeqNumMin());
    delete pCache;
}
