// Tests of the publishing side: create_datawriter (entity ids, writer class,
// refusals), the write rules (no reader, history of a reliable writer, best
// effort), deadline and liveliness reports, and deletion.
#include "DataWriter.h"

#include "DcpsFixture.h"
#include "dcps/DataWriterImpl.h"
#include "dcps/PublisherImpl.h"
#include "rtps/HistoryCache.h"

namespace {
const ReliabilityQosPolicyKind RELIABLE = RELIABLE_RELIABILITY_QOS, BEST_EFFORT = BEST_EFFORT_RELIABILITY_QOS;
const DurabilityQosPolicyKind VOLATILE = VOLATILE_DURABILITY_QOS, LOCAL = TRANSIENT_LOCAL_DURABILITY_QOS;
const HistoryQosPolicyKind KEEP_LAST = KEEP_LAST_HISTORY_QOS, KEEP_ALL = KEEP_ALL_HISTORY_QOS;

DataWriterQos Qos(ReliabilityQosPolicyKind reliability, DurabilityQosPolicyKind durability,
                  HistoryQosPolicyKind history = KEEP_LAST, int32_t depth = 1) {
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

class DataWriter_Shared : public DcpsTest {
protected:
    DataWriter* Make(const DataWriterQos& qos, DataWriterListener* listener = nullptr,
                     unsigned long mask = 0) {
        return m_pPub->create_datawriter(m_pTopic, qos, listener, mask);
    }
    static Participant* Rtps() { return s_p->getImpl()->getRtpsParticipant(); }
    // Writers go before the listeners (TearDown): timer threads may call those until then.
    RecordingListener m_ListenerA, m_ListenerB;
};
}  // namespace

TEST_F(DataWriter_Shared, CreateLinksBothWaysListsInOrderAndRefusesBadArguments) {
    DataWriter *reliable = Make(Qos(RELIABLE, LOCAL, KEEP_LAST, 7)),
               *bestEffort = Make(Qos(BEST_EFFORT, VOLATILE));
    ASSERT_TRUE(reliable && bestEffort);
    // The participant allots the id; linked both ways, with a cache as deep as the history.
    Writer* pReliable = reliable->getImpl()->getRtpsWriter();
    EXPECT_EQ(
        std::make_tuple(reliable->getGuid(), static_cast<WriterEventSink*>(reliable->getImpl()),
                        pReliable->getWriterCache(), 7u),
        std::make_tuple(pReliable->getGUID(), pReliable->getDataWriter(),
                        reliable->getImpl()->getHistoryCache(), pReliable->getWriterCache()->GetCapacity()));
    EXPECT_EQ(m_pPub->lookup_datawriter("Track"), (std::list<DataWriter*>{reliable, bestEffort}));
    testing::internal::CaptureStdout();
    EXPECT_TRUE(m_pPub->lookup_datawriter("").empty());
    EXPECT_EQ("ERROR: Invalid Argument\n", testing::internal::GetCapturedStdout());
    // An unknown reliability kind and a null topic are refused.
    DataWriterQos qos;
    qos.reliability.kind = static_cast<ReliabilityQosPolicyKind>(0);
    EXPECT_EQ(
        std::make_pair((DataWriter*)nullptr, (DataWriter*)nullptr),
        std::make_pair(Make(qos), m_pPub->create_datawriter(nullptr, DATAWRITER_QOS_DEFAULT, nullptr, 0)));
    EXPECT_EQ(m_pPub->lookup_datawriter("Track").size(), 2u);
}

TEST_F(DataWriter_Shared, WriteWithoutReadersDropsVolatileAndNeverCachesBestEffort) {
    // Reliability, durability, and whether the write is refused as having no reader.
    const std::tuple<ReliabilityQosPolicyKind, DurabilityQosPolicyKind, bool> rows[] = {
        {RELIABLE, VOLATILE, true}, {BEST_EFFORT, VOLATILE, true}, {BEST_EFFORT, LOCAL, false}};
    for (const auto& [reliability, durability, bDropped] : rows) {
        DataWriter* w = Make(Qos(reliability, durability, KEEP_LAST, 4));
        ASSERT_NE(w, nullptr);
        LogRecorder log;
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(w->write("abc", 3, Handle(1)) == READERPROXY_NOT_EXIST, bDropped);
        // The numbers are spent all the same, and nothing stays in the cache.
        EXPECT_EQ(std::make_tuple(SequenceNumber_t(0, 2), 0u, uint64_t(2), bDropped ? 2 : 0),
                  std::make_tuple(
                      w->getImpl()->getRtpsWriter()->getLastChangeSequenceNumber(),
                      w->getImpl()->getHistoryCache()->GetChangeCount(), w->getImpl()->getWriteCount(),
                      log.Count("[DataWriterImpl::write] READERPROXY_NOT_EXIST Error and TopicName = Track")))
            << reliability << durability;
    }
}

TEST_F(DataWriter_Shared, ReliableTransientLocalKeepsWhatEveryOverloadGives) {
    DataWriter* w = Make(Qos(RELIABLE, LOCAL, KEEP_LAST, 8));
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

    CacheChange* c[4];
    for (uint32_t i = 0; i < 4; ++i)
        ASSERT_NE(c[i] = w->getImpl()->getHistoryCache()->GetChange(SequenceNumber_t(0, i + 1)), nullptr);
    EXPECT_EQ(std::make_tuple(w->getGuid(), GUID_UNKNOWN, Handle(0x42), std::string("\1\2\3\4\5")),
              std::make_tuple(c[0]->writerGUID, c[0]->targetReaderGUID, c[0]->instanceHandle,
                              std::string(reinterpret_cast<char*>(c[0]->data), c[0]->dataLength)));
    EXPECT_FALSE(c[0]->sourceTimestamp < before);
    // The last: length 0 gives a change without a buffer.
    EXPECT_EQ(
        std::make_tuple(Time_t(1234, 5678), reader, size_t(1), (octet*)nullptr),
        std::make_tuple(c[1]->sourceTimestamp, c[2]->targetReaderGUID, c[2]->inlineQos.size(), c[3]->data));
    EXPECT_EQ(c[2]->inlineQos.front().value[3], 3);
}

TEST_F(DataWriter_Shared, FullHistoryReleasesTheOldestAndOnlyKeepLastLogsIt) {
    // History kind and depth, writes, and the oldest number kept.
    const std::tuple<HistoryQosPolicyKind, int32_t, int, uint32_t> rows[] = {
        {KEEP_LAST, 1, 3, 3}, {KEEP_LAST, 3, 5, 3}, {KEEP_ALL, 2, 3, 2}};
    const std::string head = "[DataWriterImpl::write]  TopicName = Track : HistoryCache is Full,";
    for (const auto& [kind, depth, writes, min] : rows) {
        SCOPED_TRACE(testing::Message() << kind << " " << depth);
        DataWriter* w = Make(Qos(RELIABLE, LOCAL, kind, depth));
        ASSERT_NE(w, nullptr);
        HistoryCache* pCache = w->getImpl()->getHistoryCache();
        LogRecorder log;
        // With no reader to wait for, every change counts as acknowledged: KEEP_ALL does not block.
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < writes; ++i) EXPECT_EQ(w->write("abc", 3, Handle(1)), RETCODE_OK);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
        EXPECT_EQ(std::make_tuple(uint32_t(depth), SequenceNumber_t(0, min), SequenceNumber_t(0, writes)),
                  std::make_tuple(pCache->GetChangeCount(), pCache->GetSeqNumMin(), pCache->GetSeqNumMax()));
        int logged = 0;
        for (const std::string& text : log.Texts()) logged += text.rfind(head, 0) == 0;
        EXPECT_EQ(std::make_pair(kind == KEEP_ALL ? 0 : writes - depth, depth == 1 ? 1 : 0),
                  std::make_pair(logged, log.Count(head + "delete old Sn 2 and insert new Sn 3")));
    }
}

TEST_F(DataWriter_Shared, DeadlineTimerReportsAWriterThatNeverWrote) {
    DataWriterQos qos = Qos(BEST_EFFORT, VOLATILE);
    qos.deadline.period = Duration_t(1, 0);
    DataWriter* w = Make(qos, &m_ListenerA, 0);  // the mask is not consulted
    ASSERT_NE(w, nullptr);
    // The first firing comes 2 s after creation.
    EXPECT_TRUE(HoldsFor([&] { return m_ListenerA.m_iDeadlineCalls.load() == 0; }, 1500));
    ASSERT_TRUE(WaitFor([&] { return m_ListenerA.m_iDeadlineCalls.load() >= 1; }, 2500));
    EXPECT_TRUE(m_ListenerA.m_pWriter.load() == w && m_ListenerA.m_iTotal.load() >= 1);
}

TEST_F(DataWriter_Shared, LivelinessLostCountsAndCallsTheCreationListenerWhenMasked) {
    DataWriterQos qos = Qos(RELIABLE, LOCAL);
    qos.liveliness.kind = MANUAL_BY_TOPIC_LIVELINESS_QOS;
    qos.liveliness.lease_duration = Duration_t(1, 0);
    DataWriter *a = Make(qos, &m_ListenerA, LIVELINESS_LOST_STATUS), *b = Make(qos, &m_ListenerB, 0);
    ASSERT_TRUE(a && b);
    // set_listener stores nothing: the listener of creation stays the one called.
    EXPECT_EQ(b->set_listener(&m_ListenerA, LIVELINESS_LOST_STATUS), RETCODE_OK);
    Time_t late = Writer::PublicClockNow();
    late.sec += 10;
    for (DataWriter* w : {a, b}) {
        Writer* pWriter = w->getImpl()->getRtpsWriter();
        pWriter->assertLiveliness(MANUAL_BY_TOPIC_LIVELINESS_QOS);
        pWriter->checkLiveliness(late);
        pWriter->checkLiveliness(late);  // reported once, on the fall from active
    }
    // Total count 1, change 1; nothing for the listener whose mask leaves it out.
    EXPECT_EQ(std::make_tuple(1, a, 101, 0),
              std::make_tuple(m_ListenerA.m_iLivelinessCalls.load(), m_ListenerA.m_pWriter.load(),
                              m_ListenerA.m_iTotal.load(), m_ListenerB.m_iLivelinessCalls.load()));
    // A write that stops at the cache (no reader yet) does not assert the writer again.
    EXPECT_EQ(a->write("abc", 3, Handle(1)), RETCODE_OK);
    EXPECT_EQ(a->getImpl()->getRtpsWriter()->getLivelinessActive(), 0);
}

TEST_F(DataWriter_Shared, DeleteRemovesEndpointsAndRefusesStrangers) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_pPub->delete_datawriter(nullptr), RETCODE_ERROR);
    EXPECT_EQ("ERROR: Invalid Argument\n", testing::internal::GetCapturedStdout());
    Publisher* other = s_p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
    DataWriter* a = other->create_datawriter(m_pTopic, Qos(RELIABLE, VOLATILE), nullptr, 0);
    DataWriter* b = other->create_datawriter(m_pTopic, DATAWRITER_QOS_DEFAULT, nullptr, 0);
    ASSERT_TRUE(a && b);
    const EntityId_t idA = a->getGuid().entityId, idB = b->getGuid().entityId;
    EXPECT_EQ(m_pPub->delete_datawriter(a), RETCODE_ENTITY_NOT_FOUND);  // another publisher's
    EXPECT_TRUE(Rtps()->isEndpointExist(idA));
    EXPECT_EQ(other->delete_datawriter(a), RETCODE_OK);
    EXPECT_EQ(std::make_pair(false, std::list<DataWriter*>{b}),
              std::make_pair(Rtps()->isEndpointExist(idA), other->lookup_datawriter("Track")));
    // Deleting a publisher takes its writers; a second delete finds nothing; both clear the pointer.
    Publisher *held = other, *stale = other;
    EXPECT_EQ(std::vector<ReturnCode_t>({RETCODE_OK, RETCODE_ENTITY_NOT_FOUND}),
              (std::vector<ReturnCode_t>{s_p->delete_publisher(held), s_p->delete_publisher(stale)}));
    EXPECT_EQ(std::make_tuple((Publisher*)nullptr, (Publisher*)nullptr, false),
              std::make_tuple(held, stale, Rtps()->isEndpointExist(idB)));
}
