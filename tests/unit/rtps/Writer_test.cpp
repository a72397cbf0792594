#include "rtps/Writer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include "QosPolicy.h"
#include "core/SystemClock.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/StatefulWriter.h"
#include "rtps/StatelessWriter.h"

namespace {
// The smallest concrete writer: only the operations under test are real.
class TestWriter : public Writer {
public:
    TestWriter(const GUID_t& guidValue, const DataWriterQos& qos) : Writer(guidValue, qos, nullptr) {}
    uint32_t getMatchedCount() override { return 0; }
    ReturnCode_t DataSend(CacheChange*) override { return 0; }
    int removeChange(SequenceNumber_t) override { return 0; }
};

GUID_t MakeGuid() {
    GUID_t guid = GUID_UNKNOWN;
    for (int i = 0; i < 12; ++i) guid.guidPrefix.value[i] = octet(i + 1);
    guid.entityId = EntityId_t{{0x05, 0x04, 0x01}, 0x03};
    return guid;
}

void FreeChange(CacheChange* pChange) {
    CacheChange::FreeData(pChange->data);
    delete pChange;
}

std::atomic<uint32_t> g_Ticks{0};
uint32_t FakeTicks() {
    return g_Ticks.load();
}

class Writer_liveliness : public ::testing::Test {
protected:
    void SetUp() override {
        g_Ticks = 10000;  // 10 s on the public clock
        SystemClock::SetTickCountSource(&FakeTicks);
    }
    void TearDown() override { SystemClock::SetTickCountSource(nullptr); }

    static DataWriterQos Qos(LivelinessQosPolicyKind kind, Duration_t lease) {
        DataWriterQos qos;
        qos.liveliness.kind = kind;
        qos.liveliness.lease_duration = lease;
        return qos;
    }
};
}  // namespace

TEST(Writer, NewChangeNumbersFromOneCopiesTheDataAndSkipSpendsANumber) {
    const GUID_t guid = MakeGuid();
    TestWriter writer(guid, DataWriterQos());
    EXPECT_EQ(SEQUENCENUMBER_ZERO, writer.getLastChangeSequenceNumber());
    const char payload[] = "abcdef";
    const InstanceHandle_t handle(guid);
    CacheChange* pFirst = writer.new_change(payload, 6, CHANGE_KIND_ALIVE, handle);
    ASSERT_NE(nullptr, pFirst);
    EXPECT_EQ(SequenceNumber_t(0, 1), pFirst->sequenceNumber);
    EXPECT_EQ(CHANGE_KIND_ALIVE, pFirst->kind);
    EXPECT_EQ(guid, pFirst->writerGUID);
    EXPECT_EQ(handle, pFirst->instanceHandle);
    ASSERT_EQ(6u, pFirst->dataLength);
    EXPECT_NE(reinterpret_cast<const octet*>(payload), pFirst->data);
    EXPECT_EQ(0, memcmp(payload, pFirst->data, 6));

    writer.skipSequenceNumber();
    EXPECT_EQ(SequenceNumber_t(0, 2), writer.getLastChangeSequenceNumber());
    CacheChange* pEmpty = writer.new_change(nullptr, 0, CHANGE_KIND_ALIVE, HANDLE_NIL);
    ASSERT_NE(nullptr, pEmpty);
    EXPECT_EQ(SequenceNumber_t(0, 3), pEmpty->sequenceNumber);
    EXPECT_EQ(nullptr, pEmpty->data);
    EXPECT_EQ(0u, pEmpty->dataLength);
    FreeChange(pFirst);
    FreeChange(pEmpty);
}

TEST(Writer, ClassesSetTheirReliabilityLevelWhateverTheQos) {
    DataWriterQos qos;  // best effort by default
    EXPECT_EQ(2u, StatefulWriter(MakeGuid(), qos, nullptr).getReliabilityLevel());
    qos.reliability.kind = RELIABLE_RELIABILITY_QOS;
    EXPECT_EQ(1u, StatelessWriter(MakeGuid(), qos, nullptr).getReliabilityLevel());
}

TEST(Writer, RemoveChangeOfStatelessWriterFreesTheCachedChange) {
    StatelessWriter writer(MakeGuid(), DataWriterQos(), nullptr);
    HistoryCache cache(4);
    writer.setWriterCache(&cache);
    cache.AddChange(writer.new_change("ab", 2, CHANGE_KIND_ALIVE, HANDLE_NIL));
    cache.AddChange(writer.new_change("cd", 2, CHANGE_KIND_ALIVE, HANDLE_NIL));
    EXPECT_EQ(0, writer.removeChange(SequenceNumber_t(0, 1)));
    EXPECT_EQ(1u, cache.GetChangeCount());
    EXPECT_EQ(SequenceNumber_t(0, 2), cache.GetSeqNumMin());
}

// ---------------------------------------------------------------- liveliness

TEST_F(Writer_liveliness, StartsInactiveAndOnlyItsOwnKindAsserts) {
    TestWriter writer(MakeGuid(), Qos(MANUAL_BY_PARTICIPANT_LIVELINESS_QOS, Time_t(1, 0)));
    EXPECT_EQ(0, writer.getLivelinessActive());
    EXPECT_EQ(Time_t(10, 0), writer.getLastLivelinessTime());
    EXPECT_EQ(0, writer.checkLiveliness(Time_t(100, 0)));  // not yet active: a missed lease is not reported
    EXPECT_EQ(0, writer.getLivelinessActive());

    g_Ticks = 12345;
    writer.assertLiveliness(AUTOMATIC_LIVELINESS_QOS);
    writer.assertLiveliness(MANUAL_BY_TOPIC_LIVELINESS_QOS);
    EXPECT_EQ(0, writer.getLivelinessActive());
    EXPECT_EQ(Time_t(10, 0), writer.getLastLivelinessTime());
    writer.assertLiveliness(MANUAL_BY_PARTICIPANT_LIVELINESS_QOS);
    EXPECT_EQ(1, writer.getLivelinessActive());
    EXPECT_EQ(Time_t(12, 345000000), writer.getLastLivelinessTime());
}

TEST_F(Writer_liveliness, LostOnlyWhenTheLeaseHasPassedAndOnlyOnce) {
    TestWriter writer(MakeGuid(), Qos(MANUAL_BY_TOPIC_LIVELINESS_QOS, Time_t(1, 500000000)));
    g_Ticks = 12000;
    writer.assertLiveliness(MANUAL_BY_TOPIC_LIVELINESS_QOS);  // expiry at 13.5 s
    writer.checkLiveliness(Time_t(13, 500000000));
    EXPECT_EQ(1, writer.getLivelinessActive()) << "at the expiry itself the lease holds";
    writer.checkLiveliness(Time_t(13, 500000001));
    EXPECT_EQ(0, writer.getLivelinessActive());

    // A new assertion revives it, and the next missed lease is lost again.
    g_Ticks = 30000;
    writer.assertLiveliness(MANUAL_BY_TOPIC_LIVELINESS_QOS);
    EXPECT_EQ(1, writer.getLivelinessActive());
    writer.checkLiveliness(Time_t(32, 0));
    EXPECT_EQ(0, writer.getLivelinessActive());

    TestWriter forever(MakeGuid(), Qos(AUTOMATIC_LIVELINESS_QOS, DURATION_INFINITE));
    forever.assertLiveliness(AUTOMATIC_LIVELINESS_QOS);
    forever.checkLiveliness(Time_t(0x7FFFFFFF, 999999999));
    EXPECT_EQ(1, forever.getLivelinessActive());
}
