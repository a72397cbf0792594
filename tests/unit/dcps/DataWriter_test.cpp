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

// Counts the calls and keeps what each callback was given.
class RecordingListener : public DataWriterListener {
public:
    void on_liveliness_lost(DataWriter* writer, const LivelinessLostStatus& status) override {
        m_pLivelinessWriter = writer;
        m_Liveliness = status;
        ++m_iLivelinessCalls;
    }
    void on_offered_deadline_missed(DataWriter* writer, const OfferedDeadlineMissedStatus& status) override {
        m_pDeadlineWriter.store(writer);
        m_iDeadlineTotal.store(status.total_count);
        ++m_iDeadlineCalls;
    }
    DataWriter* m_pLivelinessWriter = nullptr;
    LivelinessLostStatus m_Liveliness;
    std::atomic<int> m_iLivelinessCalls{0};
    std::atomic<DataWriter*> m_pDeadlineWriter{nullptr};
    std::atomic<int> m_iDeadlineTotal{0};
    std::atomic<int> m_iDeadlineCalls{0};
};

// A participant with one registered type, one topic and one publisher.
class DataWriter_Fixture : public testing::Test {
protected:
    void SetUp() override {
        MORVODDS_REQUIRE_PRIVATE_NETNS();
        m_p = DomainParticipantFactory::get_instance()->create_participant(kDomain, PARTICIPANT_QOS_DEFAULT,
                                                                            nullptr, 0);
        ASSERT_NE(m_p, nullptr);
        ASSERT_NE(m_p->getImpl()->getRtpsParticipant(), nullptr);
        m_p->register_type("Position");
        m_pTopic = m_p->create_topic("Track", "Position", TOPIC_QOS_DEFAULT, nullptr, 0);
        ASSERT_NE(m_pTopic, nullptr);
        m_pPub = m_p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
        ASSERT_NE(m_pPub, nullptr);
    }
    void TearDown() override {
        if (m_p != nullptr) {
            EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(m_p), RETCODE_OK);
        }
    }
    DataWriter* Make(const DataWriterQos& qos, DataWriterListener* listener = nullptr, unsigned long mask = 0) {
        return m_pPub->create_datawriter(m_pTopic, qos, listener, mask);
    }
    Participant* Rtps() const { return m_p->getImpl()->getRtpsParticipant(); }

    // Timer threads may call them until the participant is gone, so they outlive it.
    RecordingListener m_ListenerA;
    RecordingListener m_ListenerB;
    DomainParticipant* m_p = nullptr;
    Topic* m_pTopic = nullptr;
    Publisher* m_pPub = nullptr;
};

using DataWriter_Create = DataWriter_Fixture;
using DataWriter_Write = DataWriter_Fixture;
using DataWriter_History = DataWriter_Fixture;
using DataWriter_Status = DataWriter_Fixture;
using DataWriter_Delete = DataWriter_Fixture;
using DataWriter_Stubs = DataWriter_Fixture;

}  // namespace

// ---------------------------------------------------------------- create_datawriter

TEST_F(DataWriter_Create, ReliabilityPicksTheClassAndIdsAreAllottedInOrder) {
    DataWriter* reliable = Make(Qos(RELIABLE_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS));
    DataWriter* bestEffort = Make(Qos(BEST_EFFORT_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS));
    ASSERT_NE(reliable, nullptr);
    ASSERT_NE(bestEffort, nullptr);
    Writer* pReliable = reliable->getImpl()->getRtpsWriter();
    Writer* pBestEffort = bestEffort->getImpl()->getRtpsWriter();
    EXPECT_NE(dynamic_cast<StatefulWriter*>(pReliable), nullptr);
    EXPECT_NE(dynamic_cast<StatelessWriter*>(pBestEffort), nullptr);

    // The first user writer of domain d is d 04 01 03, under the participant's prefix.
    const GUID_t g1 = reliable->getGuid();
    const EntityId_t firstId{{kDomain, 0x04, 0x01}, 0x03};
    const EntityId_t secondId{{kDomain, 0x04, 0x02}, 0x03};
    EXPECT_EQ(g1.entityId, firstId);
    EXPECT_EQ(bestEffort->getGuid().entityId, secondId);
    EXPECT_EQ(std::memcmp(g1.guidPrefix.value, Rtps()->getGuidPrefix().value, 12), 0);
    EXPECT_EQ(pReliable->getGUID(), g1);
    EXPECT_TRUE(Rtps()->isEndpointExist(firstId));

    // Linked both ways, with the cache handed over.
    EXPECT_EQ(pReliable->getDataWriter(), static_cast<WriterEventSink*>(reliable->getImpl()));
    EXPECT_EQ(pReliable->getWriterCache(), reliable->getImpl()->getHistoryCache());
    EXPECT_EQ(reliable->getImpl()->getHistoryCache()->GetCapacity(), 1u);
}

TEST_F(DataWriter_Create, AnUnknownReliabilityKindMakesNoWriter) {
    LogCapture log;
    DataWriterQos qos;
    qos.reliability.kind = static_cast<ReliabilityQosPolicyKind>(0);
    EXPECT_EQ(Make(qos), nullptr);
    EXPECT_EQ(log.Find("[PublisherImpl::create_datawriter] pWriter = NULL").size(), 1u);
    EXPECT_EQ(log.Find("[Publisher::create_datawriter] pDataWriter = NULL and TopicName = Track").size(), 1u);
    EXPECT_TRUE(m_pPub->getImpl()->getDataWriterImplList().empty());
}

TEST_F(DataWriter_Create, RefusesNullAndForeignTopics) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_pPub->create_datawriter(nullptr, DATAWRITER_QOS_DEFAULT, nullptr, 0), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR:Topic is NULL\n");

    // A topic that only another participant holds.
    DomainParticipant* other = DomainParticipantFactory::get_instance()->create_participant(
        kDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(other, nullptr);
    other->register_type("Position");
    Topic* foreign = other->create_topic("Elsewhere", "Position", TOPIC_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(foreign, nullptr);
    LogCapture log;
    EXPECT_EQ(m_pPub->create_datawriter(foreign, DATAWRITER_QOS_DEFAULT, nullptr, 0), nullptr);
    EXPECT_EQ(log.Find("[PublisherImpl::create_datawriter] Topic find error and TopicName = Elsewhere").size(), 1u);
    EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(other), RETCODE_OK);
}

TEST_F(DataWriter_Create, AccessorsReturnTheObjectsOfCreation) {
    DataWriterQos qos = Qos(RELIABLE_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS, KEEP_LAST_HISTORY_QOS, 7);
    qos.user_data.value.push_back(0x11);
    DataWriter* w = Make(qos);
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(w->get_publisher(), m_pPub);
    EXPECT_EQ(w->get_topic(), m_pTopic);
    EXPECT_EQ(m_pPub->get_participant(), m_p);

    DataWriterQos got;
    EXPECT_EQ(w->get_qos(got), RETCODE_OK);
    EXPECT_EQ(got.durability.kind, TRANSIENT_LOCAL_DURABILITY_QOS);
    EXPECT_EQ(got.history.depth, 7);
    ASSERT_EQ(got.user_data.value.length, 1u);
    EXPECT_EQ(got.user_data.value[0], 0x11);
}

TEST_F(DataWriter_Create, LookupListsTheWritersOfATopicInOrder) {
    DataWriter* a = Make(Qos(BEST_EFFORT_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS));
    DataWriter* b = Make(Qos(RELIABLE_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS));
    std::list<DataWriter*> found = m_pPub->lookup_datawriter("Track");
    EXPECT_EQ(found, (std::list<DataWriter*>{a, b}));

    LogCapture log;
    EXPECT_TRUE(m_pPub->lookup_datawriter("Speed").empty());
    EXPECT_EQ(log.Find("[Publisher::lookup_datawriter] pDataWriterImplList.size() == 0").size(), 1u);

    testing::internal::CaptureStdout();
    EXPECT_TRUE(m_pPub->lookup_datawriter("").empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Invalid Argument\n");
}

// ---------------------------------------------------------------- write

TEST_F(DataWriter_Write, VolatileWithoutReadersDropsTheSampleAndSpendsTheNumber) {
    for (ReliabilityQosPolicyKind kind : {RELIABLE_RELIABILITY_QOS, BEST_EFFORT_RELIABILITY_QOS}) {
        DataWriter* w = Make(Qos(kind, VOLATILE_DURABILITY_QOS));
        ASSERT_NE(w, nullptr);
        Writer* pWriter = w->getImpl()->getRtpsWriter();
        LogCapture log;
        const char sample[] = "abc";
        EXPECT_EQ(w->write(sample, 3, Handle(1)), READERPROXY_NOT_EXIST);
        EXPECT_EQ(w->write(sample, 3, Handle(1)), READERPROXY_NOT_EXIST);
        EXPECT_EQ(pWriter->getLastChangeSequenceNumber(), SequenceNumber_t(0, 2));
        EXPECT_EQ(w->getImpl()->getHistoryCache()->GetChangeCount(), 0u);
        EXPECT_EQ(w->getImpl()->getWriteCount(), 2u);
        EXPECT_EQ(log.Find("[DataWriterImpl::write] READERPROXY_NOT_EXIST Error and TopicName = Track").size(), 2u);
    }
}

TEST_F(DataWriter_Write, ReliableTransientLocalKeepsTheChangeForLateJoiners) {
    DataWriter* w = Make(Qos(RELIABLE_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS, KEEP_LAST_HISTORY_QOS, 4));
    ASSERT_NE(w, nullptr);
    HistoryCache* pCache = w->getImpl()->getHistoryCache();

    char sample[] = {1, 2, 3, 4, 5};
    Time_t before = GetRtpsTimestamp();
    EXPECT_EQ(w->write(sample, sizeof(sample), Handle(0x42)), RETCODE_OK);
    sample[0] = 99;  // the application may reuse its buffer at once

    ASSERT_EQ(pCache->GetChangeCount(), 1u);
    CacheChange* pChange = pCache->GetChange(SequenceNumber_t(0, 1));
    ASSERT_NE(pChange, nullptr);
    EXPECT_EQ(pChange->kind, CHANGE_KIND_ALIVE);
    EXPECT_EQ(pChange->writerGUID, w->getGuid());
    EXPECT_EQ(pChange->targetReaderGUID, GUID_UNKNOWN);
    EXPECT_EQ(pChange->instanceHandle, Handle(0x42));
    ASSERT_EQ(pChange->dataLength, 5u);
    EXPECT_EQ(pChange->data[0], 1);
    EXPECT_EQ(pChange->data[4], 5);
    EXPECT_TRUE(pChange->inlineQos.empty());
    EXPECT_FALSE(pChange->sourceTimestamp < before);
}

TEST_F(DataWriter_Write, OverloadsCarryTimestampReaderAndParameters) {
    DataWriter* w = Make(Qos(RELIABLE_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS, KEEP_LAST_HISTORY_QOS, 8));
    ASSERT_NE(w, nullptr);
    HistoryCache* pCache = w->getImpl()->getHistoryCache();
    GUID_t reader = w->getGuid();
    reader.entityId = EntityId_t{{0x00, 0x09, 0x01}, 0x04};
    const octet status[4] = {0, 0, 0, 3};
    std::list<Parameter> params = {Parameter(PID_STATUS_INFO, 4, status)};

    EXPECT_EQ(w->write_w_timestamp("x", 1, Handle(1), Time_t(1234, 5678)), RETCODE_OK);
    EXPECT_EQ(w->directed_write("y", 1, Handle(2), reader), RETCODE_OK);
    EXPECT_EQ(w->directed_write("z", 1, Handle(3), reader, params), RETCODE_OK);
    EXPECT_EQ(w->write("w", 1, Handle(4), params), RETCODE_OK);

    CacheChange* c1 = pCache->GetChange(SequenceNumber_t(0, 1));
    CacheChange* c2 = pCache->GetChange(SequenceNumber_t(0, 2));
    CacheChange* c3 = pCache->GetChange(SequenceNumber_t(0, 3));
    CacheChange* c4 = pCache->GetChange(SequenceNumber_t(0, 4));
    ASSERT_TRUE(c1 && c2 && c3 && c4);
    EXPECT_EQ(c1->sourceTimestamp, Time_t(1234, 5678));
    EXPECT_EQ(c1->targetReaderGUID, GUID_UNKNOWN);
    EXPECT_EQ(c2->targetReaderGUID, reader);
    EXPECT_TRUE(c2->inlineQos.empty());
    EXPECT_EQ(c3->targetReaderGUID, reader);
    ASSERT_EQ(c3->inlineQos.size(), 1u);
    EXPECT_EQ(c3->inlineQos.front().parameterId, PID_STATUS_INFO);
    EXPECT_EQ(c3->inlineQos.front().value[3], 3);
    EXPECT_EQ(c4->targetReaderGUID, GUID_UNKNOWN);
    EXPECT_EQ(c4->inlineQos.size(), 1u);

    // Length 0 gives a change without a buffer.
    EXPECT_EQ(w->write(nullptr, 0, HANDLE_NIL), RETCODE_OK);
    CacheChange* c5 = pCache->GetChange(SequenceNumber_t(0, 5));
    ASSERT_NE(c5, nullptr);
    EXPECT_EQ(c5->dataLength, 0u);
    EXPECT_EQ(c5->data, nullptr);
}

TEST_F(DataWriter_Write, BestEffortNeverEntersTheCache) {
    DataWriter* w = Make(Qos(BEST_EFFORT_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS, KEEP_LAST_HISTORY_QOS, 4));
    ASSERT_NE(w, nullptr);
    for (int i = 0; i < 3; ++i) EXPECT_NE(w->write("abc", 3, Handle(1)), READERPROXY_NOT_EXIST);
    EXPECT_EQ(w->getImpl()->getHistoryCache()->GetChangeCount(), 0u);
    EXPECT_EQ(w->getImpl()->getRtpsWriter()->getLastChangeSequenceNumber(), SequenceNumber_t(0, 3));
}

// ---------------------------------------------------------------- history of a reliable writer

TEST_F(DataWriter_History, KeepLastReplacesTheOldestAndLogsIt) {
    DataWriter* w = Make(Qos(RELIABLE_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS, KEEP_LAST_HISTORY_QOS, 1));
    ASSERT_NE(w, nullptr);
    HistoryCache* pCache = w->getImpl()->getHistoryCache();
    LogCapture log;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(w->write("abc", 3, Handle(1)), RETCODE_OK);

    EXPECT_EQ(pCache->GetChangeCount(), 1u);
    EXPECT_EQ(pCache->GetSeqNumMin(), SequenceNumber_t(0, 3));
    const std::string head = "[DataWriterImpl::write]  TopicName = Track : HistoryCache is Full,";
    EXPECT_EQ(log.Find(head + "delete old Sn 1 and insert new Sn 2").size(), 1u);
    EXPECT_EQ(log.Find(head + "delete old Sn 2 and insert new Sn 3").size(), 1u);

    // A deeper history keeps the newest changes.
    DataWriter* deep = Make(Qos(RELIABLE_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS, KEEP_LAST_HISTORY_QOS, 3));
    ASSERT_NE(deep, nullptr);
    HistoryCache* pDeepCache = deep->getImpl()->getHistoryCache();
    for (int i = 0; i < 5; ++i) EXPECT_EQ(deep->write("abc", 3, Handle(1)), RETCODE_OK);
    EXPECT_EQ(pDeepCache->GetChangeCount(), 3u);
    EXPECT_EQ(pDeepCache->GetSeqNumMin(), SequenceNumber_t(0, 3));
    EXPECT_EQ(pDeepCache->GetSeqNumMax(), SequenceNumber_t(0, 5));
}

TEST_F(DataWriter_History, KeepAllWithoutReadersReleasesTheOldestSilently) {
    // With no reader to wait for, every change counts as acknowledged.
    DataWriter* w = Make(Qos(RELIABLE_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS, KEEP_ALL_HISTORY_QOS, 2));
    ASSERT_NE(w, nullptr);
    HistoryCache* pCache = w->getImpl()->getHistoryCache();
    LogCapture log;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(w->write("abc", 3, Handle(1)), RETCODE_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(pCache->GetChangeCount(), 2u);
    EXPECT_EQ(pCache->GetSeqNumMin(), SequenceNumber_t(0, 2));
    for (const LogCapture::Entry& e : log.Entries())
        EXPECT_EQ(e.text.find("HistoryCache is Full"), std::string::npos) << e.text;
}

// ---------------------------------------------------------------- deadline and liveliness

TEST_F(DataWriter_Status, DeadlineTimerReportsAWriterThatNeverWrote) {
    RecordingListener& listener = m_ListenerA;
    DataWriterQos qos = Qos(BEST_EFFORT_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS);
    qos.deadline.period = Duration_t(1, 0);
    DataWriter* w = Make(qos, &listener, 0);  // the mask is not consulted
    ASSERT_NE(w, nullptr);
    // The first firing comes 2 s after creation.
    EXPECT_TRUE(HoldsFor([&] { return listener.m_iDeadlineCalls.load() == 0; }, 1500));
    ASSERT_TRUE(WaitFor([&] { return listener.m_iDeadlineCalls.load() >= 1; }, 2500));
    EXPECT_EQ(listener.m_pDeadlineWriter.load(), w);
    EXPECT_GE(listener.m_iDeadlineTotal.load(), 1);
}

TEST_F(DataWriter_Status, LivelinessLostCountsAndCallsTheListenerWhenMasked) {
    RecordingListener& masked = m_ListenerA;
    RecordingListener& unmasked = m_ListenerB;
    DataWriterQos qos = Qos(RELIABLE_RELIABILITY_QOS, TRANSIENT_LOCAL_DURABILITY_QOS);
    qos.liveliness.kind = MANUAL_BY_TOPIC_LIVELINESS_QOS;
    qos.liveliness.lease_duration = Duration_t(1, 0);
    DataWriter* a = Make(qos, &masked, LIVELINESS_LOST_STATUS);
    DataWriter* b = Make(qos, &unmasked, PUBLICATION_MATCHED_STATUS);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);

    Time_t late = Writer::PublicClockNow();
    late.sec += 10;
    for (DataWriter* w : {a, b}) {
        Writer* pWriter = w->getImpl()->getRtpsWriter();
        pWriter->assertLiveliness(MANUAL_BY_TOPIC_LIVELINESS_QOS);
        pWriter->checkLiveliness(late);
        pWriter->checkLiveliness(late);  // reported once, on the fall from active
    }
    EXPECT_EQ(masked.m_iLivelinessCalls, 1);
    EXPECT_EQ(masked.m_pLivelinessWriter, a);
    EXPECT_EQ(masked.m_Liveliness.total_count, 1);
    EXPECT_EQ(masked.m_Liveliness.total_count_change, 1);
    EXPECT_EQ(unmasked.m_iLivelinessCalls, 0);
    EXPECT_EQ(b->getImpl()->getLivelinessLostStatus().total_count, 1);

    // A write that reaches the send asserts a manual-by-topic writer again; one that
    // stops at the cache (no reader yet) does not.
    Writer* pWriter = a->getImpl()->getRtpsWriter();
    EXPECT_EQ(a->write("abc", 3, Handle(1)), RETCODE_OK);
    EXPECT_EQ(pWriter->getLivelinessActive(), 0);
}

// ---------------------------------------------------------------- deletion

TEST_F(DataWriter_Delete, RemovesTheWriterAndItsProtocolEndpoint) {
    DataWriter* w = Make(Qos(RELIABLE_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS));
    ASSERT_NE(w, nullptr);
    const EntityId_t id = w->getGuid().entityId;
    EXPECT_EQ(m_pPub->delete_datawriter(w), RETCODE_OK);
    EXPECT_FALSE(Rtps()->isEndpointExist(id));
    EXPECT_TRUE(m_pPub->getImpl()->getDataWriterImplList().empty());
}

TEST_F(DataWriter_Delete, RefusesNullAndAnotherPublishersWriter) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_pPub->delete_datawriter(nullptr), RETCODE_ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Invalid Argument\n");

    Publisher* other = m_p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(other, nullptr);
    DataWriter* w = other->create_datawriter(m_pTopic, DATAWRITER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(w, nullptr);
    LogCapture log;
    EXPECT_EQ(m_pPub->delete_datawriter(w), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(log.Find("[PublisherImpl::delete_datawriter] Find DataWriter faid and TopicName = Track").size(), 1u);
    EXPECT_TRUE(Rtps()->isEndpointExist(w->getGuid().entityId));
}

TEST_F(DataWriter_Delete, DeletingAPublisherTakesItsWritersAndOnlyItsOwn) {
    Publisher* pub = m_p->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pub, nullptr);
    DataWriter* a = pub->create_datawriter(m_pTopic, Qos(RELIABLE_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS), nullptr, 0);
    DataWriter* b = pub->create_datawriter(m_pTopic, DATAWRITER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    const EntityId_t idA = a->getGuid().entityId;
    const EntityId_t idB = b->getGuid().entityId;

    Publisher* held = pub;
    EXPECT_EQ(m_p->delete_publisher(held), RETCODE_OK);
    EXPECT_EQ(held, nullptr);
    EXPECT_FALSE(Rtps()->isEndpointExist(idA));
    EXPECT_FALSE(Rtps()->isEndpointExist(idB));

    // Deleted already, or of another participant.
    DomainParticipant* other = DomainParticipantFactory::get_instance()->create_participant(
        kDomain, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(other, nullptr);
    Publisher* foreign = other->create_publisher(PUBLISHER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(foreign, nullptr);
    LogCapture log;
    for (Publisher* gone : {pub, foreign}) {
        held = gone;
        EXPECT_EQ(m_p->delete_publisher(held), RETCODE_ENTITY_NOT_FOUND);
        EXPECT_EQ(held, nullptr);
    }
    EXPECT_EQ(log.Find("[DomainParticipantImpl::delete_publisher] pPublisher not exist").size(), 2u);
    EXPECT_EQ(other->getImpl()->getPublisherImplList().size(), 1u);
    EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(other), RETCODE_OK);
}

// ---------------------------------------------------------------- facade replacement and stubs

namespace {
class ReplacementWriter : public DataWriter {
public:
    explicit ReplacementWriter(DataWriterImpl* pImpl) : DataWriter(pImpl) {}
};
}  // namespace

TEST_F(DataWriter_Stubs, ANewFacadeReplacesThePlainOne) {
    DataWriter* plain = Make(DATAWRITER_QOS_DEFAULT);
    ASSERT_NE(plain, nullptr);
    DataWriterImpl* pImpl = plain->getImpl();
    DataWriter* replacement = new ReplacementWriter(pImpl);  // destroys the plain one
    EXPECT_EQ(pImpl->getFacade(), replacement);
    EXPECT_EQ(m_pPub->lookup_datawriter("Track"), std::list<DataWriter*>{replacement});
    EXPECT_EQ(m_pPub->delete_datawriter(replacement), RETCODE_OK);  // the Impl destroys it
}

TEST_F(DataWriter_Stubs, FixedResultsTouchNothing) {
    RecordingListener& creation = m_ListenerA;
    RecordingListener& later = m_ListenerB;
    DataWriterQos qos = Qos(RELIABLE_RELIABILITY_QOS, VOLATILE_DURABILITY_QOS);
    qos.liveliness.kind = MANUAL_BY_TOPIC_LIVELINESS_QOS;
    qos.liveliness.lease_duration = Duration_t(1, 0);
    DataWriter* w = Make(qos, &creation, LIVELINESS_LOST_STATUS);
    ASSERT_NE(w, nullptr);

    EXPECT_EQ(w->get_listener(), nullptr);
    EXPECT_EQ(w->set_listener(&later, LIVELINESS_LOST_STATUS), RETCODE_OK);
    DataWriterQos other;
    other.history.depth = 99;
    EXPECT_EQ(w->set_qos(other), RETCODE_OK);
    DataWriterQos got;
    w->get_qos(got);
    EXPECT_EQ(got.history.depth, 1);

    LivelinessLostStatus lost;
    lost.total_count = 7;
    OfferedDeadlineMissedStatus missed;
    missed.total_count = 8;
    OfferedIncompatibleQosStatus incompatible;
    incompatible.total_count = 9;
    InstanceHandleSeq handles;
    EXPECT_EQ(w->get_liveliness_lost_status(lost), RETCODE_OK);
    EXPECT_EQ(w->get_offered_deadline_missed_status(missed), RETCODE_OK);
    EXPECT_EQ(w->get_offered_incompatible_qos_status(incompatible), RETCODE_OK);
    EXPECT_EQ(w->get_matched_subscriptions(handles), RETCODE_OK);
    EXPECT_EQ(lost.total_count, 7);
    EXPECT_EQ(missed.total_count, 8);
    EXPECT_EQ(incompatible.total_count, 9);
    EXPECT_EQ(handles.length, 0u);
    EXPECT_EQ(w->assert_liveliness(), RETCODE_OK);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(w->wait_for_acknowledgments(Duration_t(5, 0)), RETCODE_OK);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));

    DataWriterQos untouched;
    untouched.history.depth = 42;
    EXPECT_EQ(m_pPub->get_default_datawriter_qos(untouched), RETCODE_OK);
    EXPECT_EQ(untouched.history.depth, 42);

    // The listener of creation is still the one called.
    Time_t late = Writer::PublicClockNow();
    late.sec += 10;
    Writer* pWriter = w->getImpl()->getRtpsWriter();
    pWriter->assertLiveliness(MANUAL_BY_TOPIC_LIVELINESS_QOS);
    pWriter->checkLiveliness(late);
    EXPECT_EQ(creation.m_iLivelinessCalls, 1);
    EXPECT_EQ(later.m_iLivelinessCalls, 0);
}
