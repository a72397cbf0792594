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

namespace {
DataWriterQos BestEffort() {
    DataWriterQos qos;
    qos.reliability.kind = BEST_EFFORT_RELIABILITY_QOS;
    return qos;
}

std::atomic<uint32_t> g_Ticks{0};
uint32_t FakeTicks() {
    return g_Ticks.load();
}

const Locator_t kSource = UdpLocator(10, 0, 0, 5, 7411);
const Locator_t kUnicast = UdpLocator(10, 0, 0, 7, 7661);
const Locator_t kMulticast = UdpLocator(239, 255, 0, 1, 7400);
}  // namespace

TEST(StatelessWriter_locators, GroupsAreCountedAndOtherLocatorsHeldOnce) {
    LogRecorder log;
    StatelessWriter writer(GUID_UNKNOWN, BestEffort(), nullptr);
    HistoryCache cache(4);
    cache.SetTopic(3, "Square");
    writer.setWriterCache(&cache);
    // Multicast is decided by the first octet: 0xF0 AND 0xE0 is 0xE0 as well.
    const std::vector<std::pair<Locator_t, uint32_t>> cases = {{kUnicast, 1},
                                                               {UdpLocator(224, 0, 0, 1, 7400), 3},
                                                               {UdpLocator(223, 255, 255, 255, 7400), 1},
                                                               {UdpLocator(240, 0, 0, 1, 7400), 3}};
    for (const auto& c : cases)
        for (int i = 0; i < 3; ++i) EXPECT_EQ(0, writer.reader_locator_add(c.first));
    EXPECT_EQ(4u, writer.getMatchedCount());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second);
        EXPECT_EQ(c.second, writer.getReaderLocators().at(c.first).m_RefCount);
        for (uint32_t i = 1; i < c.second; ++i) EXPECT_EQ(0, writer.reader_locator_remove(c.first));
        EXPECT_EQ(1u, writer.getReaderLocators().count(c.first));  // held until the last removal
        EXPECT_EQ(0, writer.reader_locator_remove(c.first));
        EXPECT_EQ(0u, writer.getReaderLocators().count(c.first));
    }
    EXPECT_EQ(0u, writer.getMatchedCount());
    EXPECT_EQ(1, writer.reader_locator_remove(kMulticast));
    EXPECT_EQ(1, log.Count("[StatelessWriter::reader_locator_remove] m_MatchedLocatorMap.count = 0 "
                           "and TopicName = Square"));
}

// ------------------------------------------------------------------ DataSend

class StatelessWriter_DataSend : public ::testing::Test {
protected:
    void SetUp() override {
        CountedChange::Deleted() = 0;
        g_Ticks = 50000;
        SystemClock::SetTickCountSource(&FakeTicks);
    }
    void TearDown() override { SystemClock::SetTickCountSource(nullptr); }

    StatelessWriter* MakeWriter(const DataWriterQos& qos) {
        StatelessWriter* pWriter = m_Rig.MakeWriter<StatelessWriter>(qos, kSource);
        if (pWriter != nullptr) {
            pWriter->reader_locator_add(kUnicast);
            pWriter->reader_locator_add(kMulticast);
        }
        return pWriter;
    }
    std::vector<CapturedDatagram> Sent() { return m_Rig.transmitter().Datagrams(); }
    ImmeditRequestScheduler* Immediate() { return m_Rig.participant().getImmeditRequestScheduler(); }

    DataSendRig m_Rig;
};

TEST_F(StatelessWriter_DataSend, SynchronousSendGoesAsDataOrFragmentsBeforeReturn) {
    StatelessWriter* pWriter = MakeWriter(BestEffort());
    ASSERT_NE(nullptr, pWriter);
    EXPECT_EQ(0, pWriter->DataSend(MakeChange(1, 16)));
    EXPECT_EQ(2u, Sent().size());  // one DATA to each locator
    EXPECT_EQ(1, CountedChange::Deleted().load());
    EXPECT_TRUE(m_Rig.WriterIsFree(pWriter->getEntityId()));

    EXPECT_EQ(0, pWriter->DataSend(MakeChange(2, 3 * 64512 + 10)));
    const std::vector<CapturedDatagram> sent = Sent();
    ASSERT_EQ(10u, sent.size());  // four fragments to each locator
    EXPECT_EQ(0x15, sent[0].bytes[32]);
    for (size_t i = 2; i < sent.size(); ++i) EXPECT_EQ(0x16, sent[i].bytes[32]);  // behind header and INFO_TS
    EXPECT_EQ(2, CountedChange::Deleted().load());
}

TEST_F(StatelessWriter_DataSend, LatencyBudgetQueuesUntilItIsDue) {
    DataWriterQos qos = BestEffort();
    qos.latency_budget.duration = Duration_t(0, 5000000);  // 5 ms
    StatelessWriter* pWriter = MakeWriter(qos);
    ASSERT_NE(nullptr, pWriter);
    EXPECT_EQ(0, pWriter->DataSend(MakeChange(1, 16)));
    EXPECT_EQ(0u, Sent().size());
    EXPECT_EQ(0, CountedChange::Deleted().load());

    // Not yet due at 5 ms after queueing; due once past it.
    g_Ticks = 50005;
    Immediate()->ExcuteRequest();
    EXPECT_EQ(0u, Sent().size());
    g_Ticks = 50006;
    EXPECT_EQ(0, pWriter->DataSend(MakeChange(2, 16)));  // wakes the send loop again
    Immediate()->ExcuteRequest();
    EXPECT_EQ(2u, Sent().size());  // only the first: the second is due at 50011
    EXPECT_EQ(1, CountedChange::Deleted().load());
    // The participant's scheduler drops the second unexecuted; its change goes with it.
}

TEST_F(StatelessWriter_DataSend, AsynchronousPublishModeQueuesByTransportPriority) {
    DataWriterQos qos = BestEffort();
    qos.publish_mode.kind = ASYNCHRONOUS_PUBLISH_MODE_QOS;
    StatelessWriter* pLow = MakeWriter(qos);
    qos.transport_priority.value = 7;
    StatelessWriter* pHigh = MakeWriter(qos);
    ASSERT_NE(nullptr, pLow);
    ASSERT_NE(nullptr, pHigh);
    EXPECT_EQ(0, pLow->DataSend(MakeChange(1, 16)));
    EXPECT_EQ(0, pHigh->DataSend(MakeChange(1, 16)));
    EXPECT_EQ(0u, Sent().size());

    g_Ticks = 50001;
    Immediate()->ExcuteRequest();
    const std::vector<CapturedDatagram> sent = Sent();
    ASSERT_EQ(4u, sent.size());
    // The writerId of the DATA stands 12 octets into it, behind header and INFO_TS.
    const octet highKey = pHigh->getEntityId().entityKey[2];
    EXPECT_EQ(highKey, sent[0].bytes[46]);
    EXPECT_EQ(highKey, sent[1].bytes[46]);
    EXPECT_NE(highKey, sent[2].bytes[46]);
    EXPECT_EQ(2, CountedChange::Deleted().load());
}

TEST_F(StatelessWriter_DataSend, RequestCarriesTheWritersTopicAndFailsWithoutSchedulers) {
    StatelessWriter lone(GUID_UNKNOWN, BestEffort(), nullptr);
    EXPECT_EQ(1, lone.DataSend(MakeChange(1, 16)));
    EXPECT_EQ(1, CountedChange::Deleted().load());

    // A writer outside the participant's map: its request finds no endpoint
    // and says so under the topic that the writer gave it.
    RequestScheduler* apSchedulers[2] = {Immediate(), m_Rig.participant().getPeriodRequestScheduler()};
    GUID_t guid;
    guid.entityId = EntityId_t{{0x00, 0x77, 0x01}, 0x03};
    StatelessWriter writer(guid, BestEffort(), apSchedulers);
    HistoryCache cache(4);
    cache.SetTopic(3, "Square");
    writer.setWriterCache(&cache);
    LogRecorder log;
    EXPECT_EQ(0, writer.DataSend(MakeChange(2, 16)));
    EXPECT_EQ(
        1, log.Count("[DataMessageRequest_L::sendDataMessage] isEndpointExist Error and TopicName = Square"));
    EXPECT_EQ(2, CountedChange::Deleted().load());
}
