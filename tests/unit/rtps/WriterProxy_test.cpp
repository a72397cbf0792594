#include "rtps/WriterProxy.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "log/LogObserver.h"
#include "messages/SubMessages.h"
#include "rtps/CacheChange.h"

namespace
{
// Collects every log text while alive.
class ProxyLogCapture
{
public:
    ProxyLogCapture() { SetLogObserver(&ProxyLogCapture::Observe, this); }
    ~ProxyLogCapture() { SetLogObserver(nullptr, nullptr); }

    std::vector<std::string> Texts()
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Texts;
    }

private:
    static void Observe(void* context, int, const char* text, size_t length, int)
    {
        ProxyLogCapture* self = static_cast<ProxyLogCapture*>(context);
        std::lock_guard<std::mutex> lock(self->m_Mutex);
        self->m_Texts.push_back(std::string(text, length));
    }

    std::mutex m_Mutex;
    std::vector<std::string> m_Texts;
};

GUID_t RemoteWriterGuid()
{
    GUID_t guid = GUID_UNKNOWN;
    for (int i = 0; i < 12; ++i)
        guid.guidPrefix.value[i] = octet(i + 1);
    guid.entityId = EntityId_t{{0x00, 0x01, 0x02}, 0x02};
    return guid;
}

// A parked change of the given writer number with a small payload.
CacheChange* Parked(uint32_t uiSeq, uint32_t uiLength = 8)
{
    CacheChange* pChange = new CacheChange();
    pChange->sequenceNumber = SequenceNumber_t(0, uiSeq);
    pChange->dataLength = uiLength;
    pChange->data = CacheChange::AllocData(uiLength);
    return pChange;
}

// Records the NACK_FRAG requests instead of queueing them.
class RecordingProxy : public WriterProxy
{
public:
    RecordingProxy() : WriterProxy(RemoteWriterGuid(), {}, {}) {}

    std::vector<std::pair<SequenceNumber_t, FragmentNumberSet>> m_NackFrags;

private:
    void SendNackFrag(StatefulReader*, RequestScheduler*, const SequenceNumber_t& seqNum,
                      const FragmentNumberSet& set) override
    {
        m_NackFrags.push_back(std::make_pair(seqNum, set));
    }
};

uint32_t StatusOf(const WriterProxy& proxy, uint32_t uiSeq)
{
    auto it = proxy.getChangesFromWriter().find(SequenceNumber_t(0, uiSeq));
    return it == proxy.getChangesFromWriter().end() ? 99u : it->second.status;
}

bool BitSet(const uint32_t* pBitmap, uint32_t uiBit)
{
    return (pBitmap[uiBit / 32] & (0x80000000u >> (uiBit % 32))) != 0;
}

int CountLines(const std::string& strText, const std::string& strNeedle)
{
    int iCount = 0;
    for (size_t pos = strText.find(strNeedle); pos != std::string::npos;
         pos = strText.find(strNeedle, pos + 1))
        ++iCount;
    return iCount;
}
} // namespace

TEST(WriterProxy_Availability, WalksOverReceivedNumbersAndHandsThemOverInOrder)
{
    ProxyLogCapture logs;
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.setTopic(3, "Square");
    proxy.received_change(Parked(1));
    proxy.received_change(Parked(2));
    proxy.received_change(Parked(4));

    const SequenceNumber_t maxSeq = proxy.available_changes_max();
    EXPECT_EQ(SequenceNumber_t(0, 2), maxSeq);
    // The entries passed stay until handed over.
    EXPECT_EQ(3u, proxy.getChangesFromWriter().size());

    CacheChange* pFirst = proxy.getAvailableChanges(maxSeq);
    CacheChange* pSecond = proxy.getAvailableChanges(maxSeq);
    ASSERT_NE(nullptr, pFirst);
    ASSERT_NE(nullptr, pSecond);
    EXPECT_EQ(SequenceNumber_t(0, 1), pFirst->sequenceNumber);
    EXPECT_EQ(SequenceNumber_t(0, 2), pSecond->sequenceNumber);
    EXPECT_EQ(nullptr, proxy.getAvailableChanges(maxSeq));
    WriterProxy::DeleteChange(pFirst);
    WriterProxy::DeleteChange(pSecond);

    const std::vector<std::string> texts = logs.Texts();
    ASSERT_EQ(1u, texts.size());
    EXPECT_EQ("[WriterProxy::getAvailableChanges] TopicName = Square "
              "m_ChangesFromWriter.begin(4)> maxAvailableNum(2) ",
              texts[0]);
}

TEST(WriterProxy_Availability, EmptyAndIrrelevantOnlyMapsYieldNothing)
{
    ProxyLogCapture logs;
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.setTopic(3, "Square");
    EXPECT_EQ(nullptr, proxy.getAvailableChanges(SEQUENCENUMBER_ZERO));
    ASSERT_EQ(1u, logs.Texts().size());
    EXPECT_EQ("[WriterProxy::getAvailableChanges] m_ChangesFromWriter.size = 0,TopicName =Square "
              "and maxAvailableNum = 0",
              logs.Texts()[0]);

    proxy.irrelevant_change_set(SequenceNumber_t(0, 1));
    proxy.irrelevant_change_set(SequenceNumber_t(0, 2));
    EXPECT_EQ(SequenceNumber_t(0, 2), proxy.getAvailableSeqNum());
    EXPECT_EQ(nullptr, proxy.getAvailableChanges(proxy.available_changes_max()));
    EXPECT_TRUE(proxy.getChangesFromWriter().empty());
}

TEST(WriterProxy_Availability, OnceStartedTheWalkPassesBeyondTheMaximum)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.irrelevant_change_set(SequenceNumber_t(0, 1));
    proxy.received_change(Parked(3));
    const SequenceNumber_t maxSeq = proxy.available_changes_max();
    ASSERT_EQ(SequenceNumber_t(0, 1), maxSeq);
    CacheChange* pChange = proxy.getAvailableChanges(maxSeq);
    ASSERT_NE(nullptr, pChange);
    EXPECT_EQ(SequenceNumber_t(0, 3), pChange->sequenceNumber);
    WriterProxy::DeleteChange(pChange);
}

TEST(WriterProxy_Status, ReceivedChangeKeepsALargeSampleUnderReassemblyOpen)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.received_change(Parked(1, FRAGMENT_SIZE));
    CacheChange* pLarge = new CacheChange();
    pLarge->sequenceNumber = SequenceNumber_t(0, 2);
    pLarge->dataLength = FRAGMENT_SIZE + 1;
    proxy.received_change(pLarge);
    EXPECT_EQ(ChangeFromWriter::RECEIVED, StatusOf(proxy, 1));
    EXPECT_EQ(ChangeFromWriter::UNKNOWN, StatusOf(proxy, 2));
    // A second copy replaces the parked one (the first is freed, as the leak checker sees).
    proxy.received_change(Parked(1));
    EXPECT_EQ(2u, proxy.getChangesFromWriter().size());
}

TEST(WriterProxy_Status, ReceivedChangeSetAndIrrelevantChangeSet)
{
    ProxyLogCapture logs;
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    EXPECT_EQ(1, proxy.received_change_set(SequenceNumber_t(0, 5)));
    ASSERT_EQ(1u, logs.Texts().size());
    EXPECT_EQ("[WriterProxy::received_change_set] m_ChangesFromWriter.count(SeqNum(5)) = 0",
              logs.Texts()[0]);

    proxy.missing_changes_update(SequenceNumber_t(0, 1), SequenceNumber_t(0, 2));
    proxy.received_change(Parked(3));
    EXPECT_EQ(0, proxy.received_change_set(SequenceNumber_t(0, 2)));
    EXPECT_EQ(0, proxy.received_change_set(SequenceNumber_t(0, 3)));
    const auto& changes = proxy.getChangesFromWriter();
    EXPECT_EQ(ChangeFromWriter::RECEIVED, changes.at(SequenceNumber_t(0, 2)).status);
    EXPECT_EQ(0, changes.at(SequenceNumber_t(0, 2)).is_relevant); // nothing to deliver
    EXPECT_EQ(1, changes.at(SequenceNumber_t(0, 3)).is_relevant);

    // Irrelevant moves the mark only when it is the very next number.
    proxy.irrelevant_change_set(SequenceNumber_t(0, 4));
    EXPECT_EQ(SEQUENCENUMBER_ZERO, proxy.getAvailableSeqNum());
    proxy.irrelevant_change_set(SequenceNumber_t(0, 1));
    EXPECT_EQ(SequenceNumber_t(0, 1), proxy.getAvailableSeqNum());
    EXPECT_EQ(ChangeFromWriter::RECEIVED, changes.at(SequenceNumber_t(0, 4)).status);
    EXPECT_EQ(0, changes.at(SequenceNumber_t(0, 4)).is_relevant);
}

TEST(WriterProxy_Status, MissingUpdateStartsPastTheMarkAndKeepsExistingEntries)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.lost_changes_update(SequenceNumber_t(0, 3));
    ASSERT_EQ(SequenceNumber_t(0, 2), proxy.getAvailableSeqNum());
    proxy.change_entry(SequenceNumber_t(0, 4)); // an entry a fragment made: UNKNOWN
    EXPECT_EQ(0, proxy.missing_changes_update(SequenceNumber_t(0, 1), SequenceNumber_t(0, 5)));
    EXPECT_EQ(99u, StatusOf(proxy, 2));
    EXPECT_EQ(ChangeFromWriter::MISSING, StatusOf(proxy, 3));
    EXPECT_EQ(ChangeFromWriter::UNKNOWN, StatusOf(proxy, 4));
    EXPECT_EQ(ChangeFromWriter::MISSING, StatusOf(proxy, 5));
    // An empty writer (last below first) adds nothing.
    proxy.missing_changes_update(SequenceNumber_t(0, 9), SequenceNumber_t(0, 8));
    EXPECT_EQ(3u, proxy.getChangesFromWriter().size());
}

TEST(WriterProxy_Status, UnknownUpdateTurnsUnknownIntoMissingUpToLast)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.change_entry(SequenceNumber_t(0, 1));
    proxy.change_entry(SequenceNumber_t(0, 3));
    proxy.received_change(Parked(2));
    proxy.unknown_changes_update(SequenceNumber_t(0, 2));
    EXPECT_EQ(ChangeFromWriter::MISSING, StatusOf(proxy, 1));
    EXPECT_EQ(ChangeFromWriter::RECEIVED, StatusOf(proxy, 2));
    EXPECT_EQ(ChangeFromWriter::UNKNOWN, StatusOf(proxy, 3));
}

TEST(WriterProxy_Status, LostUpdateMovesTheMarkAndDropsEverythingBelowFirst)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.irrelevant_change_set(SequenceNumber_t(0, 1));
    proxy.irrelevant_change_set(SequenceNumber_t(0, 2));
    proxy.irrelevant_change_set(SequenceNumber_t(0, 3));
    ASSERT_EQ(SequenceNumber_t(0, 3), proxy.getAvailableSeqNum());
    proxy.missing_changes_update(SequenceNumber_t(0, 4), SequenceNumber_t(0, 12));
    proxy.received_change(Parked(6)); // parked RECEIVED below 10: dropped with the rest

    proxy.lost_changes_update(SequenceNumber_t(0, 10));
    EXPECT_EQ(SequenceNumber_t(0, 9), proxy.getAvailableSeqNum());
    const auto& changes = proxy.getChangesFromWriter();
    ASSERT_EQ(3u, changes.size());
    EXPECT_EQ(SequenceNumber_t(0, 10), changes.begin()->first);

    // A first number at or below the mark leaves it alone.
    proxy.lost_changes_update(SequenceNumber_t(0, 5));
    EXPECT_EQ(SequenceNumber_t(0, 9), proxy.getAvailableSeqNum());
    EXPECT_EQ(3u, changes.size());
}

TEST(WriterProxy_MissingSet, NothingMissingGivesAnEmptySetPastTheMark)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.irrelevant_change_set(SequenceNumber_t(0, 1));
    proxy.received_change(Parked(2));
    SequenceNumberSet set;
    proxy.missing_changes(set);
    EXPECT_EQ(0u, set.numBits);
    EXPECT_EQ(SequenceNumber_t(0, 2), set.bitmapBase);
}

TEST(WriterProxy_MissingSet, BitsCountFromTheFirstMissingNumber)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.missing_changes_update(SequenceNumber_t(0, 1), SequenceNumber_t(0, 6));
    proxy.received_change(Parked(1));
    proxy.received_change(Parked(4));
    proxy.received_change(Parked(6));
    SequenceNumberSet set;
    proxy.missing_changes(set);
    EXPECT_EQ(SequenceNumber_t(0, 2), set.bitmapBase);
    EXPECT_EQ(4u, set.numBits);              // 2, 3 and 5
    EXPECT_EQ(0xD0000000u, set.bitmap[0]);   // bit 0 is the most significant
}

TEST(WriterProxy_MissingSet, CapsAt256BitsAndReportsTheRestLater)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    proxy.missing_changes_update(SequenceNumber_t(0, 1), SequenceNumber_t(0, 300));
    SequenceNumberSet first;
    proxy.missing_changes(first);
    EXPECT_EQ(SequenceNumber_t(0, 1), first.bitmapBase);
    EXPECT_EQ(256u, first.numBits);
    for (uint32_t uiWord = 0; uiWord < 8; ++uiWord)
        EXPECT_EQ(0xFFFFFFFFu, first.bitmap[uiWord]);

    proxy.lost_changes_update(SequenceNumber_t(0, 257));
    SequenceNumberSet rest;
    proxy.missing_changes(rest);
    EXPECT_EQ(SequenceNumber_t(0, 257), rest.bitmapBase);
    EXPECT_EQ(44u, rest.numBits);
    EXPECT_TRUE(BitSet(rest.bitmap, 43));
    EXPECT_FALSE(BitSet(rest.bitmap, 44));
}

TEST(WriterProxy, RemoveOldestChangesKeepsTheNewest)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    for (uint32_t uiSeq = 1; uiSeq <= 5; ++uiSeq)
        proxy.received_change(Parked(uiSeq));
    proxy.change_entry(SequenceNumber_t(0, 6));
    proxy.remove_oldest_changes(3);
    const auto& changes = proxy.getChangesFromWriter();
    ASSERT_EQ(3u, changes.size());
    EXPECT_EQ(SequenceNumber_t(0, 4), changes.begin()->first);
    proxy.remove_oldest_changes(5);
    EXPECT_EQ(3u, changes.size());
}

TEST(WriterProxy, CheckAliveReportsOnlyTransitions)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    const Duration_t lease(2, 0);
    proxy.setLastAliveTime(Time_t(10, 0));
    EXPECT_EQ(0, proxy.check_alive(Time_t(12, 0), lease)); // exactly at the lease: not expired
    EXPECT_EQ(-1, proxy.check_alive(Time_t(12, 1), lease));
    EXPECT_EQ(0u, proxy.getAlive());
    EXPECT_EQ(0, proxy.check_alive(Time_t(20, 0), lease));
    proxy.setLastAliveTime(Time_t(20, 0));
    EXPECT_EQ(1, proxy.check_alive(Time_t(21, 0), lease));
    EXPECT_EQ(0, proxy.check_alive(Time_t(21, 500000000), lease));
    // An infinite lease never runs out, however late.
    EXPECT_EQ(0, proxy.check_alive(Time_t(0x7FFFFFFF, 999999999), DURATION_INFINITE));
}

TEST(WriterProxy_Fragments, SetCoversThePhantomFragmentOfAnExactMultiple)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    CacheChange store;
    store.sequenceNumber = SequenceNumber_t(0, 7);
    store.dataLength = 2 * FRAGMENT_SIZE;
    store.fragmentCount = 3; // one too many for an exact multiple
    store.highestFragment = 1;
    FragmentNumberSet set;
    testing::internal::CaptureStdout();
    proxy.fragment_set(&store, set);
    const std::string strOut = testing::internal::GetCapturedStdout();
    EXPECT_EQ(2u, set.bitmapBase);
    EXPECT_EQ(2u, set.numBits);
    EXPECT_EQ(0xC0000000u, set.bitmap[0]);
    EXPECT_EQ("loss Frag Data 2 Seq = 7\nloss Frag Data 3 Seq = 7\n", strOut);
    // The numbers stay requested until they come.
    EXPECT_EQ(2u, store.missingFragments.size());
}

TEST(WriterProxy_Fragments, SetOfManyMissingFragmentsStopsAt256)
{
    WriterProxy proxy(RemoteWriterGuid(), {}, {});
    CacheChange store;
    store.sequenceNumber = SequenceNumber_t(0, 1);
    store.dataLength = 301 * FRAGMENT_SIZE;
    store.fragmentCount = 302;
    store.highestFragment = 1;
    FragmentNumberSet set;
    testing::internal::CaptureStdout();
    proxy.fragment_set(&store, set);
    const std::string strOut = testing::internal::GetCapturedStdout();
    EXPECT_EQ(2u, set.bitmapBase);
    EXPECT_EQ(256u, set.numBits);
    EXPECT_EQ(256, CountLines(strOut, "loss Frag Data"));
    EXPECT_EQ(std::string::npos, strOut.find("loss Frag Data 258 "));
}

TEST(WriterProxy_Fragments, NackGoesOnlyForMissingSamplesUnderReassembly)
{
    RecordingProxy proxy;
    CacheChange* pStore = new CacheChange();
    pStore->sequenceNumber = SequenceNumber_t(0, 2);
    pStore->dataLength = 2 * FRAGMENT_SIZE + 10;
    pStore->data = CacheChange::AllocData(pStore->dataLength);
    pStore->fragmentCount = 3;
    pStore->highestFragment = 3;
    pStore->missingFragments.insert(2);
    proxy.received_change(pStore);              // UNKNOWN: no heartbeat yet
    proxy.missing_changes_update(SequenceNumber_t(0, 1), SequenceNumber_t(0, 1));
    testing::internal::CaptureStdout();
    proxy.fragment_nack(nullptr, nullptr);
    EXPECT_TRUE(proxy.m_NackFrags.empty());

    proxy.unknown_changes_update(SequenceNumber_t(0, 2));
    proxy.fragment_nack(nullptr, nullptr);
    testing::internal::GetCapturedStdout();
    ASSERT_EQ(1u, proxy.m_NackFrags.size());
    EXPECT_EQ(SequenceNumber_t(0, 2), proxy.m_NackFrags[0].first);
    EXPECT_EQ(2u, proxy.m_NackFrags[0].second.bitmapBase);
    EXPECT_EQ(1u, proxy.m_NackFrags[0].second.numBits);
}
