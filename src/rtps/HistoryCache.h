// Bounded store of the changes of one endpoint, ordered by a 64-bit key, with a
// take-and-return discipline. Called from the application, process and send
// threads; every operation takes m_Mutex, and AddChange first the space
// semaphore (order: semaphore, then mutex). Nothing is called out with the lock held.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "BasicTypes.h"
#include "rtps/CacheChange.h"

class Mutex;
class Semaphore;

class HistoryCache {
public:
    // Clock of the lifespan sweep; the RTPS timestamp clock unless replaced.
    typedef Time_t (*time_source)();

    explicit HistoryCache(uint32_t uiCapacity);
    // Frees every change held in the map with its payload.
    virtual ~HistoryCache();

    HistoryCache(const HistoryCache&) = delete;
    HistoryCache& operator=(const HistoryCache&) = delete;

    // Log domain key and topic name, used only in log texts. Returns 0.
    int SetTopic(uint32_t uiDomainId, const std::string& strTopicName);

    // Blocks while the cache is full, until a removal gives room. A change
    // whose key is already present is neither inserted nor freed. Returns 0.
    // *pbKept (when given) tells whether this change went in.
    int AddChange(CacheChange* pCacheChange, bool* pbKept = nullptr);
    // Look-up without removal; the value may be null (taken). The pointer is
    // unprotected afterwards: the caller must be the only remover.
    CacheChange* GetChange(SequenceNumber_t seqNum);
    // Erases the slot and frees the change; 0, or -1 when there is no such key.
    int RemoveChange(SequenceNumber_t seqNum);
    // Borrows a change: its slot stays but holds null until returnChange.
    CacheChange* takeChange(SequenceNumber_t seqNum);
    // Gives a borrowed change back; if its slot was removed meanwhile the
    // record is deleted, its payload left alone. Returns 0.
    int returnChange(CacheChange* pCacheChange);

    // First and last key, taken or not; SEQUENCENUMBER_UNKNOWN when empty.
    SequenceNumber_t GetSeqNumMin();
    SequenceNumber_t GetSeqNumMax();
    // Key of the uiIndex-th entry holding a change (taken slots are not
    // counted), from 0; SEQUENCENUMBER_UNKNOWN if there is none.
    SequenceNumber_t GetSeqNumAt(uint32_t uiIndex);

    uint32_t GetCapacity() const { return m_Capacity; }
    uint32_t GetChangeCount();
    // Taken slots count: the map size is compared, not the change count.
    bool IsFull();

    // Drops every change whose lifespan has run out.
    void RemoveExpiredChanges();

    uint32_t GetDomainId() const { return m_DomainId; }
    const std::string& GetTopicName() const { return m_TopicName; }

    // Test seam: replaces the clock of every cache; nullptr restores it.
    static void SetTimeSource(time_source pSource);

private:
    // Writes a formatted failure text under the info code.
    void WriteLog(char* szLog);

    std::map<SequenceNumber_t, CacheChange*> m_ChangesMap;  // null value: taken
    const uint32_t m_Capacity;
    uint32_t m_ChangeCount;  // entries with a non-null value
    Mutex* m_Mutex;
    Semaphore* m_SpaceSemaphore;  // two-state; a token lets one add proceed
    uint32_t m_DomainId;
    std::string m_TopicName;

    // Changes dropped by the lifespan sweep. The sweep does not free them, as
    // a holder of the pointer may still read them; they are parked here and
    // freed only with the cache.
    std::list<CacheChange*> m_ExpiredChanges;
};
