// Tests of the subscriber and data reader: read and take with their odd but
// required rules, the next-sample forms, the facade's result, listener,
// time-based filter and deadline, ownership and liveliness, and the creation,
// look-up and deletion rules of the subscriber. Samples are delivered through
// the protocol reader's best-effort path, without a network.
#include "DataReader.h"

#include "DcpsFixture.h"
#include "dcps/DataReaderImpl.h"
#include "dcps/SubscriberImpl.h"
#include "dcps/TopicDescriptionImpl.h"
#include "rtps/HistoryCache.h"
#include "rtps/StatefulReader.h"

namespace {
typedef std::vector<std::string> Texts;
const std::string kTail = " Error and TopicName = Track";

// The payloads as text, each freed the way an application does.
Texts Free(std::vector<UserData>& values) {
    Texts texts;
    for (UserData& value : values) {
        texts.push_back(value.data == nullptr ? "" : std::string((char*)value.data, value.length));
        std::free(value.data);
    }
    values.clear();
    return texts;
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

// Counts the callbacks and keeps the last reader and statuses they were given.
class CountingListener : public DataReaderListener {
public:
    void on_data_available(DataReader* r) override { Record(r, m_iData); }
    void on_requested_deadline_missed(DataReader* r, const RequestedDeadlineMissedStatus& s) override {
        Record(r, m_iDeadline, s.total_count);
    }
    void on_liveliness_changed(DataReader* r, const LivelinessChangedStatus& s) override {
        m_Liveliness = s;
        Record(r, m_iLiveliness);
    }
    void Record(DataReader* r, std::atomic<int>& calls, int total = 0) {
        m_pLastReader = r;
        m_iTotal = total;
        ++calls;
    }
    std::atomic<DataReader*> m_pLastReader{nullptr};
    std::atomic<int> m_iData{0}, m_iDeadline{0}, m_iTotal{0}, m_iLiveliness{0};
    LivelinessChangedStatus m_Liveliness;
};

class DataReader_Shared : public DcpsTest {
protected:
    void SetUp() override {
        DcpsTest::SetUp();
        MakeDirect(&m_Qos);
    }
    void TearDown() override {
        MakeDirect(nullptr);
        DcpsTest::TearDown();
    }
    // A reader Impl outside every list, wired to a protocol reader of its own, in place of
    // the last one (none for a null QoS). Dropped before a listener of the test body goes:
    // no timer may call it afterwards.
    void MakeDirect(const DataReaderQos* pQos, DataReaderListener* pListener = nullptr,
                    unsigned long mask = 0) {
        delete m_pReader;  // it points at the Impl's cache: it goes first
        delete m_pImpl;
        m_pImpl = pQos ? new DataReaderImpl(m_pSub->getImpl(), m_pTopic->getImpl(), *pQos, pListener, mask)
                       : nullptr;
        m_pReader = pQos ? new StatefulReader(Guid(0x77, 0x07), m_pImpl->getQos(), nullptr) : nullptr;
        if (m_pImpl != nullptr) m_pImpl->setReader(m_pReader);
    }
    // Best-effort DATA as the protocol reader hands it up.
    void Deliver(std::initializer_list<std::string> payloads) {
        for (const std::string& payload : payloads) {
            CacheChange* pChange = MakeChange(++m_uiWriterSeq, uint32_t(payload.size()), payload.data());
            pChange->writerGUID = Guid(0x10, 0x03);
            m_pReader->BestEffortDataMessageReceive(pChange);
        }
    }
    uint32_t Held() { return m_pImpl->getHistoryCache()->GetChangeCount(); }
    ReturnCode_t Take() { return m_pImpl->take(m_Values, m_Infos, -1, 0, 0, 0); }
    ReturnCode_t Read(std::vector<UserData>& values) { return m_pImpl->read(values, m_Infos, 1, 0, 0, 0); }
    // take_next_sample's answer and the payload it took ("" for none).
    std::pair<ReturnCode_t, std::string> TakeNext() {
        UserData value;
        const ReturnCode_t ret = m_pImpl->take_next_sample(value, m_Info);
        std::vector<UserData> values = {value};
        return {ret, Free(values)[0]};
    }

    const DataReaderQos m_Qos = KeepLast(10);  // for the reader each test starts with
    DataReaderImpl* m_pImpl = nullptr;
    StatefulReader* m_pReader = nullptr;
    uint32_t m_uiWriterSeq = 0;
    std::vector<UserData> m_Values;
    SampleInfoSeq m_Infos;
    UserData m_Value;
    SampleInfo m_Info;
};
}  // namespace

TEST_F(DataReader_Shared, TakeHandsOverEveryOtherEntryPerCall) {
    LogRecorder log;
    EXPECT_EQ(Take(), NO_DATA);
    EXPECT_EQ(log.Count("{DataReaderImpl::take] NO_DATA" + kTail), 1);
    Deliver({"one", "two", "three", "four"});
    const octet* pFirstBuffer = m_pImpl->getHistoryCache()->GetChange(SequenceNumber_t(0, 1))->data;
    // One call takes entries 0 and 2 of those still held; the tail keeps null elements.
    for (const Texts& expected : {Texts{"one", "three", "", ""}, Texts{"two", ""}, Texts{"four"}}) {
        ASSERT_EQ(Take(), RETCODE_OK);
        EXPECT_EQ(m_Infos.length, expected.size());
        EXPECT_TRUE(pFirstBuffer == nullptr || m_Values[0].data == pFirstBuffer);  // the cache's own, no copy
        pFirstBuffer = nullptr;
        EXPECT_EQ(Free(m_Values), expected);
    }
    EXPECT_EQ(Held(), 0u);
}

TEST_F(DataReader_Shared, ReadCopiesEverySampleAndLeavesTheCache) {
    EXPECT_EQ(Read(m_Values), NO_DATA);
    EXPECT_TRUE(m_Values.empty());
    Deliver({"a", "bb", "ccc"});
    std::vector<UserData> second;
    ASSERT_EQ(Read(m_Values), RETCODE_OK);  // max_samples 1 is ignored
    ASSERT_EQ(Read(second), RETCODE_OK);
    ASSERT_EQ(second.size(), 3u);
    EXPECT_NE(m_Values[2].data, second[2].data);  // a new buffer each time
    EXPECT_EQ(Free(m_Values), Free(second));
    EXPECT_EQ(Held(), 3u);
    Take();  // leaves "bb", which read then sees alone
    Free(m_Values);
    ASSERT_EQ(Read(m_Values), RETCODE_OK);
    EXPECT_EQ(Free(m_Values), Texts{"bb"});
}

TEST_F(DataReader_Shared, NextSampleGivesTheNewestAndTakingItLeavesNothingReachable) {
    // The facade answers OK all the same: only the empty result tells that nothing was there.
    EXPECT_EQ(std::make_pair(RETCODE_OK, NO_DATA),
              std::make_pair(m_pImpl->getFacade()->take_next_sample(m_Value, m_Info), TakeNext().first));
    EXPECT_EQ(m_Value.data, nullptr);
    Deliver({"first", "second", "third"});
    ASSERT_EQ(m_pImpl->read_next_sample(m_Value, m_Info), RETCODE_OK);
    std::vector<UserData> read = {m_Value};
    EXPECT_EQ(std::make_tuple(Texts{"third"}, 3u), std::make_tuple(Free(read), Held()));
    EXPECT_EQ(std::make_pair(RETCODE_OK, std::string("third")), TakeNext());
    EXPECT_EQ(Held(), 2u);
    // The newest key stays, empty: both forms now find nothing although two wait.
    LogRecorder log;
    EXPECT_EQ(std::make_pair(NO_DATA, std::string()), TakeNext());
    EXPECT_EQ(m_pImpl->read_next_sample(m_Value, m_Info), NO_DATA);
    EXPECT_EQ(log.Count("{DataReaderImpl::take_next_sample] pCacheChange = NULL" + kTail), 2);
    Deliver({"fourth"});  // a newer sample is reachable again
    EXPECT_EQ(std::make_pair(RETCODE_OK, std::string("fourth")), TakeNext());
}

TEST_F(DataReader_Shared, ListenerHearsEverySampleThroughTheCurrentFacadeUnlessTimeFiltered) {
    CountingListener listener;
    MakeDirect(&m_Qos, &listener, 0);  // on_data_available does not need the mask
    Deliver({"b", "c"});
    EXPECT_EQ(std::make_pair(2, m_pImpl->getFacade()),
              std::make_pair(listener.m_iData.load(), listener.m_pLastReader.load()));
    DataReader* pDerived = new NewFacade<DataReader, DataReaderImpl>(m_pImpl);  // the Impl deletes it
    Deliver({"d"});
    EXPECT_EQ(std::make_pair(pDerived, pDerived),
              std::make_pair(m_pImpl->getFacade(), listener.m_pLastReader.load()));

    // Within the minimum separation the listener hears only the first; the history keeps the latest.
    DataReaderQos qos = KeepLast(10);
    qos.time_based_filter.minimum_separation = Duration_t(5, 0);
    MakeDirect(&qos, &listener, 0);
    testing::internal::CaptureStdout();  // the filter prints its times
    Deliver({"first", "second", "third"});
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::make_tuple(4, 1u), std::make_tuple(listener.m_iData.load(), Held()));
    EXPECT_EQ(std::make_pair(RETCODE_OK, std::string("third")), TakeNext());
}

TEST_F(DataReader_Shared, DeadlineMissedWhileNoSampleArrives) {
    CountingListener listener;
    DataReaderQos qos;
    qos.deadline.period = Duration_t(0, 400);  // the second word counts as milliseconds
    MakeDirect(&qos, &listener, 0);            // the callback is not gated by the mask
    // The timer first fires after two seconds.
    ASSERT_TRUE(WaitFor([&] { return listener.m_iDeadline.load() >= 1; }, 3000));
    EXPECT_EQ(std::make_pair(1, m_pImpl->getFacade()),
              std::make_pair(listener.m_iTotal.load(), listener.m_pLastReader.load()));
    MakeDirect(nullptr);
}

TEST_F(DataReader_Shared, OwnershipGoesToTheStrongerWriterAndBackToNobody) {
    const GUID_t weak = Guid(1, 0x02), strong = Guid(2, 0x02);
    // Strength offered (INT32_MIN: the writer goes), the writer, and the owner after.
    const std::tuple<int32_t, GUID_t, GUID_t> steps[] = {
        {5, weak, weak},    // nobody owns: any strength wins
        {5, strong, weak},  // equal strength does not replace
        {6, strong, strong},
        {INT32_MIN, weak, strong},  // not the owner
        {INT32_MIN, strong, GUID_UNKNOWN},
        {-3, weak, weak}};
    for (const auto& [strength, guid, owner] : steps) {
        strength == INT32_MIN ? m_pImpl->ownerGone(guid) : m_pImpl->offerOwnership(guid, strength);
        EXPECT_EQ(m_pImpl->getOwnerGuid(), owner) << strength;
    }
    EXPECT_EQ(m_pImpl->getOwnerStrength(), -3);
}

TEST_F(DataReader_Shared, LivelinessChangesReachTheListenerByMask) {
    CountingListener listener;
    for (unsigned long mask : {LIVELINESS_CHANGED_STATUS, SUBSCRIPTION_MATCHED_STATUS}) {
        MakeDirect(&DATAREADER_QOS_DEFAULT, &listener, mask);
        m_pImpl->writerMatchedAlive();  // counted, not reported
        m_pImpl->livelinessChanged(false);
        m_pImpl->livelinessChanged(true);
        const LivelinessChangedStatus s = m_pImpl->getLivelinessChangedStatus();
        EXPECT_EQ(std::make_tuple(1, 0), std::make_tuple(s.alive_count, s.not_alive_count));
    }
    // Heard under the first mask only, the last time with the counts of the moment.
    const LivelinessChangedStatus& s = listener.m_Liveliness;
    EXPECT_EQ(std::make_tuple(2, 1, 0, 1), std::make_tuple(listener.m_iLiveliness.load(), s.alive_count,
                                                           s.not_alive_count, s.alive_count_change));
}

TEST_F(DataReader_Shared, CreateGivesOneReaderPerTopicAndFillsMissingMulticastPorts) {
    CountingListener listener;
    DataReaderQos qos = KeepLast(3), held;
    qos.multicast.value.push_back(TransportMulticastSetting{"239.255.0.9", 0});
    qos.multicast.value.push_back(TransportMulticastSetting{"239.255.0.10", 9100});
    DataReader* pFirst = m_pSub->create_datareader(m_pTopic, qos, &listener, 0);
    ASSERT_NE(pFirst, nullptr);
    EXPECT_NE(pFirst->getGuid().entityId, ENTITYID_UNKNOWN);  // allotted
    EXPECT_EQ(std::make_pair(pFirst->getImpl(), pFirst),
              std::make_pair(m_pTopic->getImpl()->getDataReader(), m_pSub->lookup_datareader("Track")));
    // QoS and listener of a second call are dropped, even on another subscriber.
    Subscriber* pOther = s_p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
    EXPECT_EQ(pOther->create_datareader(m_pTopic, KeepLast(8), nullptr, 0), pFirst);
    EXPECT_EQ(pOther->lookup_datareader("Track"), nullptr);  // it stays the first subscriber's
    pFirst->get_qos(held);
    ASSERT_EQ(held.multicast.value.length, 2u);
    EXPECT_EQ(std::make_tuple(true, 9100u, 3, static_cast<DataReaderListener*>(&listener)),
              std::make_tuple(held.multicast.value[0].receive_port != 0, held.multicast.value[1].receive_port,
                              held.history.depth, pFirst->get_listener()));
}

TEST_F(DataReader_Shared, DeleteUnlinksTheTopicAndRefusesStrangers) {
    DataReader* pReader = m_pSub->create_datareader(m_pTopic, DATAREADER_QOS_DEFAULT, nullptr, 0);
    ASSERT_NE(pReader, nullptr);
    Topic* pTopic = m_pTopic;
    EXPECT_EQ(s_p->delete_topic(pTopic), RETCODE_ENTITY_NOT_FOUND);  // a reader holds it
    // Null is refused, deleting with a 0 unlike the publisher's 1.
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_pSub->delete_datareader(nullptr), RETCODE_OK);
    EXPECT_EQ("ERROR: Invalid Argument\n", testing::internal::GetCapturedStdout());
    // Through the wrong subscriber: 33, and the topic link is gone all the same.
    Subscriber* pOther = s_p->create_subscriber(SUBSCRIBER_QOS_DEFAULT, nullptr, 0);
    EXPECT_EQ(pOther->delete_datareader(pReader), RETCODE_ENTITY_NOT_FOUND);
    EXPECT_EQ(std::make_pair((DataReaderImpl*)nullptr, pReader),
              std::make_pair(m_pTopic->getImpl()->getDataReader(), m_pSub->lookup_datareader("Track")));
    // Deleting the subscriber takes its reader; a stale one is not found (and never followed).
    Subscriber *pSub = m_pSub, *pStale = m_pSub;
    m_pSub = nullptr;
    EXPECT_EQ(std::vector<ReturnCode_t>({RETCODE_OK, RETCODE_ENTITY_NOT_FOUND}),
              (std::vector<ReturnCode_t>{s_p->delete_subscriber(pSub), s_p->delete_subscriber(pStale)}));
    EXPECT_EQ(std::make_pair((Subscriber*)nullptr, RETCODE_OK),
              std::make_pair(pSub, s_p->delete_topic(pTopic = m_pTopic)));
}
