#include "dcps/DataReaderImpl.h"

#include <cstdio>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "DataReader.h"
#include "core/HighResClock.h"
#include "core/MorvoTimer.h"
#include "core/Mutex.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/SubscriberImpl.h"
#include "dcps/TopicDescriptionImpl.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/StatefulReader.h"

// ---------------------------------------------------------------- construction

DataReaderImpl::DataReaderImpl(SubscriberImpl* pSubscriber, TopicDescriptionImpl* pTopic,
                               const DataReaderQos& qos, DataReaderListener* pListener, unsigned long mask)
    : m_pDataReader(nullptr),
      m_pSubscriberImpl(pSubscriber),
      m_pTopicDescriptionImpl(pTopic),
      m_Qos(qos),
      m_pListener(pListener),
      m_Mask(mask),
      m_pReader(nullptr),
      m_pHistoryCache(nullptr),
      m_pDeadlineTimer(nullptr),
      m_bNoSampleInPeriod(true),
      m_ExclusiveOwner(GUID_UNKNOWN),
      m_iOwnerStrength(0),
      m_ullLastDeliveryTime(0),
      m_pFilterExpression(nullptr),
      m_LastSeqNum(),
      m_pStatusMutex(new Mutex()),
      m_iLogId(pSubscriber->getParticipant()->getLogId()),
      m_strTopicName(pTopic->get_name()) {
    new DataReader(this);  // stores itself in m_pDataReader

    // KEEP_ALL is bounded by max_samples; LENGTH_UNLIMITED (-1) becomes the largest bound.
    uint32_t uiCapacity = m_Qos.history.kind == KEEP_ALL_HISTORY_QOS
                              ? uint32_t(m_Qos.resource_limits.max_samples)
                              : uint32_t(m_Qos.history.depth);
    // A time-based filter keeps only the latest sample: the listener skips the
    // others, and the cache must not pile them up either.
    if (m_Qos.time_based_filter.minimum_separation != DURATION_ZERO) {
        m_Qos.history.depth = 1;
        uiCapacity = 1;
    }
    m_pHistoryCache = new HistoryCache(uiCapacity);
    m_pHistoryCache->SetTopic(uint32_t(m_iLogId), m_strTopicName);

    if (m_Qos.deadline.period != DURATION_INFINITE) {
        m_pDeadlineTimer = new MorvoTimer();
        // Timers read a duration's second word as milliseconds.
        m_pDeadlineTimer->Start(unsigned(m_Qos.deadline.period.sec), m_Qos.deadline.period.nanosec,
                                &DataReaderImpl::DeadlineTimerCallback, this);
    }
    if (m_Qos.liveliness.lease_duration != DURATION_INFINITE) {
        // Joins with the liveliness work: Discovery's registerReaderLiveliness takes
        // m_Qos.liveliness.lease_duration for its lease-check timer.
    }
}

DataReaderImpl::~DataReaderImpl() {
    delete m_pDeadlineTimer;  // stops first, waiting for a callback in flight
    m_pDeadlineTimer = nullptr;
    delete m_pHistoryCache;
    m_pHistoryCache = nullptr;
    delete m_pDataReader;
    m_pDataReader = nullptr;
    delete m_pStatusMutex;
    m_pStatusMutex = nullptr;
}

int DataReaderImpl::enable(int iDispose) {
    // Only application readers are announced.
    if (IsBuiltinTopic()) return 0;
    // Joins with the discovery work: return Discovery's announceReader(this, iDispose),
    // which announces (0) or withdraws (1) the reader on "DCPSSubscription".
    (void)iDispose;
    return 0;
}

void DataReaderImpl::setReader(StatefulReader* pReader) {
    m_pReader = pReader;
    if (pReader == nullptr) return;
    pReader->setReaderCache(m_pHistoryCache);
    pReader->setDataReader(this);
}

GUID_t DataReaderImpl::getGuid() const {
    return m_pReader != nullptr ? m_pReader->getGUID() : GUID_UNKNOWN;
}

ReturnCode_t DataReaderImpl::set_listener(DataReaderListener* pListener, unsigned long mask) {
    (void)mask;  // the mask of creation stays
    m_pListener.store(pListener);
    return RETCODE_OK;
}

ReturnCode_t DataReaderImpl::get_qos(DataReaderQos& qos) const {
    qos = m_Qos;
    return RETCODE_OK;
}

bool DataReaderImpl::IsBuiltinTopic() const {
    return DomainParticipantImpl::IsBuiltinTopicName(m_strTopicName);
}

void DataReaderImpl::Log(const char* szText, int iCode) const {
    char szLog[200];
    std::snprintf(szLog, sizeof(szLog), "%s", szText);
    DDSLogManagementFactory::WriteDDSLog(m_iLogId, szLog, std::strlen(szLog), iCode, getGuid());
}

// ---------------------------------------------------------------- delivery

void DataReaderImpl::setLastSequenceNumber(const SequenceNumber_t& seqNum) {
    m_LastSeqNum = seqNum;
}

int DataReaderImpl::DataReceive(CacheChange* pCacheChange) {
    char szLog[200];
    m_bNoSampleInPeriod.store(false);

    RunDiscoverySteps(pCacheChange);
    m_pHistoryCache->RemoveExpiredChanges();

    if (m_pFilterExpression != nullptr && RunContentFilter(pCacheChange) != 0) {
        m_pHistoryCache->RemoveChange(pCacheChange->sequenceNumber);
        return 0;
    }

    // From here on the change may be gone: a listener may take it.
    DataReaderListener* pListener = m_pListener.load();
    if (pListener != nullptr) {
        NotifyDataAvailable(pListener);
    } else if (!IsBuiltinTopic()) {
        std::snprintf(szLog, sizeof(szLog), "[DataReaderImpl::DataReceive] pListen == NULL TopicName = %s",
                      m_strTopicName.c_str());
        Log(szLog, DDSLOG_INFO);
    }

    DDSLogManagementFactory* pLogFactory = DDSLogManagementFactory::GetInstance();
    if (pLogFactory != nullptr && pLogFactory->IsQueryTopic(m_iLogId, m_strTopicName)) {
        std::snprintf(szLog, sizeof(szLog), "[DataReaderImpl::DataReceive] [2] TopicName = %s SeqNum = %d",
                      m_strTopicName.c_str(), int(m_LastSeqNum.low));
        Log(szLog, DDSLOG_INFO);
    }
    return 0;
}

void DataReaderImpl::RunDiscoverySteps(CacheChange* pCacheChange) {
    // Joins with the discovery work. Every reader, built-in or not, hands the
    // change's inline parameters to Discovery's onInlineQos, so that a key marked
    // unregistered removes that remote participant, reader or writer. Then, by
    // topic name: "DCPSParticipant" onParticipantDataAvailable, "DCPSPublication"
    // onPublicationDataAvailable, "DCPSSubscription" onSubscriptionDataAvailable,
    // "DCPSParticipantMessage" onParticipantMessageAvailable; each takes the sample
    // through this reader's take_next_sample.
    (void)pCacheChange;
}

int DataReaderImpl::RunContentFilter(CacheChange* pCacheChange) {
    // Joins with the content filter work: the FilterExpression evaluates the
    // payload behind its four encapsulation octets, pCacheChange->data and
    // pCacheChange->dataLength; a non-zero result drops the sample.
    (void)pCacheChange;
    return 0;
}

void DataReaderImpl::NotifyDataAvailable(DataReaderListener* pListener) {
    const Duration_t& separation = m_Qos.time_based_filter.minimum_separation;
    if (separation == DURATION_ZERO) {
        pListener->on_data_available(m_pDataReader);
        return;
    }
    const uint64_t ullNow = HighResClock::Now();
    const int64_t llElapsedUs = HighResClock::ElapsedMicroseconds(m_ullLastDeliveryTime, ullNow);
    // Seconds go through a 32-bit microsecond count first: separations above
    // about 71 minutes wrap, as they always have.
    const uint32_t uiSeparationUs = uint32_t(separation.sec) * 1000000u;
    const int64_t llSeparationNs = int64_t(uiSeparationUs) * 1000 + int64_t(separation.nanosec);
    if (llElapsedUs * 1000 < llSeparationNs) return;  // too soon: the sample waits in the cache
    pListener->on_data_available(m_pDataReader);
    std::printf("time = %d\n", int(llElapsedUs));
    m_ullLastDeliveryTime = ullNow;
}

// ---------------------------------------------------------------- deadline

void DataReaderImpl::DeadlineTimerCallback(void* pArgument, unsigned char flag) {
    (void)flag;
    static_cast<DataReaderImpl*>(pArgument)->OnDeadline();
}

void DataReaderImpl::OnDeadline() {
    // Not gated by the mask. A reader that never received misses its first period too.
    DataReaderListener* pListener = m_pListener.load();
    if (m_bNoSampleInPeriod.load() && pListener != nullptr) {
        m_pStatusMutex->Lock();
        ++m_DeadlineStatus.total_count;
        const RequestedDeadlineMissedStatus status = m_DeadlineStatus;
        m_pStatusMutex->Unlock();
        pListener->on_requested_deadline_missed(m_pDataReader, status);
    }
    m_bNoSampleInPeriod.store(true);
}

RequestedDeadlineMissedStatus DataReaderImpl::getRequestedDeadlineMissedStatus() {
    m_pStatusMutex->Lock();
    const RequestedDeadlineMissedStatus status = m_DeadlineStatus;
    m_pStatusMutex->Unlock();
    return status;
}

// ---------------------------------------------------------------- exclusive ownership

GUID_t DataReaderImpl::getOwnerGuid() {
    m_pStatusMutex->Lock();
    const GUID_t owner = m_ExclusiveOwner;
    m_pStatusMutex->Unlock();
    return owner;
}

int DataReaderImpl::getOwnerStrength() {
    m_pStatusMutex->Lock();
    const int iStrength = m_iOwnerStrength;
    m_pStatusMutex->Unlock();
    return iStrength;
}

void DataReaderImpl::offerOwnership(const GUID_t& writerGuid, int iStrength) {
    m_pStatusMutex->Lock();
    if (m_ExclusiveOwner == GUID_UNKNOWN || iStrength > m_iOwnerStrength) {
        m_ExclusiveOwner = writerGuid;
        m_iOwnerStrength = iStrength;
    }
    m_pStatusMutex->Unlock();
}

void DataReaderImpl::ownerGone(const GUID_t& writerGuid) {
    m_pStatusMutex->Lock();
    if (m_ExclusiveOwner == writerGuid) {
        m_ExclusiveOwner = GUID_UNKNOWN;
        m_iOwnerStrength = 0;
    }
    m_pStatusMutex->Unlock();
}

// ---------------------------------------------------------------- liveliness and matches

void DataReaderImpl::livelinessChanged(bool bAlive) {
    const int iStep = bAlive ? 1 : -1;
    m_pStatusMutex->Lock();
    m_LivelinessStatus.alive_count += iStep;
    m_LivelinessStatus.alive_count_change += iStep;
    m_LivelinessStatus.not_alive_count -= iStep;
    m_LivelinessStatus.not_alive_count_change -= iStep;
    const LivelinessChangedStatus status = m_LivelinessStatus;
    m_pStatusMutex->Unlock();
    DataReaderListener* pListener = m_pListener.load();
    if (pListener != nullptr && (m_Mask & LIVELINESS_CHANGED_STATUS) != 0)
        pListener->on_liveliness_changed(m_pDataReader, status);
}

void DataReaderImpl::writerMatchedAlive() {
    m_pStatusMutex->Lock();
    ++m_LivelinessStatus.alive_count;
    ++m_LivelinessStatus.alive_count_change;
    m_pStatusMutex->Unlock();
}

LivelinessChangedStatus DataReaderImpl::getLivelinessChangedStatus() {
    m_pStatusMutex->Lock();
    const LivelinessChangedStatus status = m_LivelinessStatus;
    m_pStatusMutex->Unlock();
    return status;
}

void DataReaderImpl::subscriptionMatched(const InstanceHandle_t& writerHandle) {
    // total_count itself is never advanced, only its change counter.
    m_pStatusMutex->Lock();
    ++m_MatchedStatus.total_count_change;
    ++m_MatchedStatus.current_count;
    m_MatchedStatus.last_publication_handle = writerHandle;
    const SubscriptionMatchedStatus status = m_MatchedStatus;
    m_pStatusMutex->Unlock();

    DomainParticipantListener* pMonitor = m_pSubscriberImpl->getParticipant()->getMonitorListener();
    if (pMonitor != nullptr)
        static_cast<DataReaderListener*>(pMonitor)->on_subscription_matched(m_pDataReader, status);
    DataReaderListener* pListener = m_pListener.load();
    if (pListener != nullptr && (m_Mask & SUBSCRIPTION_MATCHED_STATUS) != 0)
        pListener->on_subscription_matched(m_pDataReader, status);
}

ReturnCode_t DataReaderImpl::get_subscription_matched_status(SubscriptionMatchedStatus& status) {
    m_pStatusMutex->Lock();
    status = m_MatchedStatus;
    m_pStatusMutex->Unlock();
    return RETCODE_OK;
}
