#include "rtps/HistoryCache.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "core/Mutex.h"
#include "core/Semaphore.h"

namespace {
std::atomic<HistoryCache::time_source> g_TimeSource{nullptr};

Time_t Now() {
    const HistoryCache::time_source pSource = g_TimeSource.load();
    return pSource != nullptr ? pSource() : GetRtpsTimestamp();
}

// Time_t addition with its nanosecond carry, held in 64 bits so that a long
// finite lifespan cannot wrap the seconds into the past.
void ExpiryOf(const Time_t& stamp, const Time_t& lifespan, int64_t& sec, uint64_t& frac) {
    const uint64_t ns = uint64_t(stamp.nanosec) + uint64_t(lifespan.nanosec);
    sec = int64_t(stamp.sec) + int64_t(lifespan.sec) + int64_t(ns / 1000000000ULL);
    frac = ns % 1000000000ULL;
}

bool IsAfter(const Time_t& now, int64_t sec, uint64_t frac) {
    return int64_t(now.sec) > sec || (int64_t(now.sec) == sec && uint64_t(now.nanosec) > frac);
}
}  // namespace

HistoryCache::HistoryCache(uint32_t uiCapacity)
    : m_Capacity(uiCapacity),
      m_ChangeCount(0),
      m_Mutex(new Mutex()),
      m_SpaceSemaphore(new Semaphore(1, 1)),
      m_DomainId(0) {}

HistoryCache::~HistoryCache() {
    for (auto& entry : m_ChangesMap) {
        if (entry.second != nullptr) {
            CacheChange::FreeData(entry.second->data);
            delete entry.second;
        }
    }
    for (CacheChange* pChange : m_ExpiredChanges) {
        CacheChange::FreeData(pChange->data);
        delete pChange;
    }
    delete m_Mutex;
    delete m_SpaceSemaphore;
}

void HistoryCache::SetTimeSource(time_source pSource) {
    g_TimeSource.store(pSource);
}

int HistoryCache::SetTopic(uint32_t uiDomainId, const std::string& strTopicName) {
    m_DomainId = uiDomainId;
    m_TopicName = strTopicName;
    return 0;
}

void HistoryCache::WriteLog(char* szLog) {
    DDSLogManagementFactory::WriteDDSLog(int(m_DomainId), szLog, strlen(szLog), DDSLOG_INFO, GUID_UNKNOWN);
}

int HistoryCache::AddChange(CacheChange* pCacheChange, bool* pbKept) {
    // The token is kept by the add that fills the cache: the next add waits
    // here until a removal hands one back.
    m_SpaceSemaphore->Wait(Semaphore::INFINITE_WAIT);
    m_Mutex->Lock();
    const bool bKept = m_ChangesMap.emplace(pCacheChange->sequenceNumber, pCacheChange).second;
    if (bKept) ++m_ChangeCount;
    if (pbKept != nullptr) *pbKept = bKept;
    if (m_ChangesMap.size() < m_Capacity) m_SpaceSemaphore->Post();
    m_Mutex->Unlock();
    return 0;
}

CacheChange* HistoryCache::GetChange(SequenceNumber_t seqNum) {
    char szLog[200];
    m_Mutex->Lock();
    if (m_ChangesMap.empty()) {
        m_Mutex->Unlock();
        snprintf(szLog, sizeof(szLog),
                 "[HistoryCache::GetChange] m_ChangesMap.empty() and  TopicName = %s SeqNum = %d",
                 m_TopicName.c_str(), int(seqNum.low));
        WriteLog(szLog);
        return nullptr;
    }
    auto it = m_ChangesMap.find(seqNum);
    if (it == m_ChangesMap.end()) {
        m_Mutex->Unlock();
        printf("%d %s Error\n", __LINE__, "HistoryCache::GetChange");
        snprintf(szLog, sizeof(szLog),
                 "[HistoryCache::GetChange] m_ChangesMap.end() and TopicName = %s SeqNum = %d",
                 m_TopicName.c_str(), int(seqNum.low));
        WriteLog(szLog);
        return nullptr;
    }
    CacheChange* pChange = it->second;
    m_Mutex->Unlock();
    return pChange;
}

int HistoryCache::RemoveChange(SequenceNumber_t seqNum) {
    char szLog[200];
    m_Mutex->Lock();
    if (m_ChangesMap.empty()) {
        m_Mutex->Unlock();
        snprintf(szLog, sizeof(szLog),
                 "[HistoryCache::RemoveChange] m_ChangesMap.empty = NULL and TopicName = %s and "
                 "SeqNum = %d",
                 m_TopicName.c_str(), int(seqNum.low));
        WriteLog(szLog);
        return -1;
    }
    auto it = m_ChangesMap.find(seqNum);
    if (it == m_ChangesMap.end()) {
        m_Mutex->Unlock();
        printf("%d %s Error\n", __LINE__, "HistoryCache::RemoveChange");
        snprintf(szLog, sizeof(szLog),
                 "[HistoryCache::RemoveChange] m_ChangesMap.end() and TopicName = %s and SeqNum = "
                 "%d",
                 m_TopicName.c_str(), int(seqNum.low));
        WriteLog(szLog);
        return -1;
    }
    if (it->second != nullptr) {
        CacheChange::FreeData(it->second->data);
        delete it->second;
        --m_ChangeCount;
    }
    // A change out on loan loses its slot too; returnChange deletes it later.
    m_ChangesMap.erase(it);
    m_SpaceSemaphore->Post();
    m_Mutex->Unlock();
    return 0;
}

CacheChange* HistoryCache::takeChange(SequenceNumber_t seqNum) {
    m_Mutex->Lock();
    auto it = m_ChangesMap.find(seqNum);
    if (it == m_ChangesMap.end()) {
        const size_t mapSize = m_ChangesMap.size();
        m_Mutex->Unlock();
        char szLog[200];
        snprintf(szLog, sizeof(szLog),
                 "[HistoryCache::takeChange] pCacheChange = NULL and TopicName = %s Seq = %d "
                 "MapSize = %d",
                 m_TopicName.c_str(), int(seqNum.low), int(mapSize));
        WriteLog(szLog);
        return nullptr;
    }
    CacheChange* pChange = it->second;
    if (pChange != nullptr) {
        it->second = nullptr;
        --m_ChangeCount;
    }
    m_Mutex->Unlock();
    return pChange;
}

int HistoryCache::returnChange(CacheChange* pCacheChange) {
    m_Mutex->Lock();
    auto it = m_ChangesMap.find(pCacheChange->sequenceNumber);
    if (it != m_ChangesMap.end()) {
        it->second = pCacheChange;
        ++m_ChangeCount;
    } else {
        // The slot was removed while the change was out on loan. The record
        // goes, the payload is left unfreed on purpose: this is a known leak
        // of one payload per such race (allocated by CacheChange::AllocData).
        delete pCacheChange;
    }
    m_Mutex->Unlock();
    return 0;
}

SequenceNumber_t HistoryCache::GetSeqNumMin() {
    m_Mutex->Lock();
    if (m_ChangesMap.empty()) {
        m_Mutex->Unlock();
        // Logged as a failure although an empty cache is normal.
        char szLog[200];
        snprintf(szLog, sizeof(szLog), "[HistoryCache::GetSeqNumMin] m_ChangesMap.empty and TopicName = %s",
                 m_TopicName.c_str());
        WriteLog(szLog);
        return SEQUENCENUMBER_UNKNOWN;
    }
    const SequenceNumber_t seqNum = m_ChangesMap.begin()->first;
    m_Mutex->Unlock();
    return seqNum;
}

SequenceNumber_t HistoryCache::GetSeqNumMax() {
    m_Mutex->Lock();
    if (m_ChangesMap.empty()) {
        m_Mutex->Unlock();
        char szLog[200];
        snprintf(szLog, sizeof(szLog), "[HistoryCache::GetSeqNumMax] m_ChangesMap.empty and TopicName = %s",
                 m_TopicName.c_str());
        WriteLog(szLog);
        return SEQUENCENUMBER_UNKNOWN;
    }
    const SequenceNumber_t seqNum = m_ChangesMap.rbegin()->first;
    m_Mutex->Unlock();
    return seqNum;
}

SequenceNumber_t HistoryCache::GetSeqNumAt(uint32_t uiIndex) {
    SequenceNumber_t seqNum = SEQUENCENUMBER_UNKNOWN;
    uint32_t uiCount = 0;
    m_Mutex->Lock();
    for (const auto& entry : m_ChangesMap) {
        if (entry.second == nullptr) continue;
        if (uiCount == uiIndex) {
            seqNum = entry.first;
            break;
        }
        ++uiCount;
    }
    m_Mutex->Unlock();
    return seqNum;
}

uint32_t HistoryCache::GetChangeCount() {
    m_Mutex->Lock();
    const uint32_t uiCount = m_ChangeCount;
    m_Mutex->Unlock();
    return uiCount;
}

bool HistoryCache::IsFull() {
    m_Mutex->Lock();
    const bool bFull = m_ChangesMap.size() == m_Capacity;
    m_Mutex->Unlock();
    return bFull;
}

void HistoryCache::RemoveExpiredChanges() {
    m_Mutex->Lock();
    const Time_t now = Now();
    auto it = m_ChangesMap.begin();
    while (it != m_ChangesMap.end()) {
        CacheChange* pChange = it->second;
        // An infinite lifespan is never added to a time.
        if (pChange == nullptr || pChange->lifespan == DURATION_INFINITE) {
            ++it;
            continue;
        }
        int64_t expirySec;
        uint64_t expiryFrac;
        ExpiryOf(pChange->sourceTimestamp, pChange->lifespan, expirySec, expiryFrac);
        if (!IsAfter(now, expirySec, expiryFrac)) {
            ++it;
            continue;
        }
        // The sweep stays cheap and does not free: the reader side may still
        // hold the pointer it got from GetChange. The record is parked, not
        // reused, and freed with the cache.
        m_ExpiredChanges.push_back(pChange);
        it = m_ChangesMap.erase(it);
        --m_ChangeCount;
        m_SpaceSemaphore->Post();
    }
    m_Mutex->Unlock();
}
