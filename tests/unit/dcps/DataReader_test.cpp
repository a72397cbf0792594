// Tests of the subscriber and data reader: read and take with their odd but
// required rules, the next-sample forms, the facade's fixed results, listener,
// time-based filter and deadline, ownership and status records, and the
// creation, look-up and deletion rules of the subscriber. Samples are delivered
// through the protocol reader's best-effort path, without a network.
#include "DataReader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "DomainParticipant.h"
#include "DomainParticipantFactory.h"
#include "LogCapture.h"
#include "NetnsGuard.h"
#include "Subscriber.h"
#include "Topic.h"
#include "dcps/DataReaderImpl.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/SubscriberImpl.h"
#include "dcps/TopicDescriptionImpl.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/StatefulReader.h"

namespace {

const char kTopic[] = "Samples";
const std::string kTail = std::string(" Error and TopicName = ") + kTopic;

std::string Text(const UserData& value) {
    return value.data == nullptr ? std::string()
                                 : std::string(reinterpret_cast<char*>(value.data), value.length);
}

// Frees what read and take handed over, the way an application does.
void FreeAll(std::vector<UserData>& values) {
    for (UserData& value : values) std::free(value.data);
    values.clear();
}

GUID_t Guid(octet key, octet kind) {
    GUID_t guid = GUID_UNKNOWN;
    guid.guidPrefix.value[11] = 0x42;
    guid.entityId = EntityId_t{{0, 0, key}, kind};
    return guid;
}

DataReaderQos KeepLast(int32_t depth) {
    DataReaderQos qos;
    qos.history.depth = depth;
    return qos;
}

// Counts every callback and keeps the last reader and statuses it was given;
// serves as reader listener and as the participant's monitor.
class CountingListener : public DomainParticipantListener {
public:
    void on_data_available(DataReader* reader) override {
        m_pLastReader = reader;
        ++m_iData;
    }
    void on_requested_deadline_missed(DataReader* reader,
                                      const RequestedDeadlineMissedStatus& status) override {
        m_pLastReader = reader;
        m_iDeadlineTotal = status.total_count;
        ++m_iDeadline;
    }
    void on_liveliness_changed(DataReader*, const LivelinessChangedStatus& status) override {
        m_Liveliness = status;
        ++m_iLiveliness;
    }
    void on_subscription_matched(DataReader* reader, const SubscriptionMatchedStatus&) override {
        m_pLastReader = reader;
        ++m_iMatched;
    }
    std::atomic<DataReader*> m_pLastReader{nullptr};
    std::atomic<int> m_iData{0}, m_iDeadline{0}, m_iDeadlineTotal{0};
    int m_iLiveliness = 0, m_iMatched = 0;
    LivelinessChangedStatus m_Liveliness;
};

// Stands for a built-in reader class: made around the Impl of a plain facade.
class DerivedReader : public DataReader {
public:
    explicit DerivedReader(DataReaderImpl* pImpl) : DataReader(pImpl) {}
};

// One participant for the suite; each test gets a topic and a subscriber and
// leaves no application entity behind.
class DataReader_Shared : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_p = DomainParticipantFactory::get_instance()->create_participant(75, PARTICIPANT_QOS_DEFAULT,
                                                                           nullptr, 0);
        if (s_p != nullptr) s_p->register_type("Blob");
    }
    static void TearDownTestSuite() {
        if (s_p == nullptr) return;
        EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(s_p), RETCODE_OK);
        s_p = nullptr;
    }
    void SetUp() override {
        ASSERT_NE(s_p, nullptr);
        m_pTopic = s_p->create_topic(kTopic, "Blob", TOPIC_QOS_DEFAULT, nullptr, 0);
        m_pSub = s_p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
        ASSERT_TRUE(m_pTopic && m_pSub);
    }
    void TearDown() override {
        DropDirect();
        if (s_p != nullptr) s_p->delete_contained_entities();
    }

    // A reader Impl outside every list, wired to a protocol reader of its own.
    void MakeDirect(const DataReaderQos& qos = DATAREADER_QOS_DEFAULT,
                    DataReaderListener* pListener = nullptr, unsigned long mask = 0) {
        DropDirect();
        m_pImpl = new DataReaderImpl(m_pSub->getImpl(), m_pTopic->getImpl(), qos, pListener, mask);
        m_pReader = new StatefulReader(Guid(0x77, 0x07), m_pImpl->getQos(), nullptr);
        m_pImpl->setReader(m_pReader);
    }
    // Before a listener of the test body goes: no timer may call it afterwards.
    void DropDirect() {
        delete m_pReader;  // it points at the Impl's cache: it goes first
        m_pReader = nullptr;
        delete m_pImpl;
        m_pImpl = nullptr;
    }
    // One best-effort DATA as the protocol reader hands it up.
    void Deliver(const std::string& payload) {
        CacheChange* pChange = new CacheChange();
        pChange->kind = CHANGE_KIND_ALIVE;
        pChange->writerGUID = Guid(0x10, 0x03);
        pChange->sequenceNumber = SequenceNumber_t(0, ++m_uiWriterSeq);
        pChange->dataLength = uint32_t(payload.size());
        pChange->data = CacheChange::AllocData(pChange->dataLength);
        std::memcpy(pChange->data, payload.data(), payload.size());
        m_pReader->BestEffortDataMessageReceive(pChange);
    }
    uint32_t Held() { return m_pImpl->getHistoryCache()->GetChangeCount(); }
    ReturnCode_t Take() { return m_pImpl->take(m_Values, m_Infos, -1, 0, 0, 0); }
    ReturnCode_t Read(std::vector<UserData>& values) { return m_pImpl->read(values, m_Infos, 1, 0, 0, 0); }

    static DomainParticipant* s_p;
    Topic* m_pTopic = nullptr;
    Subscriber* m_pSub = nullptr;
    DataReaderImpl* m_pImpl = nullptr;
    StatefulReader* m_pReader = nullptr;
    uint32_t m_uiWriterSeq = 0;
    std::vector<UserData> m_Values;
    SampleInfoSeq m_Infos;
    UserData m_Value;
    SampleInfo m_Info;
};
DomainParticipant* DataReader_Shared::s_p = nullptr;

}  // namespace

TEST_F(DataReader_Shared, TakeHandsOverEveryOtherEntryPerCall) {
    MakeDirect(KeepLast(10));
    LogCapture log;
    EXPECT_EQ(Take(), NO_DATA);
    EXPECT_EQ(log.Count("{DataReaderImpl::take] NO_DATA" + kTail), 1u);

    for (const char* payload : {"one", "two", "three", "four"}) Deliver(payload);
    const octet* pFirstBuffer = m_pImpl->getHistoryCache()->GetChange(SequenceNumber_t(0, 1))->data;
    // One call takes entries 0 and 2 of those still held; the tail keeps null elements.
    const std::vector<std::vector<std::string>> calls = {{"one", "three", "", ""}, {"two", ""}, {"four"}};
    for (const std::vector<std::string>& expected : calls) {
        ASSERT_EQ(Take(), RETCODE_OK);
        ASSERT_EQ(m_Values.size(), expected.size());
        EXPECT_EQ(m_Infos.length, expected.size());
        for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(Text(m_Values[i]), expected[i]) << i;
        if (pFirstBuffer != nullptr) {
            EXPECT_EQ(m_Values[0].data, pFirstBuffer);  // the cache's own, no copy
            pFirstBuffer = nullptr;
        }
        FreeAll(m_Values);
    }
    EXPECT_EQ(Held(), 0u);
}

TEST_F(DataReader_Shared, ReadCopiesEverySampleAndLeavesTheCache) {
    MakeDirect(KeepLast(10));
    LogCapture log;
    EXPECT_EQ(Read(m_Values), NO_DATA);
    EXPECT_TRUE(m_Values.empty());
    EXPECT_EQ(log.Count("{DataReaderImpl::read] NO_DATA" + kTail), 1u);

    for (const char* payload : {"a", "bb", "ccc"}) Deliver(payload);
    std::vector<UserData> second;
    ASSERT_EQ(Read(m_Values), RETCODE_OK);  // max_samples 1 is ignored
    ASSERT_EQ(Read(second), RETCODE_OK);
    ASSERT_EQ(m_Values.size(), 3u);
    ASSERT_EQ(second.size(), 3u);
    for (size_t i = 0; i < 3; ++i) EXPECT_NE(m_Values[i].data, second[i].data);  // a new buffer each time
    EXPECT_EQ(Text(second[2]), "ccc");
    EXPECT_EQ(Held(), 3u);
    FreeAll(m_Values);
    FreeAll(second);

    Take();  // leaves "bb", which read then sees alone
    FreeAll(m_Values);
    ASSERT_EQ(Read(m_Values), RETCODE_OK);
    ASSERT_EQ(m_Values.size(), 1u);
    EXPECT_EQ(Text(m_Values[0]), "bb");
    FreeAll(m_Values);
}

TEST_F(DataReader_Shared, NextSampleGivesTheNewestAndTakingItLeavesNothingReachable) {
    MakeDirect(KeepLast(10));
    LogCapture log;
    EXPECT_EQ(m_pImpl->read_next_sample(m_Value, m_Info), NO_DATA);  // both forms log the take wording
    EXPECT_EQ(m_pImpl->take_next_sample(m_Value, m_Info), NO_DATA);
    EXPECT_EQ(log.Count("{DataReaderImpl::take_next_sample] NO_DATA" + kTail), 2u);

    for (const char* payload : {"first", "second", "third"}) Deliver(payload);
    for (bool take : {false, true}) {
        ASSERT_EQ(
            take ? m_pImpl->take_next_sample(m_Value, m_Info) : m_pImpl->read_next_sample(m_Value, m_Info),
            RETCODE_OK);
        EXPECT_EQ(Text(m_Value), "third");
        std::free(m_Value.data);
        EXPECT_EQ(Held(), take ? 2u : 3u);
    }
    // The newest key stays, empty: both forms now find nothing although two wait.
    UserData none;
    EXPECT_EQ(m_pImpl->take_next_sample(none, m_Info), NO_DATA);
    EXPECT_EQ(m_pImpl->read_next_sample(none, m_Info), NO_DATA);
    EXPECT_EQ(none.data, nullptr);
    EXPECT_EQ(log.Count("{DataReaderImpl::take_next_sample] pCacheChange = NULL" + kTail), 2u);
    Deliver("fourth");  // a newer sample is reachable again
    ASSERT_EQ(m_pImpl->take_next_sample(m_Value, m_Info), RETCODE_OK);
    EXPECT_EQ(Text(m_Value), "fourth");
    std::free(m_Value.data);
}

TEST_F(DataReader_Shared, FacadeReturnsZeroAndItsStubsTouchNothing) {
    CountingListener listener, other;
    MakeDirect(DATAREADER_QOS_DEFAULT, &listener, 0);
    DataReader* pReader = m_pImpl->getFacade();
    // Only the empty result tells that nothing was there.
    EXPECT_EQ(pReader->read(m_Values, m_Infos, -1, 0, 0, 0), RETCODE_OK);
    EXPECT_EQ(pReader->take(m_Values, m_Infos, -1, 0, 0, 0), RETCODE_OK);
    EXPECT_EQ(pReader->read_next_sample(m_Value, m_Info), RETCODE_OK);
    EXPECT_EQ(pReader->take_next_sample(m_Value, m_Info), RETCODE_OK);
    EXPECT_TRUE(m_Values.empty());
    EXPECT_EQ(m_Value.data, nullptr);

    EXPECT_EQ(pReader->set_listener(&other, STATUS_MASK_ALL), RETCODE_OK);
    EXPECT_EQ(pReader->get_listener(), &listener);

    // return_loan frees nothing: the buffer stays the application's to free.
    Deliver("loaned");
    EXPECT_EQ(pReader->take_next_sample(m_Value, m_Info), RETCODE_OK);
    m_Infos.set_length(2);
    EXPECT_EQ(pReader->return_loan(m_Value, m_Infos), RETCODE_OK);
    EXPECT_EQ(Text(m_Value), "loaned");
    std::free(m_Value.data);
}

TEST_F(DataReader_Shared, ListenerHearsEverySampleThroughTheCurrentFacade) {
    MakeDirect();
    LogCapture log;
    Deliver("a");
    EXPECT_EQ(log.Count(std::string("[DataReaderImpl::DataReceive] pListen == NULL TopicName = ") + kTopic),
              1u);

    CountingListener listener;
    MakeDirect(KeepLast(5), &listener, 0);  // on_data_available does not need the mask
    Deliver("b");
    Deliver("c");
    EXPECT_EQ(listener.m_iData.load(), 2);
    EXPECT_EQ(listener.m_pLastReader.load(), m_pImpl->getFacade());
    DataReader* pDerived = new DerivedReader(m_pImpl);  // the plain facade is deleted here
    EXPECT_EQ(m_pImpl->getFacade(), pDerived);
    Deliver("d");
    EXPECT_EQ(listener.m_pLastReader.load(), pDerived);
}  // the Impl deletes the derived facade

TEST_F(DataReader_Shared, TimeBasedFilterSkipsTheListenerButKeepsTheLatestSample) {
    CountingListener listener;
    DataReaderQos qos = KeepLast(10);
    qos.time_based_filter.minimum_separation = Duration_t(5, 0);
    MakeDirect(qos, &listener, 0);
    testing::internal::CaptureStdout();
    for (const char* payload : {"first", "second", "third"}) Deliver(payload);  // within five seconds
    const std::string strOut = testing::internal::GetCapturedStdout();
    EXPECT_EQ(listener.m_iData.load(), 1);
    const size_t first = strOut.find("time = ");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(strOut.find("time = ", first + 1), std::string::npos);
    // The history is cut to one sample, the latest.
    EXPECT_EQ(Held(), 1u);
    m_pImpl->take_next_sample(m_Value, m_Info);
    EXPECT_EQ(Text(m_Value), "third");
    std::free(m_Value.data);
}

TEST_F(DataReader_Shared, DeadlineMissedWhileNoSampleArrives) {
    CountingListener listener;
    DataReaderQos qos;
    qos.deadline.period = Duration_t(0, 400);  // the second word counts as milliseconds
    MakeDirect(qos, &listener, 0);             // the callback is not gated by the mask
    // The timer first fires after two seconds.
    ASSERT_TRUE(WaitFor([&] { return listener.m_iDeadline.load() >= 1; }, 3000));
    EXPECT_EQ(listener.m_iDeadlineTotal.load(), 1);
    EXPECT_EQ(listener.m_pLastReader.load(), m_pImpl->getFacade());
    // Samples arriving faster than the period keep the deadline met.
    const int iBefore = listener.m_iDeadline.load();
    for (int i = 0; i < 8; ++i) {
        Deliver("tick");
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_LE(listener.m_iDeadline.load(), iBefore + 1);  // at most a period already under way
    DropDirect();
}

TEST_F(DataReader_Shared, OwnershipGoesToTheStrongerWriterAndBackToNobody) {
    MakeDirect();
    const GUID_t weak = Guid(1, 0x02), strong = Guid(2, 0x02);
    struct Step {
        bool offer;
        GUID_t guid;
        int32_t strength;
        GUID_t owner;
    };
    const Step steps[] = {{true, weak, 5, weak},    // nobody owns: any strength wins
                          {true, strong, 5, weak},  // equal strength does not replace
                          {true, strong, 6, strong},
                          {false, weak, 0, strong},  // not the owner
                          {false, strong, 0, GUID_UNKNOWN},
                          {true, weak, -3, weak}};
    for (const Step& step : steps) {
        if (step.offer) {
            m_pImpl->offerOwnership(step.guid, step.strength);
        } else {
            m_pImpl->ownerGone(step.guid);
        }
        EXPECT_EQ(m_pImpl->getOwnerGuid(), step.owner) << &step - steps;
    }
    EXPECT_EQ(m_pImpl->getOwnerStrength(), -3);
}

TEST_F(DataReader_Shared, StatusChangesReachMonitorAndListenerByMask) {
    CountingListener listener, monitor;
    MakeDirect(DATAREADER_QOS_DEFAULT, &listener, LIVELINESS_CHANGED_STATUS);
    m_pImpl->writerMatchedAlive();  // counted, not reported
    EXPECT_EQ(listener.m_iLiveliness, 0);
    m_pImpl->livelinessChanged(false);
    EXPECT_EQ(listener.m_iLiveliness, 1);
    EXPECT_EQ(listener.m_Liveliness.alive_count, 0);
    EXPECT_EQ(listener.m_Liveliness.not_alive_count, 1);
    EXPECT_EQ(listener.m_Liveliness.not_alive_count_change, 1);
    m_pImpl->livelinessChanged(true);
    EXPECT_EQ(listener.m_Liveliness.alive_count, 1);
    EXPECT_EQ(listener.m_Liveliness.not_alive_count, 0);

    // Matching tells the monitor always, the listener only through its mask; liveliness then counts silently.
    MakeDirect(DATAREADER_QOS_DEFAULT, &listener, SUBSCRIPTION_MATCHED_STATUS);
    s_p->set_monitor_listener(&monitor, 0);
    InstanceHandle_t handle(Guid(9, 0x02));
    m_pImpl->subscriptionMatched(handle);
    s_p->set_monitor_listener(nullptr, 0);
    SubscriptionMatchedStatus status;
    EXPECT_EQ(m_pImpl->getFacade()->get_subscription_matched_status(status), RETCODE_OK);
    EXPECT_EQ(status.total_count, 0);  // only its change counter moves
    EXPECT_EQ(status.total_count_change, 1);
    EXPECT_EQ(status.current_count, 1);
    EXPECT_EQ(status.last_publication_handle, handle);
    EXPECT_EQ(monitor.m_iMatched, 1);
    EXPECT_EQ(monitor.m_pLastReader.load(), m_pImpl->getFacade());
    EXPECT_EQ(listener.m_iMatched, 1);
    m_pImpl->livelinessChanged(false);
    EXPECT_EQ(listener.m_iLiveliness, 2);  // unchanged: not in this mask
    EXPECT_EQ(m_pImpl->getLivelinessChangedStatus().not_alive_count, 1);
}

TEST_F(DataReader_Shared, CreateGivesOneReaderPerTopicAndFillsMissingMulticastPorts) {
    CountingListener listener;
    DataReaderQos qos = KeepLast(3);
    TransportMulticastSetting automatic, fixed;
    automatic.receive_address = "239.255.0.9";
    fixed.receive_address = "239.255.0.10";
    fixed.receive_port = 9100;
    qos.multicast.value.push_back(automatic);
    qos.multicast.value.push_back(fixed);
    DataReader* pFirst = m_pSub->create_datareader(m_pTopic, qos, &listener, 0);
    ASSERT_NE(pFirst, nullptr);
    EXPECT_EQ(m_pTopic->getImpl()->getDataReader(), pFirst->getImpl());
    EXPECT_NE(pFirst->getGuid().entityId, ENTITYID_UNKNOWN);  // allotted
    EXPECT_EQ(m_pSub->lookup_datareader(kTopic), pFirst);

    DataReaderQos held;
    pFirst->get_qos(held);
    ASSERT_EQ(held.multicast.value.length, 2u);
    DomainParticipantImpl* pImpl = s_p->getImpl();
    EXPECT_EQ(held.multicast.value[0].receive_port,
              uint32_t(pImpl->getLogId() & 0xFFFF) * 250 + pImpl->getDomainParticipantId() * 2 + 7411);
    EXPECT_EQ(held.multicast.value[1].receive_port, 9100u);
    EXPECT_EQ(qos.multicast.value[0].receive_port, 0u);  // the caller's record is left alone

    // QoS and listener of the second call are dropped, even on another subscriber.
    Subscriber* pOther = s_p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
    EXPECT_EQ(pOther->create_datareader(m_pTopic, KeepLast(8), nullptr, 0), pFirst);
    pFirst->get_qos(held);
    EXPECT_EQ(held.history.depth, 3);
    EXPECT_EQ(pFirst->get_listener(), &listener);
    EXPECT_EQ(pOther->lookup_datareader(kTopic), nullptr);  // it stays the first subscriber's
}

TEST_F(DataReader_Shared, DeleteUnlinksTheTopicAndRefusesStrangers) {
    DataReader* pReader = m_pSub->create_datareader(m_pTopic, DATAREADER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pReader, nullptr);
    Topic* pTopic = m_pTopic;
    EXPECT_EQ(s_p->delete_topic(pTopic), RETCODE_ENTITY_NOT_FOUND);  // a reader holds it
    // Null is refused, deleting with a 0 unlike the publisher's 1.
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_pSub->create_datareader(nullptr, DATAREADER_QOS_DEFAULT, nullptr, 0), nullptr);
    EXPECT_EQ(m_pSub->lookup_datareader(""), nullptr);
    EXPECT_EQ(m_pSub->delete_datareader(nullptr), RETCODE_OK);
    const std::string invalid = "ERROR: Invalid Argument\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), invalid + invalid + invalid);

    // Through the wrong subscriber: 33, and the topic link is gone all the same.
    LogCapture log;
    Subscriber* pOther = s_p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
    EXPECT_EQ(pOther->delete_datareader(pReader), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(
        log.Count(std::string("[SubscriberImpl::delete_datareader] Detele DataReedr fail and TopicName = ") +
                  kTopic),
        1u);
    EXPECT_EQ(m_pTopic->getImpl()->getDataReader(), nullptr);
    EXPECT_EQ(m_pSub->lookup_datareader(kTopic), pReader);

    // Deleting the subscriber takes its reader; a stale one is not found (and never followed).
    Subscriber* pSub = m_pSub;
    EXPECT_EQ(s_p->delete_subscriber(pSub), RETCODE_OK);
    EXPECT_EQ(pSub, nullptr);
    pSub = m_pSub;
    m_pSub = nullptr;
    EXPECT_EQ(s_p->delete_subscriber(pSub), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(log.Count("[DomainParticipantImpl::delete_subscriber] pSubscriber not exist"), 1u);
    pTopic = m_pTopic;
    EXPECT_EQ(s_p->delete_topic(pTopic), RETCODE_OK);
}
