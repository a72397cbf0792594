// The write path of DataWriterImpl: numbering, the cache rules of a reliable
// writer, liveliness after a write and the hand-over to the protocol writer.
#include <cstdio>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "core/SystemClock.h"
#include "dcps/DataWriterImpl.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/Writer.h"

namespace {
// Poll of a KEEP_ALL writer waiting for its oldest change to be acknowledged.
const int kAcknowledgementPollMs = 50;
}  // namespace

ReturnCode_t DataWriterImpl::write(const char* pData, unsigned int uiLength, const InstanceHandle_t& handle,
                                   std::list<Parameter>& parameters, const Time_t& timestamp,
                                   const GUID_t& reader) {
    char szLog[200];
    const std::string& strTopicName = getTopicName();
    const uint32_t uiWriteCount = uint32_t(m_uiWriteCount.fetch_add(1, std::memory_order_relaxed) + 1);
    LogWrite(pData, uiLength, uiWriteCount);

    m_bNoWriteInPeriod.store(false, std::memory_order_relaxed);

    // Only a writer whose reliability kind is neither 1 nor 2 has none.
    if (m_pWriter == nullptr) return RETCODE_ERROR;

    if (m_pWriter->getMatchedCount() == 0 && m_Qos.durability.kind == VOLATILE_DURABILITY_QOS) {
        // The number is spent all the same, so that readers see the gap.
        m_pWriter->skipSequenceNumber();
        std::snprintf(szLog, sizeof(szLog),
                      "[DataWriterImpl::write] READERPROXY_NOT_EXIST Error and TopicName = %s",
                      strTopicName.c_str());
        WriteLog(szLog);
        return READERPROXY_NOT_EXIST;
    }

    CacheChange* pChange = m_pWriter->new_change(pData, uiLength, CHANGE_KIND_ALIVE, handle);
    if (pChange == nullptr) {
        std::snprintf(szLog, sizeof(szLog),
                      "[DataWriterImpl::write] pCacheChange = NULL Error and TopicName = %s",
                      strTopicName.c_str());
        WriteLog(szLog);
        return RETCODE_NOT_EXIST;
    }
    pChange->inlineQos = parameters;
    pChange->sourceTimestamp = timestamp;
    pChange->targetReaderGUID = reader;

    // A best-effort change never enters the cache: it lives only for its send.
    if (m_Qos.reliability.kind == RELIABLE_RELIABILITY_QOS) {
        if (m_pHistoryCache->IsFull()) MakeRoom(pChange);
        m_pHistoryCache->AddChange(pChange);
        // Kept for readers that join later.
        if (m_pWriter->getMatchedCount() == 0) return RETCODE_OK;
    }

    AssertLivelinessAfterWrite();
    return m_pWriter->DataSend(pChange);
}

void DataWriterImpl::LogWrite(const char* pData, unsigned int uiLength, uint32_t uiWriteCount) {
    DDSLogManagementFactory* pLogFactory = DDSLogManagementFactory::GetInstance();
    if (pLogFactory == nullptr) return;
    const int iLogId = getLogId();
    const std::string& strTopicName = getTopicName();
    char szLog[200];
    if (pLogFactory->IsWriteALLTopic(iLogId, strTopicName)) {
        std::snprintf(szLog, sizeof(szLog), "TopicName = %s,SeqNum = %d [DataWriterImpl::write]",
                      strTopicName.c_str(), int(uiWriteCount));
        DDSLogManagementFactory::WriteDDSLog(iLogId, szLog, std::strlen(szLog), DDSLOG_WRITE, getGuid());
        // The payload as a second record, written out as hex.
        if (pData != nullptr && uiLength != 0)
            DDSLogManagementFactory::WriteDDSLog(iLogId, const_cast<char*>(pData), uiLength, DDSLOG_WRITE + 1,
                                                 getGuid());
    }
    if (pLogFactory->IsQueryTopic(iLogId, strTopicName)) {
        std::snprintf(szLog, sizeof(szLog), "[DataWriterImpl::write] [1] TopicName = %s,SeqNum = %d",
                      strTopicName.c_str(), int(uiWriteCount));
        DDSLogManagementFactory::WriteDDSLog(iLogId, szLog, std::strlen(szLog), DDSLOG_WRITE, getGuid());
    }
}

void DataWriterImpl::MakeRoom(CacheChange* pNewChange) {
    const SequenceNumber_t oldest = m_pHistoryCache->GetSeqNumMin();
    // Only a cache of capacity 0 can be full and empty at once: nothing to remove.
    if (oldest == SEQUENCENUMBER_UNKNOWN) return;

    if (m_Qos.history.kind == KEEP_ALL_HISTORY_QOS) {
        // max_blocking_time is not consulted: the writer is paced by acknowledgements.
        while (!IsAcknowledgedByAll(oldest)) SystemClock::SleepMs(kAcknowledgementPollMs);
        m_pWriter->removeChange(oldest);
        return;
    }
    m_pWriter->removeChange(oldest);
    char szLog[200];
    std::snprintf(szLog, sizeof(szLog),
                  "[DataWriterImpl::write]  TopicName = %s : HistoryCache is Full,delete old Sn %d and "
                  "insert new Sn %d",
                  getTopicName().c_str(), int(oldest.low), int(pNewChange->sequenceNumber.low));
    WriteLog(szLog);
}

bool DataWriterImpl::IsAcknowledgedByAll(const SequenceNumber_t& seqNum) {
    // Joins with the stateful writer work: StatefulWriter::is_acked_by_all(seqNum).
    // Until then no reader proxy exists, and with none every number counts as acknowledged.
    (void)seqNum;
    return true;
}

void DataWriterImpl::AssertLivelinessAfterWrite() {
    if (m_Qos.liveliness.kind == MANUAL_BY_PARTICIPANT_LIVELINESS_QOS) {
        SendParticipantLivelinessMessage();
    } else if (m_Qos.liveliness.kind == MANUAL_BY_TOPIC_LIVELINESS_QOS &&
               m_Qos.liveliness.lease_duration != DURATION_INFINITE) {
        // Notes the public clock and marks the writer alive.
        m_pWriter->assertLiveliness(MANUAL_BY_TOPIC_LIVELINESS_QOS);
    }
}
