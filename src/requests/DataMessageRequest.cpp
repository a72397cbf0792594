#include "requests/DataMessageRequest.h"

#include "DDSLogManagementFactory.h"
#include "messages/MessageProcessor.h"
#include "requests/DataSendHelper.h"
#include "rtps/CacheChange.h"   // layer-ok: the sample is read from the writer's cache while borrowed
#include "rtps/HistoryCache.h"  // layer-ok: the sample is found by number in the borrowed writer's cache
#include "rtps/Writer.h"        // layer-ok: the borrowed writer holds the cache

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

// The sample of a borrowed writer, taken from its cache for the length of one send. It
// must go back before the writer does: the cache dies with the writer.
class DataMessageRequest::TakenChange {
public:
    TakenChange(Writer* pWriter, const SequenceNumber_t& seqNum)
        : m_pCache(pWriter != nullptr ? pWriter->getWriterCache() : nullptr),
          m_pChange(m_pCache != nullptr ? m_pCache->takeChange(seqNum) : nullptr) {}
    ~TakenChange() { Return(); }
    TakenChange(const TakenChange&) = delete;
    TakenChange& operator=(const TakenChange&) = delete;
    const CacheChange* get() const { return m_pChange; }
    void Return() {
        if (m_pChange != nullptr) m_pCache->returnChange(m_pChange);
        m_pChange = nullptr;
    }

private:
    HistoryCache* m_pCache;
    CacheChange* m_pChange;
};

DataMessageRequest::DataMessageRequest(const EntityId_t& entityId, const std::list<GUID_t>& readers,
                                       const SequenceNumber_t& seqNum, uint32_t uiDataLength,
                                       MessageProcessor* pMessageProcessor,
                                       MessageTransmitter* pMessageTransmitter, const Time_t& startTime,
                                       const Time_t& nextTime)
    : Request(REQUEST_TYPE_DATA, entityId, pMessageProcessor, pMessageTransmitter, startTime, nextTime),
      m_ReaderList(readers),
      m_SequenceNumber(seqNum),
      m_uiDataLength(uiDataLength) {}

DataMessageRequest::~DataMessageRequest() {}

uint32_t DataMessageRequest::Execute() {
    if (m_pMessageProcessor == nullptr) return REQUEST_EXECUTE_FAILED;

    m_pMessageProcessor->lockMessage();
    const int iSeq = int(m_SequenceNumber.low);
    const bool bTrace = DataSendHelper::QueryTraceOn(m_uiDomainId, getTopicName());
    if (bTrace)
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageRequest::Execute] [3] TopicName = %s SeqNum = %d",
                            getTopicName().c_str(), iSeq);

    // The writer is borrowed before the front, as the sample (and its time) is found
    // through it; the existence test of the two senders happens here.
    const bool bSingle = DataSendHelper::IsSingleData(m_uiDataLength);
    EndpointLoan writer = DataSendHelper::BorrowWriterOrFail(
        route(), m_EntityId,
        bSingle ? "[DataMessageRequest::sendDataMessage] isEndpointExist Error and TopicName = %s"
                : "[DataMessageRequest::sendDataFragMessage] isEndpointExist Error and TopicName = %s");
    TakenChange change(writer.as<Writer>(), m_SequenceNumber);
    if (change.get() == nullptr) {
        // Writer deleted, or the sample purged from its history: nothing left to send.
        writer.Return();
        m_pMessageProcessor->unlockMessage();
        return REQUEST_EXECUTE_OK;
    }

    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*change.get());
    uint32_t uiMessageLen = 0;
    if (!DataSendHelper::ComposeFrontOrFail(
            route(), uiMessageLen, sample,
            "[DataMessageRequest::Execute] EncapsulateMessageHeader Error and TopicName = %s SeqNum = %d",
            "[DataMessageRequest::Execute] EncapsulateINFOTSMessage Error and TopicName = %s,SeqNum = %d")) {
        change.Return();
        return REQUEST_EXECUTE_FAILED;
    }

    // Failures below are logged by the senders; ACKNACK repairs a lost sample.
    if (bSingle)
        sendDataMessage(uiMessageLen, writer, change, bTrace);
    else
        sendDataFragMessage(uiMessageLen, writer, change, bTrace);
    change.Return();
    writer.Return();

    m_pMessageProcessor->unlockMessage();
    return REQUEST_EXECUTE_OK;
}

DataSendHelper::Route DataMessageRequest::route() const {
    return DataSendHelper::Route{m_pMessageProcessor, m_pMessageTransmitter, m_uiDomainId,
                                 getTopicName().c_str()};
}

int DataMessageRequest::sendDataMessage(uint32_t uiMessageLen, EndpointLoan& writer, TakenChange& change,
                                        bool bTrace) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*change.get());
    if (bTrace)
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageRequest::sendDataMessage] [4] TopicName = %s SeqNum = %d",
                            getTopicName().c_str(), int(sample.sequenceNumber.low));

    const std::list<Locator_t> sources = DataSendHelper::SourcesOf(writer.as<Writer>());
    std::list<Locator_t> destinations;
    // Finished with the reliable protocol work: for each reader of m_ReaderList
    // in order, its proxy looked up on the borrowed writer (a reader unmatched
    // meanwhile is passed over), by the change's targetReaderGUID —
    // GUID_UNKNOWN: change_for_reader_add, change_sent, append the proxy's
    // unicast locators; this proxy's reader: the same, but the proxy's
    // locators replace the list; any other reader: change_not_relevant.

    const DataSendHelper::Texts texts = {
        "[DataMessageRequest::sendDataMessage] returnEndpoint Error and TopicName = %s",
        "[MessageTransmitterUDP::MessageSend] Data [5] TopicName = %s SeqNum = %d", nullptr};
    return DataSendHelper::SendData(route(), uiMessageLen, sample, writer, false, sources, destinations,
                                    bTrace, texts, [this, &writer, &change](bool) {
                                        // Patched whatever the encoder answered; the processor
                                        // ignores a missing buffer.
                                        m_pMessageProcessor->modifyDataReaderId(ReaderIdFor(m_EntityId));
                                        // Given back before the send: the message no longer
                                        // needs them; the sample before its writer.
                                        change.Return();
                                        writer.Return();
                                    });
}

int DataMessageRequest::sendDataFragMessage(uint32_t uiMessageLen, EndpointLoan& writer, TakenChange& change,
                                            bool bTrace) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*change.get());
    if (bTrace)
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageRequest::sendDataFragMessage] [4] TopicName = %s SeqNum = %d",
                            getTopicName().c_str(), int(sample.sequenceNumber.low));

    const std::list<Locator_t> sources = DataSendHelper::SourcesOf(writer.as<Writer>());
    std::list<Locator_t> destinations;
    // Finished with the reliable protocol work: for every reader of
    // m_ReaderList still matched, with no regard to targetReaderGUID,
    // change_for_reader_add, change_sent, and append its unicast locators.

    // The readerId of every fragment stays 00 00 00 00. This class has one
    // step [5] text for DATA and DATA_FRAG alike.
    const DataSendHelper::Texts texts = {
        "[DataMessageRequest::sendDataFragMessage] returnEndpoint Error and TopicName = %s",
        "[MessageTransmitterUDP::MessageSend] Data [5] TopicName = %s SeqNum = %d",
        "[DataMessageRequest::sendDataFragMessage] [6] TopicName = %s SeqNum = %d"};
    // Writer and sample stay out for the whole series; Execute gives them back after it.
    return DataSendHelper::SendFragmentSeries(route(), uiMessageLen, sample, writer, false, sources,
                                              destinations, bTrace, texts);
}
