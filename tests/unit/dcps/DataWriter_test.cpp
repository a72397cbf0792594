// Tests of the publishing side: create_datawriter (entity ids, writer class,
// refusals), the write rules (no reader, history of a reliable writer, best
// effort), deadline and liveliness reports, deletion and the fixed-value stubs.
#include "DataWriter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <list>
#include <string>

#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "LogCapture.h"
#include "NetnsGuard.h"
#include "Publisher.h"
#include "Topic.h"
#include "dcps/DataWriterImpl.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/PublisherImpl.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/Participant.h"
#include "rtps/StatefulWriter.h"
#include "rtps/StatelessWriter.h"

namespace {

const int kDomain = 73;

DataWriterQos Qos(ReliabilityQosPolicyKind reliability, DurabilityQosPolicyKind durability,
                  HistoryQosPolicyKind history = KEEP_LAST_HISTORY_QOS, int32_t depth = 1) {
    DataWriterQos qos;
    qos.reliability.kind = reliability;
    qos.durability.kind = durability;
    qos.history.kind = history;
    qos.history.depth = depth;
    return qos;
}

InstanceHandle_t Handle(octet fill) {
    InstanceHandle_t h = HANDLE_NIL;
    std::memset(h.value, fill, sizeof(h.value));
    h.isValid = 1;
    return h;
}

// Counts the calls and keeps the writer and total count each callback was given.
class RecordingListener : public DataWriterListener {
public:
    void on_liveliness_lost(DataWriter* writer, const LivelinessLostStatus& status) override {
        Record(writer, status.total_count * 100 + status.total_count_change, m_iLivelinessCalls);
    }
    void on_offered_deadline_missed(DataWriter* writer, const OfferedDeadlineMissedStatus& status) override {
        Record(writer, status.total_count, m_iDeadlineCalls);
    }
    void Record(DataWriter* writer, int total, std::atomic<int>& calls) {
        m_pWriter = writer;
        m_iTotal = total;
        ++calls;
    }
    std::atomic<DataWriter*> m_pWriter{nullptr};
    std::atomic<int> m_iTotal{0}, m_iLivelinessCalls{0}, m_iDeadlineCalls{0};
};

// One participant for the suite; each test gets topic "Track" and a publisher,
// and leaves no application entity behind.
class DataWriter_Shared : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_p = DomainParticipantFactory::get_instance()->create_participant(kDomain, PARTICIPANT_QOS_DEFAULT,
                                                                           nullptr, 0);
        if (s_p != nullptr) s_p->register_type("Position");
    }
    static void TearDownTestSuite() {
        if (s_p == nullptr) return;
        EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(s_p), RETCODE_OK);
        s_p = nullptr;
    }
    void SetUp() override {
        ASSERT_TRUE(s_p != nullptr && Rtps() != nullptr);
        m_pTopic = s_p->create_topic("Track", "Position", TOPIC_QOS_DEFAULT, nullptr, 0);
        m_pPub = s_p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
        ASSERT_TRUE(m_pTopic && m_pPub);
    }
    // Writers go before the listeners: timer threads may call those until then.
    void TearDown() override {
        if (s_p != nullptr) s_p->delete_contained_entities();
    }
    DataWriter* Make(const DataWriterQos& qos, DataWriterListener* listener = nullptr,
                     unsigned long mask = 0) {
        return m_pPub->create_datawriter(m_pTopic, qos, listener, mask);
    }
    static Participant* Rtps() { return s_p->getImpl()->getRtpsParticipant(); }

    static DomainParticipant* s_p;
    RecordingListener m_ListenerA, m_ListenerB;
    Topic* m_pTopic = nullptr;
    Publisher* m_pPub = nullptr;
};
DomainParticipant* DataWriter_Shared::s_p = nullptr;

}  // namespace

TEST_F(DataWriter_Shared, CreatePicksTheClassAllotsIdsAndListsInOrder) {
    DataWriter* reliable =
        Make(Qos(RELIABLE_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS, KEEP_LAST_HISTORY_QOS, 7));
    DataWriter* bestEffort = Make(Qos(BEST_EFFORT_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS));
    ASSERT_TRUE(reliable && bestEffort);
    Writer* pReliable = reliable->getImpl()->getRtpsWriter();
    EXPECT_NE(dynamic_cast<StatefulWriter*>(pReliable), nullptr);
    EXPECT_NE(dynamic_cast<StatelessWriter*>(bestEffort->getImpl()->getRtpsWriter()), nullptr);
    // User writers are d 04 k 03 under the participant's prefix, k counting up.
    const GUID_t g1 = reliable->getGuid();
    EXPECT_EQ(g1.entityId, (EntityId_t{{kDomain, 0x04, g1.entityId.entityKey[2]}, 0x03}));
    EXPECT_EQ(bestEffort->getGuid().entityId.entityKey[2], octet(g1.entityId.entityKey[2] + 1));
    EXPECT_EQ(std::memcmp(g1.guidPrefix.value, Rtps()->getGuidPrefix().value, 12), 0);
    EXPECT_TRUE(Rtps()->isEndpointExist(g1.entityId));
    // Linked both ways, with a cache as deep as the history.
    EXPECT_EQ(pReliable->getDataWriter(), static_cast<WriterEventSink*>(reliable->getImpl()));
    EXPECT_EQ(pReliable->getWriterCache(), reliable->getImpl()->getHistoryCache());
    EXPECT_EQ(reliable->getImpl()->getHistoryCache()->GetCapacity(), 7u);

    EXPECT_EQ(m_pPub->lookup_datawriter("Track"), (std::list<DataWriter*>{reliable, bestEffort}));
    LogCapture log;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(m_pPub->lookup_datawriter("Speed").empty());
    EXPECT_TRUE(m_pPub->lookup_datawriter("").empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Invalid Argument\n");
    EXPECT_EQ(log.Count("[Publisher::lookup_datawriter] pDataWriterImplList.size() == 0"), 1u);
}

TEST_F(DataWriter_Shared, CreateRefusesUnknownReliabilityNullAndForeignTopics) {
    LogCapture log;
    DataWriterQos qos;
    qos.reliability.kind = static_cast<ReliabilityQosPolicyKind>(0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Make(qos), nullptr);
    EXPECT_EQ(m_pPub->create_datawriter(nullptr, DATAWRITER_QOS_DEFAULT, nullptr, 0), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR:Topic is NULL\n");
    EXPECT_EQ(log.Count("[PublisherImpl::create_datawriter] pWriter = NULL"), 1u);
    EXPECT_EQ(log.Count("[Publisher::create_datawriter] pDataWriter = NULL and TopicName = Track"), 1u);
    EXPECT_TRUE(m_pPub->getImpl()->getDataWriterImplList().empty());

    // A topic that only another participant holds.
    DomainParticipant* other = DomainParticipantFactory::get_instance()->create_participant(
        kDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(other, nullptr);
    other->register_type("Position");
    Topic* foreign = other->create_topic("Elsewhere", "Position", TOPIC_QOS_DEFAULT, nullptr, 0);
    EXPECT_EQ(m_pPub->create_datawriter(foreign, DATAWRITER_QOS_DEFAULT, nullptr, 0), nullptr);
    EXPECT_EQ(log.Count("[PublisherImpl::create_datawriter] Topic find error and TopicName = Elsewhere"), 1u);
    EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(other), RETCODE_OK);
}

TEST_F(DataWriter_Shared, WriteWithoutReadersDropsVolatileAndNeverCachesBestEffort) {
    struct Row {
        ReliabilityQosPolicyKind reliability;
        DurabilityQosPolicyKind durability;
        bool dropped;
    };
    const Row rows[] = {{RELIABLE_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS, true},
                        {BEST_EFFORT_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS, true},
                        {BEST_EFFORT_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS, false}};
    for (const Row& row : rows) {
        SCOPED_TRACE(&row - rows);
        DataWriter* w = Make(Qos(row.reliability, row.durability, KEEP_LAST_HISTORY_QOS, 4));
        ASSERT_NE(w, nullptr);
        LogCapture log;
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(w->write("abc", 3, Handle(1)) == READERPROXY_NOT_EXIST, row.dropped);
        // The numbers are spent all the same, and nothing stays in the cache.
        EXPECT_EQ(w->getImpl()->getRtpsWriter()->getLastChangeSequenceNumber(), SequenceNumber_t(0, 2));
        EXPECT_EQ(w->getImpl()->getHistoryCache()->GetChangeCount(), 0u);
        EXPECT_EQ(w->getImpl()->getWriteCount(), 2u);
        EXPECT_EQ(log.Count("[DataWriterImpl::write] READERPROXY_NOT_EXIST Error and TopicName = Track"),
                  row.dropped ? 2u : 0u);
    }
}

TEST_F(DataWriter_Shared, ReliableTransientLocalKeepsWhatEveryOverloadGives) {
    DataWriter* w =
        Make(Qos(RELIABLE_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS, KEEP_LAST_HISTORY_QOS, 8));
    ASSERT_NE(w, nullptr);
    GUID_t reader = w->getGuid();
    reader.entityId = EntityId_t{{0x00, 0x09, 0x01}, 0x04};
    const octet status[4] = {0, 0, 0, 3};
    std::list<Parameter> params = {Parameter(PID_STATUS_INFO, 4, status)};
    char sample[] = {1, 2, 3, 4, 5};
    const Time_t before = GetRtpsTimestamp();
    EXPECT_EQ(w->write(sample, sizeof(sample), Handle(0x42)), RETCODE_OK);
    sample[0] = 99;  // the application may reuse its buffer at once
    EXPECT_EQ(w->write_w_timestamp("x", 1, Handle(1), Time_t(1234, 5678)), RETCODE_OK);
    EXPECT_EQ(w->directed_write("z", 1, Handle(3), reader, params), RETCODE_OK);
    EXPECT_EQ(w->write(nullptr, 0, HANDLE_NIL), RETCODE_OK);

    HistoryCache* pCache = w->getImpl()->getHistoryCache();
    CacheChange* c[4];
    for (uint32_t i = 0; i < 4; ++i) ASSERT_NE(c[i] = pCache->GetChange(SequenceNumber_t(0, i + 1)), nullptr);
    EXPECT_EQ(c[0]->writerGUID, w->getGuid());
    EXPECT_EQ(c[0]->targetReaderGUID, GUID_UNKNOWN);
    EXPECT_EQ(c[0]->instanceHandle, Handle(0x42));
    ASSERT_EQ(c[0]->dataLength, 5u);
    EXPECT_EQ(std::memcmp(c[0]->data, "\1\2\3\4\5", 5), 0);
    EXPECT_FALSE(c[0]->sourceTimestamp < before);
    EXPECT_EQ(c[1]->sourceTimestamp, Time_t(1234, 5678));
    EXPECT_EQ(c[2]->targetReaderGUID, reader);
    ASSERT_EQ(c[2]->inlineQos.size(), 1u);
    EXPECT_EQ(c[2]->inlineQos.front().value[3], 3);
    EXPECT_EQ(c[3]->data, nullptr);  // length 0 gives a change without a buffer
}

TEST_F(DataWriter_Shared, FullHistoryReleasesTheOldestAndOnlyKeepLastLogsIt) {
    struct Row {
        HistoryQosPolicyKind kind;
        int32_t depth;
        int writes;
        uint32_t min;
    };
    const Row rows[] = {
        {KEEP_LAST_HISTORY_QOS, 1, 3, 3}, {KEEP_LAST_HISTORY_QOS, 3, 5, 3}, {KEEP_ALL_HISTORY_QOS, 2, 3, 2}};
    for (const Row& row : rows) {
        SCOPED_TRACE(&row - rows);
        DataWriter* w =
            Make(Qos(RELIABLE_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS, row.kind, row.depth));
        ASSERT_NE(w, nullptr);
        HistoryCache* pCache = w->getImpl()->getHistoryCache();
        LogCapture log;
        // With no reader to wait for, every change counts as acknowledged: KEEP_ALL does not block.
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < row.writes; ++i) EXPECT_EQ(w->write("abc", 3, Handle(1)), RETCODE_OK);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
        EXPECT_EQ(pCache->GetChangeCount(), uint32_t(row.depth));
        EXPECT_EQ(pCache->GetSeqNumMin(), SequenceNumber_t(0, row.min));
        EXPECT_EQ(pCache->GetSeqNumMax(), SequenceNumber_t(0, row.writes));
        const std::string head = "[DataWriterImpl::write]  TopicName = Track : HistoryCache is Full,";
        size_t logged = 0;
        for (const LogCapture::Entry& e : log.Entries()) logged += e.text.rfind(head, 0) == 0;
        EXPECT_EQ(logged, row.kind == KEEP_ALL_HISTORY_QOS ? 0u : size_t(row.writes - row.depth));
        EXPECT_EQ(log.Count(head + "delete old Sn 2 and insert new Sn 3"), row.depth == 1 ? 1u : 0u);
    }
}

TEST_F(DataWriter_Shared, DeadlineTimerReportsAWriterThatNeverWrote) {
    DataWriterQos qos = Qos(BEST_EFFORT_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS);
    qos.deadline.period = Duration_t(1, 0);
    DataWriter* w = Make(qos, &m_ListenerA, 0);  // the mask is not consulted
    ASSERT_NE(w, nullptr);
    // The first firing comes 2 s after creation.
    EXPECT_TRUE(HoldsFor([&] { return m_ListenerA.m_iDeadlineCalls.load() == 0; }, 1500));
    ASSERT_TRUE(WaitFor([&] { return m_ListenerA.m_iDeadlineCalls.load() >= 1; }, 2500));
    EXPECT_EQ(m_ListenerA.m_pWriter.load(), w);
    EXPECT_GE(m_ListenerA.m_iTotal.load(), 1);
}

TEST_F(DataWriter_Shared, LivelinessLostCountsAndCallsTheCreationListenerWhenMasked) {
    RecordingListener& masked = m_ListenerA;
    DataWriterQos qos = Qos(RELIABLE_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS);
    qos.liveliness.kind = MANUAL_BY_TOPIC_LIVELINESS_QOS;
    qos.liveliness.lease_duration = Duration_t(1, 0);
    DataWriter* a = Make(qos, &masked, LIVELINESS_LOST_STATUS);
    DataWriter* b = Make(qos, &m_ListenerB, PUBLICATION_MATCHED_STATUS);
    ASSERT_TRUE(a && b);
    // set_listener stores nothing: the listener of creation stays the one called.
    EXPECT_EQ(b->set_listener(&masked, LIVELINESS_LOST_STATUS), RETCODE_OK);
    Time_t late = Writer::PublicClockNow();
    late.sec += 10;
    for (DataWriter* w : {a, b}) {
        Writer* pWriter = w->getImpl()->getRtpsWriter();
        pWriter->assertLiveliness(MANUAL_BY_TOPIC_LIVELINESS_QOS);
        pWriter->checkLiveliness(late);
        pWriter->checkLiveliness(late);  // reported once, on the fall from active
    }
    EXPECT_EQ(masked.m_iLivelinessCalls, 1);
    EXPECT_EQ(masked.m_pWriter, a);
    EXPECT_EQ(masked.m_iTotal, 101);  // total count 1, change 1
    EXPECT_EQ(m_ListenerB.m_iLivelinessCalls, 0);
    EXPECT_EQ(b->getImpl()->getLivelinessLostStatus().total_count, 1);
    // A write that stops at the cache (no reader yet) does not assert the writer again.
    EXPECT_EQ(a->write("abc", 3, Handle(1)), RETCODE_OK);
    EXPECT_EQ(a->getImpl()->getRtpsWriter()->getLivelinessActive(), 0);
}

TEST_F(DataWriter_Shared, DeleteRemovesEndpointsAndRefusesStrangers) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_pPub->delete_datawriter(nullptr), RETCODE_ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Invalid Argument\n");

    Publisher* other = s_p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
    DataWriter* a = other->create_datawriter(m_pTopic, Qos(RELIABLE_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS),
                                             nullptr, 0);
    DataWriter* b = other->create_datawriter(m_pTopic, DATAWRITER_QOS_DEFAULT, nullptr, 0);
    ASSERT_TRUE(a && b);
    const EntityId_t idA = a->getGuid().entityId, idB = b->getGuid().entityId;
    LogCapture log;
    EXPECT_EQ(m_pPub->delete_datawriter(a), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(log.Count("[PublisherImpl::delete_datawriter] Find DataWriter faid and TopicName = Track"), 1u);
    EXPECT_TRUE(Rtps()->isEndpointExist(idA));
    EXPECT_EQ(other->delete_datawriter(a), RETCODE_OK);
    EXPECT_FALSE(Rtps()->isEndpointExist(idA));
    EXPECT_EQ(other->lookup_datawriter("Track"), std::list<DataWriter*>{b});

    // Deleting a publisher takes its writers; a second delete finds nothing.
    Publisher* held = other;
    EXPECT_EQ(s_p->delete_publisher(held), RETCODE_OK);
    EXPECT_EQ(held, nullptr);
    EXPECT_FALSE(Rtps()->isEndpointExist(idB));
    held = other;
    EXPECT_EQ(s_p->delete_publisher(held), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(held, nullptr);
    EXPECT_EQ(log.Count("[DomainParticipantImpl::delete_publisher] pPublisher not exist"), 1u);
}

namespace {
class ReplacementWriter : public DataWriter {
public:
    explicit ReplacementWriter(DataWriterImpl* pImpl) : DataWriter(pImpl) {}
};
}  // namespace

TEST_F(DataWriter_Shared, StubsTouchNothingAndANewFacadeReplacesThePlainOne) {
    DataWriter* w = Make(Qos(RELIABLE_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS));
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(w->set_qos(Qos(RELIABLE_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS, KEEP_ALL_HISTORY_QOS)),
              RETCODE_OK);
    DataWriterQos got;
    w->get_qos(got);
    EXPECT_EQ(got.history.kind, KEEP_LAST_HISTORY_QOS);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(w->wait_for_acknowledgments(Duration_t(5, 0)), RETCODE_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));

    DataWriterImpl* pImpl = w->getImpl();
    DataWriter* replacement = new ReplacementWriter(pImpl);  // destroys the plain one
    EXPECT_EQ(pImpl->getFacade(), replacement);
    EXPECT_EQ(m_pPub->lookup_datawriter("Track"), std::list<DataWriter*>{replacement});
    EXPECT_EQ(m_pPub->delete_datawriter(replacement), RETCODE_OK);  // the Impl destroys it
}
