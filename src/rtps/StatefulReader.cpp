#include "rtps/StatefulReader.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>

#include "DDSLogManagementFactory.h"
#include "rtps/CacheChange.h"
#include "rtps/HistoryCache.h"
#include "rtps/ReaderDataSink.h"
#include "rtps/Writer.h"
#include "rtps/WriterProxy.h"

StatefulReader::StatefulReader(const GUID_t& guidValue, const DataReaderQos& attributes,
                               RequestScheduler* const* pSchedulers)
    : Reader(guidValue, attributes, pSchedulers),
      m_CacheKeyCounter(SEQUENCENUMBER_ZERO),
      m_PeriodicAckNack(nullptr),
      m_HeldBytesMax(READER_HELD_BYTES_MAX) {}

StatefulReader::~StatefulReader() {
    for (auto& entry : m_MatchedWriter) delete entry.second;
    m_MatchedWriter.clear();
    if (m_PeriodicAckNack != nullptr) RemovePeriodicAckNack();
}

// ---------------------------------------------------------------- helpers

const std::string& StatefulReader::TopicName() const {
    static const std::string strNone;
    return m_ReaderCache != nullptr ? m_ReaderCache->GetTopicName() : strNone;
}

int StatefulReader::LogKey() const {
    return m_ReaderCache != nullptr ? int(m_ReaderCache->GetDomainId()) : 0;
}

void StatefulReader::WriteLog(char* szLog, int iCode) const {
    DDSLogManagementFactory::WriteDDSLog(LogKey(), szLog, strlen(szLog), iCode, GUID_UNKNOWN);
}

void StatefulReader::LogDrop(const char* szOperation, const char* szReason, const char* szWhat,
                             const SequenceNumber_t& seqNum) const {
    char szLog[200];
    snprintf(szLog, sizeof(szLog), "[StatefulReader::%s] %s: %s dropped TopicName = %s Seq = %d", szOperation,
             szReason, szWhat, TopicName().c_str(), int(seqNum.low));
    WriteLog(szLog);
}

uint64_t StatefulReader::getHeldBytes() const {
    uint64_t ulBytes = 0;
    for (const auto& entry : m_MatchedWriter) ulBytes += entry.second->getHeldBytes();
    return ulBytes;
}

bool StatefulReader::IsBuiltinTopic() const {
    const std::string& strTopic = TopicName();
    return strTopic == "DCPSParticipant" || strTopic == "DCPSPublication" || strTopic == "DCPSSubscription" ||
           strTopic == "DCPSParticipantMessage";
}

WriterProxy* StatefulReader::FindProxy(const GUID_t& writerGuid) const {
    auto it = m_MatchedWriter.find(writerGuid);
    return it != m_MatchedWriter.end() ? it->second : nullptr;
}

bool StatefulReader::IsNotOwner(const GUID_t& writerGuid) {
    if (m_Qos.ownership.kind != EXCLUSIVE_OWNERSHIP_QOS) return false;
    const GUID_t owner = m_DataReader != nullptr ? m_DataReader->getOwnerGuid() : GUID_UNKNOWN;
    return writerGuid != owner;
}

void StatefulReader::AssignCacheKey(CacheChange* pCacheChange) {
    // By source timestamp the cache's order is timestamp order; otherwise the
    // order of delivery, counted from 1.
    if (m_Qos.destination_order.kind == BY_SOURCE_TIMESTAMP_DESTINATIONORDER_QOS) {
        pCacheChange->sequenceNumber =
            SequenceNumber_t(pCacheChange->sourceTimestamp.sec, pCacheChange->sourceTimestamp.nanosec);
        return;
    }
    ++m_CacheKeyCounter;
    pCacheChange->sequenceNumber = m_CacheKeyCounter;
}

bool StatefulReader::AddToReaderCache(CacheChange* pCacheChange, DeliveryPath path) {
    AssignCacheKey(pCacheChange);
    if (m_ReaderCache == nullptr) return false;
    if (m_ReaderCache->IsFull()) {
        // The oldest key makes room, read by the application or not.
        const SequenceNumber_t oldest = m_ReaderCache->GetSeqNumMin();
        char szLog[200];
        const char* szTopic = TopicName().c_str();
        const int iOld = int(oldest.low);
        const int iNew = int(pCacheChange->sequenceNumber.low);
        switch (path) {
            case BEST_EFFORT_PATH:
                // Formatted, and not written.
                snprintf(szLog, sizeof(szLog),
                         "[StatefulReader::BestEffortDataMessageReceive]  TopicName = %s : HistoryCache "
                         "is Full,delete old Sn %d and insert new Sn %d",
                         szTopic, iOld, iNew);
                break;
            case RELIABLE_PATH:
                snprintf(szLog, sizeof(szLog),
                         "[StatefulReader::ReliableDataMessageReceive] [1] TopicName = %s : "
                         "HistoryCache is Full,delete old Sn %d and insert new Sn %d",
                         szTopic, iOld, iNew);
                WriteLog(szLog);
                break;
            case SUBMIT_PATH:
                snprintf(szLog, sizeof(szLog),
                         "[StatefulReader::submitAvailableData] [2] TopicName = %s : HistoryCache is "
                         "Full,delete old Sn %d and insert new Sn %d",
                         szTopic, iOld, iNew);
                WriteLog(szLog);
                break;
        }
        m_ReaderCache->RemoveChange(oldest);
    }
    // A change whose key is present already (the same number twice, or one timestamp
    // twice) is not kept.
    bool bKept = false;
    m_ReaderCache->AddChange(pCacheChange, &bKept);
    return bKept;
}

void StatefulReader::NotifyDataReader(CacheChange* pCacheChange, bool bKept) {
    if (m_DataReader != nullptr) m_DataReader->DataReceive(pCacheChange);
    if (!bKept) WriterProxy::DeleteChange(pCacheChange);
}

// ---------------------------------------------------------------- delivery

int StatefulReader::BestEffortDataMessageReceive(CacheChange* pCacheChange) {
    if (m_DataReader != nullptr) m_DataReader->setLastSequenceNumber(pCacheChange->sequenceNumber);
    const bool bKept = AddToReaderCache(pCacheChange, BEST_EFFORT_PATH);
    NotifyDataReader(pCacheChange, bKept);
    return 0;
}

int StatefulReader::ReliableDataMessageReceive(CacheChange* pCacheChange) {
    if (m_DataReader != nullptr) m_DataReader->setLastSequenceNumber(pCacheChange->sequenceNumber);
    const GUID_t writerGuid = pCacheChange->writerGUID;
    WriterProxy* pWriterProxy = FindProxy(writerGuid);
    if (pWriterProxy == nullptr) {
        WriterProxy::DeleteChange(pCacheChange);
        return 1;
    }
    const SequenceNumber_t maxSeq = pWriterProxy->available_changes_max();
    if (pCacheChange->sequenceNumber == maxSeq + 1) {
        const bool bKept = AddToReaderCache(pCacheChange, RELIABLE_PATH);
        pWriterProxy->available_change_next(pCacheChange);
        NotifyDataReader(pCacheChange, bKept);
        // The layer above may have unmatched the writer meanwhile.
        if (FindProxy(writerGuid) != pWriterProxy) return 0;
    } else {
        pWriterProxy->received_change(pCacheChange);
    }
    submitAvailableData(pWriterProxy);
    return 0;
}

int StatefulReader::submitAvailableData(WriterProxy* pWriterProxy) {
    const GUID_t writerGuid = pWriterProxy->getGuid();
    const SequenceNumber_t maxSeq = pWriterProxy->available_changes_max();
    CacheChange* pCacheChange;
    while ((pCacheChange = pWriterProxy->getAvailableChanges(maxSeq)) != nullptr) {
        const bool bKept = AddToReaderCache(pCacheChange, SUBMIT_PATH);
        NotifyDataReader(pCacheChange, bKept);
        if (FindProxy(writerGuid) != pWriterProxy) break;
    }
    return 0;
}

// ---------------------------------------------------------------- DATA

int StatefulReader::DataMessageReceive(const MessageReceiver& receiver, const DataSubMessage& message,
                                       const std::list<Parameter>& inlineQos, const octet* pData,
                                       uint32_t uiLength) {
    char szLog[200];
    const GUID_t writerGuid(receiver.sourceGuidPrefix, message.writerId);
    const SequenceNumber_t writerSN = FromWire(message.writerSN);
    const std::string& strTopic = TopicName();

    DDSLogManagementFactory* pLogFactory = DDSLogManagementFactory::GetInstance();
    if (pLogFactory != nullptr && pLogFactory->IsReadALLTopic(LogKey(), strTopic)) {
        snprintf(szLog, sizeof(szLog), "TopicName = %s SeqNum = %d [StatefulReader::DataMessageReceive]",
                 strTopic.c_str(), int(writerSN.low));
        WriteLog(szLog, DDSLOG_RECV);
        if (pData != nullptr && uiLength > 0) {
            char* pText = reinterpret_cast<char*>(const_cast<octet*>(pData));
            DDSLogManagementFactory::WriteDDSLog(LogKey(), pText, uiLength, DDSLOG_RECV + 1, writerGuid);
        }
    }
    if (pLogFactory != nullptr && pLogFactory->IsQueryTopic(LogKey(), strTopic)) {
        snprintf(szLog, sizeof(szLog), "[StatefulReader::DataMessageReceive] [1] TopicName = %s SeqNum = %d",
                 strTopic.c_str(), int(writerSN.low));
        WriteLog(szLog);
    }

    if (IsNotOwner(writerGuid)) return 0;

    WriterProxy* pWriterProxy = FindProxy(writerGuid);
    if (reliabilityLevel == 2) {
        if (pWriterProxy == nullptr) return 0;
        // Duplicates and old resends end here.
        const SequenceNumber_t maxSeq = pWriterProxy->available_changes_max();
        if (!(maxSeq < writerSN)) {
            snprintf(szLog, sizeof(szLog),
                     "[StatefulReader::DataMessageReceive] maxAvailableNum(%d) >= "
                     "DataMessage.WriterSN(%d) and TopicName = %s",
                     int(maxSeq.low), int(writerSN.low), strTopic.c_str());
            WriteLog(szLog);
            return 1;
        }
        // What cannot be delivered at once is parked, within the bounds or not at all.
        const uint64_t ulCharge = sizeof(CacheChange) + uiLength + inlineQos.size() * sizeof(Parameter);
        const char* szRefusal =
            writerSN == maxSeq + 1
                ? nullptr
                : pWriterProxy->refusal(writerSN, getHeldBytes() + ulCharge, m_HeldBytesMax);
        if (szRefusal != nullptr) {
            LogDrop("DataMessageReceive", szRefusal, "DATA", writerSN);
            return 1;
        }
    }

    CacheChange* pCacheChange = new (std::nothrow) CacheChange();
    const bool bCopy = uiLength > 0 && pData != nullptr;
    octet* pPayload = bCopy ? CacheChange::AllocData(uiLength) : nullptr;
    if (pCacheChange == nullptr || (bCopy && pPayload == nullptr)) {
        delete pCacheChange;
        CacheChange::FreeData(pPayload);
        snprintf(szLog, sizeof(szLog),
                 "[StatefulReader::DataMessageReceive] pCacheChange = NULL and TopicName = %s and "
                 "SeqNum = %d",
                 strTopic.c_str(), int(writerSN.low));
        WriteLog(szLog);
        return 1;
    }
    pCacheChange->kind = CHANGE_KIND_ALIVE;
    pCacheChange->instanceHandle = HANDLE_NIL;
    pCacheChange->writerGUID = writerGuid;
    pCacheChange->dataLength = uiLength;
    pCacheChange->inlineQos = inlineQos;
    pCacheChange->sourceTimestamp = receiver.timestamp;
    if (bCopy) {
        memcpy(pPayload, pData, uiLength);
        pCacheChange->data = pPayload;
    }
    pCacheChange->sequenceNumber = writerSN;

    if (!IsBuiltinTopic() && pWriterProxy != nullptr) {
        pWriterProxy->getLifespan(pCacheChange->lifespan);
        if (m_Qos.liveliness.kind == MANUAL_BY_TOPIC_LIVELINESS_QOS &&
            m_Qos.liveliness.lease_duration != DURATION_INFINITE)
            pWriterProxy->setLastAliveTime(Writer::PublicClockNow());
    }

    if (reliabilityLevel == 2)
        ReliableDataMessageReceive(pCacheChange);
    else
        BestEffortDataMessageReceive(pCacheChange);
    return 0;
}

// ---------------------------------------------------------------- matching

int StatefulReader::matched_writer_add(WriterProxy* pWriterProxy) {
    if (pWriterProxy == nullptr) {
        printf("err\n");
        return 1;
    }
    if (m_MatchedWriter.count(pWriterProxy->getGuid()) != 0) {
        char szLog[200];
        snprintf(szLog, sizeof(szLog),
                 "[StatefulReader::matched_writer_add]  pWriterProxy Readd and TopicName = %s",
                 TopicName().c_str());
        WriteLog(szLog);
        return 1;
    }
    m_MatchedWriter[pWriterProxy->getGuid()] = pWriterProxy;
    return 0;
}

int StatefulReader::matched_writer_remove(WriterProxy* pWriterProxy) {
    char szLog[200];
    if (pWriterProxy == nullptr) {
        snprintf(szLog, sizeof(szLog),
                 "[StatefulReader::matched_writer_remove] pWriterProxy = NULL and TopicName = %s",
                 TopicName().c_str());
        WriteLog(szLog);
        return 1;
    }
    auto it = m_MatchedWriter.find(pWriterProxy->getGuid());
    if (it == m_MatchedWriter.end()) {
        snprintf(szLog, sizeof(szLog),
                 "[StatefulReader::matched_writer_remove] m_MatchedWriter.count and TopicName = %s",
                 TopicName().c_str());
        WriteLog(szLog);
        return 1;
    }
    // The owned proxy goes, whichever pointer of that writer the caller held.
    WriterProxy* pOwned = it->second;
    m_MatchedWriter.erase(it);
    snprintf(szLog, sizeof(szLog), "[StatefulReader::matched_reader_remove] [1] pWriterProxy = %d",
             int(reinterpret_cast<uintptr_t>(pOwned)));
    WriteLog(szLog, DDSLOG_ERROR);
    delete pOwned;
    return 0;
}

WriterProxy* StatefulReader::matched_writer_lookup(const GUID_t& writerGuid) {
    WriterProxy* pWriterProxy = FindProxy(writerGuid);
    if (pWriterProxy == nullptr) {
        char szLog[200];
        snprintf(szLog, sizeof(szLog),
                 "[StatefulReader::matched_writer_lookup] m_MatchedWriter.count == 0 and TopicName = %s",
                 TopicName().c_str());
        WriteLog(szLog);
    }
    return pWriterProxy;
}

// ---------------------------------------------------------------- HEARTBEAT, GAP

int StatefulReader::HeartBeatMessageReceive(const MessageReceiver& receiver,
                                            const heartBeatSubMessage& message) {
    char szLog[200];
    const GUID_t writerGuid(receiver.sourceGuidPrefix, message.writerId);
    WriterProxy* pWriterProxy = matched_writer_lookup(writerGuid);
    if (pWriterProxy == nullptr) {
        snprintf(szLog, sizeof(szLog),
                 "[StatefulReader::HeartBeatMessageReceive]  NULL == pWriterProxy TopicName =%s  "
                 "Count = %d ",
                 TopicName().c_str(), int(message.count));
        WriteLog(szLog);
        return 0;
    }
    // No duplicate filtering and no look at the Final flag.
    pWriterProxy->setHeartbeatCount(message.count);
    const SequenceNumber_t firstSN = FromWire(message.firstSN);
    const SequenceNumber_t lastSN = FromWire(message.lastSN);
    if (lastSN < firstSN) return 0;

    DDSLogManagementFactory* pLogFactory = DDSLogManagementFactory::GetInstance();
    if (pLogFactory != nullptr && pLogFactory->GetUseDDSLogFlag(LogKey())) {
        snprintf(szLog, sizeof(szLog),
                 "[StatefulReader::HeartBeatMessageReceive] TopicName = %s  Count = %d First = %d "
                 "Last = %d",
                 TopicName().c_str(), int(message.count), int(firstSN.low), int(lastSN.low));
        WriteLog(szLog, DDSLOG_RECV + 2);
    }
    if (pWriterProxy->missing_changes_update(firstSN, lastSN) != 0) {
        snprintf(szLog, sizeof(szLog),
                 "[StatefulReader::HeartBeatMessageReceive] checkCacheChange  Error and FirstSN = "
                 "%d and LastSN = %d,TopicName = %s",
                 int(firstSN.low), int(lastSN.low), TopicName().c_str());
        WriteLog(szLog);
        return 1;
    }
    submitAvailableData(pWriterProxy);
    if (FindProxy(writerGuid) != pWriterProxy) return 0;
    pWriterProxy->lost_changes_update(firstSN);
    pWriterProxy->unknown_changes_update(lastSN);
    pWriterProxy->fragment_nack(this, m_Schedulers[0]);

    // Every heartbeat, final or not, is answered at once, with the set as it stands now.
    SequenceNumberSet set;
    pWriterProxy->missing_changes(set);
    SendAckNack(pWriterProxy, set);
    return 0;
}

int StatefulReader::GapMessageReceive(const MessageReceiver& receiver, const stGapSubMessage& message) {
    const GUID_t writerGuid(receiver.sourceGuidPrefix, message.writerId);
    WriterProxy* pWriterProxy = matched_writer_lookup(writerGuid);
    if (pWriterProxy == nullptr) {
        char szLog[200];
        snprintf(szLog, sizeof(szLog),
                 "[StatefulReader::GapMessageReceive]  NULL == pWriterProxy TopicName =%s  Count = %d ",
                 TopicName().c_str(), int(message.gapStart.low));
        WriteLog(szLog);
        return 0;
    }
    // The bitmap of gapList is not looked at: only the range before its base.
    const SequenceNumber_t gapEnd = FromWire(message.gapList.bitmapBase);
    for (SequenceNumber_t seqNum = FromWire(message.gapStart); seqNum < gapEnd; ++seqNum) {
        pWriterProxy->received_change_set(seqNum);
        pWriterProxy->irrelevant_change_set(seqNum);
    }
    submitAvailableData(pWriterProxy);
    return 0;
}

int StatefulReader::addPeriodicAckNack(WriterProxy*, const SequenceNumberSet&) {
    // joins with the reliable protocol work: an AcknackMessageRequest with this
    // set on the periodic scheduler, kept in m_PeriodicAckNack.
    return 0;
}

void StatefulReader::SendAckNack(WriterProxy*, const SequenceNumberSet&) {
    // joins with the reliable protocol work: an AcknackMessageRequest for the
    // proxy's writer with this set (times zero), added to the immediate scheduler.
}

void StatefulReader::RemovePeriodicAckNack() {
    // joins with the reliable protocol work: RequestRemove from the periodic
    // scheduler, then delete.
}

// ---------------------------------------------------------------- liveliness

int StatefulReader::checkLiveliness(Time_t now) {
    for (auto& entry : m_MatchedWriter) {
        const int iChange = entry.second->check_alive(now, m_Qos.liveliness.lease_duration);
        if (iChange != 0 && m_DataReader != nullptr) m_DataReader->livelinessChanged(iChange == 1);
    }
    return 0;
}

int StatefulReader::assertLiveliness(GUID_t remote, Time_t now, uint32_t uiKind) {
    if (uint32_t(m_Qos.liveliness.kind) > uiKind) return 0;
    for (auto& entry : m_MatchedWriter) {
        WriterProxy* pWriterProxy = entry.second;
        if (memcmp(pWriterProxy->getGuid().guidPrefix.value, remote.guidPrefix.value, 12) != 0) continue;
        pWriterProxy->setLastAliveTime(now);
        if (pWriterProxy->check_alive(now, m_Qos.liveliness.lease_duration) == 1 && m_DataReader != nullptr)
            m_DataReader->livelinessChanged(true);
    }
    return 0;
}
