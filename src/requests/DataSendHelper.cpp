#include "requests/DataSendHelper.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "DDSLogManagementFactory.h"
#include "messages/MessageProcessor.h"
#include "messages/MessageTransmitter.h"
#include "rtps/CacheChange.h"  // layer-ok: a change is a plain record that the request reads and, for a best-effort sample, frees
#include "rtps/Participant.h"  // layer-ok: requests borrow their writer through the participant's endpoint map
#include "rtps/Writer.h"       // layer-ok: the borrowed writer supplies its source locators

DataSendHelper::Sample DataSendHelper::SampleOf(const CacheChange& change) {
    Sample sample;
    sample.pData = change.data;
    sample.uiDataLength = change.dataLength;
    sample.sequenceNumber = change.sequenceNumber;
    sample.sourceTimestamp = change.sourceTimestamp;
    sample.pInlineQos = &change.inlineQos;
    return sample;
}

void DataSendHelper::DeleteChange(CacheChange*& pChange) {
    if (pChange == nullptr) return;
    CacheChange::FreeData(pChange->data);
    pChange->data = nullptr;
    delete pChange;
    pChange = nullptr;
}

uint32_t DataSendHelper::FragmentCount(uint32_t uiDataLength) {
    if (uiDataLength == 0) return 0;
    return (uiDataLength - 1) / FRAGMENT_SIZE + 1;
}

uint32_t DataSendHelper::FragmentLength(uint32_t uiDataLength, uint32_t uiIndex) {
    const uint32_t uiCount = FragmentCount(uiDataLength);
    if (uiIndex >= uiCount) return 0;
    // The last fragment takes the remainder, so a sample that is an exact
    // multiple of the fragment size ends with an empty fragment and its last
    // stretch never leaves. Receivers of this system expect exactly that.
    if (uiIndex == uiCount - 1) return uiDataLength % FRAGMENT_SIZE;
    return FRAGMENT_SIZE;
}

bool DataSendHelper::WriterExists(MessageProcessor* pProcessor, const EntityId_t& writerId) {
    Participant* pParticipant = pProcessor != nullptr ? pProcessor->getOwner() : nullptr;
    return pParticipant != nullptr && pParticipant->isEndpointExist(writerId);
}

EndpointLoan DataSendHelper::BorrowWriter(MessageProcessor* pProcessor, const EntityId_t& writerId) {
    Participant* pParticipant = pProcessor != nullptr ? pProcessor->getOwner() : nullptr;
    // The loan waits for another holder itself; it comes back empty only when waiting
    // cannot help (gone, left taken, or held by this very thread). The caller reports an
    // absent writer in its own words.
    EndpointLoan loan = EndpointLoan::IfExists(pParticipant, writerId);
    if (loan.as<Writer>() == nullptr) loan.Return();
    return loan;
}

std::list<Locator_t> DataSendHelper::SourcesOf(const Writer* pWriter) {
    return pWriter != nullptr ? pWriter->getUnicastLocatorList() : std::list<Locator_t>();
}

DataSendHelper::FrontResult DataSendHelper::ComposeFront(MessageProcessor* pProcessor, uint32_t& uiMessageLen,
                                                         const Sample& sample) {
    uiMessageLen = 0;
    if (pProcessor->EncapsulateMessageHeader(uiMessageLen) == nullptr) return FRONT_HEADER_FAILED;
    if (pProcessor->EncapsulateINFOTSMessage(uiMessageLen, sample.sourceTimestamp) == nullptr)
        return FRONT_INFOTS_FAILED;
    return FRONT_OK;
}

octet* DataSendHelper::AppendData(MessageProcessor* pProcessor, uint32_t& uiMessageLen, const Sample& sample,
                                  Writer* pWriter) {
    return pProcessor->EncapsulateDATAMessage(uiMessageLen, sample.pData, sample.uiDataLength,
                                              sample.sequenceNumber, *sample.pInlineQos, pWriter);
}

void DataSendHelper::Send(MessageProcessor* pProcessor, MessageTransmitter* pTransmitter,
                          const std::list<Locator_t>& sources, const std::list<Locator_t>& destinations,
                          uint32_t uiMessageLen) {
    // The buffer may have moved while growing: take it only now.
    const octet* pMessage = pProcessor->getEncapsulateMessage();
    if (pTransmitter == nullptr || pMessage == nullptr) return;
    pTransmitter->MessageSend(sources, destinations, pMessage, uiMessageLen);
}

int DataSendHelper::SendFragments(MessageProcessor* pProcessor, MessageTransmitter* pTransmitter,
                                  uint32_t uiFrontLen, const Sample& sample, Writer* pWriter,
                                  const std::list<Locator_t>& sources,
                                  const std::list<Locator_t>& destinations,
                                  const std::function<void(uint32_t)>& afterSend) {
    const uint32_t uiCount = FragmentCount(sample.uiDataLength);
    for (uint32_t i = 0; i < uiCount; ++i) {
        // The front stays; each DATA_FRAG overwrites the one before it.
        uint32_t uiMessageLen = uiFrontLen;
        const uint32_t uiLength = FragmentLength(sample.uiDataLength, i);
        // Every fragment lies inside the payload: the start of the last one is
        // at most its end, with a length of 0 there.
        const octet* pFragment = sample.pData != nullptr ? sample.pData + size_t(i) * FRAGMENT_SIZE : nullptr;
        if (pProcessor->EncapsulateDATAFragMessage(uiMessageLen, pFragment, uiLength, i + 1,
                                                   sample.uiDataLength, sample.sequenceNumber,
                                                   *sample.pInlineQos, pWriter) == nullptr)
            return 1;
        Send(pProcessor, pTransmitter, sources, destinations, uiMessageLen);
        if (afterSend) afterSend(i + 1);
    }
    return 0;
}

bool DataSendHelper::ComposeFrontOrFail(const Route& route, uint32_t& uiMessageLen, const Sample& sample,
                                        const char* szHeaderFailed, const char* szInfoTsFailed) {
    const FrontResult front = ComposeFront(route.pProcessor, uiMessageLen, sample);
    if (front == FRONT_OK) return true;
    route.pProcessor->unlockMessage();
    Log(route.uiLogKey, DDSLOG_INFO, front == FRONT_HEADER_FAILED ? szHeaderFailed : szInfoTsFailed,
        route.szTopicName, int(sample.sequenceNumber.low));
    return false;
}

EndpointLoan DataSendHelper::BorrowWriterOrFail(const Route& route, const EntityId_t& writerId,
                                                const char* szFailed, bool (*accept)(const Writer*)) {
    EndpointLoan writer = BorrowWriter(route.pProcessor, writerId);
    // BorrowWriter hands out writers only: no second class test per sample.
    const Writer* pWriter = static_cast<const Writer*>(writer.get());
    if (pWriter != nullptr && (accept == nullptr || accept(pWriter))) return writer;
    // Gone before or during the wait, or not of the kind asked for.
    writer.Return();
    Log(route.uiLogKey, DDSLOG_INFO, szFailed, route.szTopicName);
    return writer;
}

int DataSendHelper::SendData(const Route& route, uint32_t uiMessageLen, const Sample& sample,
                             EndpointLoan& writer, bool bGiveBack, const std::list<Locator_t>& sources,
                             const std::list<Locator_t>& destinations, bool bTrace, const Texts& texts,
                             const std::function<void(bool)>& afterEncode) {
    const int iSeq = int(sample.sequenceNumber.low);
    const bool bEncoded = AppendData(route.pProcessor, uiMessageLen, sample, writer.as<Writer>()) != nullptr;
    if (afterEncode) afterEncode(bEncoded);
    if (!bEncoded) {
        if (bGiveBack) writer.Return();
        Log(route.uiLogKey, DDSLOG_INFO, texts.szEncodeFailed, route.szTopicName);
        return 1;
    }
    // Given back before the send: the message no longer needs the writer.
    if (bGiveBack) writer.Return();
    Send(route.pProcessor, route.pTransmitter, sources, destinations, uiMessageLen);
    if (bTrace && texts.szSent != nullptr)
        Log(route.uiLogKey, DDSLOG_WRITE, texts.szSent, route.szTopicName, iSeq);
    return 0;
}

int DataSendHelper::SendFragmentSeries(const Route& route, uint32_t uiFrontLen, const Sample& sample,
                                       EndpointLoan& writer, bool bGiveBack,
                                       const std::list<Locator_t>& sources,
                                       const std::list<Locator_t>& destinations, bool bTrace,
                                       const Texts& texts, const std::function<void(uint32_t)>& afterSend) {
    const int iSeq = int(sample.sequenceNumber.low);
    // The writer stays borrowed for the whole series.
    const int iResult = SendFragments(
        route.pProcessor, route.pTransmitter, uiFrontLen, sample, writer.as<Writer>(), sources, destinations,
        [&](uint32_t uiFragmentNum) {
            if (bTrace && texts.szSent != nullptr)
                Log(route.uiLogKey, DDSLOG_WRITE, texts.szSent, route.szTopicName, iSeq, int(uiFragmentNum));
            if (afterSend) afterSend(uiFragmentNum);
        });
    if (iResult != 0) {
        if (bGiveBack) writer.Return();
        Log(route.uiLogKey, DDSLOG_INFO, texts.szEncodeFailed, route.szTopicName);
        return 1;
    }
    if (bTrace && texts.szSeriesDone != nullptr)
        Log(route.uiLogKey, DDSLOG_WRITE, texts.szSeriesDone, route.szTopicName, iSeq);
    if (bGiveBack) writer.Return();
    return 0;
}

bool DataSendHelper::QueryTraceOn(uint32_t uiLogKey, const std::string& strTopicName) {
    DDSLogManagementFactory* pFactory = DDSLogManagementFactory::GetInstance();
    return pFactory != nullptr && pFactory->IsQueryTopic(int(uiLogKey), strTopicName);
}

void DataSendHelper::Log(uint32_t uiLogKey, int iCode, const char* szFormat, ...) {
    char szLog[200];
    va_list args;
    va_start(args, szFormat);
    vsnprintf(szLog, sizeof(szLog), szFormat, args);
    va_end(args);
    DDSLogManagementFactory::WriteDDSLog(int(uiLogKey), szLog, strlen(szLog), iCode, GUID_UNKNOWN);
}
