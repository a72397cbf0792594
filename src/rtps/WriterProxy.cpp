#include "rtps/WriterProxy.h"

#include <cstdio>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "messages/SubMessages.h"
#include "rtps/CacheChange.h"
#include "rtps/Writer.h"

namespace {
// Both bitmaps stop here, the wire format's limit.
const int64_t BITMAP_BITS_MAX = 256;

void SetBit(uint32_t* pBitmap, uint32_t uiOffset) {
    pBitmap[uiOffset / 32] |= 0x80000000u >> (uiOffset % 32);
}

int64_t ToNanoseconds(const Time_t& t) {
    return int64_t(t.sec) * 1000000000LL + int64_t(t.nanosec);
}
}  // namespace

WriterProxy::WriterProxy(const GUID_t& remoteWriterGuidValue, const std::list<Locator_t>& unicastLocators,
                         const std::list<Locator_t>& multicastLocators)
    : remoteWriterGuid(remoteWriterGuidValue),
      unicastLocatorList(unicastLocators),
      multicastLocatorList(multicastLocators),
      m_AvailableSeqNum(SEQUENCENUMBER_ZERO),
      m_LastHeartbeatCount(0),
      m_Qos(),
      m_Alive(1),
      m_LastAliveTime(Writer::PublicClockNow()),
      m_DomainId(0),
      m_HeldBytes(0),
      m_ReassemblyCount(0) {}

WriterProxy::~WriterProxy() {
    for (auto& entry : m_ChangesFromWriter) DeleteChange(entry.second.change);
}

void WriterProxy::DeleteChange(CacheChange* pCacheChange) {
    if (pCacheChange == nullptr) return;
    CacheChange::FreeData(pCacheChange->data);
    pCacheChange->data = nullptr;
    delete pCacheChange;
}

void WriterProxy::setTopic(uint32_t uiDomainId, const std::string& strTopicName) {
    m_DomainId = uiDomainId;
    m_TopicName = strTopicName;
}

bool WriterProxy::IsQueryTopic() const {
    DDSLogManagementFactory* pFactory = DDSLogManagementFactory::GetInstance();
    return pFactory != nullptr && pFactory->IsQueryTopic(int(m_DomainId), m_TopicName);
}

void WriterProxy::WriteLog(char* szLog) const {
    DDSLogManagementFactory::WriteDDSLog(int(m_DomainId), szLog, strlen(szLog), DDSLOG_INFO, GUID_UNKNOWN);
}

SequenceNumber_t WriterProxy::available_changes_max() {
    if (!m_ChangesFromWriter.empty()) {
        const SequenceNumber_t lastPlusOne = m_ChangesFromWriter.rbegin()->first + 1;
        while (m_AvailableSeqNum != lastPlusOne) {
            auto it = m_ChangesFromWriter.find(m_AvailableSeqNum + 1);
            if (it == m_ChangesFromWriter.end() || it->second.status != ChangeFromWriter::RECEIVED) break;
            ++m_AvailableSeqNum;
        }
    }
    if (IsQueryTopic()) {
        char szLog[200];
        snprintf(szLog, sizeof(szLog),
                 "[WriterProxy::available_changes_max] TopicName =%s m_AvailableSeqNum = %d,",
                 m_TopicName.c_str(), int(m_AvailableSeqNum.low));
        WriteLog(szLog);
    }
    return m_AvailableSeqNum;
}

void WriterProxy::available_change_next(const CacheChange* pDelivered) {
    ++m_AvailableSeqNum;
    auto it = m_ChangesFromWriter.find(m_AvailableSeqNum);
    if (it == m_ChangesFromWriter.end()) return;
    // The delivered change has gone to the reader cache; a store that a DATA
    // of the same number overtook has nowhere to go.
    if (it->second.change == pDelivered) release_change(it->second);
    DropChange(it->second);
    m_ChangesFromWriter.erase(it);
}

void WriterProxy::received_change(CacheChange* pCacheChange) {
    ChangeFromWriter& entry = change_entry(pCacheChange->sequenceNumber);
    if (pCacheChange->dataLength < FRAGMENT_SIZE + 1) entry.status = ChangeFromWriter::RECEIVED;
    // A second copy of a parked number replaces the first, which nobody else holds.
    if (entry.change != nullptr && entry.change != pCacheChange) DropChange(entry);
    entry.change = pCacheChange;
    change_updated(entry);
}

bool WriterProxy::is_first_in_line(const SequenceNumber_t& seqNum) const {
    return seqNum == m_AvailableSeqNum + 1 || m_ChangesFromWriter.empty() ||
           seqNum <= m_ChangesFromWriter.begin()->first;
}

const char* WriterProxy::refusal(const SequenceNumber_t& seqNum, uint64_t ulReaderBytes,
                                 uint64_t ulBound) const {
    if (is_first_in_line(seqNum)) return nullptr;
    if (m_ChangesFromWriter.size() >= PROXY_ENTRIES_MAX && m_ChangesFromWriter.count(seqNum) == 0)
        return "entry bound reached";
    return ulReaderBytes > ulBound ? "byte bound reached" : nullptr;
}

void WriterProxy::change_updated(ChangeFromWriter& entry) {
    m_HeldBytes -= entry.heldBytes;
    m_ReassemblyCount -= entry.counted_reassembling;
    entry.heldBytes = entry.change != nullptr ? entry.change->HeldBytes() : 0;
    entry.counted_reassembling = entry.change != nullptr ? entry.change->reassembling : 0;
    m_HeldBytes += entry.heldBytes;
    m_ReassemblyCount += entry.counted_reassembling;
}

CacheChange* WriterProxy::release_change(ChangeFromWriter& entry) {
    CacheChange* pCacheChange = entry.change;
    entry.change = nullptr;
    change_updated(entry);
    return pCacheChange;
}

void WriterProxy::DropChange(ChangeFromWriter& entry) {
    DeleteChange(release_change(entry));
}

int WriterProxy::received_change_set(const SequenceNumber_t& seqNum) {
    char szLog[200];
    auto it = m_ChangesFromWriter.find(seqNum);
    if (it == m_ChangesFromWriter.end()) {
        snprintf(szLog, sizeof(szLog),
                 "[WriterProxy::received_change_set] m_ChangesFromWriter.count(SeqNum(%d)) = 0",
                 int(seqNum.low));
        WriteLog(szLog);
        return 1;
    }
    it->second.status = ChangeFromWriter::RECEIVED;
    if (it->second.change == nullptr) it->second.is_relevant = 0;
    if (IsQueryTopic()) {
        snprintf(szLog, sizeof(szLog),
                 "[WriterProxy::received_change_set] TopicName =%s received_change_set Seq = %d",
                 m_TopicName.c_str(), int(seqNum.low));
        WriteLog(szLog);
    }
    return 0;
}

void WriterProxy::irrelevant_change_set(const SequenceNumber_t& seqNum) {
    ChangeFromWriter& entry = change_entry(seqNum);
    entry.is_relevant = 0;
    entry.status = ChangeFromWriter::RECEIVED;
    if (seqNum == m_AvailableSeqNum + 1) m_AvailableSeqNum = seqNum;
}

int WriterProxy::missing_changes_update(const SequenceNumber_t& firstSN, const SequenceNumber_t& lastSN) {
    SequenceNumber_t seqNum = m_AvailableSeqNum + 1;
    if (firstSN > seqNum) seqNum = firstSN;
    // One step passes an existing entry or makes one: at most twice the cap.
    auto hint = m_ChangesFromWriter.lower_bound(seqNum);
    for (; seqNum <= lastSN; ++seqNum) {
        if (hint != m_ChangesFromWriter.end() && hint->first == seqNum) {
            ++hint;
            continue;
        }
        if (m_ChangesFromWriter.size() >= PROXY_ENTRIES_MAX) {
            char szLog[200];
            snprintf(szLog, sizeof(szLog),
                     "[WriterProxy::missing_changes_update] entry bound reached at SeqNum(%d), LastSN = %d "
                     "TopicName = %s",
                     int(seqNum.low), int(lastSN.low), m_TopicName.c_str());
            WriteLog(szLog);
            break;
        }
        ChangeFromWriter entry;
        entry.status = ChangeFromWriter::MISSING;
        m_ChangesFromWriter.emplace_hint(hint, seqNum, entry);
    }
    return 0;
}

void WriterProxy::lost_changes_update(const SequenceNumber_t& firstSN) {
    if (firstSN > m_AvailableSeqNum) m_AvailableSeqNum = firstSN - 1;
    auto it = m_ChangesFromWriter.begin();
    while (it != m_ChangesFromWriter.end() && it->first < firstSN) {
        if (it->second.status == ChangeFromWriter::MISSING || it->second.status == ChangeFromWriter::UNKNOWN)
            it->second.status = ChangeFromWriter::LOST;
        DropChange(it->second);
        it = m_ChangesFromWriter.erase(it);
    }
}

void WriterProxy::unknown_changes_update(const SequenceNumber_t& lastSN) {
    for (auto it = m_ChangesFromWriter.begin(); it != m_ChangesFromWriter.end() && it->first <= lastSN;
         ++it) {
        if (it->second.status == ChangeFromWriter::UNKNOWN) it->second.status = ChangeFromWriter::MISSING;
    }
}

void WriterProxy::missing_changes(SequenceNumberSet& set) {
    for (const auto& entry : m_ChangesFromWriter) {
        if (entry.second.status != ChangeFromWriter::MISSING) continue;
        if (set.numBits == 0) set.bitmapBase = entry.first;
        const int64_t offset = entry.first.ToInt64() - set.bitmapBase.ToInt64();
        if (offset >= BITMAP_BITS_MAX) break;
        SetBit(set.bitmap, uint32_t(offset));
        set.numBits = uint32_t(offset) + 1;
    }
    if (set.numBits == 0) set.bitmapBase = m_AvailableSeqNum + 1;
}

CacheChange* WriterProxy::getAvailableChanges(const SequenceNumber_t& maxSeq) {
    char szLog[200];
    if (m_ChangesFromWriter.empty()) {
        snprintf(szLog, sizeof(szLog),
                 "[WriterProxy::getAvailableChanges] m_ChangesFromWriter.size = 0,TopicName =%s "
                 "and maxAvailableNum = %d",
                 m_TopicName.c_str(), int(maxSeq.low));
        WriteLog(szLog);
        return nullptr;
    }
    if (m_ChangesFromWriter.begin()->first > maxSeq) {
        snprintf(szLog, sizeof(szLog),
                 "[WriterProxy::getAvailableChanges] TopicName = %s "
                 "m_ChangesFromWriter.begin(%d)> maxAvailableNum(%d) ",
                 m_TopicName.c_str(), int(m_ChangesFromWriter.begin()->first.low), int(maxSeq.low));
        WriteLog(szLog);
        if (IsQueryTopic()) WriteLog(szLog);
        return nullptr;
    }
    // Once started, the walk hands over the next relevant change whatever its number.
    while (!m_ChangesFromWriter.empty()) {
        auto it = m_ChangesFromWriter.begin();
        if (IsQueryTopic()) {
            snprintf(szLog, sizeof(szLog),
                     "[getAvailableChanges] TopicName =%s maxAvailableNum = "
                     "%d,m_ChangesFromWriter.begin()->first = %d",
                     m_TopicName.c_str(), int(maxSeq.low), int(it->first.low));
            WriteLog(szLog);
        }
        if (it->second.is_relevant != 0) {
            CacheChange* pCacheChange = release_change(it->second);
            const SequenceNumber_t seqNum = it->first;
            m_ChangesFromWriter.erase(it);
            // A store passed over before it completed goes as far as it came, if enough came.
            if (pCacheChange != nullptr && pCacheChange->reassembling != 0) {
                pCacheChange->reassembling = 0;
                const bool bWorth = pCacheChange->WorthAssembling();
                if (!bWorth || !pCacheChange->Assemble()) {
                    snprintf(szLog, sizeof(szLog),
                             "[WriterProxy::getAvailableChanges] %s Seq = %d, dropped TopicName = %s",
                             bWorth ? "no memory to assemble" : "too little received for its size",
                             int(seqNum.low), m_TopicName.c_str());
                    WriteLog(szLog);
                    DeleteChange(pCacheChange);
                    continue;
                }
            }
            return pCacheChange;
        }
        // A change parked under a number that a gap declared irrelevant goes nowhere.
        DropChange(it->second);
        m_ChangesFromWriter.erase(it);
    }
    return nullptr;
}

ChangeFromWriter& WriterProxy::change_entry(const SequenceNumber_t& seqNum) {
    return m_ChangesFromWriter[seqNum];
}

void WriterProxy::remove_oldest_changes(uint32_t uiCount) {
    while (m_ChangesFromWriter.size() > uiCount) {
        auto it = m_ChangesFromWriter.begin();
        DropChange(it->second);
        m_ChangesFromWriter.erase(it);
    }
}

void WriterProxy::remove_changes_below(const SequenceNumber_t& seqNum) {
    auto it = m_ChangesFromWriter.begin();
    while (it != m_ChangesFromWriter.end() && it->first < seqNum) {
        DropChange(it->second);
        it = m_ChangesFromWriter.erase(it);
    }
}

void WriterProxy::fragment_nack(StatefulReader* pReader, RequestScheduler* pScheduler) {
    for (auto& entry : m_ChangesFromWriter) {
        CacheChange* pFragDataCache = entry.second.change;
        if (entry.second.status != ChangeFromWriter::MISSING || pFragDataCache == nullptr ||
            pFragDataCache->dataLength < FRAGMENT_SIZE)
            continue;
        FragmentNumberSet set;
        fragment_set(pFragDataCache, set);
        change_updated(entry.second);  // the fragments past the highest may have added a gap
        // A store whose fragments have all come has nothing to ask for.
        if (set.numBits != 0) SendNackFrag(pReader, pScheduler, entry.first, set);
    }
}

void WriterProxy::fragment_set(CacheChange* pFragDataCache, FragmentNumberSet& set) {
    // Fragments past the highest one seen stay requested until they come; with
    // a count one too high, the last of them is requested in vain.
    if (pFragDataCache->fragmentCount > pFragDataCache->highestFragment)
        pFragDataCache->missingFragments.insert(pFragDataCache->highestFragment + 1,
                                                pFragDataCache->fragmentCount);
    const FragmentRanges& missing = pFragDataCache->missingFragments;
    if (missing.empty()) return;
    set.bitmapBase = missing.ranges().begin()->first;
    for (const auto& range : missing.ranges()) {
        // 64-bit steps: a range may end at 2^32-1.
        for (uint64_t ulNum = range.first; ulNum <= range.second; ++ulNum) {
            const uint64_t ulOffset = ulNum - set.bitmapBase;
            if (ulOffset >= uint64_t(BITMAP_BITS_MAX)) return;
            printf("loss Frag Data %d Seq = %d\n", int(ulNum), int(pFragDataCache->sequenceNumber.low));
            SetBit(set.bitmap, uint32_t(ulOffset));
            set.numBits = uint32_t(ulOffset) + 1;
        }
    }
}

void WriterProxy::SendNackFrag(StatefulReader*, RequestScheduler*, const SequenceNumber_t&,
                               const FragmentNumberSet&) {
    // joins with the reliable protocol work: a NackFragMessageRequest with this
    // number and set, given the proxy's topic and domain, added to the scheduler.
}

int WriterProxy::check_alive(const Time_t& now, const Duration_t& lease) {
    const bool bExpired = ToNanoseconds(m_LastAliveTime) + ToNanoseconds(lease) < ToNanoseconds(now);
    if (bExpired && m_Alive != 0) {
        m_Alive = 0;
        return -1;
    }
    if (!bExpired && m_Alive == 0) {
        m_Alive = 1;
        return 1;
    }
    return 0;
}
