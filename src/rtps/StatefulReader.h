// The only reader class, best effort and reliable alike: one WriterProxy per
// matched writer, ordering, fragment reassembly and delivery into the reader
// cache. Runs on the process thread (or Discovery) with the reader borrowed;
// no lock of its own; the cache and the layer above lock for themselves.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "rtps/Reader.h"

class CacheChange;
class WriterProxy;
class AcknackMessageRequest;

class StatefulReader : public Reader {
public:
    StatefulReader(const GUID_t& guidValue, const DataReaderQos& attributes,
                   RequestScheduler* const* pSchedulers);
    // Deletes the proxies and the changes they still hold.
    ~StatefulReader() override;

    int DataMessageReceive(const MessageReceiver& receiver, const DataSubMessage& message,
                           const std::list<Parameter>& inlineQos, const octet* pData,
                           uint32_t uiLength) override;
    int DataFragMessageReceive(const MessageReceiver& receiver, const DataFragSubMessage& message,
                               const dataFrag& fragment, const std::list<Parameter>& inlineQos,
                               const octet* pData, uint32_t uiLength) override;
    int HeartBeatMessageReceive(const MessageReceiver& receiver, const heartBeatSubMessage& message) override;
    // Never reached from the wire: GAP submessages are not routed to readers.
    int GapMessageReceive(const MessageReceiver& receiver, const stGapSubMessage& message) override;

    // Takes ownership of the proxy. 0, or 1 when null or the writer is matched already.
    int matched_writer_add(WriterProxy* pWriterProxy);
    // Deletes the matched proxy of that writer. 0, or 1 when null or unknown.
    int matched_writer_remove(WriterProxy* pWriterProxy);
    // The proxy of a matched writer, or null (logged).
    WriterProxy* matched_writer_lookup(const GUID_t& writerGuid);

    // Delivers, in order, every change that the proxy has ready. Returns 0.
    int submitAvailableData(WriterProxy* pWriterProxy);
    // Delivers at once, in order of arrival, with no duplicate check. Returns 0.
    int BestEffortDataMessageReceive(CacheChange* pCacheChange);
    // Delivers the next number of its writer, parks any other. Takes the change.
    // 0, or 1 when the writer is not matched (the change is then freed).
    int ReliableDataMessageReceive(CacheChange* pCacheChange);
    // The preemptive ACKNACK of the built-in SEDP readers. Returns 0.
    int addPeriodicAckNack(WriterProxy* pWriterProxy, const SequenceNumberSet& set);

    // Lease check of the matched writers against `now` (public clock). Returns 0.
    int checkLiveliness(Time_t now);
    // A liveliness assertion from the remote participant `remote`. Returns 0.
    int assertLiveliness(GUID_t remote, Time_t now, uint32_t uiKind);

    size_t getMatchedWriterCount() const { return m_MatchedWriter.size(); }
    // Bytes held in parked changes and reassembly stores, over all proxies.
    uint64_t getHeldBytes() const;
    // The bound on those bytes (READER_HELD_BYTES_MAX unless lowered, as the fuzz harness does
    // to reach the drop paths often).
    void setHeldBytesMax(uint64_t ulMax) { m_HeldBytesMax = ulMax; }

protected:
    std::map<GUID_t, WriterProxy*> m_MatchedWriter;  // owned proxies
    SequenceNumber_t m_CacheKeyCounter;              // local delivery numbering
    AcknackMessageRequest* m_PeriodicAckNack;        // null unless the SEDP preemptive ACKNACK runs
    uint64_t m_HeldBytesMax;                         // READER_HELD_BYTES_MAX; a subclass may set another

private:
    // Which full-cache text a delivery path writes when it makes room.
    enum DeliveryPath { BEST_EFFORT_PATH, RELIABLE_PATH, SUBMIT_PATH };

    // Gives the change its cache key and adds it, removing the oldest key
    // first when the cache is full. Returns false when the cache did not keep
    // it (its key was taken already).
    bool AddToReaderCache(CacheChange* pCacheChange, DeliveryPath path);
    // Hands the change to the layer above; a change the cache did not keep is
    // freed afterwards, as nobody holds it then.
    void NotifyDataReader(CacheChange* pCacheChange, bool bKept);
    void AssignCacheKey(CacheChange* pCacheChange);
    // Exclusive ownership: true when the change of this writer must be dropped.
    bool IsNotOwner(const GUID_t& writerGuid);
    // The matched proxy, or null, without a log line.
    WriterProxy* FindProxy(const GUID_t& writerGuid) const;
    bool IsBuiltinTopic() const;
    const std::string& TopicName() const;
    int LogKey() const;
    void WriteLog(char* szLog, int iCode = 4240) const;
    // "[StatefulReader::<szOperation>] <szReason>: <szWhat> dropped TopicName = .. Seq = .."
    void LogDrop(const char* szOperation, const char* szReason, const char* szWhat,
                 const SequenceNumber_t& seqNum) const;
    // Whether the first fragment of a sample not yet under way may start a
    // store; logs the drop when not. Best effort makes room by dropping the
    // older samples instead.
    bool AdmitsNewSample(WriterProxy* pWriterProxy, const SequenceNumber_t& writerSN, uint64_t ulCharge);

    // Answers a heartbeat with one ACKNACK carrying `set`, on the immediate scheduler.
    virtual void SendAckNack(WriterProxy* pWriterProxy, const SequenceNumberSet& set);
    // Takes m_PeriodicAckNack out of the periodic scheduler and deletes it.
    void RemovePeriodicAckNack();
};
