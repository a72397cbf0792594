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
    const bool bTrace = DataSendHelper::QueryTraceOn(m_uiDomainId, m_strTopicName);
    if (bTrace)
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageRequest_L::Execute] [3] TopicName = %s SeqNum = %d",
                            m_strTopicName.c_str(), int(sample.sequenceNumber.low));

    uint32_t uiMessageLen = 0;
    const DataSendHelper::FrontResult front =
        DataSendHelper::ComposeFront(m_pMessageProcessor, uiMessageLen, sample);
    if (front == DataSendHelper::FRONT_HEADER_FAILED) {
        m_pMessageProcessor->unlockMessage();
        DataSendHelper::Log(
            m_uiDomainId, DDSLOG_INFO,
            "[DataMessageRequest_L::Execute] EncapsulateMessageHeader Error and TopicName = %s",
            m_strTopicName.c_str());
        return REQUEST_EXECUTE_FAILED;
    }
    if (front == DataSendHelper::FRONT_INFOTS_FAILED) {
        m_pMessageProcessor->unlockMessage();
        DataSendHelper::Log(
            m_uiDomainId, DDSLOG_INFO,
            "[DataMessageRequest_L::Execute] EncapsulateINFOTSMessage Error and TopicName = %s",
            m_strTopicName.c_str());
        return REQUEST_EXECUTE_FAILED;
    }

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
}  // namespace

int DataMessageRequest_L::sendDataMessage(uint32_t uiMessageLen, bool bTrace) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*m_pCacheChange);
    if (bTrace)
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageRequest_L::sendDataMessage] [4] TopicName = %s SeqNum = %d",
                            m_strTopicName.c_str(), int(sample.sequenceNumber.low));

    Writer* pWriter = nullptr;
    if (DataSendHelper::WriterExists(m_pMessageProcessor, m_EntityId))
        pWriter = DataSendHelper::BorrowWriter(m_pMessageProcessor, m_EntityId);
    StatelessWriter* pStatelessWriter = dynamic_cast<StatelessWriter*>(pWriter);
    if (pStatelessWriter == nullptr) {
        // Gone before or during the wait, or not a best-effort writer at all.
        DataSendHelper::ReturnWriter(m_pMessageProcessor, pWriter);
        DataSendHelper::Log(
            m_uiDomainId, DDSLOG_INFO,
            "[DataMessageRequest_L::sendDataMessage] isEndpointExist Error and TopicName = %s",
            m_strTopicName.c_str());
        return 1;
    }

    LocatorScratch& locators = ThreadScratch();
    FillLocators(pStatelessWriter, locators);
    // The readerId stays 00 00 00 00, for built-in writers too.
    if (DataSendHelper::AppendData(m_pMessageProcessor, uiMessageLen, sample, pWriter) == nullptr) {
        DataSendHelper::ReturnWriter(m_pMessageProcessor, pWriter);
        DataSendHelper::Log(m_uiDomainId, DDSLOG_INFO,
                            "[DataMessageRequest_L::sendDataMessage] returnEndpoint Error and TopicName = %s",
                            m_strTopicName.c_str());
        return 1;
    }
    // Given back before the send: the message no longer needs the writer.
    DataSendHelper::ReturnWriter(m_pMessageProcessor, pWriter);
    DataSendHelper::Send(m_pMessageProcessor, m_pMessageTransmitter, locators.sources, locators.destinations,
                         uiMessageLen);
    if (bTrace)
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[MessageTransmitterUDP::MessageSend] Data_L [5] TopicName = %s SeqNum = %d",
                            m_strTopicName.c_str(), int(sample.sequenceNumber.low));
    return 0;
}

int DataMessageRequest_L::sendDataFragMessage(uint32_t uiMessageLen, bool bTrace) {
    const DataSendHelper::Sample sample = DataSendHelper::SampleOf(*m_pCacheChange);

    Writer* pWriter = nullptr;
    if (DataSendHelper::WriterExists(m_pMessageProcessor, m_EntityId))
        pWriter = DataSendHelper::BorrowWriter(m_pMessageProcessor, m_EntityId);
    StatelessWriter* pStatelessWriter = dynamic_cast<StatelessWriter*>(pWriter);
    if (pStatelessWriter == nullptr) {
        DataSendHelper::ReturnWriter(m_pMessageProcessor, pWriter);
        DataSendHelper::Log(
            m_uiDomainId, DDSLOG_INFO,
            "[DataMessageRequest_L::sendDataFragMessage] isEndpointExist Error and TopicName = %s",
            m_strTopicName.c_str());
        return 1;
    }

    LocatorScratch& locators = ThreadScratch();
    FillLocators(pStatelessWriter, locators);
    // The writer stays borrowed for the whole series.
    const int iResult = DataSendHelper::SendFragments(
        m_pMessageProcessor, m_pMessageTransmitter, uiMessageLen, sample, pWriter, locators.sources,
        locators.destinations, [this, bTrace, &sample](uint32_t uiFragmentNum) {
            if (bTrace)
                DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                                    "[MessageTransmitterUDP::MessageSend] DataFrag_L [5] TopicName = %s "
                                    "SeqNum = %d FragNum = %d",
                                    m_strTopicName.c_str(), int(sample.sequenceNumber.low),
                                    int(uiFragmentNum));
        });
    if (iResult != 0) {
        DataSendHelper::ReturnWriter(m_pMessageProcessor, pWriter);
        DataSendHelper::Log(
            m_uiDomainId, DDSLOG_INFO,
            "[DataMessageRequest_L::sendDataFragMessage] returnEndpoint Error and TopicName = %s",
            m_strTopicName.c_str());
        return 1;
    }
    if (bTrace)
        DataSendHelper::Log(m_uiDomainId, DDSLOG_WRITE,
                            "[DataMessageRequest_L::sendDataFragMessage] [6] TopicName = %s SeqNum = %d",
                            m_strTopicName.c_str(), int(sample.sequenceNumber.low));
    DataSendHelper::ReturnWriter(m_pMessageProcessor, pWriter);
    return 0;
}
