#include "requests/DataMessageWithReaderProxy.h"

#include "DDSLogManagementFactory.h"
#include "core/SystemClock.h"
#include "messages/MessageProcessor.h"
#include "requests/DataSendHelper.h"

namespace {
// Pause after each resent fragment, so that a repair burst does not flood the reader.
const int FRAGMENT_PAUSE_MS = 1;
}  // namespace

DataMessageWithReaderProxy::DataMessageWithReaderProxy(const EntityId_t& entityId, ReaderProxy* pReaderProxy,
                                                       MessageProcessor* pMessageProcessor,
                                                       MessageTransmitter* pMessageTransmitter,
                                                       const Time_t& startTime, const Time_t& nextTime)
    : Request(REQUEST_TYPE_DATA_READER_PROXY, entityId, pMessageProcessor, pMessageTransmitter, startTime,
              nextTime),
      m_pReaderProxy(pReaderProxy) {}

DataMessageWithReaderProxy::~DataMessageWithReaderProxy() {}

std::list<Locator_t> DataMessageWithReaderProxy::proxyUnicastLocators() const {
    // Finished with the reliable protocol work: the proxy's unicast locator list.
    return std::list<Locator_t>();
}

GUID_t DataMessageWithReaderProxy::proxyGuid() const {
    // Finished with the reliable protocol work: the proxy's remoteReaderGuid.
    return GUID_UNKNOWN;
}

uint32_t DataMessageWithReaderProxy::Execute() {
    if (m_pMessageProcessor == nullptr) return REQUEST_EXECUTE_FAILED;
    if (DataSendHelper::QueryTraceOn(m_uiDomainId, m_strTopicName))
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageWithReaderProxy::Execute] [1] TopicName = %s ",
                            m_strTopicName.c_str());
    if (!DataSendHelper::WriterExists(m_pMessageProcessor, m_EntityId)) {
        DataSendHelper::Log(m_uiDomainId, DDSLOG_INFO,
                            "[DataMessageWithReaderProxy::Execute] isEndpointExist Error and TopicName = %s",
                            m_strTopicName.c_str());
        return REQUEST_EXECUTE_FAILED;
    }

    m_pMessageProcessor->lockMessage();
    Writer* pWriter = DataSendHelper::BorrowWriter(m_pMessageProcessor, m_EntityId);
    if (pWriter == nullptr) {
        // Gone while we waited for it.
        m_pMessageProcessor->unlockMessage();
        DataSendHelper::Log(m_uiDomainId, DDSLOG_INFO,
                            "[DataMessageWithReaderProxy::Execute] isEndpointExist Error and TopicName = %s",
                            m_strTopicName.c_str());
        return REQUEST_EXECUTE_FAILED;
    }

    // Finished with the reliable protocol work: take the writer's HistoryCache
    // and walk a copy of the proxy's requested_changes() with gapStart 0 and an
    // empty gapList (base 0, numBits 0). An entry with is_relevant clear sets
    // gapStart if it is 0 and moves gapList's base to its number + 1. A relevant
    // entry: takeChange (none: pass it over, no GAP), sendRequestedChange,
    // returnChange; the failures of sendRequestedChange end Execute as its
    // result codes say. A range still pending at the end is dropped.

    DataSendHelper::ReturnWriter(m_pMessageProcessor, pWriter);
    m_pMessageProcessor->unlockMessage();
    return REQUEST_EXECUTE_OK;
}

DataMessageWithReaderProxy::SendResult DataMessageWithReaderProxy::sendRequestedChange(
    Writer* pWriter, CacheChange* pChange, SequenceNumber_t& gapStart, const SequenceNumberSet& gapList) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*pChange);
    const GUID_t reader = proxyGuid();

    uint32_t uiMessageLen = 0;
    if (m_pMessageProcessor->EncapsulateMessageHeader(uiMessageLen) == nullptr) {
        DataSendHelper::Log(
            m_uiDomainId, DDSLOG_INFO,
            "[DataMessageWithReaderProxy::Execute] EncapsulateMessageHeader Error and TopicName = %s",
            m_strTopicName.c_str());
        return SEND_HEADER_FAILED;
    }
    if (m_pMessageProcessor->EncapsulateINFODSTMessage(uiMessageLen, reader.guidPrefix) == nullptr) {
        DataSendHelper::Log(
            m_uiDomainId, DDSLOG_INFO,
            "[DataMessageWithReaderProxy::Execute] EncapsulateINFODSTMessage Error and TopicName = %s",
            m_strTopicName.c_str());
        return SEND_INFODST_FAILED;
    }
    if (m_pMessageProcessor->EncapsulateINFOTSMessage(uiMessageLen, sample.sourceTimestamp) == nullptr) {
        DataSendHelper::Log(
            m_uiDomainId, DDSLOG_INFO,
            "[DataMessageWithReaderProxy::Execute] EncapsulateINFOTSMessage Error and TopicName = %s",
            m_strTopicName.c_str());
        return SEND_INFOTS_FAILED;
    }
    if (gapStart != SEQUENCENUMBER_ZERO) {
        // A GAP travels only in front of a real sample. Its result is not looked at.
        m_pMessageProcessor->EncapsulateGapMessage(uiMessageLen, m_EntityId, reader.entityId, gapStart,
                                                   gapList);
        gapStart = SEQUENCENUMBER_ZERO;
    }
    if (DataSendHelper::IsSingleData(sample.uiDataLength))
        sendDataMessage(uiMessageLen, pChange, pWriter);
    else
        sendDataFragMessage(uiMessageLen, pChange, pWriter);
    return SEND_DONE;
}

DataSendHelper::Route DataMessageWithReaderProxy::route() const {
    return DataSendHelper::Route{m_pMessageProcessor, m_pMessageTransmitter, m_uiDomainId,
                                 m_strTopicName.c_str()};
}

int DataMessageWithReaderProxy::sendDataMessage(uint32_t uiMessageLen, CacheChange* pChange,
                                                Writer* pWriter) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*pChange);
    const std::list<Locator_t> sources = DataSendHelper::SourcesOf(pWriter);
    const std::list<Locator_t> destinations = proxyUnicastLocators();
    const bool bTrace = DataSendHelper::QueryTraceOn(m_uiDomainId, m_strTopicName);
    // The writer is Execute's to give back.
    const DataSendHelper::Texts texts = {
        "[DataMessageWithReaderProxy::sendDataMessage] EncapsulateDATAMessage Error and TopicName = %s",
        "[MessageTransmitterUDP::MessageSend] DataProxy [5] TopicName = %s SeqNum = %d", nullptr};
    return DataSendHelper::SendData(route(), uiMessageLen, sample, pWriter, false, sources, destinations,
                                    bTrace, texts, [this](bool bEncoded) {
                                        if (bEncoded)
                                            m_pMessageProcessor->modifyDataReaderId(proxyGuid().entityId);
                                    });
}

int DataMessageWithReaderProxy::sendDataFragMessage(uint32_t uiMessageLen, CacheChange* pChange,
                                                    Writer* pWriter) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*pChange);
    const bool bTrace = DataSendHelper::QueryTraceOn(m_uiDomainId, m_strTopicName);
    const std::list<Locator_t> sources = DataSendHelper::SourcesOf(pWriter);
    const std::list<Locator_t> destinations = proxyUnicastLocators();
    // The whole sample goes again; a selective repair is FragRepairRequest's job.
    const DataSendHelper::Texts texts = {
        "[DataMessageWithReaderProxy::Execute] EncapsulateDATAFragMessage Error and TopicName = %s",
        "[MessageTransmitterUDP::MessageSend] DataFragProxy [5] TopicName = %s SeqNum = %d FragNum = %d",
        "[DataMessageRequest::sendDataFragMessage] [6] TopicName = %s SeqNum = %d"};
    return DataSendHelper::SendFragmentSeries(route(), uiMessageLen, sample, pWriter, false, sources,
                                              destinations, bTrace, texts,
                                              [](uint32_t) { SystemClock::SleepMs(FRAGMENT_PAUSE_MS); });
}
