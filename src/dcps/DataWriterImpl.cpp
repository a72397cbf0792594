#include "dcps/DataWriterImpl.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "DDSLogManagementFactory.h"
#include "DataWriter.h"
#include "core/MorvoTimer.h"
#include "dcps/DomainParticipantImpl.h"
#include "dcps/PublisherImpl.h"
#include "dcps/TopicImpl.h"
#include "rtps/HistoryCache.h"
#include "rtps/Writer.h"

DataWriterImpl::DataWriterImpl(PublisherImpl* pPublisher, TopicImpl* pTopic, const DataWriterQos& qos,
                               DataWriterListener* pListener, unsigned long mask)
    : m_pDataWriter(nullptr),
      m_pPublisherImpl(pPublisher),
      m_pTopicImpl(pTopic),
      m_Qos(qos),
      m_pListener(pListener),
      m_ulMask(mask),
      m_pWriter(nullptr),
      m_pHistoryCache(nullptr),
      m_pDeadlineTimer(nullptr),
      m_bNoWriteInPeriod(true),
      m_uiWriteCount(0) {
    new DataWriter(this);  // stores itself in m_pDataWriter

    // KEEP_ALL too gets the depth as its fixed bound.
    m_pHistoryCache = new HistoryCache(uint32_t(m_Qos.history.depth));
    m_pHistoryCache->SetTopic(uint32_t(getLogId()), getTopicName());

    if (m_Qos.deadline.period != DURATION_INFINITE) {
        m_pDeadlineTimer = new MorvoTimer();
        // Timers read a duration's second word as milliseconds.
        m_pDeadlineTimer->Start(unsigned(m_Qos.deadline.period.sec), m_Qos.deadline.period.nanosec,
                                &DataWriterImpl::DeadlineCallback, this);
    }
    if (m_Qos.liveliness.lease_duration != DURATION_INFINITE) HandLeaseToLeaseCheck();
}

DataWriterImpl::~DataWriterImpl() {
    delete m_pDeadlineTimer;  // stops first, waiting for a callback in flight
    m_pDeadlineTimer = nullptr;
    delete m_pHistoryCache;
    m_pHistoryCache = nullptr;
    delete m_pDataWriter;
    m_pDataWriter = nullptr;
}

void DataWriterImpl::setRtpsWriter(Writer* pWriter) {
    m_pWriter = pWriter;
    if (pWriter == nullptr) return;
    pWriter->setWriterCache(m_pHistoryCache);
    pWriter->setDataWriter(this);
}

const std::string& DataWriterImpl::getTopicName() const {
    return m_pTopicImpl->get_name();
}

GUID_t DataWriterImpl::getGuid() const {
    return m_pWriter != nullptr ? m_pWriter->getGUID() : GUID_UNKNOWN;
}

int DataWriterImpl::getLogId() const {
    return m_pPublisherImpl->getParticipant()->getLogId();
}

void DataWriterImpl::WriteLog(const char* szText) const {
    char szLog[200];
    std::snprintf(szLog, sizeof(szLog), "%s", szText);
    DDSLogManagementFactory::WriteDDSLog(getLogId(), szLog, std::strlen(szLog), DDSLOG_INFO, getGuid());
}

// ---------------------------------------------------------------- announcement

ReturnCode_t DataWriterImpl::enable(int iWithdraw) {
    if (DomainParticipantImpl::IsBuiltinTopicName(getTopicName())) return RETCODE_OK;
    // On withdrawal too: the automatic assertion is registered again either way.
    if (m_Qos.liveliness.kind == AUTOMATIC_LIVELINESS_QOS &&
        m_Qos.liveliness.lease_duration != DURATION_INFINITE)
        HandLeaseToAutomaticAssertion();
    return AnnounceToDiscovery(iWithdraw);
}

void DataWriterImpl::HandLeaseToLeaseCheck() {
    // Joins with the liveliness work: Discovery's lease-check timer takes
    // m_Qos.liveliness.lease_duration (shared with the readers).
}

void DataWriterImpl::HandLeaseToAutomaticAssertion() {
    // Joins with the liveliness work: Discovery's automatic assertion timer takes
    // m_Qos.liveliness.lease_duration.
}

ReturnCode_t DataWriterImpl::AnnounceToDiscovery(int iWithdraw) {
    // Joins with the discovery work: Discovery announces (0) or withdraws (1) this
    // writer on "DCPSPublication" and its code is returned.
    (void)iWithdraw;
    return RETCODE_OK;
}

// ---------------------------------------------------------------- liveliness and deadline

ReturnCode_t DataWriterImpl::assert_liveliness() {
    SendParticipantLivelinessMessage();  // whatever this writer's own kind
    return RETCODE_OK;
}

void DataWriterImpl::SendParticipantLivelinessMessage() {
    // Joins with the liveliness work: Discovery writes a participant message of
    // kind 00 00 00 02 (manual by participant).
}

void DataWriterImpl::livelinessLost() {
    ++m_LivelinessLostStatus.total_count;
    m_LivelinessLostStatus.total_count_change = 1;
    if (m_pListener != nullptr && (m_ulMask & LIVELINESS_LOST_STATUS) != 0)
        m_pListener->on_liveliness_lost(m_pDataWriter, m_LivelinessLostStatus);
}

void DataWriterImpl::DeadlineCallback(void* pArgument, unsigned char flag) {
    (void)flag;
    static_cast<DataWriterImpl*>(pArgument)->DeadlinePeriodEnded();
}

void DataWriterImpl::DeadlinePeriodEnded() {
    // A writer that has never written misses its first period too. The mask is not consulted.
    if (m_bNoWriteInPeriod.load(std::memory_order_relaxed) && m_pListener != nullptr) {
        ++m_DeadlineStatus.total_count;
        m_pListener->on_offered_deadline_missed(m_pDataWriter, m_DeadlineStatus);
    }
    m_bNoWriteInPeriod.store(true, std::memory_order_relaxed);
}
