// Abstract protocol writer: sequence numbering, the history cache handed over by
// the DataWriterImpl, liveliness bookkeeping. new_change and skipSequenceNumber
// may run on several threads at once (applications, and discovery's timers and
// process thread for the built-in writers): the counter is atomic. The liveliness
// pair takes m_LivelinessMutex, as the timer thread checks while writers assert.
#pragma once

#include <atomic>
#include <cstdint>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "core/Mutex.h"
#include "rtps/Endpoint.h"

class CacheChange;
class HistoryCache;
class RequestScheduler;
class WriterEventSink;

class Writer : public Endpoint {
public:
    // pSchedulers: element 0 the immediate, element 1 the periodic scheduler
    // (may be null, giving no schedulers).
    Writer(const GUID_t& guidValue, const DataWriterQos& attributes, RequestScheduler* const* pSchedulers);
    ~Writer() override;

    int getEndpointDuration(Time_t& duration) override;

    // Number of matched readers (stateful) or reader locators (stateless).
    virtual uint32_t getMatchedCount() = 0;
    // Sends one change; 0, or 1 when the send could not be started.
    virtual ReturnCode_t DataSend(CacheChange* pCacheChange) = 0;
    // Removes a change from the history (and from the reader bookkeeping).
    virtual int removeChange(SequenceNumber_t seqNum) = 0;

    // A change with the next sequence number (the first is 1), this writer's
    // GUID and its own copy of the data (none for a length of 0). Null when
    // memory is short.
    CacheChange* new_change(const void* pData, uint32_t uiLength, uint16_t kind,
                            const InstanceHandle_t& instanceHandle);
    // Spends a sequence number, keeping this counter in step with the
    // DataWriterImpl's when write gives up for want of readers.
    void skipSequenceNumber();
    // Reports a missed lease once, on the transition from active. `now` is the
    // public clock. Returns 0.
    int checkLiveliness(Time_t now);
    // Marks the writer alive if its liveliness kind equals uiKind. Returns 0.
    int assertLiveliness(uint32_t uiKind);

    // The layer above (the DataWriterImpl) through its narrow sink interface.
    void setDataWriter(WriterEventSink* pDataWriter) { m_DataWriter = pDataWriter; }
    WriterEventSink* getDataWriter() const { return m_DataWriter; }
    void setWriterCache(HistoryCache* pCache) { m_WriterCache = pCache; }
    HistoryCache* getWriterCache() const { return m_WriterCache; }
    const DataWriterQos& getQos() const { return m_Qos; }
    RequestScheduler* getScheduler(int iIndex) const;
    SequenceNumber_t getLastChangeSequenceNumber() const;
    uint8_t getLivelinessActive();
    Time_t getLastLivelinessTime();

    // The public clock: milliseconds since system start as seconds and nanoseconds.
    static Time_t PublicClockNow();

protected:
    // Tells the DataWriterImpl that the lease was missed.
    void notifyLivelinessLost();

    uint8_t pushMode;                               // read by matched_reader_add to no effect
    Time_t heartbeatPeriod;                         // not used: heartbeats run on the scheduler's period
    Time_t nackResponseDelay;                       // not used: a NACK is answered at once
    std::atomic<int64_t> lastChangeSequenceNumber;  // the last number handed out
    HistoryCache* m_WriterCache;                    // owned by the DataWriterImpl
    Time_t m_Duration;                              // answered by getEndpointDuration
    WriterEventSink* m_DataWriter;                  // not owned; the layer above
    RequestScheduler* m_Schedulers[2];
    DataWriterQos m_Qos;
    Time_t m_LastLivelinessTime;
    uint8_t m_LivelinessActive;
    Mutex m_LivelinessMutex;  // guards the two fields above
};
