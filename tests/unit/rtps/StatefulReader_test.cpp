#include "rtps/StatefulReader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "DDSLogManagementFactory.h"
#include "log/LogObserver.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/ReaderDataSink.h"
#include "rtps/WriterProxy.h"

namespace
{
struct LogEntry
{
    int code;
    std::string text;
};

// Collects every log text while alive.
class ReaderLogCapture
{
public:
    ReaderLogCapture() { SetLogObserver(&ReaderLogCapture::Observe, this); }
    ~ReaderLogCapture() { SetLogObserver(nullptr, nullptr); }

    std::vector<LogEntry> Entries()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Entries;
    }
    int Count(const std::string& strNeedle)
    {
        int iCount = 0;
        for (const LogEntry& entry : Entries())
            iCount += entry.text.find(strNeedle) != std::string::npos ? 1 : 0;
        return iCount;
    }

private:
    static void Observe(void* context, int, const char* text, size_t length, int code)
    {
        ReaderLogCapture* self = static_cast<ReaderLogCapture*>(context);
        std::lock_guard<std::mutex> lock(self->m_Mutex);
        self->m_Entries.push_back(LogEntry{code, std::string(text, length)});
    }

    std::mutex m_Mutex;
    std::vector<LogEntry> m_Entries;
};

struct Delivery
{
    SequenceNumber_t key;
    std::vector<octet> payload;
    Time_t lifespan;
};

// Stands for the DataReaderImpl: records what reaches it.
class TestSink : public ReaderDataSink
{
public:
    int DataReceive(CacheChange* pCacheChange) override
    {
        Delivery delivery;
        delivery.key = pCacheChange->sequenceNumber;
        if (pCacheChange->data != nullptr)
            delivery.payload.assign(pCacheChange->data, pCacheChange->data + pCacheChange->dataLength);
        delivery.lifespan = pCacheChange->lifespan;
        m_Deliveries.push_back(delivery);
        return 0;
    }
    GUID_t getOwnerGuid() override { return m_Owner; }
    void setLastSequenceNumber(const SequenceNumber_t& seqNum) override { m_LastSeq = seqNum; }
    void livelinessChanged(bool bAlive) override { m_Liveliness.push_back(bAlive); }

    // The writer numbers carried in the payloads, in order of delivery.
    std::vector<uint32_t> Numbers() const
    {
        std::vector<uint32_t> numbers;
        for (const Delivery& delivery : m_Deliveries)
        {
            uint32_t uiNumber = 0;
            if (delivery.payload.size() >= 4)
                memcpy(&uiNumber, delivery.payload.data(), 4);
            numbers.push_back(uiNumber);
        }
        return numbers;
    }

    std::vector<Delivery> m_Deliveries;
    GUID_t m_Owner = GUID_UNKNOWN;
    SequenceNumber_t m_LastSeq;
    std::vector<bool> m_Liveliness;
};

// Records the ACKNACK sets instead of queueing requests.
class RecordingReader : public StatefulReader
{
public:
    using StatefulReader::StatefulReader;
    std::vector<SequenceNumberSet> m_AckNacks;

private:
    void SendAckNack(WriterProxy*, const SequenceNumberSet& set) override
    {
        m_AckNacks.push_back(set);
    }
};

class RecordingProxy : public WriterProxy
{
public:
    explicit RecordingProxy(const GUID_t& guid) : WriterProxy(guid, {}, {}) {}
    std::vector<std::pair<SequenceNumber_t, FragmentNumberSet>> m_NackFrags;

private:
    void SendNackFrag(StatefulReader*, RequestScheduler*, const SequenceNumber_t& seqNum,
                      const FragmentNumberSet& set) override
    {
        m_NackFrags.push_back(std::make_pair(seqNum, set));
    }
};

const EntityId_t WRITER_ID = EntityId_t{{0x00, 0x00, 0x01}, 0x02};
const EntityId_t OTHER_WRITER_ID = EntityId_t{{0x00, 0x00, 0x02}, 0x02};

GuidPrefix RemotePrefix()
{
    GuidPrefix prefix;
    for (int i = 0; i < 12; ++i)
        prefix.value[i] = octet(0x40 + i);
    return prefix;
}

GUID_t WriterGuid(const EntityId_t& id = WRITER_ID)
{
    return GUID_t(RemotePrefix(), id);
}

GUID_t ReaderGuid()
{
    GuidPrefix prefix;
    memset(prefix.value, 7, sizeof(prefix.value));
    return GUID_t(prefix, EntityId_t{{0x00, 0x00, 0x01}, 0x07});
}

MessageReceiver Receiver(const Time_t& timestamp = Time_t(100, 0))
{
    MessageReceiver receiver;
    receiver.sourceGuidPrefix = RemotePrefix();
    receiver.haveTimestamp = 1;
    receiver.timestamp = timestamp;
    return receiver;
}

DataSubMessage Data(uint32_t uiSeq, const EntityId_t& writerId = WRITER_ID)
{
    DataSubMessage message;
    memset(&message, 0, sizeof(message));
    message.header.submessageId = DATA;
    message.writerId = writerId;
    message.writerSN = ToWire(SequenceNumber_t(0, uiSeq));
    return message;
}

heartBeatSubMessage Heartbeat(uint32_t uiFirst, uint32_t uiLast, uint32_t uiCount)
{
    heartBeatSubMessage message;
    memset(&message, 0, sizeof(message));
    message.header.submessageId = HEARTBEAT;
    message.writerId = WRITER_ID;
    message.firstSN = ToWire(SequenceNumber_t(0, uiFirst));
    message.lastSN = ToWire(SequenceNumber_t(0, uiLast));
    message.count = uiCount;
    return message;
}

DataReaderQos Qos(ReliabilityQosPolicyKind reliability)
{
    DataReaderQos qos;
    qos.reliability.kind = reliability;
    return qos;
}

// A reader wired to its cache and a test sink, with one matched writer.
struct Fixture
{
    explicit Fixture(const DataReaderQos& qos, uint32_t uiCapacity = 16,
                     const std::string& strTopic = "Square")
        : cache(uiCapacity), reader(ReaderGuid(), qos, nullptr)
    {
        cache.SetTopic(0, strTopic);
        reader.setReaderCache(&cache);
        reader.setDataReader(&sink);
        pProxy = new RecordingProxy(WriterGuid());
        reader.matched_writer_add(pProxy);
    }

    // Sends DATA whose payload is the number itself.
    int Send(uint32_t uiSeq, const Time_t& timestamp = Time_t(100, 0))
    {
        return reader.DataMessageReceive(Receiver(timestamp), Data(uiSeq), std::list<Parameter>(),
                                         reinterpret_cast<const octet*>(&uiSeq), sizeof(uiSeq));
    }

    HistoryCache cache;
    TestSink sink;
    RecordingReader reader;
    RecordingProxy* pProxy; // owned by the reader
};

std::vector<uint32_t> Seq(std::initializer_list<uint32_t> values)
{
    return std::vector<uint32_t>(values);
}
} // namespace

// ---------------------------------------------------------------- reliable DATA

TEST(StatefulReader_Reliable, DeliversInSequenceAndParksWhatComesEarly)
{
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    EXPECT_EQ(0, f.Send(1));
    EXPECT_EQ(Seq({1}), f.sink.Numbers());
    EXPECT_EQ(0, f.Send(3));
    EXPECT_EQ(Seq({1}), f.sink.Numbers());
    EXPECT_EQ(SequenceNumber_t(0, 3), f.sink.m_LastSeq);
    EXPECT_EQ(0, f.Send(2));
    EXPECT_EQ(Seq({1, 2, 3}), f.sink.Numbers());
    EXPECT_EQ(SequenceNumber_t(0, 3), f.pProxy->getAvailableSeqNum());
    EXPECT_EQ(3u, f.cache.GetChangeCount());
    // Cache keys count deliveries from 1.
    EXPECT_EQ(SequenceNumber_t(0, 1), f.sink.m_Deliveries[0].key);
    EXPECT_EQ(SequenceNumber_t(0, 3), f.sink.m_Deliveries[2].key);
}

TEST(StatefulReader_Reliable, DuplicateAndOldDataAreRefused)
{
    ReaderLogCapture logs;
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    f.Send(1);
    EXPECT_EQ(1, f.Send(1));
    EXPECT_EQ(Seq({1}), f.sink.Numbers());
    EXPECT_EQ(1, logs.Count("[StatefulReader::DataMessageReceive] maxAvailableNum(1) >= "
                            "DataMessage.WriterSN(1) and TopicName = Square"));

    // A second copy of a parked number replaces the first and is delivered once.
    f.Send(3);
    f.Send(3);
    f.Send(2);
    EXPECT_EQ(Seq({1, 2, 3}), f.sink.Numbers());
    EXPECT_EQ(1, f.Send(3));

    // A writer that is not matched is ignored without a word.
    const size_t uiLogs = logs.Entries().size();
    uint32_t uiSeq = 4;
    EXPECT_EQ(0, f.reader.DataMessageReceive(Receiver(), Data(4, OTHER_WRITER_ID), {},
                                             reinterpret_cast<const octet*>(&uiSeq), 4));
    EXPECT_EQ(3u, f.sink.m_Deliveries.size());
    EXPECT_EQ(uiLogs, logs.Entries().size());
}

TEST(StatefulReader_Reliable, FullCacheDropsTheOldestKeyWithALog)
{
    ReaderLogCapture logs;
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS), 2);
    f.Send(1);
    f.Send(2);
    f.Send(3);
    EXPECT_EQ(2u, f.cache.GetChangeCount());
    EXPECT_EQ(SequenceNumber_t(0, 2), f.cache.GetSeqNumMin());
    EXPECT_EQ(1, logs.Count("[StatefulReader::ReliableDataMessageReceive] [1] TopicName = Square : "
                            "HistoryCache is Full,delete old Sn 1 and insert new Sn 3"));
}

TEST(StatefulReader_Reliable, ParkedChangesGoWithTheReader)
{
    // The leak checker sees whether parked changes are freed.
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    f.Send(5);
    f.Send(7);
    EXPECT_TRUE(f.sink.m_Deliveries.empty());
}

// ---------------------------------------------------------------- best effort

TEST(StatefulReader_BestEffort, DeliversEverythingInOrderOfArrival)
{
    Fixture f(Qos(BEST_EFFORT_RELIABILITY_QOS));
    for (uint32_t uiSeq : {3u, 1u, 2u, 2u})
        EXPECT_EQ(0, f.Send(uiSeq));
    EXPECT_EQ(Seq({3, 1, 2, 2}), f.sink.Numbers());
    EXPECT_EQ(4u, f.cache.GetChangeCount());
    EXPECT_EQ(SequenceNumber_t(0, 2), f.sink.m_LastSeq);
    // No matched writer needed either.
    uint32_t uiSeq = 9;
    f.reader.DataMessageReceive(Receiver(), Data(9, OTHER_WRITER_ID), {},
                                reinterpret_cast<const octet*>(&uiSeq), 4);
    EXPECT_EQ(Seq({3, 1, 2, 2, 9}), f.sink.Numbers());
}

TEST(StatefulReader_BestEffort, FullCacheDropsTheOldestWithoutALog)
{
    ReaderLogCapture logs;
    Fixture f(Qos(BEST_EFFORT_RELIABILITY_QOS), 2);
    f.Send(1);
    f.Send(2);
    f.Send(3);
    EXPECT_EQ(Seq({1, 2, 3}), f.sink.Numbers());
    EXPECT_EQ(2u, f.cache.GetChangeCount());
    EXPECT_EQ(SequenceNumber_t(0, 2), f.cache.GetSeqNumMin());
    EXPECT_EQ(0, logs.Count("HistoryCache is Full"));
}

// ---------------------------------------------------------------- cache key, QoS

TEST(StatefulReader_CacheKey, BySourceTimestampOrdersTheCacheByTime)
{
    DataReaderQos qos = Qos(BEST_EFFORT_RELIABILITY_QOS);
    qos.destination_order.kind = BY_SOURCE_TIMESTAMP_DESTINATIONORDER_QOS;
    Fixture f(qos);
    f.Send(1, Time_t(5, 100));
    f.Send(2, Time_t(3, 7));
    EXPECT_EQ(SequenceNumber_t(5, 100), f.sink.m_Deliveries[0].key);
    EXPECT_EQ(SequenceNumber_t(3, 7), f.cache.GetSeqNumMin());
    EXPECT_EQ(SequenceNumber_t(5, 100), f.cache.GetSeqNumMax());

    // One timestamp twice: the cache keeps the first, the second still reaches the sink.
    f.Send(3, Time_t(5, 100));
    EXPECT_EQ(Seq({1, 2, 3}), f.sink.Numbers());
    EXPECT_EQ(2u, f.cache.GetChangeCount());
    uint32_t uiKept = 0;
    memcpy(&uiKept, f.cache.GetChange(SequenceNumber_t(5, 100))->data, 4);
    EXPECT_EQ(1u, uiKept);
}

TEST(StatefulReader_CacheKey, ByReceptionCountsFromOne)
{
    Fixture f(Qos(BEST_EFFORT_RELIABILITY_QOS));
    f.Send(40, Time_t(9, 0));
    f.Send(41, Time_t(1, 0));
    EXPECT_EQ(SequenceNumber_t(0, 1), f.sink.m_Deliveries[0].key);
    EXPECT_EQ(SequenceNumber_t(0, 2), f.sink.m_Deliveries[1].key);
}

TEST(StatefulReader_Qos, ExclusiveOwnershipDropsNonOwnersSilently)
{
    ReaderLogCapture logs;
    DataReaderQos qos = Qos(BEST_EFFORT_RELIABILITY_QOS);
    qos.ownership.kind = EXCLUSIVE_OWNERSHIP_QOS;
    Fixture f(qos);
    EXPECT_EQ(0, f.Send(1));
    EXPECT_TRUE(f.sink.m_Deliveries.empty());
    EXPECT_TRUE(logs.Entries().empty());
    f.sink.m_Owner = WriterGuid();
    f.Send(2);
    EXPECT_EQ(Seq({2}), f.sink.Numbers());
}

TEST(StatefulReader_Qos, LifespanComesFromTheProxyExceptOnBuiltinTopics)
{
    DataWriterQos writerQos;
    writerQos.lifespan.duration = Duration_t(3, 0);
    {
        Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
        f.pProxy->setWriterData(writerQos);
        f.Send(1);
        ASSERT_EQ(1u, f.sink.m_Deliveries.size());
        EXPECT_EQ(Duration_t(3, 0), f.sink.m_Deliveries[0].lifespan);
    }
    {
        Fixture f(Qos(RELIABLE_RELIABILITY_QOS), 16, "DCPSPublication");
        f.pProxy->setWriterData(writerQos);
        f.Send(1);
        ASSERT_EQ(1u, f.sink.m_Deliveries.size());
        EXPECT_EQ(DURATION_INFINITE, f.sink.m_Deliveries[0].lifespan);
    }
}

TEST(StatefulReader_Qos, LivelinessChecksReportTransitionsToTheSink)
{
    DataReaderQos qos = Qos(RELIABLE_RELIABILITY_QOS);
    qos.liveliness.kind = MANUAL_BY_PARTICIPANT_LIVELINESS_QOS;
    qos.liveliness.lease_duration = Duration_t(2, 0);
    Fixture f(qos);
    f.pProxy->setLastAliveTime(Time_t(10, 0));
    f.reader.checkLiveliness(Time_t(11, 0));
    f.reader.checkLiveliness(Time_t(13, 0));
    f.reader.checkLiveliness(Time_t(14, 0));
    // An assertion of a lower kind than the reader's does nothing.
    f.reader.assertLiveliness(WriterGuid(), Time_t(14, 0), 0);
    f.reader.assertLiveliness(WriterGuid(), Time_t(14, 0), 1);
    EXPECT_EQ(std::vector<bool>({false, true}), f.sink.m_Liveliness);
    EXPECT_EQ(Time_t(14, 0), f.pProxy->getLastAliveTime());
}

// ---------------------------------------------------------------- matching

TEST(StatefulReader_Matching, AddLookupRemove)
{
    ReaderLogCapture logs;
    HistoryCache cache(4);
    cache.SetTopic(0, "Square");
    StatefulReader reader(ReaderGuid(), Qos(RELIABLE_RELIABILITY_QOS), nullptr);
    reader.setReaderCache(&cache);

    WriterProxy* pProxy = new WriterProxy(WriterGuid(), {}, {});
    EXPECT_EQ(0, reader.matched_writer_add(pProxy));
    EXPECT_EQ(pProxy, reader.matched_writer_lookup(WriterGuid()));

    WriterProxy again(WriterGuid(), {}, {});
    EXPECT_EQ(1, reader.matched_writer_add(&again));
    EXPECT_EQ(1, logs.Count("[StatefulReader::matched_writer_add]  pWriterProxy Readd and "
                            "TopicName = Square"));
    testing::internal::CaptureStdout();
    EXPECT_EQ(1, reader.matched_writer_add(nullptr));
    EXPECT_EQ("err\n", testing::internal::GetCapturedStdout());

    EXPECT_EQ(nullptr, reader.matched_writer_lookup(WriterGuid(OTHER_WRITER_ID)));
    EXPECT_EQ(1, logs.Count("[StatefulReader::matched_writer_lookup] m_MatchedWriter.count == 0 "
                            "and TopicName = Square"));

    EXPECT_EQ(1, reader.matched_writer_remove(nullptr));
    EXPECT_EQ(1, logs.Count("[StatefulReader::matched_writer_remove] pWriterProxy = NULL and "
                            "TopicName = Square"));
    WriterProxy stranger(WriterGuid(OTHER_WRITER_ID), {}, {});
    EXPECT_EQ(1, reader.matched_writer_remove(&stranger));
    EXPECT_EQ(1, logs.Count("[StatefulReader::matched_writer_remove] m_MatchedWriter.count and "
                            "TopicName = Square"));

    EXPECT_EQ(0, reader.matched_writer_remove(pProxy));
    EXPECT_EQ(0u, reader.getMatchedWriterCount());
    bool bRemoveLogged = false;
    for (const LogEntry& entry : logs.Entries())
        if (entry.text.rfind("[StatefulReader::matched_reader_remove] [1] pWriterProxy = ", 0) == 0)
            bRemoveLogged = entry.code == DDSLOG_ERROR;
    EXPECT_TRUE(bRemoveLogged);
}

// ---------------------------------------------------------------- HEARTBEAT, GAP

TEST(StatefulReader_Heartbeat, AnswersWithTheMissingSet)
{
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    f.Send(2);
    EXPECT_EQ(0, f.reader.HeartBeatMessageReceive(Receiver(), Heartbeat(1, 5, 4)));
    EXPECT_EQ(4u, f.pProxy->getHeartbeatCount());
    ASSERT_EQ(1u, f.reader.m_AckNacks.size());
    const SequenceNumberSet& set = f.reader.m_AckNacks[0];
    EXPECT_EQ(SequenceNumber_t(0, 1), set.bitmapBase);
    EXPECT_EQ(5u, set.numBits);
    EXPECT_EQ(0xB8000000u, set.bitmap[0]); // 1, 3, 4, 5
}

TEST(StatefulReader_Heartbeat, FinalHeartbeatWithNothingMissingStillGetsAnAckNack)
{
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    f.Send(1);
    f.Send(2);
    f.reader.HeartBeatMessageReceive(Receiver(), Heartbeat(1, 2, 1));
    ASSERT_EQ(1u, f.reader.m_AckNacks.size());
    EXPECT_EQ(0u, f.reader.m_AckNacks[0].numBits);
    EXPECT_EQ(SequenceNumber_t(0, 3), f.reader.m_AckNacks[0].bitmapBase);
}

TEST(StatefulReader_Heartbeat, EmptyWriterOnlyStoresTheCount)
{
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    EXPECT_EQ(0, f.reader.HeartBeatMessageReceive(Receiver(), Heartbeat(1, 0, 7)));
    EXPECT_EQ(7u, f.pProxy->getHeartbeatCount());
    EXPECT_TRUE(f.pProxy->getChangesFromWriter().empty());
    EXPECT_TRUE(f.reader.m_AckNacks.empty());
}

TEST(StatefulReader_Heartbeat, UnknownWriterIsLogged)
{
    ReaderLogCapture logs;
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    heartBeatSubMessage message = Heartbeat(1, 1, 3);
    message.writerId = OTHER_WRITER_ID;
    EXPECT_EQ(0, f.reader.HeartBeatMessageReceive(Receiver(), message));
    EXPECT_EQ(1, logs.Count("[StatefulReader::HeartBeatMessageReceive]  NULL == pWriterProxy "
                            "TopicName =Square  Count = 3 "));
    EXPECT_TRUE(f.reader.m_AckNacks.empty());
}

TEST(StatefulReader_Heartbeat, FirstNumberPastAGapLetsTheParkedChangeGo)
{
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    f.Send(3);
    f.reader.HeartBeatMessageReceive(Receiver(), Heartbeat(3, 3, 1));
    EXPECT_EQ(SequenceNumber_t(0, 2), f.pProxy->getAvailableSeqNum());
    // The next heartbeat (or DATA) delivers what the declared loss set free.
    f.reader.HeartBeatMessageReceive(Receiver(), Heartbeat(3, 3, 2));
    EXPECT_EQ(Seq({3}), f.sink.Numbers());
    EXPECT_EQ(0u, f.reader.m_AckNacks.back().numBits);
    EXPECT_EQ(SequenceNumber_t(0, 4), f.reader.m_AckNacks.back().bitmapBase);
}

TEST(StatefulReader_Gap, GapBeforeAParkedNumberLetsItGo)
{
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    f.Send(1);
    f.Send(2);
    f.Send(3);
    f.Send(7);
    stGapSubMessage gap;
    memset(&gap, 0, sizeof(gap));
    gap.writerId = WRITER_ID;
    gap.gapStart = ToWire(SequenceNumber_t(0, 4));
    gap.gapList.bitmapBase = ToWire(SequenceNumber_t(0, 7));
    EXPECT_EQ(0, f.reader.GapMessageReceive(Receiver(), gap));
    EXPECT_EQ(Seq({1, 2, 3, 7}), f.sink.Numbers());
    EXPECT_TRUE(f.pProxy->getChangesFromWriter().empty());
}

// ---------------------------------------------------------------- DATA_FRAG

namespace
{
dataFrag Fragment(uint32_t uiNumber, uint32_t uiSampleSize, uint16_t usSize = uint16_t(FRAGMENT_SIZE))
{
    dataFrag fragment;
    fragment.fragmentStartingNum = uiNumber;
    fragment.fragmentsInSubmessage = 1;
    fragment.fragmentSize = usSize;
    fragment.sampleSize = uiSampleSize;
    return fragment;
}

std::vector<octet> Sample(uint32_t uiSize)
{
    std::vector<octet> sample(uiSize);
    for (uint32_t i = 0; i < uiSize; ++i)
        sample[i] = octet((i * 7 + i / 251) & 0xFF);
    return sample;
}

// Sends fragment uiNumber of `sample` as writer number uiSeq.
int SendFragment(StatefulReader& reader, uint32_t uiSeq, const std::vector<octet>& sample,
                 uint32_t uiNumber, const EntityId_t& writerId = WRITER_ID)
{
    const uint32_t uiOffset = (uiNumber - 1) * FRAGMENT_SIZE;
    uint32_t uiLength = uint32_t(sample.size()) - uiOffset;
    if (uiLength > FRAGMENT_SIZE)
        uiLength = FRAGMENT_SIZE;
    return reader.DataFragMessageReceive(Receiver(), Data(uiSeq, writerId),
                                         Fragment(uiNumber, uint32_t(sample.size())), {},
                                         sample.data() + uiOffset, uiLength);
}

const CacheChange* Store(const WriterProxy& proxy, uint32_t uiSeq)
{
    auto it = proxy.getChangesFromWriter().find(SequenceNumber_t(0, uiSeq));
    return it == proxy.getChangesFromWriter().end() ? nullptr : it->second.change;
}
} // namespace

TEST(StatefulReader_Fragments, ExactMultipleCountsOneTooManyAndCompletesOnTwo)
{
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    const std::vector<octet> sample = Sample(2 * FRAGMENT_SIZE);
    EXPECT_EQ(0, SendFragment(f.reader, 1, sample, 2));
    const CacheChange* pStore = Store(*f.pProxy, 1);
    ASSERT_NE(nullptr, pStore);
    EXPECT_EQ(3u, pStore->fragmentCount);
    EXPECT_EQ(2u, pStore->highestFragment);
    EXPECT_EQ(std::set<uint16_t>({1}), pStore->missingFragments);
    EXPECT_TRUE(f.sink.m_Deliveries.empty());

    EXPECT_EQ(0, SendFragment(f.reader, 1, sample, 1));
    ASSERT_EQ(1u, f.sink.m_Deliveries.size());
    EXPECT_EQ(sample, f.sink.m_Deliveries[0].payload);
    EXPECT_EQ(SequenceNumber_t(0, 1), f.pProxy->getAvailableSeqNum());
    // The reassembled change carries no INFO_TS time.
    EXPECT_EQ(Time_t(0, 0), f.cache.GetChange(SequenceNumber_t(0, 1))->sourceTimestamp);
}

TEST(StatefulReader_Fragments, OutOfOrderFragmentsReassembleInOrderOfNumbers)
{
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    const std::vector<octet> sample = Sample(3 * FRAGMENT_SIZE - 100);
    const std::vector<octet> small = Sample(16);
    SendFragment(f.reader, 2, sample, 3);
    SendFragment(f.reader, 2, sample, 1);
    EXPECT_EQ(std::set<uint16_t>({2}), Store(*f.pProxy, 2)->missingFragments);
    SendFragment(f.reader, 2, sample, 2);
    EXPECT_TRUE(f.sink.m_Deliveries.empty()); // complete, parked behind number 1
    f.reader.DataMessageReceive(Receiver(), Data(1), {}, small.data(), uint32_t(small.size()));
    ASSERT_EQ(2u, f.sink.m_Deliveries.size());
    EXPECT_EQ(small, f.sink.m_Deliveries[0].payload);
    EXPECT_EQ(sample, f.sink.m_Deliveries[1].payload);
}

TEST(StatefulReader_Fragments, MalformedFragmentsAreIgnoredSafely)
{
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    const std::vector<octet> sample = Sample(FRAGMENT_SIZE + 1000);
    std::vector<octet> oversized(FRAGMENT_SIZE, 0xAB);

    // Offset beyond the sample, a zero fragment size, fragment number 0.
    EXPECT_EQ(0, f.reader.DataFragMessageReceive(Receiver(), Data(1), Fragment(5, 100000), {},
                                                 oversized.data(), uint32_t(oversized.size())));
    EXPECT_EQ(0, f.reader.DataFragMessageReceive(Receiver(), Data(1), Fragment(1, 100000, 0), {},
                                                 oversized.data(), uint32_t(oversized.size())));
    EXPECT_EQ(0, f.reader.DataFragMessageReceive(Receiver(), Data(1), Fragment(0, 100000), {},
                                                 oversized.data(), uint32_t(oversized.size())));
    EXPECT_TRUE(f.pProxy->getChangesFromWriter().empty());

    // A last fragment longer than what is left of the sample is cut to fit.
    EXPECT_EQ(0, f.reader.DataFragMessageReceive(Receiver(), Data(1),
                                                 Fragment(2, uint32_t(sample.size())), {},
                                                 oversized.data(), uint32_t(oversized.size())));
    // A later fragment announcing a larger sample cannot reach past the store.
    EXPECT_EQ(0, f.reader.DataFragMessageReceive(Receiver(), Data(1), Fragment(3, 4 * FRAGMENT_SIZE),
                                                 {}, oversized.data(), uint32_t(oversized.size())));
    const CacheChange* pStore = Store(*f.pProxy, 1);
    ASSERT_NE(nullptr, pStore);
    EXPECT_EQ(2u, pStore->highestFragment);
    EXPECT_EQ(0xAB, pStore->data[pStore->dataLength - 1]);

    SendFragment(f.reader, 1, sample, 1);
    ASSERT_EQ(1u, f.sink.m_Deliveries.size());
    EXPECT_EQ(sample.size(), f.sink.m_Deliveries[0].payload.size());
}

TEST(StatefulReader_Fragments, OldNumbersAndNonOwnersAreRefusedWithALog)
{
    ReaderLogCapture logs;
    DataReaderQos qos = Qos(RELIABLE_RELIABILITY_QOS);
    qos.ownership.kind = EXCLUSIVE_OWNERSHIP_QOS;
    Fixture f(qos);
    const std::vector<octet> sample = Sample(FRAGMENT_SIZE + 10);
    EXPECT_EQ(0, SendFragment(f.reader, 1, sample, 1));
    EXPECT_EQ(1, logs.Count("[StatefulReader::DataFragMessageReceive] OwnerShip error "
                            "TopicName =Square  Seq = 1 "));
    f.sink.m_Owner = WriterGuid();
    SendFragment(f.reader, 1, sample, 1);
    SendFragment(f.reader, 1, sample, 2);
    ASSERT_EQ(1u, f.sink.m_Deliveries.size());
    EXPECT_EQ(1, SendFragment(f.reader, 1, sample, 2));
    EXPECT_EQ(1, logs.Count("[StatefulReader::DataFragMessageReceive] maxAvailableNum(1) >= "
                            "DataFragMessage.WriterSN(1) TopicName = Square"));
}

TEST(StatefulReader_Fragments, BestEffortDeliversCompleteSamplesAndKeepsThreeUnderWay)
{
    Fixture f(Qos(BEST_EFFORT_RELIABILITY_QOS));
    const std::vector<octet> sample = Sample(FRAGMENT_SIZE + 500);
    SendFragment(f.reader, 1, sample, 2);
    SendFragment(f.reader, 1, sample, 1);
    ASSERT_EQ(1u, f.sink.m_Deliveries.size());
    EXPECT_EQ(sample, f.sink.m_Deliveries[0].payload);
    EXPECT_EQ(nullptr, Store(*f.pProxy, 1)); // handed over, the entry stays empty

    for (uint32_t uiSeq = 2; uiSeq <= 6; ++uiSeq)
        SendFragment(f.reader, uiSeq, sample, 1);
    const auto& changes = f.pProxy->getChangesFromWriter();
    ASSERT_EQ(3u, changes.size());
    EXPECT_EQ(SequenceNumber_t(0, 4), changes.begin()->first);
    // A pruned sample starts over when its next fragment comes.
    SendFragment(f.reader, 2, sample, 2);
    EXPECT_EQ(1u, f.sink.m_Deliveries.size());
}

TEST(StatefulReader_Fragments, HeartbeatAsksForTheMissingFragments)
{
    Fixture f(Qos(RELIABLE_RELIABILITY_QOS));
    const std::vector<octet> sample = Sample(2 * FRAGMENT_SIZE);
    SendFragment(f.reader, 1, sample, 1);
    testing::internal::CaptureStdout();
    f.reader.HeartBeatMessageReceive(Receiver(), Heartbeat(1, 1, 1));
    const std::string strOut = testing::internal::GetCapturedStdout();
    ASSERT_EQ(1u, f.pProxy->m_NackFrags.size());
    EXPECT_EQ(SequenceNumber_t(0, 1), f.pProxy->m_NackFrags[0].first);
    const FragmentNumberSet& set = f.pProxy->m_NackFrags[0].second;
    EXPECT_EQ(2u, set.bitmapBase);
    EXPECT_EQ(2u, set.numBits); // fragment 3 does not exist and is asked for all the same
    EXPECT_EQ("loss Frag Data 2 Seq = 1\nloss Frag Data 3 Seq = 1\n", strOut);
    // The sample under reassembly is missing for the ACKNACK too.
    ASSERT_EQ(1u, f.reader.m_AckNacks.size());
    EXPECT_EQ(1u, f.reader.m_AckNacks[0].numBits);
}
