// State of one data reader: the delivery cache that its protocol reader fills,
// the listener and the deadline, ownership and status records. DataReceive runs
// on the participant's "_DIST" thread, the deadline callback on a timer thread,
// read and take on application threads. The cache guards itself; m_pStatusMutex
// (a leaf) guards only the owner and status records against the timer threads.
#ifndef MORVODDS_DCPS_DATAREADERIMPL_H
#define MORVODDS_DCPS_DATAREADERIMPL_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "BasicTypes.h"
#include "DDSListener.h"
#include "DataReader.h"
#include "Entity.h"
#include "QosPolicy.h"
#include "StatusTypes.h"
#include "rtps/ReaderDataSink.h"

class SubscriberImpl;
class TopicDescriptionImpl;
class StatefulReader;
class HistoryCache;
class CacheChange;
class MorvoTimer;
class Mutex;
class FilterExpression;

class DataReaderImpl : public DomainEntity, public ReaderDataSink {
public:
    // Makes the facade and the delivery cache, and starts the deadline timer
    // when the deadline is finite. The protocol reader is linked afterwards.
    DataReaderImpl(SubscriberImpl* pSubscriber, TopicDescriptionImpl* pTopic, const DataReaderQos& qos,
                   DataReaderListener* pListener, unsigned long mask);
    // Stops the deadline timer, then deletes the cache and the facade. The protocol
    // reader must be gone already: it points at the cache.
    virtual ~DataReaderImpl();
    // 0 announces the reader, 1 withdraws it; nothing for the built-in topics.
    virtual int enable(int iDispose);

    DataReaderImpl(const DataReaderImpl&) = delete;
    DataReaderImpl& operator=(const DataReaderImpl&) = delete;

    // ---- from the protocol reader (ReaderDataSink), process and timer threads
    int DataReceive(CacheChange* pCacheChange) override;
    GUID_t getOwnerGuid() override;
    void setLastSequenceNumber(const SequenceNumber_t& seqNum) override;
    void livelinessChanged(bool bAlive) override;

    // ---- read side, application threads: 0, or 11 when nothing was there
    ReturnCode_t read(std::vector<UserData>& data_values, SampleInfoSeq& sample_infos, int max_samples,
                      unsigned sample_states, unsigned view_states, unsigned instance_states);
    ReturnCode_t take(std::vector<UserData>& data_values, SampleInfoSeq& sample_infos, int max_samples,
                      unsigned sample_states, unsigned view_states, unsigned instance_states);
    ReturnCode_t read_next_sample(UserData& data_value, SampleInfo& sample_info);
    ReturnCode_t take_next_sample(UserData& data_value, SampleInfo& sample_info);

    // ---- exclusive ownership, offered by Discovery on each match
    // The first writer becomes the owner; a later one replaces it only when strictly stronger.
    void offerOwnership(const GUID_t& writerGuid, int iStrength);
    // The owner's writer has gone: nobody owns the topic until the next offer.
    void ownerGone(const GUID_t& writerGuid);
    int getOwnerStrength();

    // ---- status records, updated by Discovery
    // A newly matched writer counts as alive: alive and its change +1, no callback.
    void writerMatchedAlive();
    // One more matched writer: updates the record, then tells the monitor listener
    // and, when the mask asks for it, the reader's own listener.
    void subscriptionMatched(const InstanceHandle_t& writerHandle);
    ReturnCode_t get_subscription_matched_status(SubscriptionMatchedStatus& status);
    LivelinessChangedStatus getLivelinessChangedStatus();
    RequestedDeadlineMissedStatus getRequestedDeadlineMissedStatus();

    // ---- plain accessors
    // Stores the listener (the static path gives an existing reader a new one). Returns 0.
    ReturnCode_t set_listener(DataReaderListener* pListener, unsigned long mask);
    DataReaderListener* get_listener() const { return m_pListener.load(); }
    ReturnCode_t get_qos(DataReaderQos& qos) const;
    const DataReaderQos& getQos() const { return m_Qos; }
    unsigned long getMask() const { return m_Mask; }
    DataReader* getFacade() const { return m_pDataReader; }
    void setFacade(DataReader* pFacade) { m_pDataReader = pFacade; }
    SubscriberImpl* getSubscriberImpl() const { return m_pSubscriberImpl; }
    TopicDescriptionImpl* getTopicDescriptionImpl() const { return m_pTopicDescriptionImpl; }
    const std::string& getTopicName() const { return m_strTopicName; }
    HistoryCache* getHistoryCache() const { return m_pHistoryCache; }
    StatefulReader* getReader() const { return m_pReader; }
    // Links the protocol reader both ways: it gets this sink and the cache.
    void setReader(StatefulReader* pReader);
    GUID_t getGuid() const;
    SequenceNumber_t getLastSequenceNumber() const { return m_LastSeqNum; }
    void setFilterExpression(FilterExpression* pFilter) { m_pFilterExpression = pFilter; }
    FilterExpression* getFilterExpression() const { return m_pFilterExpression; }
    int getLogId() const { return m_iLogId; }

private:
    static void DeadlineTimerCallback(void* pArgument, unsigned char flag);
    void OnDeadline();
    // Inline parameters and the built-in topics' table steps (Discovery).
    void RunDiscoverySteps(CacheChange* pCacheChange);
    // 0 keeps the sample, anything else drops it.
    int RunContentFilter(CacheChange* pCacheChange);
    // The listener's data callback, subject to the time-based filter.
    void NotifyDataAvailable(DataReaderListener* pListener);
    // Copies (bTake false) or hands over (bTake true) the newest sample.
    ReturnCode_t NextSample(UserData& data_value, bool bTake);
    // read (bTake false: copies) and take (true: hands the buffers over): NO_DATA,
    // logged with szNoDataFormat (given the topic name), on an empty cache; else
    // both sized to the count and filled.
    ReturnCode_t CollectSamples(std::vector<UserData>& data_values, SampleInfoSeq& sample_infos,
                                const char* szNoDataFormat, bool bTake);
    bool IsBuiltinTopic() const;
    void Log(const char* szText, int iCode) const;

    DataReader* m_pDataReader;                      // owned facade
    SubscriberImpl* m_pSubscriberImpl;              // owner
    TopicDescriptionImpl* m_pTopicDescriptionImpl;  // borrowed; may be a content-filtered topic
    DataReaderQos m_Qos;                            // deep copy, multicast ports filled in
    std::atomic<DataReaderListener*> m_pListener;   // borrowed; read on the timer thread
    unsigned long m_Mask;
    StatefulReader* m_pReader;              // owned by the RTPS participant
    HistoryCache* m_pHistoryCache;          // owned
    MorvoTimer* m_pDeadlineTimer;           // null unless the deadline is finite
    std::atomic<bool> m_bNoSampleInPeriod;  // cleared per sample, set by the timer
    GUID_t m_ExclusiveOwner;                // GUID_UNKNOWN when none
    int m_iOwnerStrength;
    uint64_t m_ullLastDeliveryTime;  // HighResClock counter, time-based filter
    RequestedDeadlineMissedStatus m_DeadlineStatus;
    SubscriptionMatchedStatus m_MatchedStatus;
    LivelinessChangedStatus m_LivelinessStatus;
    FilterExpression* m_pFilterExpression;  // borrowed from the topic; null for a plain one
    SequenceNumber_t m_LastSeqNum;          // the writer's number, for the receive log

    Mutex* m_pStatusMutex;  // owner and status records only
    int m_iLogId;
    std::string m_strTopicName;  // the description's name, fixed at creation
};

#endif
