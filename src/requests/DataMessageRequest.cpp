#include "requests/DataMessageRequest.h"

#include "DDSLogManagementFactory.h"
#include "messages/MessageProcessor.h"
#include "requests/DataSendHelper.h"

namespace {
// Replies of the built-in SEDP writers go to their reader counterparts; all
// other DATA leave with an unknown reader.
EntityId_t ReaderIdFor(const EntityId_t& writerId) {
    if (writerId == ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER)
        return ENTITYID_SEDP_BUILTIN_PUBLICATIONS_READER;
    if (writerId == ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_WRITER)
        return ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_READER;
    return ENTITYID_UNKNOWN;
}
}  // namespace

DataMessageRequest::DataMessageRequest(const EntityId_t& entityId,
                                       const std::list<ReaderProxy*>& readerProxies,
                                       CacheChange* pCacheChange, MessageProcessor* pMessageProcessor,
                                       MessageTransmitter* pMessageTransmitter, const Time_t& startTime,
                                       const Time_t& nextTime)
    : Request(REQUEST_TYPE_DATA, entityId, pMessageProcessor, pMessageTransmitter, startTime, nextTime),
      m_ReaderProxyList(readerProxies),
      m_pCacheChange(pCacheChange) {}

DataMessageRequest::~DataMessageRequest() {}

uint32_t DataMessageRequest::Execute() {
    if (m_pMessageProcessor == nullptr || m_pCacheChange == nullptr) return REQUEST_EXECUTE_FAILED;

    m_pMessageProcessor->lockMessage();
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*m_pCacheChange);
    const int iSeq = int(sample.sequenceNumber.low);
    if (DataSendHelper::QueryTraceOn(m_uiDomainId, m_strTopicName))
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageRequest::Execute] [3] TopicName = %s SeqNum = %d",
                            m_strTopicName.c_str(), iSeq);

    uint32_t uiMessageLen = 0;
    if (!DataSendHelper::ComposeFrontOrFail(
            route(), uiMessageLen, sample,
            "[DataMessageRequest::Execute] EncapsulateMessageHeader Error and TopicName = %s SeqNum = %d",
            "[DataMessageRequest::Execute] EncapsulateINFOTSMessage Error and TopicName = %s,SeqNum = %d"))
        return REQUEST_EXECUTE_FAILED;

    // Failures below are logged by the senders; ACKNACK repairs a lost sample.
    if (DataSendHelper::IsSingleData(sample.uiDataLength))
        sendDataMessage(uiMessageLen);
    else
        sendDataFragMessage(uiMessageLen);

    m_pMessageProcessor->unlockMessage();
    return REQUEST_EXECUTE_OK;
}

DataSendHelper::Route DataMessageRequest::route() const {
    return DataSendHelper::Route{m_pMessageProcessor, m_pMessageTransmitter, m_uiDomainId,
                                 m_strTopicName.c_str()};
}

int DataMessageRequest::sendDataMessage(uint32_t uiMessageLen) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*m_pCacheChange);
    const bool bTrace = DataSendHelper::QueryTraceOn(m_uiDomainId, m_strTopicName);
    if (bTrace)
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageRequest::sendDataMessage] [4] TopicName = %s SeqNum = %d",
                            m_strTopicName.c_str(), int(sample.sequenceNumber.low));

    Writer* pWriter = DataSendHelper::BorrowWriterOrFail(
        route(), m_EntityId,
        "[DataMessageRequest::sendDataMessage] isEndpointExist Error and TopicName = %s");
    if (pWriter == nullptr) return 1;

    const std::list<Locator_t> sources = DataSendHelper::SourcesOf(pWriter);
    std::list<Locator_t> destinations;
    // Finished with the reliable protocol work: for each proxy of
    // m_ReaderProxyList in order, by the change's targetReaderGUID —
    // GUID_UNKNOWN: change_for_reader_add, change_sent, append the proxy's
    // unicast locators; this proxy's reader: the same, but the proxy's
    // locators replace the list; any other reader: change_not_relevant.

    const DataSendHelper::Texts texts = {
        "[DataMessageRequest::sendDataMessage] returnEndpoint Error and TopicName = %s",
        "[MessageTransmitterUDP::MessageSend] Data [5] TopicName = %s SeqNum = %d", nullptr};
    return DataSendHelper::SendData(route(), uiMessageLen, sample, pWriter, true, sources, destinations,
                                    bTrace, texts, [this](bool) {
                                        // Patched whatever the encoder answered; the processor
                                        // ignores a missing buffer.
                                        m_pMessageProcessor->modifyDataReaderId(ReaderIdFor(m_EntityId));
                                    });
}

int DataMessageRequest::sendDataFragMessage(uint32_t uiMessageLen) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*m_pCacheChange);
    const bool bTrace = DataSendHelper::QueryTraceOn(m_uiDomainId, m_strTopicName);
    if (bTrace)
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageRequest::sendDataFragMessage] [4] TopicName = %s SeqNum = %d",
                            m_strTopicName.c_str(), int(sample.sequenceNumber.low));

    Writer* pWriter = DataSendHelper::BorrowWriterOrFail(
        route(), m_EntityId,
        "[DataMessageRequest::sendDataFragMessage] isEndpointExist Error and TopicName = %s");
    if (pWriter == nullptr) return 1;

    const std::list<Locator_t> sources = DataSendHelper::SourcesOf(pWriter);
    std::list<Locator_t> destinations;
    // Finished with the reliable protocol work: for every proxy of
    // m_ReaderProxyList, with no regard to targetReaderGUID,
    // change_for_reader_add, change_sent, and append its unicast locators.

    // The readerId of every fragment stays 00 00 00 00. This class has one
    // step [5] text for DATA and DATA_FRAG alike.
    const DataSendHelper::Texts texts = {
        "[DataMessageRequest::sendDataFragMessage] returnEndpoint Error and TopicName = %s",
        "[MessageTransmitterUDP::MessageSend] Data [5] TopicName = %s SeqNum = %d",
        "[DataMessageRequest::sendDataFragMessage] [6] TopicName = %s SeqNum = %d"};
    return DataSendHelper::SendFragmentSeries(route(), uiMessageLen, sample, pWriter, true, sources,
                                              destinations, bTrace, texts);
}
