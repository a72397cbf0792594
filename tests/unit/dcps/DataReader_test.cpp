// Tests of the subscriber and data reader: read and take with their odd but
// required rules, the next-sample forms, the facade's fixed results, the
// time-based filter, the deadline callback, ownership and status records, and
// the creation, look-up and deletion rules of the subscriber. Samples are
// delivered through the protocol reader's best-effort path, without a network.
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
#include "TopicDescription.h"
#include "dcps/DataReaderImpl.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/SubscriberImpl.h"
#include "dcps/TopicDescriptionImpl.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/StatefulReader.h"

namespace {

const char kTopic[] = "Samples";

std::string Text(const UserData& value) {
    return value.data == nullptr ? std::string() : std::string(reinterpret_cast<char*>(value.data), value.length);
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

class CountingListener : public DataReaderListener {
public:
    void on_data_available(DataReader* reader) override {
        m_pLastReader = reader;
        ++m_iData;
    }
    void on_requested_deadline_missed(DataReader* reader, const RequestedDeadlineMissedStatus& status) override {
        m_pLastReader = reader;
        m_iDeadlineTotal = status.total_count;
        ++m_iDeadline;
    }
    void on_liveliness_changed(DataReader*, const LivelinessChangedStatus& status) override {
        m_Liveliness = status;
        ++m_iLiveliness;
    }
    void on_subscription_matched(DataReader*, const SubscriptionMatchedStatus& status) override {
        m_Matched = status;
        ++m_iMatched;
    }
    std::atomic<DataReader*> m_pLastReader{nullptr};
    std::atomic<int> m_iData{0};
    std::atomic<int> m_iDeadline{0};
    std::atomic<int> m_iDeadlineTotal{0};
    int m_iLiveliness = 0;
    int m_iMatched = 0;
    LivelinessChangedStatus m_Liveliness;
    SubscriptionMatchedStatus m_Matched;
};

// Stands for a built-in reader class: made around the Impl of a plain facade.
class DerivedReader : public DataReader {
public:
    explicit DerivedReader(DataReaderImpl* pImpl) : DataReader(pImpl) {}
};

class MonitorListener : public DomainParticipantListener {
public:
    void on_subscription_matched(DataReader* reader, const SubscriptionMatchedStatus&) override {
        m_pReader = reader;
        ++m_iMatched;
    }
    DataReader* m_pReader = nullptr;
    int m_iMatched = 0;
};

// A participant with one topic and one subscriber.
class DataReaderFixture : public testing::Test {
protected:
    void SetUp() override {
        MORVODDS_REQUIRE_PRIVATE_NETNS();
        m_p = DomainParticipantFactory::get_instance()->create_participant(73, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
        ASSERT_NE(m_p, nullptr);
        m_p->register_type("Blob");
        m_pTopic = m_p->create_topic(kTopic, "Blob", TOPIC_QOS_DEFAULT, nullptr, 0);
        ASSERT_NE(m_pTopic, nullptr);
        m_pSub = m_p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
        ASSERT_NE(m_pSub, nullptr);
    }
    void TearDown() override {
        DropDirect();
        if (m_p != nullptr) {
            EXPECT_EQ(DomainParticipantFactory::get_instance()->delete_participant(m_p), RETCODE_OK);
        }
    }

    // A reader Impl outside every list, wired to a protocol reader of its own.
    DataReaderImpl* MakeDirect(const DataReaderQos& qos = DATAREADER_QOS_DEFAULT, DataReaderListener* pListener = nullptr,
                               unsigned long mask = 0) {
        m_pImpl = new DataReaderImpl(m_pSub->getImpl(), m_pTopic->getImpl(), qos, pListener, mask);
        m_pReader = new StatefulReader(Guid(0x77, 0x07), m_pImpl->getQos(), nullptr);
        m_pImpl->setReader(m_pReader);
        return m_pImpl;
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
        if (pChange->data != nullptr) std::memcpy(pChange->data, payload.data(), payload.size());
        m_pReader->BestEffortDataMessageReceive(pChange);
    }

    uint32_t Held() { return m_pImpl->getHistoryCache()->GetChangeCount(); }

    DomainParticipant* m_p = nullptr;
    Topic* m_pTopic = nullptr;
    Subscriber* m_pSub = nullptr;
    DataReaderImpl* m_pImpl = nullptr;
    StatefulReader* m_pReader = nullptr;
    uint32_t m_uiWriterSeq = 0;
};

DataReaderQos KeepLast(int32_t depth) {
    DataReaderQos qos;
    qos.history.depth = depth;
    return qos;
}

using DataReader_Take = DataReaderFixture;
using DataReader_Read = DataReaderFixture;
using DataReader_NextSample = DataReaderFixture;
using DataReader_Facade = DataReaderFixture;
using DataReader_Listener = DataReaderFixture;
using DataReader_Status = DataReaderFixture;
// Readers made through the subscriber need the protocol participant.
class DataReaderCreateFixture : public DataReaderFixture {
protected:
    void SetUp() override {
        DataReaderFixture::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_NE(m_p->getImpl()->getRtpsParticipant(), nullptr);
    }
};

using DataReader_Create = DataReaderCreateFixture;
using Subscriber_Ops = DataReaderCreateFixture;
using Subscriber_Plain = DataReaderFixture;

}  // namespace

// ---------------------------------------------------------------- take and read

TEST_F(DataReader_Take, TakesEveryOtherEntryPerCall) {
    MakeDirect(KeepLast(10));
    for (const char* payload : {"one", "two", "three", "four"}) Deliver(payload);
    ASSERT_EQ(Held(), 4u);

    std::vector<UserData> values;
    SampleInfoSeq infos;
    ASSERT_EQ(m_pImpl->take(values, infos, -1, 0, 0, 0), RETCODE_OK);
    ASSERT_EQ(values.size(), 4u);
    EXPECT_EQ(infos.length, 4u);
    EXPECT_EQ(infos.maximum, 4u);
    EXPECT_EQ(Text(values[0]), "one");
    EXPECT_EQ(Text(values[1]), "three");
    EXPECT_EQ(values[2].data, nullptr);
    EXPECT_EQ(values[3].data, nullptr);
    EXPECT_EQ(Held(), 2u);
    FreeAll(values);

    // The second and fourth wait for the next calls.
    ASSERT_EQ(m_pImpl->take(values, infos, -1, 0, 0, 0), RETCODE_OK);
    ASSERT_EQ(values.size(), 2u);
    EXPECT_EQ(Text(values[0]), "two");
    EXPECT_EQ(values[1].data, nullptr);
    FreeAll(values);

    ASSERT_EQ(m_pImpl->take(values, infos, -1, 0, 0, 0), RETCODE_OK);
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(Text(values[0]), "four");
    FreeAll(values);

    LogCapture log;
    EXPECT_EQ(m_pImpl->take(values, infos, -1, 0, 0, 0), NO_DATA);
    EXPECT_TRUE(values.empty());
    EXPECT_EQ(log.Find(std::string("{DataReaderImpl::take] NO_DATA Error and TopicName = ") + kTopic).size(), 1u);
}

TEST_F(DataReader_Take, HandsOverTheCachesOwnBuffer) {
    MakeDirect(KeepLast(10));
    Deliver("payload");
    CacheChange* pHeld = m_pImpl->getHistoryCache()->GetChange(m_pImpl->getHistoryCache()->GetSeqNumMax());
    ASSERT_NE(pHeld, nullptr);
    octet* pBuffer = pHeld->data;

    std::vector<UserData> values;
    SampleInfoSeq infos;
    m_pImpl->take(values, infos, -1, 0, 0, 0);
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values[0].data, pBuffer);  // no copy
    EXPECT_EQ(values[0].length, 7u);
    FreeAll(values);
}

TEST_F(DataReader_Read, CopiesEverySampleAndLeavesTheCache) {
    MakeDirect(KeepLast(10));
    for (const char* payload : {"a", "bb", "ccc"}) Deliver(payload);

    std::vector<UserData> first;
    std::vector<UserData> second;
    SampleInfoSeq infos;
    ASSERT_EQ(m_pImpl->read(first, infos, 1, 0, 0, 0), RETCODE_OK);  // max_samples ignored
    ASSERT_EQ(m_pImpl->read(second, infos, 1, 0, 0, 0), RETCODE_OK);
    ASSERT_EQ(first.size(), 3u);
    ASSERT_EQ(second.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(Text(first[i]), Text(second[i]));
        EXPECT_NE(first[i].data, second[i].data);  // a new buffer each time
    }
    EXPECT_EQ(Text(first[2]), "ccc");
    EXPECT_EQ(Held(), 3u);
    FreeAll(first);
    FreeAll(second);

    // read after take sees only what take left behind.
    std::vector<UserData> taken;
    m_pImpl->take(taken, infos, -1, 0, 0, 0);
    FreeAll(taken);
    ASSERT_EQ(m_pImpl->read(first, infos, -1, 0, 0, 0), RETCODE_OK);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(Text(first[0]), "bb");
    FreeAll(first);
}

TEST_F(DataReader_Read, EmptyCacheLogsWithTheBraceAndLeavesTheVector) {
    MakeDirect();
    LogCapture log;
    std::vector<UserData> values;
    SampleInfoSeq infos;
    EXPECT_EQ(m_pImpl->read(values, infos, -1, 0, 0, 0), NO_DATA);
    EXPECT_TRUE(values.empty());
    EXPECT_EQ(infos.length, 0u);
    EXPECT_EQ(log.Find(std::string("{DataReaderImpl::read] NO_DATA Error and TopicName = ") + kTopic).size(), 1u);
}

// ---------------------------------------------------------------- next sample

TEST_F(DataReader_NextSample, GivesTheNewestAndTakingItLeavesNothingReachable) {
    MakeDirect(KeepLast(10));
    for (const char* payload : {"first", "second", "third"}) Deliver(payload);

    UserData value;
    SampleInfo info;
    ASSERT_EQ(m_pImpl->read_next_sample(value, info), RETCODE_OK);
    EXPECT_EQ(Text(value), "third");
    std::free(value.data);
    EXPECT_EQ(Held(), 3u);

    UserData taken;
    ASSERT_EQ(m_pImpl->take_next_sample(taken, info), RETCODE_OK);
    EXPECT_EQ(Text(taken), "third");
    std::free(taken.data);
    EXPECT_EQ(Held(), 2u);

    // The newest key stays, empty: both forms now find nothing although two wait.
    LogCapture log;
    const std::string strNull = std::string("{DataReaderImpl::take_next_sample] pCacheChange = NULL Error and TopicName = ") + kTopic;
    UserData none;
    EXPECT_EQ(m_pImpl->take_next_sample(none, info), NO_DATA);
    EXPECT_EQ(m_pImpl->read_next_sample(none, info), NO_DATA);
    EXPECT_EQ(none.data, nullptr);
    EXPECT_EQ(none.length, 0u);
    EXPECT_EQ(log.Find(strNull).size(), 2u);
    EXPECT_EQ(Held(), 2u);

    // A newer sample is reachable again.
    Deliver("fourth");
    ASSERT_EQ(m_pImpl->take_next_sample(taken, info), RETCODE_OK);
    EXPECT_EQ(Text(taken), "fourth");
    std::free(taken.data);
}

TEST_F(DataReader_NextSample, EmptyCacheUsesTheTakeWordingForBoth) {
    MakeDirect();
    LogCapture log;
    UserData value;
    SampleInfo info;
    EXPECT_EQ(m_pImpl->read_next_sample(value, info), NO_DATA);
    EXPECT_EQ(m_pImpl->take_next_sample(value, info), NO_DATA);
    EXPECT_EQ(value.data, nullptr);
    EXPECT_EQ(log.Find(std::string("{DataReaderImpl::take_next_sample] NO_DATA Error and TopicName = ") + kTopic).size(),
              2u);
}

// ---------------------------------------------------------------- facade

TEST_F(DataReader_Facade, ReadOperationsAlwaysReturnZero) {
    MakeDirect();
    DataReader* pReader = m_pImpl->getFacade();
    ASSERT_NE(pReader, nullptr);
    EXPECT_EQ(pReader->getImpl(), m_pImpl);

    std::vector<UserData> values;
    SampleInfoSeq infos;
    UserData value;
    SampleInfo info;
    EXPECT_EQ(pReader->read(values, infos, -1, 0, 0, 0), RETCODE_OK);
    EXPECT_EQ(pReader->take(values, infos, -1, 0, 0, 0), RETCODE_OK);
    EXPECT_EQ(pReader->read_next_sample(value, info), RETCODE_OK);
    EXPECT_EQ(pReader->take_next_sample(value, info), RETCODE_OK);
    // Only the empty result tells that nothing was there.
    EXPECT_TRUE(values.empty());
    EXPECT_EQ(value.length, 0u);

    Deliver("x");
    EXPECT_EQ(pReader->take_next_sample(value, info), RETCODE_OK);
    EXPECT_EQ(Text(value), "x");
    std::free(value.data);
}

TEST_F(DataReader_Facade, StubsReturnZeroAndTouchNothing) {
    CountingListener listener;
    MakeDirect(DATAREADER_QOS_DEFAULT, &listener, 0);
    DataReader* pReader = m_pImpl->getFacade();

    // set_listener changes nothing: the listener of creation stays.
    CountingListener other;
    EXPECT_EQ(pReader->set_listener(&other, STATUS_MASK_ALL), RETCODE_OK);
    EXPECT_EQ(pReader->get_listener(), &listener);

    DataReaderQos qos;
    qos.history.depth = 99;
    EXPECT_EQ(pReader->set_qos(qos), RETCODE_OK);
    DataReaderQos current;
    pReader->get_qos(current);
    EXPECT_EQ(current.history.depth, 1);

    LivelinessChangedStatus liveliness;
    liveliness.alive_count = 7;
    RequestedDeadlineMissedStatus deadline;
    deadline.total_count = 7;
    RequestedIncompatibleQosStatus incompatible;
    incompatible.total_count = 7;
    SampleLostStatus lost;
    lost.total_count = 7;
    SampleRejectedStatus rejected;
    rejected.total_count = 7;
    EXPECT_EQ(pReader->get_liveliness_changed_status(liveliness), RETCODE_OK);
    EXPECT_EQ(pReader->get_requested_deadline_missed_status(deadline), RETCODE_OK);
    EXPECT_EQ(pReader->get_requested_incompatible_qos_status(incompatible), RETCODE_OK);
    EXPECT_EQ(pReader->get_sample_lost_status(lost), RETCODE_OK);
    EXPECT_EQ(pReader->get_sample_rejected_statu(rejected), RETCODE_OK);
    EXPECT_EQ(liveliness.alive_count + deadline.total_count + incompatible.total_count + lost.total_count +
                  rejected.total_count,
              35);

    // return_loan frees nothing: the buffer stays the application's to free.
    Deliver("loaned");
    UserData value;
    SampleInfo info;
    pReader->take_next_sample(value, info);
    SampleInfoSeq infos;
    infos.set_length(2);
    EXPECT_EQ(pReader->return_loan(value, infos), RETCODE_OK);
    EXPECT_EQ(Text(value), "loaned");
    std::free(value.data);
}

TEST_F(DataReader_Facade, AccessorsReachTheOwningEntities) {
    MakeDirect();
    DataReader* pReader = m_pImpl->getFacade();
    EXPECT_EQ(pReader->get_subscriber(), m_pSub);
    EXPECT_EQ(pReader->get_topicdescription(), static_cast<TopicDescription*>(m_pTopic));
    EXPECT_EQ(pReader->getGuid(), Guid(0x77, 0x07));
}

TEST_F(DataReader_Facade, DerivedFacadeReplacesThePlainOne) {
    MakeDirect();
    DataReader* pDerived = new DerivedReader(m_pImpl);  // the plain facade is deleted here
    EXPECT_EQ(m_pImpl->getFacade(), pDerived);
    EXPECT_EQ(pDerived->getImpl(), m_pImpl);
    CountingListener listener;
    m_pImpl->set_listener(&listener, 0);  // the Impl's own setter does store
    Deliver("a");
    EXPECT_EQ(listener.m_pLastReader.load(), pDerived);
}  // the Impl deletes the derived facade

// ---------------------------------------------------------------- listener, time-based filter, deadline

TEST_F(DataReader_Listener, CalledOnEverySampleWithTheFacade) {
    CountingListener listener;
    MakeDirect(KeepLast(5), &listener, 0);  // on_data_available does not need the mask
    Deliver("a");
    Deliver("b");
    EXPECT_EQ(listener.m_iData.load(), 2);
    EXPECT_EQ(listener.m_pLastReader.load(), m_pImpl->getFacade());
    EXPECT_EQ(Held(), 2u);
}

TEST_F(DataReader_Listener, MissingListenerIsLoggedForApplicationTopics) {
    MakeDirect();
    LogCapture log;
    Deliver("a");
    EXPECT_EQ(log.Find(std::string("[DataReaderImpl::DataReceive] pListen == NULL TopicName = ") + kTopic).size(), 1u);
}

TEST_F(DataReader_Listener, TimeBasedFilterSkipsTheListenerButKeepsTheLatestSample) {
    CountingListener listener;
    DataReaderQos qos = KeepLast(10);
    qos.time_based_filter.minimum_separation = Duration_t(5, 0);
    MakeDirect(qos, &listener, 0);

    DataReaderQos held;
    m_pImpl->get_qos(held);
    EXPECT_EQ(held.history.depth, 1);
    EXPECT_EQ(m_pImpl->getHistoryCache()->GetCapacity(), 1u);

    testing::internal::CaptureStdout();
    Deliver("first");   // the first delivery is long after the clock's origin
    Deliver("second");  // well within five seconds: no callback
    Deliver("third");
    const std::string strOut = testing::internal::GetCapturedStdout();

    EXPECT_EQ(listener.m_iData.load(), 1);
    const size_t first = strOut.find("time = ");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(strOut.find("time = ", first + 1), std::string::npos);
    // One sample at most, and it is the latest.
    EXPECT_EQ(Held(), 1u);
    UserData value;
    SampleInfo info;
    m_pImpl->take_next_sample(value, info);
    EXPECT_EQ(Text(value), "third");
    std::free(value.data);
}

TEST_F(DataReader_Listener, DeadlineMissedWhileNoSampleArrives) {
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

// ---------------------------------------------------------------- ownership and status records

TEST_F(DataReader_Status, OwnershipGoesToTheStrongerWriterAndBackToNobody) {
    MakeDirect();
    const GUID_t weak = Guid(1, 0x02);
    const GUID_t strong = Guid(2, 0x02);
    EXPECT_EQ(m_pImpl->getOwnerGuid(), GUID_UNKNOWN);

    m_pImpl->offerOwnership(weak, 5);  // nobody owns: any strength wins
    EXPECT_EQ(m_pImpl->getOwnerGuid(), weak);
    m_pImpl->offerOwnership(strong, 5);  // equal strength does not replace
    EXPECT_EQ(m_pImpl->getOwnerGuid(), weak);
    m_pImpl->offerOwnership(strong, 6);
    EXPECT_EQ(m_pImpl->getOwnerGuid(), strong);
    EXPECT_EQ(m_pImpl->getOwnerStrength(), 6);

    m_pImpl->ownerGone(weak);  // not the owner: nothing changes
    EXPECT_EQ(m_pImpl->getOwnerGuid(), strong);
    m_pImpl->ownerGone(strong);
    EXPECT_EQ(m_pImpl->getOwnerGuid(), GUID_UNKNOWN);
    EXPECT_EQ(m_pImpl->getOwnerStrength(), 0);
    m_pImpl->offerOwnership(weak, -3);
    EXPECT_EQ(m_pImpl->getOwnerGuid(), weak);
}

TEST_F(DataReader_Status, LivelinessCountsAndTheMaskGatesTheCallback) {
    CountingListener listener;
    MakeDirect(DATAREADER_QOS_DEFAULT, &listener, LIVELINESS_CHANGED_STATUS);
    m_pImpl->writerMatchedAlive();
    LivelinessChangedStatus status = m_pImpl->getLivelinessChangedStatus();
    EXPECT_EQ(status.alive_count, 1);
    EXPECT_EQ(status.alive_count_change, 1);
    EXPECT_EQ(status.not_alive_count, 0);
    EXPECT_EQ(listener.m_iLiveliness, 0);

    m_pImpl->livelinessChanged(false);
    EXPECT_EQ(listener.m_iLiveliness, 1);
    EXPECT_EQ(listener.m_Liveliness.alive_count, 0);
    EXPECT_EQ(listener.m_Liveliness.alive_count_change, 0);
    EXPECT_EQ(listener.m_Liveliness.not_alive_count, 1);
    EXPECT_EQ(listener.m_Liveliness.not_alive_count_change, 1);
    m_pImpl->livelinessChanged(true);
    EXPECT_EQ(listener.m_Liveliness.alive_count, 1);
    EXPECT_EQ(listener.m_Liveliness.not_alive_count, 0);
}

TEST_F(DataReader_Status, LivelinessWithoutTheMaskCountsSilently) {
    CountingListener listener;
    MakeDirect(DATAREADER_QOS_DEFAULT, &listener, SUBSCRIPTION_MATCHED_STATUS);
    m_pImpl->livelinessChanged(false);
    EXPECT_EQ(listener.m_iLiveliness, 0);
    EXPECT_EQ(m_pImpl->getLivelinessChangedStatus().not_alive_count, 1);
}

TEST_F(DataReader_Status, MatchTellsTheMonitorAndTheMaskedListener) {
    CountingListener listener;
    MonitorListener monitor;
    m_p->set_monitor_listener(&monitor, 0);
    MakeDirect(DATAREADER_QOS_DEFAULT, &listener, SUBSCRIPTION_MATCHED_STATUS);

    InstanceHandle_t handle(Guid(9, 0x02));
    m_pImpl->subscriptionMatched(handle);
    SubscriptionMatchedStatus status;
    EXPECT_EQ(m_pImpl->getFacade()->get_subscription_matched_status(status), RETCODE_OK);
    EXPECT_EQ(status.total_count, 0);  // only its change counter moves
    EXPECT_EQ(status.total_count_change, 1);
    EXPECT_EQ(status.current_count, 1);
    EXPECT_EQ(status.last_publication_handle, handle);
    EXPECT_EQ(monitor.m_iMatched, 1);
    EXPECT_EQ(monitor.m_pReader, m_pImpl->getFacade());
    EXPECT_EQ(listener.m_iMatched, 1);
    EXPECT_EQ(listener.m_Matched.current_count, 1);
    m_p->set_monitor_listener(nullptr, 0);
}

// ---------------------------------------------------------------- subscriber: creation, look-up, deletion

TEST_F(DataReader_Create, OneReaderPerTopicAcrossSubscribers) {
    CountingListener listener;
    DataReader* pFirst = m_pSub->create_datareader(m_pTopic, KeepLast(3), &listener, 0);
    ASSERT_NE(pFirst, nullptr);
    EXPECT_EQ(m_pTopic->getImpl()->getDataReader(), pFirst->getImpl());
    EXPECT_NE(pFirst->getGuid().entityId, ENTITYID_UNKNOWN);  // allotted

    // QoS and listener of the second call are dropped, even on another subscriber.
    Subscriber* pOther = m_p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pOther, nullptr);
    DataReader* pSecond = pOther->create_datareader(m_pTopic, KeepLast(8), nullptr, 0);
    EXPECT_EQ(pSecond, pFirst);
    DataReaderQos qos;
    pSecond->get_qos(qos);
    EXPECT_EQ(qos.history.depth, 3);
    EXPECT_EQ(pSecond->get_listener(), &listener);
    EXPECT_EQ(pOther->lookup_datareader(kTopic), nullptr);  // it stays the first subscriber's
}

TEST_F(DataReader_Create, RefusesNullAndForeignTopics) {
    LogCapture log;
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_pSub->create_datareader(nullptr, DATAREADER_QOS_DEFAULT, nullptr, 0), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Invalid Argument\n");

    DomainParticipant* pOther =
        DomainParticipantFactory::get_instance()->create_participant(74, PARTICIPANT_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pOther, nullptr);
    pOther->register_type("Blob");
    Topic* pForeign = pOther->create_topic("Elsewhere", "Blob", TOPIC_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pForeign, nullptr);
    EXPECT_EQ(m_pSub->create_datareader(pForeign, DATAREADER_QOS_DEFAULT, nullptr, 0), nullptr);
    EXPECT_EQ(
        log.Find("[SubscriberImpl::create_datareader] lookup_topicdescription Error,and TopicName = Elsewhere").size(),
        1u);
    EXPECT_EQ(log.Find("[Subscriber::create_datareader] pDataReader = NULL andTopicName = Elsewhere").size(), 1u);
    EXPECT_EQ(pForeign->getImpl()->getDataReader(), nullptr);
    DomainParticipantFactory::get_instance()->delete_participant(pOther);
}

TEST_F(DataReader_Create, FillsOnlyTheMissingMulticastPorts) {
    DataReaderQos qos;
    TransportMulticastSetting automatic;
    automatic.receive_address = "239.255.0.9";
    TransportMulticastSetting fixed;
    fixed.receive_address = "239.255.0.10";
    fixed.receive_port = 9100;
    qos.multicast.value.push_back(automatic);
    qos.multicast.value.push_back(fixed);

    DataReader* pReader = m_pSub->create_datareader(m_pTopic, qos, nullptr, 0);
    ASSERT_NE(pReader, nullptr);
    DataReaderQos held;
    pReader->get_qos(held);
    ASSERT_EQ(held.multicast.value.length, 2u);
    DomainParticipantImpl* pImpl = m_p->getImpl();
    const uint32_t uiExpected = uint32_t(pImpl->getLogId() & 0xFFFF) * 250 + pImpl->getDomainParticipantId() * 2 + 7411;
    EXPECT_EQ(held.multicast.value[0].receive_port, uiExpected);
    EXPECT_EQ(held.multicast.value[1].receive_port, 9100u);
    EXPECT_EQ(qos.multicast.value[0].receive_port, 0u);  // the caller's record is left alone
}

TEST_F(DataReader_Create, DeleteUnlinksTheTopicAndRefusesStrangers) {
    DataReader* pReader = m_pSub->create_datareader(m_pTopic, DATAREADER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pReader, nullptr);

    // Null is refused with a 0, unlike the publisher's 1.
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_pSub->delete_datareader(nullptr), RETCODE_OK);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Invalid Argument\n");

    // Through the wrong subscriber: 33, and the topic link is gone all the same.
    LogCapture log;
    Subscriber* pOther = m_p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pOther, nullptr);
    EXPECT_EQ(pOther->delete_datareader(pReader), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(log.Find(std::string("[SubscriberImpl::delete_datareader] Detele DataReedr fail and TopicName = ") + kTopic)
                  .size(),
              1u);
    EXPECT_EQ(m_pTopic->getImpl()->getDataReader(), nullptr);
    EXPECT_EQ(m_pSub->lookup_datareader(kTopic), pReader);

    EXPECT_EQ(m_pSub->delete_datareader(pReader), RETCODE_OK);
    EXPECT_EQ(m_pSub->lookup_datareader(kTopic), nullptr);
    // With no reader left the topic can go.
    Topic* pTopic = m_pTopic;
    EXPECT_EQ(m_p->delete_topic(pTopic), RETCODE_OK);
    m_pTopic = nullptr;
}

TEST_F(Subscriber_Ops, LookupFindsByTopicName) {
    DataReader* pReader = m_pSub->create_datareader(m_pTopic, DATAREADER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pReader, nullptr);
    EXPECT_EQ(m_pSub->lookup_datareader(kTopic), pReader);
    EXPECT_EQ(m_pSub->lookup_datareader("Unknown"), nullptr);
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_pSub->lookup_datareader(""), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: Invalid Argument\n");
}

TEST_F(Subscriber_Ops, DeletingASubscriberTakesItsReaders) {
    DataReader* pReader = m_pSub->create_datareader(m_pTopic, DATAREADER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pReader, nullptr);
    Topic* pTopic = m_pTopic;
    EXPECT_EQ(m_p->delete_topic(pTopic), RETCODE_ENTITY_NOT_FOUND);  // a reader holds it

    Subscriber* pSub = m_pSub;
    EXPECT_EQ(m_p->delete_subscriber(pSub), RETCODE_OK);
    EXPECT_EQ(pSub, nullptr);
    m_pSub = nullptr;
    EXPECT_EQ(m_pTopic->getImpl()->getDataReader(), nullptr);
    pTopic = m_pTopic;
    EXPECT_EQ(m_p->delete_topic(pTopic), RETCODE_OK);
    m_pTopic = nullptr;

    LogCapture log;
    Subscriber* pStale = reinterpret_cast<Subscriber*>(&log);  // never followed
    EXPECT_EQ(m_p->delete_subscriber(pStale), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(log.Find("[DomainParticipantImpl::delete_subscriber] pSubscriber not exist").size(), 1u);
}

TEST_F(Subscriber_Plain, QosParticipantAndStubs) {
    SubscriberQos qos;
    qos.partition.name.push_back("north");
    Subscriber* pSub = m_p->create_subscriber(qos, nullptr, 0);
    ASSERT_NE(pSub, nullptr);
    SubscriberQos copy;
    EXPECT_EQ(pSub->get_qos(copy), RETCODE_OK);
    ASSERT_EQ(copy.partition.name.length, 1u);
    EXPECT_EQ(copy.partition.name[0], "north");
    EXPECT_EQ(pSub->get_participant(), m_p);

    SubscriberListener listener;
    EXPECT_EQ(pSub->set_listener(&listener, 0), RETCODE_OK);
    EXPECT_EQ(pSub->getImpl()->getListener(), &listener);  // stored
    EXPECT_EQ(pSub->get_listener(), nullptr);               // but never handed back

    DataReaderQos readerQos;
    readerQos.history.depth = 12;
    EXPECT_EQ(pSub->get_default_datareader_qos(readerQos), RETCODE_OK);
    EXPECT_EQ(readerQos.history.depth, 12);
    SubscriberQos other;
    EXPECT_EQ(pSub->set_qos(other), RETCODE_OK);
    pSub->get_qos(copy);
    EXPECT_EQ(copy.partition.name.length, 1u);

    EXPECT_NE(m_p->get_builtin_subscriber(), nullptr);
    EXPECT_NE(m_p->get_builtin_subscriber(), pSub);
}
