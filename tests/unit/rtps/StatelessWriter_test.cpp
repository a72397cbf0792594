// The best-effort writer: its reader locators with their counts, and DataSend
// run here or queued to the immediate scheduler, over a capturing transport.
#include "rtps/StatelessWriter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include "DataSendRig.h"
#include "QosPolicy.h"
#include "core/SystemClock.h"
#include "requests/ImmeditRequestScheduler.h"
#include "requests/PeriodRequestScheduler.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"

namespace
{
std::atomic<int> g_ChangesDeleted{0};

class CountedChange : public CacheChange
{
public:
    ~CountedChange() override { ++g_ChangesDeleted; }
};

CacheChange* MakeChange(uint32_t uiLength, uint32_t uiSeq)
{
    CacheChange* pChange = new CountedChange();
    pChange->kind = CHANGE_KIND_ALIVE;
    pChange->sequenceNumber = SequenceNumber_t(0, uiSeq);
    pChange->dataLength = uiLength;
    pChange->data = CacheChange::AllocData(uiLength);
    return pChange;
}

DataWriterQos BestEffort()
{
    DataWriterQos qos;
    qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
    return qos;
}

std::atomic<uint32_t> g_Ticks{0};
uint32_t FakeTicks()
{
    return g_Ticks.load();
}

const Locator_t kSource = UdpLocator(10, 0, 0, 5, 7411);
const Locator_t kUnicast = UdpLocator(10, 0, 0, 7, 7661);
const Locator_t kMulticast = UdpLocator(239, 255, 0, 1, 7400);

class StatelessWriter_locators : public ::testing::Test
{
protected:
    StatelessWriter_locators() : m_Writer(GUID_UNKNOWN, BestEffort(), nullptr), m_Cache(4)
    {
        m_Cache.SetTopic(3, "Square");
        m_Writer.setWriterCache(&m_Cache);
    }

    uint32_t RefCount(const Locator_t& locator)
    {
        const auto map = m_Writer.getReaderLocators();
        auto it = map.find(locator);
        return it == map.end() ? 0 : it->second.m_RefCount;
    }

    StatelessWriter m_Writer;
    HistoryCache m_Cache;
};

TEST_F(StatelessWriter_locators, IsBestEffortAndStartsEmpty)
{
    EXPECT_EQ(1u, m_Writer.getReliabilityLevel());
    EXPECT_EQ(0u, m_Writer.getMatchedCount());
}

TEST_F(StatelessWriter_locators, UnicastAddedTwiceIsHeldOnceAndGoesWithOneRemoval)
{
    EXPECT_EQ(0, m_Writer.reader_locator_add(kUnicast));
    EXPECT_EQ(0, m_Writer.reader_locator_add(kUnicast));
    EXPECT_EQ(1u, m_Writer.getMatchedCount());
    EXPECT_EQ(1u, RefCount(kUnicast));

    EXPECT_EQ(0, m_Writer.reader_locator_remove(kUnicast));
    EXPECT_EQ(0u, m_Writer.getMatchedCount());
}

TEST_F(StatelessWriter_locators, MulticastAddedThriceNeedsThreeRemovals)
{
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(0, m_Writer.reader_locator_add(kMulticast));
    EXPECT_EQ(3u, RefCount(kMulticast));

    EXPECT_EQ(0, m_Writer.reader_locator_remove(kMulticast));
    EXPECT_EQ(0, m_Writer.reader_locator_remove(kMulticast));
    EXPECT_EQ(1u, m_Writer.getMatchedCount());
    EXPECT_EQ(1u, RefCount(kMulticast));
    EXPECT_EQ(0, m_Writer.reader_locator_remove(kMulticast));
    EXPECT_EQ(0u, m_Writer.getMatchedCount());
}

TEST_F(StatelessWriter_locators, MulticastIsDecidedByTheFirstOctet)
{
    const Locator_t lowest = UdpLocator(224, 0, 0, 1, 7400);
    const Locator_t below = UdpLocator(223, 255, 255, 255, 7400);
    const Locator_t reserved = UdpLocator(240, 0, 0, 1, 7400);
    for (const Locator_t& locator : {lowest, below, reserved})
    {
        m_Writer.reader_locator_add(locator);
        m_Writer.reader_locator_add(locator);
    }
    EXPECT_EQ(2u, RefCount(lowest));
    EXPECT_EQ(1u, RefCount(below));
    EXPECT_EQ(2u, RefCount(reserved)); // 0xF0 AND 0xE0 is 0xE0 as well
}

TEST_F(StatelessWriter_locators, RemovingAnUnknownLocatorFailsAndLogs)
{
    LogRecorder log;
    m_Writer.reader_locator_add(kUnicast);
    EXPECT_EQ(1, m_Writer.reader_locator_remove(kMulticast));
    EXPECT_EQ(1u, m_Writer.getMatchedCount());
    EXPECT_EQ(1, log.Count("[StatelessWriter::reader_locator_remove] m_MatchedLocatorMap.count = 0 "
                           "and TopicName = Square"));
}

TEST_F(StatelessWriter_locators, RemoveChangeTakesItFromTheCache)
{
    CacheChange* pChange = new CacheChange();
    pChange->sequenceNumber = SequenceNumber_t(0, 4);
    m_Cache.AddChange(pChange);
    EXPECT_EQ(0, m_Writer.removeChange(SequenceNumber_t(0, 4)));
    EXPECT_EQ(0u, m_Cache.GetChangeCount());
}

// ------------------------------------------------------------------ DataSend

class StatelessWriter_DataSend : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_ChangesDeleted = 0;
        g_Ticks = 50000;
        SystemClock::SetTickCountSource(&FakeTicks);
    }
    void TearDown() override { SystemClock::SetTickCountSource(nullptr); }

    StatelessWriter* MakeWriter(const DataWriterQos& qos)
    {
        StatelessWriter* pWriter = m_Rig.MakeWriter<StatelessWriter>(qos, kSource);
        if (pWriter != nullptr)
        {
            pWriter->reader_locator_add(kUnicast);
            pWriter->reader_locator_add(kMulticast);
        }
        return pWriter;
    }

    size_t Sent() { return m_Rig.transmitter().Datagrams().size(); }
    ImmeditRequestScheduler* Immediate() { return m_Rig.participant().getImmeditRequestScheduler(); }

    DataSendRig m_Rig;
};

TEST_F(StatelessWriter_DataSend, SynchronousSendIsDoneBeforeReturn)
{
    StatelessWriter* pWriter = MakeWriter(BestEffort());
    ASSERT_NE(nullptr, pWriter);

    EXPECT_EQ(0, pWriter->DataSend(MakeChange(16, 1)));

    EXPECT_EQ(2u, Sent()); // one DATA to each locator
    EXPECT_EQ(1, g_ChangesDeleted.load());
    EXPECT_TRUE(m_Rig.WriterIsFree(pWriter->getEntityId()));
}

TEST_F(StatelessWriter_DataSend, LargeSampleGoesAsFragmentsToEachLocator)
{
    StatelessWriter* pWriter = MakeWriter(BestEffort());
    ASSERT_NE(nullptr, pWriter);
    EXPECT_EQ(0, pWriter->DataSend(MakeChange(3 * 64512 + 10, 2)));
    const std::vector<CapturedDatagram> sent = m_Rig.transmitter().Datagrams();
    ASSERT_EQ(8u, sent.size());
    for (const CapturedDatagram& d : sent)
        EXPECT_EQ(0x16, d.bytes[32]); // DATA_FRAG behind header and INFO_TS
    EXPECT_EQ(1, g_ChangesDeleted.load());
}

TEST_F(StatelessWriter_DataSend, LatencyBudgetQueuesUntilItIsDue)
{
    DataWriterQos qos = BestEffort();
    qos.latency_budget.duration = Duration_t(0, 5000000); // 5 ms
    StatelessWriter* pWriter = MakeWriter(qos);
    ASSERT_NE(nullptr, pWriter);

    EXPECT_EQ(0, pWriter->DataSend(MakeChange(16, 1)));
    EXPECT_EQ(0u, Sent());
    EXPECT_EQ(0, g_ChangesDeleted.load());

    // Not yet due at 5 ms after queueing; due once past it.
    g_Ticks = 50005;
    Immediate()->ExcuteRequest();
    EXPECT_EQ(0u, Sent());

    g_Ticks = 50006;
    EXPECT_EQ(0, pWriter->DataSend(MakeChange(16, 2))); // wakes the send loop again
    Immediate()->ExcuteRequest();
    EXPECT_EQ(2u, Sent()); // only the first: the second is due at 50011
    EXPECT_EQ(1, g_ChangesDeleted.load());

    // The participant's scheduler drops the second unexecuted; its change goes with it.
}

TEST_F(StatelessWriter_DataSend, AsynchronousPublishModeQueuesByTransportPriority)
{
    DataWriterQos qos = BestEffort();
    qos.publish_mode.kind = ASYNCHRONOUS_PUBLISH_MODE_QOS;
    StatelessWriter* pLow = MakeWriter(qos);
    qos.transport_priority.value = 7;
    StatelessWriter* pHigh = MakeWriter(qos);
    ASSERT_NE(nullptr, pLow);
    ASSERT_NE(nullptr, pHigh);

    EXPECT_EQ(0, pLow->DataSend(MakeChange(16, 1)));
    EXPECT_EQ(0, pHigh->DataSend(MakeChange(16, 1)));
    EXPECT_EQ(0u, Sent());

    g_Ticks = 50001;
    Immediate()->ExcuteRequest();
    const std::vector<CapturedDatagram> sent = m_Rig.transmitter().Datagrams();
    ASSERT_EQ(4u, sent.size());
    // The writerId of the DATA stands 12 octets into it, behind header and INFO_TS.
    const EntityId_t high = pHigh->getEntityId();
    EXPECT_EQ(high.entityKey[2], sent[0].bytes[46]);
    EXPECT_EQ(high.entityKey[2], sent[1].bytes[46]);
    EXPECT_NE(high.entityKey[2], sent[2].bytes[46]);
    EXPECT_EQ(2, g_ChangesDeleted.load());
}

TEST_F(StatelessWriter_DataSend, QueuedRequestDroppedWithTheSchedulerFreesItsChange)
{
    {
        DataSendRig rig;
        DataWriterQos qos = BestEffort();
        qos.latency_budget.duration = Duration_t(1, 0);
        StatelessWriter* pWriter = rig.MakeWriter<StatelessWriter>(qos, kSource);
        ASSERT_NE(nullptr, pWriter);
        EXPECT_EQ(0, pWriter->DataSend(MakeChange(64512 * 2, 1)));
        EXPECT_EQ(0, g_ChangesDeleted.load());
    }
    EXPECT_EQ(1, g_ChangesDeleted.load());
}

TEST_F(StatelessWriter_DataSend, NoLocatorSendsNothingAndFreesTheChange)
{
    StatelessWriter* pWriter = m_Rig.MakeWriter<StatelessWriter>(BestEffort(), kSource);
    ASSERT_NE(nullptr, pWriter);
    EXPECT_EQ(0, pWriter->DataSend(MakeChange(16, 1)));
    EXPECT_EQ(0u, Sent());
    EXPECT_EQ(1, g_ChangesDeleted.load());
}

TEST_F(StatelessWriter_DataSend, WithoutSchedulersTheChangeIsFreedAndSendFails)
{
    StatelessWriter writer(GUID_UNKNOWN, BestEffort(), nullptr);
    EXPECT_EQ(1, writer.DataSend(MakeChange(16, 1)));
    EXPECT_EQ(1, g_ChangesDeleted.load());
}

TEST_F(StatelessWriter_DataSend, RequestCarriesTheTopicOfTheWriterCache)
{
    // A writer outside the participant's map: its request finds no endpoint
    // and says so under the topic that the writer gave it.
    RequestScheduler* apSchedulers[2] = {Immediate(),
                                         m_Rig.participant().getPeriodRequestScheduler()};
    GUID_t guid;
    guid.entityId = EntityId_t{{0x00, 0x77, 0x01}, 0x03};
    StatelessWriter writer(guid, BestEffort(), apSchedulers);
    HistoryCache cache(4);
    cache.SetTopic(3, "Square");
    writer.setWriterCache(&cache);
    LogRecorder log;

    EXPECT_EQ(0, writer.DataSend(MakeChange(16, 1)));
    EXPECT_EQ(1, log.Count("[DataMessageRequest_L::sendDataMessage] isEndpointExist Error and TopicName = Square"));
    EXPECT_EQ(1, g_ChangesDeleted.load());
}

} // namespace
