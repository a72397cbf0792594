// A reader's view of one matched remote writer: which numbers it has announced,
// which have come, how far delivery has reached, and the changes parked until a
// gap closes or the last fragment comes. No lock: only the borrower of the
// owning StatefulReader touches it (process thread, or the send thread under a borrow).
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "BasicTypes.h"
#include "QosPolicy.h"

class CacheChange;
class RequestScheduler;
class StatefulReader;

// What one remote writer can make a reader hold. Valid traffic stays far below
// each bound; what exceeds one is dropped with a log line, and reliable repair
// brings it again once there is room.
//
// Entries per proxy (a few MB): a writer announces at most its history, and an
// ACKNACK asks for 256 numbers anyway, so a deeper history is repaired in
// rounds as the entries follow the delivery mark.
const uint32_t PROXY_ENTRIES_MAX = 65536;
// Best effort: samples under reassembly per proxy; newer ones push out older ones.
const uint32_t BEST_EFFORT_REASSEMBLY_MAX = 3;
// Reliable: samples under reassembly per proxy. Each heartbeat sends one
// NACK_FRAG per such sample; more in repair at once than a round of requests
// can usefully carry only multiplies requests, not progress.
const uint32_t RELIABLE_REASSEMBLY_MAX = 64;
// Gaps (ranges of missing fragments) per sample: a sample of the largest
// length in 64512-octet fragments has 66,577 of them, so at most 33,289 gaps.
const uint32_t FRAGMENT_GAPS_MAX = 65536;
// Bytes per reader in parked changes and reassembly stores, over all its
// proxies. The first sample in line of each writer (is_first_in_line) is
// exempt, so that every 32-bit sample length (up to 4 GiB-1) still completes.
const uint64_t READER_HELD_BYTES_MAX = uint64_t(1) << 30;

// State of one number of the remote writer.
struct ChangeFromWriter {
    static constexpr uint32_t LOST = 0;      // transient: set just before the entry is erased
    static constexpr uint32_t MISSING = 1;   // announced by a heartbeat, not received
    static constexpr uint32_t RECEIVED = 2;  // received, or passed over by a gap
    static constexpr uint32_t UNKNOWN = 3;   // no heartbeat has covered it yet

    uint32_t status = UNKNOWN;
    uint8_t is_relevant = 1;
    CacheChange* change = nullptr;  // parked change or reassembly store; owned by the proxy
    // What `change` adds to the proxy's totals, as last counted (change_updated).
    uint64_t heldBytes = 0;
    uint8_t counted_reassembling = 0;
};

class WriterProxy {
public:
    WriterProxy(const GUID_t& remoteWriterGuid, const std::list<Locator_t>& unicastLocators,
                const std::list<Locator_t>& multicastLocators);
    // Frees every change still parked here, with its payload.
    virtual ~WriterProxy();

    WriterProxy(const WriterProxy&) = delete;
    WriterProxy& operator=(const WriterProxy&) = delete;

    // The remote writer's QoS values as discovered; only the lifespan is used.
    void setWriterData(const DataWriterQos& writerQos) { m_Qos = writerQos; }
    const DataWriterQos& getWriterData() const { return m_Qos; }

    // Moves the delivery mark over every received number that follows it and
    // returns it. The entries passed stay for getAvailableChanges.
    SequenceNumber_t available_changes_max();
    // Advances the delivery mark by one and drops that number's entry; a
    // change parked there other than pDelivered (which went to the reader
    // cache) is freed.
    void available_change_next(const CacheChange* pDelivered);
    // Parks a change (a former pointer of that number is replaced and freed);
    // marks the number received unless it is a sample still being reassembled.
    // Callers check refusal() first.
    void received_change(CacheChange* pCacheChange);
    // Null when a change for seqNum may be held: its entry exists or there is
    // room for one, and ulReaderBytes (the reader's total with it) stays
    // within ulBound; else the bound that refuses it, for a log text. The
    // first number in line is never refused.
    const char* refusal(const SequenceNumber_t& seqNum, uint64_t ulReaderBytes, uint64_t ulBound) const;
    // The next number to deliver, or at or below the lowest entry.
    bool is_first_in_line(const SequenceNumber_t& seqNum) const;
    // Recounts the bytes and reassembly state of an entry whose change was
    // modified in place.
    void change_updated(ChangeFromWriter& entry);
    // Detaches the change of an entry without freeing it; the entry stays.
    CacheChange* release_change(ChangeFromWriter& entry);
    // 0, or 1 when no entry exists for the number.
    int received_change_set(const SequenceNumber_t& seqNum);
    void irrelevant_change_set(const SequenceNumber_t& seqNum);
    // Marks every unknown number from first to last as missing, creating
    // entries only while fewer than PROXY_ENTRIES_MAX exist (logged once when
    // it stops there). Work is bounded by that cap, not by the range. Returns 0.
    int missing_changes_update(const SequenceNumber_t& firstSN, const SequenceNumber_t& lastSN);
    // Drops every number below firstSN: the writer no longer offers it.
    void lost_changes_update(const SequenceNumber_t& firstSN);
    void unknown_changes_update(const SequenceNumber_t& lastSN);
    // The missing numbers as a set of at most 256 bits; the rest waits for the
    // next heartbeat. `set` must arrive empty.
    void missing_changes(SequenceNumberSet& set);
    // Hands over the next relevant parked change and erases its entry; null
    // when there is none or the first entry lies beyond maxSeq.
    CacheChange* getAvailableChanges(const SequenceNumber_t& maxSeq);
    // The entry of a number, created as UNKNOWN if absent.
    ChangeFromWriter& change_entry(const SequenceNumber_t& seqNum);
    // Keeps at most uiCount entries, dropping the oldest with their changes.
    void remove_oldest_changes(uint32_t uiCount);
    // Drops every entry below seqNum with its change; the mark stays.
    void remove_changes_below(const SequenceNumber_t& seqNum);
    // Asks, through pScheduler, for the missing fragments of every sample
    // that a heartbeat announced and that is only partly reassembled.
    void fragment_nack(StatefulReader* pReader, RequestScheduler* pScheduler);
    // Fills `set` with the missing fragments of one reassembly store, first
    // adding those past the highest one seen up to the announced count.
    // Prints one console line per requested fragment. At most 256 bits.
    void fragment_set(CacheChange* pFragDataCache, FragmentNumberSet& set);
    // -1 on the transition to not alive, 1 on the transition back, else 0.
    int check_alive(const Time_t& now, const Duration_t& lease);

    void setLastAliveTime(const Time_t& lastAliveTime) { m_LastAliveTime = lastAliveTime; }
    Time_t getLastAliveTime() const { return m_LastAliveTime; }
    uint8_t getAlive() const { return m_Alive; }
    void getLifespan(Time_t& lifespan) const { lifespan = m_Qos.lifespan.duration; }
    void setHeartbeatCount(uint32_t uiCount) { m_LastHeartbeatCount = uiCount; }
    uint32_t getHeartbeatCount() const { return m_LastHeartbeatCount; }
    void setTopic(uint32_t uiDomainId, const std::string& strTopicName);

    const GUID_t& getGuid() const { return remoteWriterGuid; }
    const std::list<Locator_t>& getUnicastLocatorList() const { return unicastLocatorList; }
    const std::list<Locator_t>& getMulticastLocatorList() const { return multicastLocatorList; }
    SequenceNumber_t getAvailableSeqNum() const { return m_AvailableSeqNum; }
    const std::map<SequenceNumber_t, ChangeFromWriter>& getChangesFromWriter() const {
        return m_ChangesFromWriter;
    }
    uint32_t getDomainId() const { return m_DomainId; }
    // Bytes held in parked changes and reassembly stores (CacheChange::HeldBytes).
    uint64_t getHeldBytes() const { return m_HeldBytes; }
    // Samples under reassembly.
    uint32_t getReassemblyCount() const { return m_ReassemblyCount; }
    const std::string& getTopicName() const { return m_TopicName; }

    // Frees a change that nobody else holds: its payload, then the record.
    static void DeleteChange(CacheChange* pCacheChange);

protected:
    GUID_t remoteWriterGuid;
    std::list<Locator_t> unicastLocatorList;
    std::list<Locator_t> multicastLocatorList;
    // Only numbers above m_AvailableSeqNum stay, but for those passed and not yet handed over.
    std::map<SequenceNumber_t, ChangeFromWriter> m_ChangesFromWriter;
    SequenceNumber_t m_AvailableSeqNum;  // all up to here delivered or passed over
    uint32_t m_LastHeartbeatCount;       // ends the preemptive ACKNACK
    DataWriterQos m_Qos;
    uint8_t m_Alive;
    Time_t m_LastAliveTime;      // public clock
    uint32_t m_DomainId;         // log key
    std::string m_TopicName;     // log texts only
    uint64_t m_HeldBytes;        // the entries' heldBytes summed
    uint32_t m_ReassemblyCount;  // the entries' counted_reassembling summed

private:
    // Builds the NACK_FRAG request for one sample and queues it on pScheduler.
    virtual void SendNackFrag(StatefulReader* pReader, RequestScheduler* pScheduler,
                              const SequenceNumber_t& seqNum, const FragmentNumberSet& set);
    // Frees an entry's change and takes it out of the totals.
    void DropChange(ChangeFromWriter& entry);
    bool IsQueryTopic() const;
    void WriteLog(char* szLog) const;
};
