#include "requests/DataMessageRequest_L.h"

#include <list>
#include <map>

#include "DDSLogManagementFactory.h"
#include "messages/MessageProcessor.h"
#include "requests/DataSendHelper.h"
#include "rtps/StatelessWriter.h"  // layer-ok: the destinations are the borrowed writer's locator map

DataMessageRequest_L::DataMessageRequest_L(const EntityId_t& entityId, CacheChange* pCacheChange,
                                           MessageProcessor* pMessageProcessor,
                                           MessageTransmitter* pMessageTransmitter, const Time_t& startTime,
                                           const Time_t& nextTime)
    : Request(REQUEST_TYPE_DATA_L, entityId, pMessageProcessor, pMessageTransmitter, startTime, nextTime),
      m_pCacheChange(pCacheChange) {}

DataMessageRequest_L::~DataMessageRequest_L() {
    DataSendHelper::DeleteChange(m_pCacheChange);
}

uint32_t DataMessageRequest_L::Execute() {
    if (m_pMessageProcessor == nullptr || m_pCacheChange == nullptr) return REQUEST_EXECUTE_FAILED;

    m_pMessageProcessor->lockMessage();
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*m_pCacheChange);
    const bool bTrace = DataSendHelper::QueryTraceOn(m_uiDomainId, getTopicName());
    if (bTrace)
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageRequest_L::Execute] [3] TopicName = %s SeqNum = %d",
                            getTopicName().c_str(), int(sample.sequenceNumber.low));

    uint32_t uiMessageLen = 0;
    if (!DataSendHelper::ComposeFrontOrFail(
            route(), uiMessageLen, sample,
            "[DataMessageRequest_L::Execute] EncapsulateMessageHeader Error and TopicName = %s",
            "[DataMessageRequest_L::Execute] EncapsulateINFOTSMessage Error and TopicName = %s"))
        return REQUEST_EXECUTE_FAILED;

    // Failures below are logged by the senders; a best-effort sample is gone either way.
    if (DataSendHelper::IsSingleData(sample.uiDataLength))
        sendDataMessage(uiMessageLen, bTrace);
    else
        sendDataFragMessage(uiMessageLen, bTrace);

    DataSendHelper::DeleteChange(m_pCacheChange);
    m_pMessageProcessor->unlockMessage();
    return REQUEST_EXECUTE_OK;
}

namespace {
// Locator lists of the sending thread, refilled for every sample. Refilling
// reuses their nodes, so that once a writer's counts have settled a send
// allocates nothing for its locators; a best-effort writer sends each sample
// at once, and the two copies per sample showed in its profile. Execute never
// runs nested on one thread (nothing it calls executes another request), so
// one pair per thread suffices.
struct LocatorScratch {
    std::list<Locator_t> sources;
    std::list<Locator_t> destinations;
};

LocatorScratch& ThreadScratch() {
    thread_local LocatorScratch scratch;
    return scratch;
}

// Copies the writer's locators while it is borrowed: it is given back before
// the send. The destinations: each locator once, whatever its count of readers.
void FillLocators(const StatelessWriter* pWriter, LocatorScratch& scratch) {
    const std::list<Locator_t>& sources = pWriter->getUnicastLocatorList();
    scratch.sources.assign(sources.begin(), sources.end());
    const std::map<Locator_t, ReaderLocator>& readerLocators = pWriter->getReaderLocators();
    auto itOut = scratch.destinations.begin();
    for (const auto& entry : readerLocators) {
        if (itOut != scratch.destinations.end())
            *itOut++ = entry.first;
        else
            scratch.destinations.push_back(entry.first);
    }
    scratch.destinations.erase(itOut, scratch.destinations.end());
}

bool IsStateless(const Writer* pWriter) {
    return dynamic_cast<const StatelessWriter*>(pWriter) != nullptr;
}
}  // namespace

DataSendHelper::Route DataMessageRequest_L::route() const {
    return DataSendHelper::Route{m_pMessageProcessor, m_pMessageTransmitter, m_uiDomainId,
                                 getTopicName().c_str()};
}

int DataMessageRequest_L::sendDataMessage(uint32_t uiMessageLen, bool bTrace) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*m_pCacheChange);
    if (bTrace)
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageRequest_L::sendDataMessage] [4] TopicName = %s SeqNum = %d",
                            getTopicName().c_str(), int(sample.sequenceNumber.low));

    EndpointLoan writer = DataSendHelper::BorrowWriterOrFail(
        route(), m_EntityId,
        "[DataMessageRequest_L::sendDataMessage] isEndpointExist Error and TopicName = %s", IsStateless);
    if (!writer) return 1;

    LocatorScratch& locators = ThreadScratch();
    FillLocators(static_cast<StatelessWriter*>(writer.get()), locators);
    // The readerId stays 00 00 00 00, for built-in writers too.
    const DataSendHelper::Texts texts = {
        "[DataMessageRequest_L::sendDataMessage] returnEndpoint Error and TopicName = %s",
        "[MessageTransmitterUDP::MessageSend] Data_L [5] TopicName = %s SeqNum = %d", nullptr};
    return DataSendHelper::SendData(route(), uiMessageLen, sample, writer, true, locators.sources,
                                    locators.destinations, bTrace, texts);
}

int DataMessageRequest_L::sendDataFragMessage(uint32_t uiMessageLen, bool bTrace) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*m_pCacheChange);

    EndpointLoan writer = DataSendHelper::BorrowWriterOrFail(
        route(), m_EntityId,
        "[DataMessageRequest_L::sendDataFragMessage] isEndpointExist Error and TopicName = %s", IsStateless);
    if (!writer) return 1;

    LocatorScratch& locators = ThreadScratch();
    FillLocators(static_cast<StatelessWriter*>(writer.get()), locators);
    const DataSendHelper::Texts texts = {
        "[DataMessageRequest_L::sendDataFragMessage] returnEndpoint Error and TopicName = %s",
        "[MessageTransmitterUDP::MessageSend] DataFrag_L [5] TopicName = %s SeqNum = %d FragNum = %d",
        "[DataMessageRequest_L::sendDataFragMessage] [6] TopicName = %s SeqNum = %d"};
    return DataSendHelper::SendFragmentSeries(route(), uiMessageLen, sample, writer, true, locators.sources,
                                              locators.destinations, bTrace, texts);
}
