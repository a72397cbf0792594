// State of a data writer: the QoS of creation, the history cache it hands to its
// protocol writer, the deadline timer and the status records. write runs on any
// application thread and on Discovery's timer threads, the deadline callback on
// its timer thread, livelinessLost on the lease-check timer thread. No lock of its
// own: the cache and the protocol writer lock themselves.
#ifndef MORVODDS_DCPS_DATAWRITERIMPL_H
#define MORVODDS_DCPS_DATAWRITERIMPL_H

#include <atomic>
#include <cstdint>
#include <list>
#include <string>

#include "BasicTypes.h"
#include "DDSListener.h"
#include "Entity.h"
#include "QosPolicy.h"
#include "StatusTypes.h"
#include "rtps/WriterEventSink.h"

class CacheChange;
class DataWriter;
class HistoryCache;
class MorvoTimer;
class PublisherImpl;
class TopicImpl;
class Writer;

class DataWriterImpl : public DomainEntity, public WriterEventSink {
public:
    // Makes the facade, the history cache (capacity history.depth, whatever the kind)
    // and, for a finite deadline period, the deadline timer.
    DataWriterImpl(PublisherImpl* pPublisher, TopicImpl* pTopic, const DataWriterQos& qos,
                   DataWriterListener* pListener, unsigned long mask);
    // Stops the deadline timer, then destroys the cache and the facade.
    ~DataWriterImpl() override;

    DataWriterImpl(const DataWriterImpl&) = delete;
    DataWriterImpl& operator=(const DataWriterImpl&) = delete;

    // 0 announces the writer, 1 withdraws it; nothing for the four discovery topics.
    // Returns Discovery's code.
    virtual ReturnCode_t enable(int iWithdraw);

    // The one write path of every facade overload. 0 or the send's result, 200 for
    // a volatile writer without readers, 38 when no change could be made.
    ReturnCode_t write(const char* pData, unsigned int uiLength, const InstanceHandle_t& handle,
                       std::list<Parameter>& parameters, const Time_t& timestamp, const GUID_t& reader);
    // Sends the participant's manual liveliness message; always 0.
    ReturnCode_t assert_liveliness();

    // Links this writer and the protocol writer both ways and hands it the cache.
    void setRtpsWriter(Writer* pWriter);
    Writer* getRtpsWriter() const { return m_pWriter; }
    HistoryCache* getHistoryCache() const { return m_pHistoryCache; }

    DataWriter* getFacade() const { return m_pDataWriter; }
    void setFacade(DataWriter* pFacade) { m_pDataWriter = pFacade; }
    PublisherImpl* getPublisherImpl() const { return m_pPublisherImpl; }
    TopicImpl* getTopicImpl() const { return m_pTopicImpl; }
    const std::string& getTopicName() const;
    const DataWriterQos& getQos() const { return m_Qos; }
    DataWriterListener* getListener() const { return m_pListener; }
    unsigned long getMask() const { return m_ulMask; }
    // The protocol writer's GUID; GUID_UNKNOWN before the link.
    GUID_t getGuid() const;
    int getLogId() const;

    // Discovery updates the matched record on every match.
    PublicationMatchedStatus& getPublicationMatchedStatus() { return m_PublicationMatchedStatus; }
    const OfferedDeadlineMissedStatus& getOfferedDeadlineMissedStatus() const { return m_DeadlineStatus; }
    const LivelinessLostStatus& getLivelinessLostStatus() const { return m_LivelinessLostStatus; }
    // Calls of write so far; only the log lines print it.
    uint64_t getWriteCount() const { return m_uiWriteCount.load(std::memory_order_relaxed); }

    // WriterEventSink: counts the loss and tells the listener when the mask asks for it.
    void livelinessLost() override;

    // Deadline timer callback; pArgument is the DataWriterImpl.
    static void DeadlineCallback(void* pArgument, unsigned char flag);

private:
    // Write steps.
    void LogWrite(const char* pData, unsigned int uiLength, uint32_t uiWriteCount);
    // Makes room in a full cache by the history kind; may wait for acknowledgements.
    void MakeRoom(CacheChange* pNewChange);
    void AssertLivelinessAfterWrite();
    void DeadlinePeriodEnded();
    void WriteLog(const char* szText) const;

    // Seams towards the stateful writer and Discovery.
    bool IsAcknowledgedByAll(const SequenceNumber_t& seqNum);
    void SendParticipantLivelinessMessage();
    void HandLeaseToLeaseCheck();
    void HandLeaseToAutomaticAssertion();
    ReturnCode_t AnnounceToDiscovery(int iWithdraw);

    DataWriter* m_pDataWriter;        // owned facade
    PublisherImpl* m_pPublisherImpl;  // owner
    TopicImpl* m_pTopicImpl;          // borrowed
    DataWriterQos m_Qos;              // never changed after creation
    DataWriterListener* m_pListener;  // borrowed; set only at creation
    unsigned long m_ulMask;
    Writer* m_pWriter;              // owned by the RTPS participant
    HistoryCache* m_pHistoryCache;  // owned; the protocol writer uses it
    MorvoTimer* m_pDeadlineTimer;   // null unless the period is finite
    // Cleared by write, set by the deadline timer. Atomic only to keep the two
    // threads free of a data race; no ordering is implied.
    std::atomic<bool> m_bNoWriteInPeriod;
    OfferedDeadlineMissedStatus m_DeadlineStatus;
    PublicationMatchedStatus m_PublicationMatchedStatus;
    LivelinessLostStatus m_LivelinessLostStatus;
    std::atomic<uint64_t> m_uiWriteCount;  // the write counter, from zero
};

#endif
