// The reader side: the stateful reader over a test sink, and the writer proxy that
// keeps its per-writer state (entries, missing sets, fragments under reassembly).
#include "rtps/StatefulReader.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "RtpsFixture.h"
#include "rtps/FragmentRanges.h"
#include "rtps/ReaderDataSink.h"
#include "rtps/WriterProxy.h"

namespace {
typedef std::vector<uint32_t> Seq;
typedef std::vector<std::vector<octet>> Payloads;
typedef std::map<uint32_t, uint32_t> Ranges;
const EntityId_t WRITER_ID = {{0, 0, 1}, 2}, OTHER_WRITER_ID = {{0, 0, 2}, 2};
const GuidPrefix PREFIX = {{0x40, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4A, 0x4B}};
const GUID_t WRITER(PREFIX, WRITER_ID), OTHER_WRITER(PREFIX, OTHER_WRITER_ID);
const uint16_t FULL = uint16_t(FRAGMENT_SIZE);

// A number set as `head` (its base, say), then its bits and the bitmap words in use.
template <class Set>
Seq Bits(Seq out, const Set& set) {
    out.push_back(set.numBits);
    for (uint32_t i = 0; i < (set.numBits + 31) / 32; ++i) out.push_back(set.bitmap[i]);
    return out;
}

// All 256 bits from uiBase.
Seq Full(uint32_t uiBase) {
    Seq out = {uiBase, 256};
    out.resize(10, 0xFFFFFFFFu);
    return out;
}

std::vector<octet> Sample(uint32_t uiSize) {
    std::vector<octet> sample(uiSize);
    for (uint32_t i = 0; i < uiSize; ++i) sample[i] = octet((i * 7 + i / 251) & 0xFF);
    return sample;
}

MessageReceiver Receiver(const Time_t& timestamp = Time_t(100, 0)) {
    MessageReceiver receiver;
    receiver.sourceGuidPrefix = PREFIX;
    receiver.haveTimestamp = 1;
    receiver.timestamp = timestamp;
    return receiver;
}

// Whether a logged text contains strPart.
bool Contains(LogRecorder& logs, const std::string& strPart) {
    for (const std::string& s : logs.Texts())
        if (s.find(strPart) != std::string::npos) return true;
    return false;
}

// Records the ACKNACK sets instead of queueing requests.
class RecordingReader : public StatefulReader {
public:
    using StatefulReader::m_HeldBytesMax;
    using StatefulReader::StatefulReader;
    std::vector<Seq> m_AckNacks;

private:
    void SendAckNack(WriterProxy*, const SequenceNumberSet& set) override {
        m_AckNacks.push_back(Bits({set.bitmapBase.low}, set));
    }
};

// Records the NACK_FRAG requests, as {number, base, bits, words}, instead of queueing them.
class RecordingProxy : public WriterProxy {
public:
    RecordingProxy() : WriterProxy(WRITER, {}, {}) {}
    std::vector<Seq> m_NackFrags;

private:
    void SendNackFrag(StatefulReader*, RequestScheduler*, const SequenceNumber_t& seqNum,
                      const FragmentNumberSet& set) override {
        m_NackFrags.push_back(Bits({seqNum.low, set.bitmapBase}, set));
    }
};

// A reader wired to its cache (topic "Square"), with one matched writer; it stands for the
// DataReaderImpl above the reader too, and records what reaches it.
struct Rig : ReaderDataSink {
    explicit Rig(const DataReaderQos& qos, uint32_t uiCapacity = 16)
        : cache(uiCapacity), reader(GUID_t(GuidPrefix(), EntityId_t{{0, 0, 1}, 7}), qos, nullptr) {
        cache.SetTopic(0, "Square");
        reader.setReaderCache(&cache);
        reader.setDataReader(this);
        reader.matched_writer_add(pProxy = new RecordingProxy());
    }
    explicit Rig(ReliabilityQosPolicyKind kind, uint32_t uiCapacity = 16)
        : Rig(WithReliability<DataReaderQos>(kind), uiCapacity) {}

    static DataSubMessage Data(uint32_t uiSeq, const EntityId_t& id) {
        return {{DATA, 0, 0}, 0, 0, ENTITYID_UNKNOWN, id, ToWire(Sn(uiSeq))};
    }
    // Sends DATA whose payload is the number itself.
    int Send(uint32_t uiSeq, const Time_t& stamp = Time_t(100, 0), const EntityId_t& writerId = WRITER_ID) {
        return reader.DataMessageReceive(Receiver(stamp), Data(uiSeq, writerId), {}, (const octet*)&uiSeq, 4);
    }
    int SendFrag(uint32_t uiSeq, const dataFrag& frag, const octet* pBytes, uint32_t uiLength) {
        return reader.DataFragMessageReceive(Receiver(), Data(uiSeq, WRITER_ID), frag, {}, pBytes, uiLength);
    }
    int SendFrag(uint32_t uiSeq, const dataFrag& frag, const std::vector<octet>& bytes) {
        return SendFrag(uiSeq, frag, bytes.data(), uint32_t(bytes.size()));
    }
    // Sends fragment uiNumber of `sample` as writer number uiSeq; an empty
    // one, as the writer sends the last of an exact multiple, when bEmpty.
    int SendFragment(uint32_t uiSeq, const std::vector<octet>& sample, uint32_t uiNumber,
                     bool bEmpty = false) {
        const uint32_t uiOffset = (uiNumber - 1) * FRAGMENT_SIZE, uiSize = uint32_t(sample.size());
        return SendFrag(uiSeq, {uiNumber, 1, FULL, uiSize}, sample.data() + uiOffset,
                        bEmpty ? 0 : std::min<uint32_t>(uiSize - uiOffset, FRAGMENT_SIZE));
    }
    int Heartbeat(uint32_t uiFirst, uint32_t uiLast, uint32_t uiCount,
                  const EntityId_t& writerId = WRITER_ID) {
        return reader.HeartBeatMessageReceive(
            Receiver(),
            {{0, 0, 0}, ENTITYID_UNKNOWN, writerId, ToWire(Sn(uiFirst)), ToWire(Sn(uiLast)), uiCount});
    }
    const CacheChange* Store(uint32_t uiSeq) {
        auto it = pProxy->getChangesFromWriter().find(Sn(uiSeq));
        return it == pProxy->getChangesFromWriter().end() ? nullptr : it->second.change;
    }

    int DataReceive(CacheChange* pChange) override {
        m_Keys.push_back(pChange->sequenceNumber);
        m_Payloads.emplace_back(pChange->data, pChange->data + (pChange->data ? pChange->dataLength : 0));
        return 0;
    }
    GUID_t getOwnerGuid() override { return GUID_UNKNOWN; }
    void setLastSequenceNumber(const SequenceNumber_t&) override {}
    void livelinessChanged(bool) override {}
    // The writer numbers carried in the payloads, in order of delivery.
    Seq Numbers() const {
        Seq numbers;
        for (const auto& p : m_Payloads) numbers.push_back(p.size() >= 4 ? *(const uint32_t*)p.data() : 0);
        return numbers;
    }

    std::vector<SequenceNumber_t> m_Keys;
    Payloads m_Payloads;
    HistoryCache cache;
    RecordingReader reader;
    RecordingProxy* pProxy;  // owned by the reader
};
}  // namespace

// ---------------------------------------------------------------- DATA

TEST(StatefulReader_Reliable, DeliversInSequenceParksWhatComesEarlyAndRefusesOldNumbers) {
    LogRecorder logs;
    Rig f(RELIABLE, 2);
    EXPECT_EQ(0, f.Send(4, Time_t(100, 0), OTHER_WRITER_ID));  // not matched: ignored without a word
    EXPECT_TRUE(logs.Entries().empty());
    // The second 1 is old; a second copy of a parked number replaces the first.
    EXPECT_EQ(std::vector<int>({0, 1, 0, 0}), (std::vector<int>{f.Send(1), f.Send(1), f.Send(3), f.Send(3)}));
    EXPECT_EQ(1,
              logs.Count("[StatefulReader::DataMessageReceive] maxAvailableNum(1) >= DataMessage.WriterSN(1) "
                         "and TopicName = Square"));
    EXPECT_EQ(Seq({1}), f.Numbers());
    EXPECT_EQ(0, f.Send(2));
    // Cache keys count deliveries from 1, whatever the source timestamp; the full cache drops the oldest.
    EXPECT_EQ(
        std::make_tuple(Seq({1, 2, 3}), std::vector<SequenceNumber_t>({Sn(1), Sn(2), Sn(3)}), Sn(3), Sn(2)),
        std::make_tuple(f.Numbers(), f.m_Keys, f.pProxy->getAvailableSeqNum(), f.cache.GetSeqNumMin()));
    f.Send(6);  // parked changes go with the reader (the leak checker watches)
}

TEST(StatefulReader_BestEffort, DeliversEverythingInOrderOfArrivalAndAFullCacheDropsTheOldestKey) {
    Rig f(BEST_EFFORT, 2);
    for (uint32_t uiSeq : {3u, 1u, 2u, 2u}) EXPECT_EQ(0, f.Send(uiSeq));
    f.Send(9, Time_t(100, 0), OTHER_WRITER_ID);  // no matched writer needed either
    EXPECT_EQ(std::make_tuple(Seq({3, 1, 2, 2, 9}), 2u, Sn(4)),
              std::make_tuple(f.Numbers(), f.cache.GetChangeCount(), f.cache.GetSeqNumMin()));
}

// ---------------------------------------------------------------- HEARTBEAT, GAP

TEST(StatefulReader_Heartbeat, AnswersWithTheMissingSet) {
    // Numbers received, then a heartbeat from 1 to uiLast with uiCount, and the ACKNACKs it brings.
    const std::tuple<Seq, uint32_t, uint32_t, std::vector<Seq>> aCases[] = {
        {{2}, 5, 4, {{1, 5, 0xB8000000u}}},  // 1, 3, 4, 5; bit 0 is the most significant
        {{1, 2}, 2, 1, {{3, 0}}},            // nothing missing still gets an ACKNACK
        {{}, 0, 7, {}},                      // an empty writer only stores the count
    };
    for (const auto& [received, uiLast, uiCount, ackNacks] : aCases) {
        Rig f(RELIABLE);
        for (uint32_t uiSeq : received) f.Send(uiSeq);
        EXPECT_EQ(0, f.Heartbeat(1, uiLast, uiCount));
        EXPECT_EQ(std::make_pair(uiCount, ackNacks),
                  std::make_pair(f.pProxy->getHeartbeatCount(), f.reader.m_AckNacks));
    }
}

TEST(StatefulReader_Heartbeat, UnknownWriterIsIgnoredAndDeclaredLossOrGapFreesParkedChanges) {
    Rig f(RELIABLE);
    EXPECT_EQ(0, f.Heartbeat(1, 1, 3, OTHER_WRITER_ID));
    EXPECT_TRUE(f.reader.m_AckNacks.empty());
    f.Send(3);
    f.Heartbeat(3, 3, 1);  // 1 and 2 are lost
    EXPECT_EQ(Sn(2), f.pProxy->getAvailableSeqNum());
    f.Heartbeat(3, 3, 2);  // the next heartbeat (or DATA) delivers what the loss set free
    EXPECT_EQ(std::make_pair(Seq({3}), Seq({4, 0})), std::make_pair(f.Numbers(), f.reader.m_AckNacks.back()));
    f.Send(7);
    // A GAP of 4 up to 7.
    const stGapSubMessage gap = {
        {0, 0, 0}, ENTITYID_UNKNOWN, WRITER_ID, ToWire(Sn(4)), {ToWire(Sn(7)), 0, {}}};
    EXPECT_EQ(0, f.reader.GapMessageReceive(Receiver(), gap));
    EXPECT_EQ(Seq({3, 7}), f.Numbers());
    EXPECT_TRUE(f.pProxy->getChangesFromWriter().empty());
}

// ---------------------------------------------------------------- DATA_FRAG

TEST(StatefulReader_Fragments, ExactMultipleCountsOneTooManyAndAHeartbeatAsksForTheRest) {
    Rig f(RELIABLE);
    const std::vector<octet> sample = Sample(2 * FRAGMENT_SIZE);
    EXPECT_EQ(0, f.SendFragment(1, sample, 2));
    ASSERT_NE(nullptr, f.Store(1));
    EXPECT_EQ(std::make_tuple(3u, 2u, Ranges{{1, 1}}, true),
              std::make_tuple(f.Store(1)->fragmentCount, f.Store(1)->highestFragment,
                              f.Store(1)->missingFragments.ranges(), f.m_Keys.empty()));
    EXPECT_LT(FRAGMENT_SIZE, f.reader.getHeldBytes());                   // the stored fragment counts
    EXPECT_EQ(0, f.SendFragment(1, sample, 1));                          // complete on two
    EXPECT_EQ(std::make_tuple(Payloads({sample}), Sn(1), Time_t(0, 0)),  // no INFO_TS time
              std::make_tuple(f.m_Payloads, f.pProxy->getAvailableSeqNum(),
                              f.cache.GetChange(Sn(1))->sourceTimestamp));

    f.SendFragment(2, sample, 1);
    f.Heartbeat(1, 2, 1);
    // Fragment 3 does not exist, asked for all the same; the sample under reassembly is missing too.
    EXPECT_EQ(
        std::make_pair(std::vector<Seq>({{2, 2, 2, 0xC0000000u}}), std::vector<Seq>({{2, 1, 0x80000000u}})),
        std::make_pair(f.pProxy->m_NackFrags, f.reader.m_AckNacks));
}

TEST(StatefulReader_Fragments, CopiesAreCutToTheFirstStoreAndOverlapGoesByArrival) {
    Rig f(RELIABLE);
    std::vector<octet> sample = Sample(FRAGMENT_SIZE + 1000);
    const std::vector<octet> oversized(FRAGMENT_SIZE, 0xAB);
    // A last fragment longer than what is left of the sample is cut to fit; a
    // later fragment announcing a larger sample cannot reach past the store.
    EXPECT_EQ(0, f.SendFrag(1, {2, 1, FULL, uint32_t(sample.size())}, oversized));
    EXPECT_EQ(0, f.SendFrag(1, {3, 1, FULL, 4 * FRAGMENT_SIZE}, oversized));
    f.SendFrag(1, {2, 1, 64000, uint32_t(sample.size())}, std::vector<octet>(1000, 0xCD));  // other size
    ASSERT_NE(nullptr, f.Store(1));
    EXPECT_EQ(2u, f.Store(1)->highestFragment);
    f.SendFragment(1, sample, 1);
    std::fill(sample.begin() + FRAGMENT_SIZE, sample.end(), 0xAB);
    std::fill(sample.begin() + FRAGMENT_SIZE, sample.begin() + 65000, 0xCD);
    EXPECT_EQ(Payloads({sample}), f.m_Payloads);
}

TEST(StatefulReader_Fragments, BestEffortDeliversCompleteSamplesAndKeepsThreeUnderWay) {
    Rig f(BEST_EFFORT);
    const std::vector<octet> sample = Sample(FRAGMENT_SIZE + 500);
    for (uint32_t uiNumber : {2u, 1u}) f.SendFragment(1, sample, uiNumber);
    ASSERT_EQ(1u, f.m_Payloads.size());
    EXPECT_EQ(nullptr, f.Store(1));  // handed over, the entry stays empty
    for (uint32_t uiSeq = 2; uiSeq <= 6; ++uiSeq) f.SendFragment(uiSeq, sample, 1);
    ASSERT_EQ(3u, f.pProxy->getChangesFromWriter().size());
    EXPECT_EQ(Sn(4), f.pProxy->getChangesFromWriter().begin()->first);
    f.SendFragment(2, sample, 2);  // a pruned sample starts over when its next fragment comes
    EXPECT_EQ(1u, f.m_Payloads.size());
}

TEST(StatefulReader_Fragments, ReassemblesByteIdenticallyInAnyOrder) {
    // Sample size, order of the fragments, and whether the writer sends the last
    // fragment of an exact multiple empty.
    const std::tuple<uint32_t, Seq, bool> aCases[] = {{2 * FRAGMENT_SIZE + 1000, {1, 2, 3}, false},
                                                      {2 * FRAGMENT_SIZE + 1000, {3, 1, 2}, false},
                                                      {2 * FRAGMENT_SIZE, {2, 1}, true}};
    for (ReliabilityQosPolicyKind kind : {RELIABLE, BEST_EFFORT})
        for (const auto& [uiSize, order, bLastEmpty] : aCases) {
            SCOPED_TRACE(testing::Message() << kind << " " << uiSize << " first " << order[0]);
            Rig f(kind);
            const std::vector<octet> sample = Sample(uiSize);
            for (uint32_t uiNumber : order)
                f.SendFragment(1, sample, uiNumber, bLastEmpty && uiNumber == order.size());
            std::vector<octet> expected = sample;
            if (bLastEmpty) std::fill(expected.end() - FRAGMENT_SIZE, expected.end(), 0);  // stays zero
            EXPECT_EQ(std::make_tuple(Payloads({expected}), 0u, 0u),
                      std::make_tuple(f.m_Payloads, f.reader.getHeldBytes(), f.pProxy->getReassemblyCount()));
        }
}

TEST(StatefulReader_Bounds, HostileInputStaysBoundedAndTheNextSampleGetsThrough) {
    // A heartbeat from 1 to uiHeartbeatLast (0: none), uiDatas DATA from 70000, uiFrags times `frag`
    // as numbers from 100, then fragment uiThenFragment (0: none) of number 100, and a text that the
    // reliable and the best-effort drop log contains ("": nothing is dropped).
    const std::tuple<const char*, uint32_t, uint32_t, dataFrag, uint32_t, uint32_t, const char*, const char*>
        aCases[] = {
            {"heartbeat", 20000000, 1, {}, 0, 0, "entry bound reached: DATA", "update] entry bound"},
            {"4 GiB announced", 0, 0, {1, 1, FULL, 0xFFFFFFFFu}, 1, 0, "", ""},
            {"fragment number 0", 0, 0, {0, 1, FULL, 1000}, 1, 0, "size 0: fragment", "size 0: fragment"},
            {"fragment size 0", 0, 0, {1, 1, 0, 1000}, 1, 0, "size 0: fragment", "size 0: fragment"},
            {"fragment 2^32-1", 0, 0, {0xFFFFFFFFu, 1, FULL, 1000}, 1, 0, "outside the", "outside the"},
            {"far above highest", 0, 0, {1, 1, 1, 0xFFFFFFFFu}, 1, 0xFFFFFFF0u, "", ""},
            {"unfinished", 0, 0, {1, 1, FULL, 2 * FRAGMENT_SIZE}, 10000, 0, "under reassembly: fragment", ""},
            {"parked DATA", 0, 10000, {}, 0, 0, "byte bound reached: DATA", ""},
        };
    const std::vector<octet> chunk(100, 0xEE), sample = Sample(FRAGMENT_SIZE + 500);
    for (ReliabilityQosPolicyKind kind : {RELIABLE, BEST_EFFORT})
        for (const auto& [szName, uiHeartbeatLast, uiDatas, frag, uiFrags, uiThen, szReliable, szBestEffort] :
             aCases) {
            const bool bReliable = kind == RELIABLE;
            SCOPED_TRACE(testing::Message() << szName << (bReliable ? " reliable" : " best effort"));
            LogRecorder logs;
            Rig f(kind);
            f.reader.m_HeldBytesMax = 1 << 20;
            const auto start = std::chrono::steady_clock::now();
            if (uiHeartbeatLast != 0) f.Heartbeat(1, uiHeartbeatLast, 1);
            for (uint32_t i = 0; i < uiDatas; ++i) f.Send(70000 + i);
            for (uint32_t i = 0; i < uiFrags; ++i) f.SendFrag(100 + i, frag, chunk);
            if (uiThen != 0) f.SendFrag(100, {uiThen, 1, 1, 0xFFFFFFFFu}, chunk);
            EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
            // Entries, samples under reassembly and held bytes (the bound, and one sample first in line).
            EXPECT_TRUE(f.pProxy->getChangesFromWriter().size() <= PROXY_ENTRIES_MAX + 1 &&
                        f.pProxy->getReassemblyCount() <= (bReliable ? RELIABLE_REASSEMBLY_MAX : 3u) &&
                        f.reader.getHeldBytes() <= 2u << 20)
                << f.pProxy->getChangesFromWriter().size() << " " << f.pProxy->getReassemblyCount() << " "
                << f.reader.getHeldBytes();
            const std::string strLog = bReliable ? szReliable : szBestEffort;
            EXPECT_EQ(!strLog.empty(), Contains(logs, strLog.empty() ? "dropped" : strLog));
            // The writer's next numbers: best effort only needs them above the attack's.
            const uint32_t uiNext = bReliable ? 1 : 1000000;
            f.Send(uiNext);
            for (uint32_t uiNumber : {2u, 1u}) f.SendFragment(uiNext + 1, sample, uiNumber);
            ASSERT_LE(2u, f.m_Payloads.size());
            EXPECT_EQ(std::make_pair(uiNext, sample),
                      std::make_pair(f.Numbers()[f.m_Payloads.size() - 2], f.m_Payloads.back()));
        }
}

// ---------------------------------------------------------------- the writer proxy alone

TEST(WriterProxy, MissingSetCapsAt256BitsAndReportsTheRestLater) {
    WriterProxy proxy(WRITER, {}, {});
    proxy.missing_changes_update(Sn(1), Sn(300));
    SequenceNumberSet first, rest;
    proxy.missing_changes(first);
    proxy.lost_changes_update(Sn(257));
    proxy.missing_changes(rest);
    EXPECT_EQ(Full(1), Bits({first.bitmapBase.low}, first));
    EXPECT_EQ(Seq({257, 44, 0xFFFFFFFFu, 0xFFF00000u}), Bits({rest.bitmapBase.low}, rest));
}

TEST(WriterProxy, FragmentNackStopsAt256) {
    CacheChange store;
    store.sequenceNumber = Sn(7);
    store.dataLength = 301 * FRAGMENT_SIZE;
    store.fragmentCount = 302;  // one too many for an exact multiple, as the reader counts
    store.highestFragment = 1;
    FragmentNumberSet set;
    testing::internal::CaptureStdout();  // a line per fragment asked for
    RecordingProxy().fragment_set(&store, set);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::make_pair(Full(2), Ranges({{2, 302}})),  // asked until they come
              std::make_pair(Bits({set.bitmapBase}, set), store.missingFragments.ranges()));
}

TEST(FragmentRanges, InsertMergesWhatItTouchesAndEraseSplitsAcrossThe32BitRange) {
    // Ranges inserted, numbers erased, the ranges left, and whether 3 lies inside one.
    const std::tuple<std::vector<std::pair<uint32_t, uint32_t>>, Seq, Ranges, bool> aCases[] = {
        {{{1, 3}, {5, 7}, {4, 4}}, {}, {{1, 7}}, true},
        {{{1, 2}, {4, 5}, {7, 8}, {0, 9}, {5, 3}}, {20}, {{0, 9}}, true},
        {{{1, 10}}, {1, 10, 5, 5}, {{2, 4}, {6, 9}}, true},
        {{{0xFFFFFFF0u, 0xFFFFFFFFu}, {0, 4}},
         {0xFFFFFFFFu, 1, 4},
         {{0, 0}, {2, 3}, {0xFFFFFFF0u, 0xFFFFFFFEu}},
         false},
    };
    for (const auto& [inserts, erases, expected, bSplits3] : aCases) {
        FragmentRanges ranges;
        for (const auto& range : inserts) ranges.insert(range.first, range.second);
        for (uint32_t uiNumber : erases) ranges.erase(uiNumber);
        EXPECT_EQ(std::make_tuple(expected, bSplits3), std::make_tuple(ranges.ranges(), ranges.splits(3)));
    }
}
