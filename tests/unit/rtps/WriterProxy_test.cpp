#include "rtps/WriterProxy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "DataSendRig.h"
#include "messages/SubMessages.h"
#include "rtps/CacheChange.h"

namespace {
typedef std::vector<std::string> Texts;

SequenceNumber_t Sn(uint32_t low) {
    return SequenceNumber_t(0, low);
}

GUID_t RemoteWriterGuid() {
    GUID_t guid = GUID_UNKNOWN;
    for (int i = 0; i < 12; ++i) guid.guidPrefix.value[i] = octet(i + 1);
    guid.entityId = EntityId_t{{0x00, 0x01, 0x02}, 0x02};
    return guid;
}

// Records the NACK_FRAG requests instead of queueing them.
class RecordingProxy : public WriterProxy {
public:
    RecordingProxy() : WriterProxy(RemoteWriterGuid(), {}, {}) {}
    std::vector<std::pair<SequenceNumber_t, FragmentNumberSet>> m_NackFrags;

private:
    void SendNackFrag(StatefulReader*, RequestScheduler*, const SequenceNumber_t& seqNum,
                      const FragmentNumberSet& set) override {
        m_NackFrags.push_back(std::make_pair(seqNum, set));
    }
};

// The entries as "<number><status>" with status L, M, R or U, and '-' after an
// irrelevant one, e.g. "1M 2R- 3U".
std::string Entries(const WriterProxy& proxy) {
    std::string strOut;
    for (const auto& entry : proxy.getChangesFromWriter()) {
        strOut += (strOut.empty() ? "" : " ") + std::to_string(entry.first.low) + "LMRU"[entry.second.status];
        if (entry.second.is_relevant == 0) strOut += '-';
    }
    return strOut;
}
}  // namespace

TEST(WriterProxy_Availability, WalksOverReceivedNumbersAndHandsThemOverInOrder) {
    LogRecorder logs;
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.setTopic(3, "Square");
    EXPECT_EQ(nullptr, proxy.getAvailableChanges(SEQUENCENUMBER_ZERO));
    for (uint32_t uiSeq : {1u, 2u, 4u}) proxy.received_change(MakeChange(uiSeq));
    const SequenceNumber_t maxSeq = proxy.available_changes_max();
    EXPECT_EQ(Sn(2), maxSeq);
    EXPECT_EQ("1R 2R 4R", Entries(proxy));  // the entries passed stay until handed over

    for (uint32_t uiSeq : {1u, 2u}) {
        CacheChange* pChange = proxy.getAvailableChanges(maxSeq);
        ASSERT_NE(nullptr, pChange);
        EXPECT_EQ(Sn(uiSeq), pChange->sequenceNumber);
        WriterProxy::DeleteChange(pChange);
    }
    EXPECT_EQ(nullptr, proxy.getAvailableChanges(maxSeq));
    EXPECT_EQ(Texts({"[WriterProxy::getAvailableChanges] m_ChangesFromWriter.size = 0,TopicName =Square and "
                     "maxAvailableNum = 0",
                     "[WriterProxy::getAvailableChanges] TopicName = Square m_ChangesFromWriter.begin(4)> "
                     "maxAvailableNum(2) "}),
              logs.Texts());
}

TEST(WriterProxy_Availability, SkipsIrrelevantEntriesAndOnceStartedPassesTheMaximum) {
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    for (uint32_t uiSeq : {1u, 2u, 5u}) proxy.irrelevant_change_set(Sn(uiSeq));
    EXPECT_EQ(Sn(2), proxy.getAvailableSeqNum());
    EXPECT_EQ(nullptr, proxy.getAvailableChanges(proxy.available_changes_max()));  // irrelevant only
    EXPECT_EQ("", Entries(proxy));
    proxy.irrelevant_change_set(Sn(3));
    proxy.received_change(MakeChange(6));
    const SequenceNumber_t maxSeq = proxy.available_changes_max();
    ASSERT_EQ(Sn(3), maxSeq);
    CacheChange* pChange = proxy.getAvailableChanges(maxSeq);
    ASSERT_NE(nullptr, pChange);
    EXPECT_EQ(Sn(6), pChange->sequenceNumber);
    WriterProxy::DeleteChange(pChange);
}

// ---------------------------------------------------------------- status changes

TEST(WriterProxy_Status, ReceivedChangeSetAndIrrelevantChangeSet) {
    LogRecorder logs;
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    EXPECT_EQ(1, proxy.received_change_set(Sn(5)));
    EXPECT_EQ(Texts({"[WriterProxy::received_change_set] m_ChangesFromWriter.count(SeqNum(5)) = 0"}),
              logs.Texts());
    proxy.missing_changes_update(Sn(1), Sn(2));
    proxy.received_change(MakeChange(3));
    EXPECT_EQ(0, proxy.received_change_set(Sn(2)));
    EXPECT_EQ(0, proxy.received_change_set(Sn(3)));
    EXPECT_EQ("1M 2R- 3R", Entries(proxy));  // 2 has nothing to deliver

    // Irrelevant moves the mark only when it is the very next number.
    proxy.irrelevant_change_set(Sn(4));
    EXPECT_EQ(SEQUENCENUMBER_ZERO, proxy.getAvailableSeqNum());
    proxy.irrelevant_change_set(Sn(1));
    EXPECT_EQ(Sn(1), proxy.getAvailableSeqNum());
    EXPECT_EQ("1R- 2R- 3R 4R-", Entries(proxy));
}

TEST(WriterProxy_Status, MissingAndUnknownUpdates) {
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.lost_changes_update(Sn(3));
    ASSERT_EQ(Sn(2), proxy.getAvailableSeqNum());
    proxy.change_entry(Sn(4));  // an entry a fragment made
    proxy.change_entry(Sn(7));
    // Starts past the mark and keeps existing entries; an empty writer (last below first) adds nothing.
    EXPECT_EQ(0, proxy.missing_changes_update(Sn(1), Sn(5)));
    proxy.missing_changes_update(Sn(9), Sn(8));
    EXPECT_EQ("3M 4U 5M 7U", Entries(proxy));
    proxy.received_change(MakeChange(5));
    proxy.unknown_changes_update(Sn(6));
    EXPECT_EQ("3M 4M 5R 7U", Entries(proxy));
}

TEST(WriterProxy_Status, LostUpdateMovesTheMarkAndDropsEverythingBelowFirst) {
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    for (uint32_t uiSeq = 1; uiSeq <= 3; ++uiSeq) proxy.irrelevant_change_set(Sn(uiSeq));
    ASSERT_EQ(Sn(3), proxy.getAvailableSeqNum());
    proxy.missing_changes_update(Sn(4), Sn(12));
    proxy.received_change(MakeChange(6));  // parked RECEIVED below 10: dropped with the rest
    proxy.lost_changes_update(Sn(10));
    EXPECT_EQ(Sn(9), proxy.getAvailableSeqNum());
    EXPECT_EQ("10M 11M 12M", Entries(proxy));
    proxy.lost_changes_update(Sn(5));  // a first number at or below the mark leaves it alone
    EXPECT_EQ(Sn(9), proxy.getAvailableSeqNum());
    EXPECT_EQ("10M 11M 12M", Entries(proxy));
}

// ---------------------------------------------------------------- missing set

TEST(WriterProxy_MissingSet, BitsCountFromTheFirstMissingNumber) {
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.irrelevant_change_set(Sn(1));
    proxy.received_change(MakeChange(2));
    SequenceNumberSet none;
    proxy.missing_changes(none);
    EXPECT_EQ(0u, none.numBits);  // nothing missing: an empty set past the mark
    EXPECT_EQ(Sn(2), none.bitmapBase);

    proxy.missing_changes_update(Sn(1), Sn(7));
    for (uint32_t uiSeq : {3u, 5u, 7u}) proxy.received_change(MakeChange(uiSeq));
    SequenceNumberSet set;
    proxy.missing_changes(set);
    EXPECT_EQ(Sn(4), set.bitmapBase);
    EXPECT_EQ(3u, set.numBits);             // 4 and 6
    EXPECT_EQ(0xA0000000u, set.bitmap[0]);  // bit 0 is the most significant
}

TEST(WriterProxy_MissingSet, CapsAt256BitsAndReportsTheRestLater) {
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.missing_changes_update(Sn(1), Sn(300));
    SequenceNumberSet first;
    proxy.missing_changes(first);
    EXPECT_EQ(Sn(1), first.bitmapBase);
    EXPECT_EQ(256u, first.numBits);
    for (uint32_t uiWord = 0; uiWord < 8; ++uiWord) EXPECT_EQ(0xFFFFFFFFu, first.bitmap[uiWord]);

    proxy.lost_changes_update(Sn(257));
    SequenceNumberSet rest;
    proxy.missing_changes(rest);
    EXPECT_EQ(Sn(257), rest.bitmapBase);
    EXPECT_EQ(44u, rest.numBits);
    EXPECT_EQ(0xFFF00000u, rest.bitmap[1]);  // bits 32 to 43
}

TEST(WriterProxy, CheckAliveReportsOnlyTransitions) {
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    const Duration_t lease(2, 0);
    proxy.setLastAliveTime(Time_t(10, 0));
    EXPECT_EQ(0, proxy.check_alive(Time_t(12, 0), lease));  // exactly at the lease: not expired
    EXPECT_EQ(-1, proxy.check_alive(Time_t(12, 1), lease));
    EXPECT_EQ(0u, proxy.getAlive());
    EXPECT_EQ(0, proxy.check_alive(Time_t(20, 0), lease));
    proxy.setLastAliveTime(Time_t(20, 0));
    EXPECT_EQ(1, proxy.check_alive(Time_t(21, 0), lease));
    EXPECT_EQ(0, proxy.check_alive(Time_t(21, 500000000), lease));
    // An infinite lease never runs out, however late.
    EXPECT_EQ(0, proxy.check_alive(Time_t(0x7FFFFFFF, 999999999), DURATION_INFINITE));
}

// ---------------------------------------------------------------- fragments

TEST(WriterProxy_Fragments, SetCoversThePhantomFragmentAndStopsAt256) {
    struct Case {
        uint32_t uiFragments;  // one too many for an exact multiple, as the reader counts
        uint32_t uiBits, uiBitmap;
    };
    for (const Case& c : {Case{3, 2, 0xC0000000u}, Case{302, 256, 0xFFFFFFFFu}}) {
        WriterProxy proxy(RemoteWriterGuid(), {}, {});
        CacheChange store;
        store.sequenceNumber = Sn(7);
        store.dataLength = (c.uiFragments - 1) * FRAGMENT_SIZE;
        store.fragmentCount = c.uiFragments;
        store.highestFragment = 1;
        FragmentNumberSet set;
        testing::internal::CaptureStdout();
        proxy.fragment_set(&store, set);
        const std::string strOut = testing::internal::GetCapturedStdout();
        EXPECT_EQ(2u, set.bitmapBase);
        EXPECT_EQ(c.uiBits, set.numBits);
        EXPECT_EQ(c.uiBitmap, set.bitmap[0]);
        EXPECT_EQ(c.uiBits, uint32_t(std::count(strOut.begin(), strOut.end(), '\n')));
        EXPECT_EQ(0u, strOut.find("loss Frag Data 2 Seq = 7\nloss Frag Data 3 Seq = 7\n"));
        EXPECT_EQ(std::string::npos, strOut.find("loss Frag Data 258 "));
        EXPECT_EQ((std::map<uint32_t, uint32_t>{{2, c.uiFragments}}),
                  store.missingFragments.ranges());  // requested until they come
    }
}

TEST(WriterProxy_Fragments, NackGoesOnlyForMissingSamplesUnderReassembly) {
    RecordingProxy proxy;
    CacheChange* pStore = MakeChange(2, 2 * FRAGMENT_SIZE + 10);
    pStore->fragmentCount = 3;
    pStore->highestFragment = 3;
    pStore->missingFragments.insert(2);
    proxy.received_change(pStore);  // UNKNOWN: no heartbeat yet
    proxy.missing_changes_update(Sn(1), Sn(1));
    testing::internal::CaptureStdout();
    proxy.fragment_nack(nullptr, nullptr);
    EXPECT_TRUE(proxy.m_NackFrags.empty());

    proxy.unknown_changes_update(Sn(2));
    proxy.fragment_nack(nullptr, nullptr);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(1u, proxy.m_NackFrags.size());
    EXPECT_EQ(Sn(2), proxy.m_NackFrags[0].first);
    EXPECT_EQ(2u, proxy.m_NackFrags[0].second.bitmapBase);
    EXPECT_EQ(1u, proxy.m_NackFrags[0].second.numBits);
}

TEST(FragmentRanges, InsertMergesWhatItTouchesAndEraseSplitsAcrossThe32BitRange) {
    struct Case {
        std::vector<std::pair<uint32_t, uint32_t>> inserts;
        std::vector<uint32_t> erases;
        std::string strRanges;
        bool bSplits3;  // 3 lies inside a range
    };
    const Case aCases[] = {
        {{{1, 3}, {5, 7}, {4, 4}}, {}, "1-7", true},
        {{{1, 2}, {4, 5}, {7, 8}, {0, 9}, {5, 3}}, {20}, "0-9", true},
        {{{1, 10}}, {1, 10, 5, 5}, "2-4 6-9", true},
        {{{0xFFFFFFF0u, 0xFFFFFFFFu}, {0, 4}}, {0xFFFFFFFFu, 1, 4}, "0-0 2-3 4294967280-4294967294", false},
    };
    for (const Case& c : aCases) {
        FragmentRanges ranges;
        for (const auto& insert : c.inserts) ranges.insert(insert.first, insert.second);
        for (uint32_t uiNumber : c.erases) ranges.erase(uiNumber);
        std::string strOut;
        for (const auto& range : ranges.ranges())
            strOut += (strOut.empty() ? "" : " ") + std::to_string(range.first) + "-" +
                      std::to_string(range.second);
        EXPECT_EQ(c.strRanges, strOut);
        EXPECT_EQ(c.bSplits3, ranges.splits(3));
    }
}
