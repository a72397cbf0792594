#include "rtps/StatefulReader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "DDSLogManagementFactory.h"
#include "DataSendRig.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/ReaderDataSink.h"
#include "rtps/WriterProxy.h"

namespace {
typedef std::vector<uint32_t> Seq;
const EntityId_t WRITER_ID = EntityId_t{{0x00, 0x00, 0x01}, 0x02};
const EntityId_t OTHER_WRITER_ID = EntityId_t{{0x00, 0x00, 0x02}, 0x02};

// Stands for the DataReaderImpl: records what reaches it.
class TestSink : public ReaderDataSink {
public:
    int DataReceive(CacheChange* pChange) override {
        m_Keys.push_back(pChange->sequenceNumber);
        m_Payloads.emplace_back(pChange->data, pChange->data + (pChange->data ? pChange->dataLength : 0));
        m_Lifespans.push_back(pChange->lifespan);
        return 0;
    }
    GUID_t getOwnerGuid() override { return m_Owner; }
    void setLastSequenceNumber(const SequenceNumber_t& seqNum) override { m_LastSeq = seqNum; }
    void livelinessChanged(bool bAlive) override { m_Liveliness.push_back(bAlive); }

    // The writer numbers carried in the payloads, in order of delivery.
    Seq Numbers() const {
        Seq numbers;
        for (const std::vector<octet>& payload : m_Payloads)
            numbers.push_back(payload.size() >= 4 ? *reinterpret_cast<const uint32_t*>(payload.data()) : 0);
        return numbers;
    }

    std::vector<SequenceNumber_t> m_Keys;
    std::vector<std::vector<octet>> m_Payloads;
    std::vector<Time_t> m_Lifespans;
    GUID_t m_Owner = GUID_UNKNOWN;
    SequenceNumber_t m_LastSeq;
    std::vector<bool> m_Liveliness;
};

// Records the ACKNACK sets instead of queueing requests.
class RecordingReader : public StatefulReader {
public:
    using StatefulReader::m_HeldBytesMax;
    using StatefulReader::StatefulReader;
    std::vector<SequenceNumberSet> m_AckNacks;

private:
    void SendAckNack(WriterProxy*, const SequenceNumberSet& set) override { m_AckNacks.push_back(set); }
};

class RecordingProxy : public WriterProxy {
public:
    using WriterProxy::WriterProxy;
    std::vector<std::pair<SequenceNumber_t, FragmentNumberSet>> m_NackFrags;

private:
    void SendNackFrag(StatefulReader*, RequestScheduler*, const SequenceNumber_t& seqNum,
                      const FragmentNumberSet& set) override {
        m_NackFrags.push_back(std::make_pair(seqNum, set));
    }
};

GUID_t WriterGuid(const EntityId_t& id = WRITER_ID) {
    GUID_t guid(GuidPrefix(), id);
    for (int i = 0; i < 12; ++i) guid.guidPrefix.value[i] = octet(0x40 + i);
    return guid;
}

MessageReceiver Receiver(const Time_t& timestamp = Time_t(100, 0)) {
    MessageReceiver receiver;
    receiver.sourceGuidPrefix = WriterGuid().guidPrefix;
    receiver.haveTimestamp = 1;
    receiver.timestamp = timestamp;
    return receiver;
}

DataSubMessage Data(uint32_t uiSeq, const EntityId_t& writerId = WRITER_ID) {
    DataSubMessage message{};
    message.header.submessageId = DATA;
    message.writerId = writerId;
    message.writerSN = ToWire(SequenceNumber_t(0, uiSeq));
    return message;
}

std::vector<octet> Sample(uint32_t uiSize) {
    std::vector<octet> sample(uiSize);
    for (uint32_t i = 0; i < uiSize; ++i) sample[i] = octet((i * 7 + i / 251) & 0xFF);
    return sample;
}

DataReaderQos Qos(ReliabilityQosPolicyKind reliability) {
    DataReaderQos qos;
    qos.reliability.kind = reliability;
    return qos;
}

// A reader wired to its cache and a test sink, with one matched writer.
struct Fixture {
    explicit Fixture(const DataReaderQos& qos, uint32_t uiCapacity = 16,
                     const std::string& strTopic = "Square")
        : cache(uiCapacity), reader(GUID_t(GuidPrefix(), EntityId_t{{0, 0, 1}, 7}), qos, nullptr) {
        cache.SetTopic(0, strTopic);
        reader.setReaderCache(&cache);
        reader.setDataReader(&sink);
        pProxy = new RecordingProxy(WriterGuid(), std::list<Locator_t>(), std::list<Locator_t>());
        reader.matched_writer_add(pProxy);
    }

    // Sends DATA whose payload is the number itself.
    int Send(uint32_t uiSeq, const Time_t& stamp = Time_t(100, 0), const EntityId_t& writerId = WRITER_ID) {
        return reader.DataMessageReceive(Receiver(stamp), Data(uiSeq, writerId), {},
                                         reinterpret_cast<const octet*>(&uiSeq), sizeof(uiSeq));
    }
    int SendFrag(uint32_t uiSeq, const dataFrag& fragment, const std::vector<octet>& bytes) {
        return reader.DataFragMessageReceive(Receiver(), Data(uiSeq), fragment, {}, bytes.data(),
                                             uint32_t(bytes.size()));
    }
    // Sends fragment uiNumber of `sample` as writer number uiSeq; an empty
    // one, as the writer sends the last of an exact multiple, when bEmpty.
    int SendFragment(uint32_t uiSeq, const std::vector<octet>& sample, uint32_t uiNumber,
                     bool bEmpty = false) {
        const uint32_t uiOffset = (uiNumber - 1) * FRAGMENT_SIZE;
        const dataFrag fragment = {uiNumber, 1, uint16_t(FRAGMENT_SIZE), uint32_t(sample.size())};
        return reader.DataFragMessageReceive(
            Receiver(), Data(uiSeq), fragment, {}, sample.data() + uiOffset,
            bEmpty ? 0 : std::min<uint32_t>(uint32_t(sample.size()) - uiOffset, FRAGMENT_SIZE));
    }
    int Heartbeat(uint32_t uiFirst, uint32_t uiLast, uint32_t uiCount,
                  const EntityId_t& writerId = WRITER_ID) {
        heartBeatSubMessage message{};
        message.writerId = writerId;
        message.firstSN = ToWire(SequenceNumber_t(0, uiFirst));
        message.lastSN = ToWire(SequenceNumber_t(0, uiLast));
        message.count = uiCount;
        return reader.HeartBeatMessageReceive(Receiver(), message);
    }
    const CacheChange* Store(uint32_t uiSeq) {
        auto it = pProxy->getChangesFromWriter().find(SequenceNumber_t(0, uiSeq));
        return it == pProxy->getChangesFromWriter().end() ? nullptr : it->second.change;
    }

    HistoryCache cache;
    TestSink sink;
    RecordingReader reader;
    RecordingProxy* pProxy;  // owned by the reader
};
}  // namespace

// ---------------------------------------------------------------- DATA

TEST(StatefulReader_Reliable, DeliversInSequenceParksWhatComesEarlyAndRefusesOldNumbers) {
    LogRecorder logs;
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    EXPECT_EQ(0, f.Send(1));
    EXPECT_EQ(1, f.Send(1));
    EXPECT_EQ(1, logs.Count("[StatefulReader::DataMessageReceive] maxAvailableNum(1) >= "
                            "DataMessage.WriterSN(1) and TopicName = Square"));
    EXPECT_EQ(0, f.Send(3));
    EXPECT_EQ(0, f.Send(3));  // a second copy of a parked number replaces the first
    EXPECT_EQ(Seq({1}), f.sink.Numbers());
    EXPECT_EQ(SequenceNumber_t(0, 3), f.sink.m_LastSeq);
    EXPECT_EQ(0, f.Send(2));
    EXPECT_EQ(Seq({1, 2, 3}), f.sink.Numbers());
    EXPECT_EQ(SequenceNumber_t(0, 3), f.pProxy->getAvailableSeqNum());
    // Cache keys count deliveries from 1, whatever the source timestamp.
    EXPECT_EQ(std::vector<SequenceNumber_t>({{0, 1}, {0, 2}, {0, 3}}), f.sink.m_Keys);
    EXPECT_EQ(3u, f.cache.GetChangeCount());

    // A writer that is not matched is ignored without a word.
    const size_t uiLogs = logs.Entries().size();
    EXPECT_EQ(0, f.Send(4, Time_t(100, 0), OTHER_WRITER_ID));
    EXPECT_EQ(3u, f.sink.m_Keys.size());
    EXPECT_EQ(uiLogs, logs.Entries().size());
    f.Send(6);  // parked changes go with the reader (the leak checker watches)
}

TEST(StatefulReader_BestEffort, DeliversEverythingInOrderOfArrival) {
    Fixture f(Qos(BEST_EFFORT_RELIABILITY_QOS));
    for (uint32_t uiSeq : {3u, 1u, 2u, 2u}) EXPECT_EQ(0, f.Send(uiSeq));
    f.Send(9, Time_t(100, 0), OTHER_WRITER_ID);  // no matched writer needed either
    EXPECT_EQ(Seq({3, 1, 2, 2, 9}), f.sink.Numbers());
    EXPECT_EQ(5u, f.cache.GetChangeCount());
}

TEST(StatefulReader, FullCacheDropsTheOldestKeyAndOnlyTheReliableReaderLogsIt) {
    for (ReliabilityQosPolicyKind kind : {RELIABLE_RELIABILITY_QOS, BEST_EFFORT_RELIABILITY_QOS}) {
        LogRecorder logs;
        Fixture f(Qos(kind), 2);
        for (uint32_t uiSeq : {1u, 2u, 3u}) f.Send(uiSeq);
        EXPECT_EQ(Seq({1, 2, 3}), f.sink.Numbers());
        EXPECT_EQ(2u, f.cache.GetChangeCount());
        EXPECT_EQ(SequenceNumber_t(0, 2), f.cache.GetSeqNumMin());
        const std::vector<std::string> texts = logs.Texts();
        EXPECT_EQ(kind == RELIABLE_RELIABILITY_QOS ? 1 : 0,
                  std::count_if(texts.begin(), texts.end(), [](const std::string& s) {
                      return s.find("HistoryCache is Full") != std::string::npos;
                  }));
        if (kind == RELIABLE_RELIABILITY_QOS) {
            EXPECT_EQ(1, logs.Count("[StatefulReader::ReliableDataMessageReceive] [1] TopicName = Square : "
                                    "HistoryCache is Full,delete old Sn 1 and insert new Sn 3"));
        }
    }
}

// ---------------------------------------------------------------- QoS

TEST(StatefulReader_Qos, BySourceTimestampKeysTheCacheByTimeAndKeepsTheFirstOfATie) {
    DataReaderQos qos = Qos(BEST_EFFORT_RELIABILITY_QOS);
    qos.destination_order.kind = BY_SOURCE_TIMESTAMP_DESTINATIONORDER_QOS;
    Fixture f(qos);
    f.Send(1, Time_t(5, 100));
    f.Send(2, Time_t(3, 7));
    f.Send(3, Time_t(5, 100));  // the cache keeps the first, the second still reaches the sink
    EXPECT_EQ(Seq({1, 2, 3}), f.sink.Numbers());
    EXPECT_EQ(SequenceNumber_t(5, 100), f.sink.m_Keys[0]);
    EXPECT_EQ(2u, f.cache.GetChangeCount());
    EXPECT_EQ(SequenceNumber_t(3, 7), f.cache.GetSeqNumMin());
    EXPECT_EQ(1u, *reinterpret_cast<const uint32_t*>(f.cache.GetChange(SequenceNumber_t(5, 100))->data));
}

TEST(StatefulReader_Qos, ExclusiveOwnershipDropsNonOwnersSilently) {
    LogRecorder logs;
    DataReaderQos qos = Qos(BEST_EFFORT_RELIABILITY_QOS);
    qos.ownership.kind = EXCLUSIVE_OWNERSHIP_QOS;
    Fixture f(qos);
    EXPECT_EQ(0, f.Send(1));
    EXPECT_TRUE(f.sink.m_Keys.empty());
    EXPECT_TRUE(logs.Entries().empty());
    f.sink.m_Owner = WriterGuid();
    f.Send(2);
    EXPECT_EQ(Seq({2}), f.sink.Numbers());
}

TEST(StatefulReader_Qos, LifespanFromTheProxyAndLivelinessTransitions) {
    DataReaderQos qos = Qos(RELIABLE_RELIABILITY_QOS);
    qos.liveliness.kind = MANUAL_BY_PARTICIPANT_LIVELINESS_QOS;
    qos.liveliness.lease_duration = Duration_t(2, 0);
    Fixture f(qos);
    DataWriterQos writerQos;
    writerQos.lifespan.duration = Duration_t(3, 0);
    f.pProxy->setWriterData(writerQos);
    f.Send(1);
    EXPECT_EQ(std::vector<Time_t>({Duration_t(3, 0)}), f.sink.m_Lifespans);

    // Liveliness reports transitions only; an assertion of a lower kind does nothing.
    f.pProxy->setLastAliveTime(Time_t(10, 0));
    for (int32_t sec : {11, 13, 14}) f.reader.checkLiveliness(Time_t(sec, 0));
    f.reader.assertLiveliness(WriterGuid(), Time_t(14, 0), 0);
    f.reader.assertLiveliness(WriterGuid(), Time_t(14, 0), 1);
    EXPECT_EQ(std::vector<bool>({false, true}), f.sink.m_Liveliness);
    EXPECT_EQ(Time_t(14, 0), f.pProxy->getLastAliveTime());

    // On a built-in topic the lifespan stays infinite.
    Fixture builtin(Qos(RELIABLE_RELIABILITY_QOS), 16, "DCPSPublication");
    builtin.pProxy->setWriterData(writerQos);
    builtin.Send(1);
    EXPECT_EQ(std::vector<Time_t>({DURATION_INFINITE}), builtin.sink.m_Lifespans);
}

// ---------------------------------------------------------------- matching, second cache

TEST(StatefulReader_Matching, AddLookupRemoveAndTheSecondCache) {
    LogRecorder logs;
    HistoryCache cache(7);
    cache.SetTopic(9, "Square");
    StatefulReader reader(GUID_UNKNOWN, Qos(RELIABLE_RELIABILITY_QOS), nullptr);
    reader.setReaderCache(&cache);
    HistoryCache* pSecond = reader.getSecondCache();  // made like the reader cache
    ASSERT_TRUE(pSecond != nullptr && pSecond != &cache);
    EXPECT_EQ(7u, pSecond->GetCapacity());
    EXPECT_EQ(9u, pSecond->GetDomainId());
    EXPECT_EQ("Square", pSecond->GetTopicName());
    reader.setReaderCache(&cache);  // replaced, not lost (the leak checker watches)

    WriterProxy* pProxy = new WriterProxy(WriterGuid(), {}, {});
    EXPECT_EQ(0, reader.matched_writer_add(pProxy));
    EXPECT_EQ(pProxy, reader.matched_writer_lookup(WriterGuid()));
    WriterProxy again(WriterGuid(), {}, {});
    EXPECT_EQ(1, reader.matched_writer_add(&again));
    testing::internal::CaptureStdout();
    EXPECT_EQ(1, reader.matched_writer_add(nullptr));
    EXPECT_EQ("err\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(nullptr, reader.matched_writer_lookup(WriterGuid(OTHER_WRITER_ID)));
    EXPECT_EQ(1, reader.matched_writer_remove(nullptr));
    WriterProxy stranger(WriterGuid(OTHER_WRITER_ID), {}, {});
    EXPECT_EQ(1, reader.matched_writer_remove(&stranger));
    EXPECT_EQ(0, reader.matched_writer_remove(pProxy));
    EXPECT_EQ(0u, reader.getMatchedWriterCount());

    std::vector<std::string> texts = logs.Texts();
    ASSERT_EQ(5u, texts.size());
    EXPECT_EQ(0u, texts[4].rfind("[StatefulReader::matched_reader_remove] [1] pWriterProxy = ", 0));
    EXPECT_EQ(DDSLOG_ERROR, logs.Entries()[4].code);
    texts.pop_back();
    EXPECT_EQ(
        std::vector<std::string>(
            {"[StatefulReader::matched_writer_add]  pWriterProxy Readd and TopicName = Square",
             "[StatefulReader::matched_writer_lookup] m_MatchedWriter.count == 0 and TopicName = Square",
             "[StatefulReader::matched_writer_remove] pWriterProxy = NULL and TopicName = Square",
             "[StatefulReader::matched_writer_remove] m_MatchedWriter.count and TopicName = Square"}),
        texts);
}

// ---------------------------------------------------------------- HEARTBEAT, GAP

TEST(StatefulReader_Heartbeat, AnswersWithTheMissingSet) {
    struct Case {
        Seq received;
        uint32_t uiFirst, uiLast, uiCount;
        size_t uiAckNacks;
        uint32_t uiBase, uiBits, uiBitmap;
    };
    const Case aCases[] = {
        {{2}, 1, 5, 4, 1, 1, 5, 0xB8000000u},  // 1, 3, 4, 5
        {{1, 2}, 1, 2, 1, 1, 3, 0, 0},         // nothing missing still gets an ACKNACK
        {{}, 1, 0, 7, 0, 0, 0, 0},             // an empty writer only stores the count
    };
    for (const Case& c : aCases) {
        SCOPED_TRACE(c.uiCount);
        Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
        for (uint32_t uiSeq : c.received) f.Send(uiSeq);
        EXPECT_EQ(0, f.Heartbeat(c.uiFirst, c.uiLast, c.uiCount));
        EXPECT_EQ(c.uiCount, f.pProxy->getHeartbeatCount());
        ASSERT_EQ(c.uiAckNacks, f.reader.m_AckNacks.size());
        for (const SequenceNumberSet& set : f.reader.m_AckNacks) {
            EXPECT_EQ(SequenceNumber_t(0, c.uiBase), set.bitmapBase);
            EXPECT_EQ(c.uiBits, set.numBits);
            EXPECT_EQ(c.uiBitmap, c.uiBits == 0 ? 0 : set.bitmap[0]);
        }
    }
}

TEST(StatefulReader_Heartbeat, UnknownWriterIsLoggedAndDeclaredLossOrGapFreesParkedChanges) {
    LogRecorder logs;
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    EXPECT_EQ(0, f.Heartbeat(1, 1, 3, OTHER_WRITER_ID));
    EXPECT_EQ(1, logs.Count("[StatefulReader::HeartBeatMessageReceive]  NULL == pWriterProxy "
                            "TopicName =Square  Count = 3 "));
    EXPECT_TRUE(f.reader.m_AckNacks.empty());

    f.Send(3);
    f.Heartbeat(3, 3, 1);  // 1 and 2 are lost
    EXPECT_EQ(SequenceNumber_t(0, 2), f.pProxy->getAvailableSeqNum());
    f.Heartbeat(3, 3, 2);  // the next heartbeat (or DATA) delivers what the loss set free
    EXPECT_EQ(Seq({3}), f.sink.Numbers());
    EXPECT_EQ(0u, f.reader.m_AckNacks.back().numBits);
    EXPECT_EQ(SequenceNumber_t(0, 4), f.reader.m_AckNacks.back().bitmapBase);

    f.Send(7);
    stGapSubMessage gap{};
    gap.writerId = WRITER_ID;
    gap.gapStart = ToWire(SequenceNumber_t(0, 4));
    gap.gapList.bitmapBase = ToWire(SequenceNumber_t(0, 7));
    EXPECT_EQ(0, f.reader.GapMessageReceive(Receiver(), gap));
    EXPECT_EQ(Seq({3, 7}), f.sink.Numbers());
    EXPECT_TRUE(f.pProxy->getChangesFromWriter().empty());
}

// ---------------------------------------------------------------- DATA_FRAG

TEST(StatefulReader_Fragments, ExactMultipleCountsOneTooManyAndAHeartbeatAsksForTheRest) {
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    const std::vector<octet> sample = Sample(2 * FRAGMENT_SIZE);
    EXPECT_EQ(0, f.SendFragment(1, sample, 2));
    const CacheChange* pStore = f.Store(1);
    ASSERT_NE(nullptr, pStore);
    EXPECT_EQ(3u, pStore->fragmentCount);
    EXPECT_EQ(2u, pStore->highestFragment);
    EXPECT_EQ((std::map<uint32_t, uint32_t>{{1, 1}}), pStore->missingFragments.ranges());
    EXPECT_LT(FRAGMENT_SIZE, f.reader.getHeldBytes());  // the stored fragment counts
    EXPECT_TRUE(f.sink.m_Keys.empty());
    EXPECT_EQ(0, f.SendFragment(1, sample, 1));  // complete on two
    EXPECT_EQ(std::vector<std::vector<octet>>({sample}), f.sink.m_Payloads);
    EXPECT_EQ(SequenceNumber_t(0, 1), f.pProxy->getAvailableSeqNum());
    EXPECT_EQ(Time_t(0, 0), f.cache.GetChange(SequenceNumber_t(0, 1))->sourceTimestamp);  // no INFO_TS time

    f.SendFragment(2, sample, 1);
    testing::internal::CaptureStdout();
    f.Heartbeat(1, 2, 1);
    EXPECT_EQ("loss Frag Data 2 Seq = 2\nloss Frag Data 3 Seq = 2\n", testing::internal::GetCapturedStdout());
    ASSERT_EQ(1u, f.pProxy->m_NackFrags.size());
    EXPECT_EQ(SequenceNumber_t(0, 2), f.pProxy->m_NackFrags[0].first);
    EXPECT_EQ(2u, f.pProxy->m_NackFrags[0].second.bitmapBase);
    EXPECT_EQ(2u,
              f.pProxy->m_NackFrags[0].second.numBits);  // fragment 3 does not exist, asked for all the same
    ASSERT_EQ(1u, f.reader.m_AckNacks.size());
    EXPECT_EQ(1u, f.reader.m_AckNacks[0].numBits);  // the sample under reassembly is missing too
}

TEST(StatefulReader_Fragments, CopiesAreCutToTheFirstStoreAndOverlapGoesByArrival) {
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    std::vector<octet> sample = Sample(FRAGMENT_SIZE + 1000);
    const std::vector<octet> oversized(FRAGMENT_SIZE, 0xAB);
    // A last fragment longer than what is left of the sample is cut to fit; a
    // later fragment announcing a larger sample cannot reach past the store.
    EXPECT_EQ(0, f.SendFrag(1, dataFrag{2, 1, uint16_t(FRAGMENT_SIZE), uint32_t(sample.size())}, oversized));
    EXPECT_EQ(0, f.SendFrag(1, dataFrag{3, 1, uint16_t(FRAGMENT_SIZE), 4 * FRAGMENT_SIZE}, oversized));
    f.SendFrag(1, dataFrag{2, 1, 64000, uint32_t(sample.size())},
               std::vector<octet>(1000, 0xCD));  // other size
    ASSERT_NE(nullptr, f.Store(1));
    EXPECT_EQ(2u, f.Store(1)->highestFragment);
    f.SendFragment(1, sample, 1);
    std::fill(sample.begin() + FRAGMENT_SIZE, sample.end(), 0xAB);
    std::fill(sample.begin() + FRAGMENT_SIZE, sample.begin() + 65000, 0xCD);
    EXPECT_EQ(std::vector<std::vector<octet>>({sample}), f.sink.m_Payloads);
}

TEST(StatefulReader_Fragments, OldNumbersAndNonOwnersAreRefusedWithALog) {
    LogRecorder logs;
    DataReaderQos qos = Qos(RELIABLE_RELIABILITY_QOS);
    qos.ownership.kind = EXCLUSIVE_OWNERSHIP_QOS;
    Fixture f(qos);
    const std::vector<octet> sample = Sample(FRAGMENT_SIZE + 10);
    EXPECT_EQ(0, f.SendFragment(1, sample, 1));
    f.sink.m_Owner = WriterGuid();
    for (uint32_t uiNumber : {1u, 2u}) f.SendFragment(1, sample, uiNumber);
    ASSERT_EQ(1u, f.sink.m_Keys.size());
    EXPECT_EQ(1, f.SendFragment(1, sample, 2));
    EXPECT_EQ(1, logs.Count(
                     "[StatefulReader::DataFragMessageReceive] OwnerShip error TopicName =Square  Seq = 1 "));
    EXPECT_EQ(1, logs.Count("[StatefulReader::DataFragMessageReceive] maxAvailableNum(1) >= "
                            "DataFragMessage.WriterSN(1) TopicName = Square"));
}

TEST(StatefulReader_Fragments, BestEffortDeliversCompleteSamplesAndKeepsThreeUnderWay) {
    Fixture f(Qos(BEST_EFFORT_RELIABILITY_QOS));
    const std::vector<octet> sample = Sample(FRAGMENT_SIZE + 500);
    for (uint32_t uiNumber : {2u, 1u}) f.SendFragment(1, sample, uiNumber);
    ASSERT_EQ(1u, f.sink.m_Payloads.size());
    EXPECT_EQ(nullptr, f.Store(1));  // handed over, the entry stays empty

    for (uint32_t uiSeq = 2; uiSeq <= 6; ++uiSeq) f.SendFragment(uiSeq, sample, 1);
    ASSERT_EQ(3u, f.pProxy->getChangesFromWriter().size());
    EXPECT_EQ(SequenceNumber_t(0, 4), f.pProxy->getChangesFromWriter().begin()->first);
    f.SendFragment(2, sample, 2);  // a pruned sample starts over when its next fragment comes
    EXPECT_EQ(1u, f.sink.m_Payloads.size());
}

TEST(StatefulReader_Fragments, ReassemblesByteIdenticallyInAnyOrder) {
    struct Case {
        uint32_t uiSize;
        Seq order;
        bool bLastEmpty;  // the writer sends the last fragment of an exact multiple empty
    };
    const Case aCases[] = {{2 * FRAGMENT_SIZE + 1000, {1, 2, 3}, false},
                           {2 * FRAGMENT_SIZE + 1000, {3, 1, 2}, false},
                           {2 * FRAGMENT_SIZE, {2, 1}, true}};
    for (ReliabilityQosPolicyKind kind : {RELIABLE_RELIABILITY_QOS, BEST_EFFORT_RELIABILITY_QOS}) {
        for (const Case& c : aCases) {
            SCOPED_TRACE(testing::Message() << kind << " " << c.uiSize << " first " << c.order[0]);
            Fixture f(Qos(kind));
            const std::vector<octet> sample = Sample(c.uiSize);
            for (uint32_t uiNumber : c.order)
                f.SendFragment(1, sample, uiNumber, c.bLastEmpty && uiNumber == c.order.size());
            std::vector<octet> expected = sample;
            if (c.bLastEmpty) std::fill(expected.end() - FRAGMENT_SIZE, expected.end(), 0);  // stays zero
            EXPECT_EQ(std::vector<std::vector<octet>>({expected}), f.sink.m_Payloads);
            EXPECT_EQ(0u, f.reader.getHeldBytes());
            EXPECT_EQ(0u, f.pProxy->getReassemblyCount());
        }
    }
}

TEST(StatefulReader_Bounds, HostileInputStaysBoundedAndTheNextSampleGetsThrough) {
    const uint16_t usFull = uint16_t(FRAGMENT_SIZE);
    struct Case {
        const char* szName;
        uint32_t uiHeartbeatLast, uiDatas;  // a heartbeat from 1, then DATA from 70000
        dataFrag frag;                      // sent uiFrags times, as numbers from 100
        uint32_t uiFrags, uiThenFragment;   // and then this fragment number of number 100
        const char* szReliableLog;          // a text the drop log contains, or "" when nothing is dropped
        const char* szBestEffortLog;
    };
    const Case aCases[] = {
        {"heartbeat", 20000000, 1, {}, 0, 0, "entry bound reached: DATA", "update] entry bound"},
        {"4 GiB announced", 0, 0, {1, 1, usFull, 0xFFFFFFFFu}, 1, 0, "", ""},
        {"fragment number 0", 0, 0, {0, 1, usFull, 1000}, 1, 0, "size 0: fragment", "size 0: fragment"},
        {"fragment size 0", 0, 0, {1, 1, 0, 1000}, 1, 0, "size 0: fragment", "size 0: fragment"},
        {"fragment 2^32-1", 0, 0, {0xFFFFFFFFu, 1, usFull, 1000}, 1, 0, "outside the", "outside the"},
        {"far above highest", 0, 0, {1, 1, 1, 0xFFFFFFFFu}, 1, 0xFFFFFFF0u, "", ""},
        {"unfinished", 0, 0, {1, 1, usFull, 2 * FRAGMENT_SIZE}, 10000, 0, "under reassembly: fragment", ""},
        {"parked DATA", 0, 10000, {}, 0, 0, "byte bound reached: DATA", ""},
    };
    const std::vector<octet> chunk(100, 0xEE);
    const std::vector<octet> sample = Sample(FRAGMENT_SIZE + 500);
    for (ReliabilityQosPolicyKind kind : {RELIABLE_RELIABILITY_QOS, BEST_EFFORT_RELIABILITY_QOS}) {
        const bool bReliable = kind == RELIABLE_RELIABILITY_QOS;
        for (const Case& c : aCases) {
            SCOPED_TRACE(testing::Message() << c.szName << (bReliable ? " reliable" : " best effort"));
            LogRecorder logs;
            Fixture f(Qos(kind));
            f.reader.m_HeldBytesMax = 1 << 20;
            const auto start = std::chrono::steady_clock::now();
            if (c.uiHeartbeatLast != 0) f.Heartbeat(1, c.uiHeartbeatLast, 1);
            for (uint32_t i = 0; i < c.uiDatas; ++i) f.Send(70000 + i);
            for (uint32_t i = 0; i < c.uiFrags; ++i) f.SendFrag(100 + i, c.frag, chunk);
            if (c.uiThenFragment != 0) f.SendFrag(100, dataFrag{c.uiThenFragment, 1, 1, 0xFFFFFFFFu}, chunk);
            EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
            EXPECT_LE(f.pProxy->getChangesFromWriter().size(), PROXY_ENTRIES_MAX + 1);
            EXPECT_LE(f.pProxy->getReassemblyCount(), bReliable ? RELIABLE_REASSEMBLY_MAX : 3u);
            EXPECT_LE(f.reader.getHeldBytes(), 2u << 20);  // the bound, and one sample first in line
            const std::string strLog = bReliable ? c.szReliableLog : c.szBestEffortLog;
            const std::vector<std::string> texts = logs.Texts();
            EXPECT_EQ(!strLog.empty(), std::any_of(texts.begin(), texts.end(), [&](const std::string& s) {
                return s.find(strLog.empty() ? "dropped" : strLog) != std::string::npos;
            }));

            // The writer's next numbers: best effort only needs them above the attack's.
            const uint32_t uiNext = bReliable ? 1 : 1000000;
            f.Send(uiNext);
            for (uint32_t uiNumber : {2u, 1u}) f.SendFragment(uiNext + 1, sample, uiNumber);
            ASSERT_LE(2u, f.sink.m_Payloads.size());
            EXPECT_EQ(uiNext, f.sink.Numbers()[f.sink.m_Payloads.size() - 2]);
            EXPECT_EQ(sample, f.sink.m_Payloads.back());
        }
    }
}
