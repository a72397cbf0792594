#include "requests/DataMessageWithReaderProxy.h"

#include "DDSLogManagementFactory.h"
#include "core/SystemClock.h"
#include "messages/MessageProcessor.h"
#include "requests/DataSendHelper.h"
#include "rtps/Writer.h"  // layer-ok: the borrowed writer supplies its source locators

namespace {
// Pause after each resent fragment, so that a repair burst does not flood the reader.
const int FRAGMENT_PAUSE_MS = 1;
}  // namespace

DataMessageWithReaderProxy::DataMessageWithReaderProxy(const EntityId_t& entityId, const GUID_t& readerGuid,
                                                       MessageProcessor* pMessageProcessor,
                                                       MessageTransmitter* pMessageTransmitter,
                                                       const Time_t& startTime, const Time_t& nextTime)
    : Request(REQUEST_TYPE_DATA_READER_PROXY, entityId, pMessageProcessor, pMessageTransmitter, startTime,
              nextTime),
      m_ReaderGuid(readerGuid) {}

DataMessageWithReaderProxy::~DataMessageWithReaderProxy() {}

std::list<Locator_t> DataMessageWithReaderProxy::proxyUnicastLocators() const {
    // Finished with the reliable protocol work: the unicast locator list of the
    // proxy of m_ReaderGuid, looked up on the borrowed writer.
    return std::list<Locator_t>();
}

uint32_t DataMessageWithReaderProxy::Execute() {
    if (m_pMessageProcessor == nullptr) return REQUEST_EXECUTE_FAILED;
    if (DataSendHelper::QueryTraceOn(m_uiDomainId, getTopicName()))
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageWithReaderProxy::Execute] [1] TopicName = %s ",
                            getTopicName().c_str());
    if (!DataSendHelper::WriterExists(m_pMessageProcessor, m_EntityId)) {
        DataSendHelper::Log(m_uiDomainId, DDSLOG_INFO,
                            "[DataMessageWithReaderProxy::Execute] isEndpointExist Error and TopicName = %s",
                            getTopicName().c_str());
        return REQUEST_EXECUTE_FAILED;
    }

    m_pMessageProcessor->lockMessage();
    EndpointLoan writer = DataSendHelper::BorrowWriter(m_pMessageProcessor, m_EntityId);
    if (!writer) {
        // Gone while we waited for it.
        m_pMessageProcessor->unlockMessage();
        DataSendHelper::Log(m_uiDomainId, DDSLOG_INFO,
                            "[DataMessageWithReaderProxy::Execute] isEndpointExist Error and TopicName = %s",
                            getTopicName().c_str());
        return REQUEST_EXECUTE_FAILED;
    }

    // Finished with the reliable protocol work: look up the proxy of m_ReaderGuid
    // on the borrowed writer (unmatched meanwhile: give everything back and end
    // quietly), take the writer's HistoryCache and walk a copy of the proxy's
    // requested_changes() with gapStart 0 and an
    // empty gapList (base 0, numBits 0). An entry with is_relevant clear sets
    // gapStart if it is 0 and moves gapList's base to its number + 1. A relevant
    // entry: takeChange (none: pass it over, no GAP), sendRequestedChange,
    // returnChange; the failures of sendRequestedChange end Execute as its
    // result codes say. A range still pending at the end is dropped.

    writer.Return();
    m_pMessageProcessor->unlockMessage();
    return REQUEST_EXECUTE_OK;
}

DataMessageWithReaderProxy::SendResult DataMessageWithReaderProxy::sendRequestedChange(
    EndpointLoan& writer, CacheChange* pChange, SequenceNumber_t& gapStart,
    const SequenceNumberSet& gapList) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*pChange);
    const GUID_t reader = proxyGuid();

    uint32_t uiMessageLen = 0;
    if (m_pMessageProcessor->EncapsulateMessageHeader(uiMessageLen) == nullptr) {
        DataSendHelper::Log(
            m_uiDomainId, DDSLOG_INFO,
            "[DataMessageWithReaderProxy::Execute] EncapsulateMessageHeader Error and TopicName = %s",
            getTopicName().c_str());
        return SEND_HEADER_FAILED;
    }
    if (m_pMessageProcessor->EncapsulateINFODSTMessage(uiMessageLen, reader.guidPrefix) == nullptr) {
        DataSendHelper::Log(
            m_uiDomainId, DDSLOG_INFO,
            "[DataMessageWithReaderProxy::Execute] EncapsulateINFODSTMessage Error and TopicName = %s",
            getTopicName().c_str());
        return SEND_INFODST_FAILED;
    }
    if (m_pMessageProcessor->EncapsulateINFOTSMessage(uiMessageLen, sample.sourceTimestamp) == nullptr) {
        DataSendHelper::Log(
            m_uiDomainId, DDSLOG_INFO,
            "[DataMessageWithReaderProxy::Execute] EncapsulateINFOTSMessage Error and TopicName = %s",
            getTopicName().c_str());
        return SEND_INFOTS_FAILED;
    }
    if (gapStart != SEQUENCENUMBER_ZERO) {
        // A GAP travels only in front of a real sample. Its result is not looked at.
        m_pMessageProcessor->EncapsulateGapMessage(uiMessageLen, m_EntityId, reader.entityId, gapStart,
                                                   gapList);
        gapStart = SEQUENCENUMBER_ZERO;
    }
    if (DataSendHelper::IsSingleData(sample.uiDataLength))
        sendDataMessage(uiMessageLen, pChange, writer);
    else
        sendDataFragMessage(uiMessageLen, pChange, writer);
    return SEND_DONE;
}

DataSendHelper::Route DataMessageWithReaderProxy::route() const {
    return DataSendHelper::Route{m_pMessageProcessor, m_pMessageTransmitter, m_uiDomainId,
                                 getTopicName().c_str()};
}

int DataMessageWithReaderProxy::sendDataMessage(uint32_t uiMessageLen, CacheChange* pChange,
                                                EndpointLoan& writer) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*pChange);
    const std::list<Locator_t> sources = DataSendHelper::SourcesOf(writer.as<Writer>());
    const std::list<Locator_t> destinations = proxyUnicastLocators();
    const bool bTrace = DataSendHelper::QueryTraceOn(m_uiDomainId, getTopicName());
    // The writer is Execute's to give back.
    const DataSendHelper::Texts texts = {
        "[DataMessageWithReaderProxy::sendDataMessage] EncapsulateDATAMessage Error and TopicName = %s",
        "[MessageTransmitterUDP::MessageSend] DataProxy [5] TopicName = %s SeqNum = %d", nullptr};
    return DataSendHelper::SendData(route(), uiMessageLen, sample, writer, false, sources, destinations,
                                    bTrace, texts, [this](bool bEncoded) {
                                        if (bEncoded)
                                            m_pMessageProcessor->modifyDataReaderId(proxyGuid().entityId);
                                    });
}

int DataMessageWithReaderProxy::sendDataFragMessage(uint32_t uiMessageLen, CacheChange* pChange,
                                                    EndpointLoan& writer) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*pChange);
    const bool bTrace = DataSendHelper::QueryTraceOn(m_uiDomainId, getTopicName());
    const std::list<Locator_t> sources = DataSendHelper::SourcesOf(writer.as<Writer>());
    const std::list<Locator_t> destinations = proxyUnicastLocators();
    // The whole sample goes again; a selective repair is FragRepairRequest's job.
    const DataSendHelper::Texts texts = {
        "[DataMessageWithReaderProxy::Execute] EncapsulateDATAFragMessage Error and TopicName = %s",
        "[MessageTransmitterUDP::MessageSend] DataFragProxy [5] TopicName = %s SeqNum = %d FragNum = %d",
        "[DataMessageRequest::sendDataFragMessage] [6] TopicName = %s SeqNum = %d"};
    return DataSendHelper::SendFragmentSeries(route(), uiMessageLen, sample, writer, false, sources,
                                              destinations, bTrace, texts,
                                              [](uint32_t) { SystemClock::SleepMs(FRAGMENT_PAUSE_MS); });
}
