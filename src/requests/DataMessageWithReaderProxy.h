// Resend of the changes that one reader asked for by ACKNACK, addressed to it
// alone (INFO_DST, optional GAP). Queued on the send thread by the
// StatefulWriter; Execute holds the message lock and the borrowed writer for
// all the requested changes. The reader is named by its GUID and its proxy is
// looked up on the borrowed writer: a queued request may outlive the proxy.
#pragma once

#include <cstdint>
#include <list>

#include "BasicTypes.h"
#include "requests/DataSendHelper.h"
#include "requests/Request.h"

class CacheChange;
class Writer;

class DataMessageWithReaderProxy : public Request {
public:
    // readerGuid names the matched reader that asked.
    DataMessageWithReaderProxy(const EntityId_t& entityId, const GUID_t& readerGuid,
                               MessageProcessor* pMessageProcessor, MessageTransmitter* pMessageTransmitter,
                               const Time_t& startTime, const Time_t& nextTime);
    ~DataMessageWithReaderProxy() override;

    // 0, or 1 when the writer has gone.
    uint32_t Execute() override;

private:
    enum SendResult {
        SEND_DONE = 0,
        SEND_HEADER_FAILED = 1,   // caller: returnChange, returnEndpoint, unlockMessage, return 0
        SEND_INFODST_FAILED = 2,  // the same
        SEND_INFOTS_FAILED = 3    // caller: unlockMessage, return 1; writer and change stay out
    };

    // One requested change to this reader: header, INFO_DST, INFO_TS, the
    // pending GAP (gapStart is then reset to 0), DATA or the DATA_FRAG series.
    // Logs its own failure texts.
    SendResult sendRequestedChange(EndpointLoan& writer, CacheChange* pChange, SequenceNumber_t& gapStart,
                                   const SequenceNumberSet& gapList);
    // This request's sender and log key and topic, for the shared send steps.
    DataSendHelper::Route route() const;
    int sendDataMessage(uint32_t uiMessageLen, CacheChange* pChange, EndpointLoan& writer);
    int sendDataFragMessage(uint32_t uiMessageLen, CacheChange* pChange, EndpointLoan& writer);

    // What the sends need of the proxy.
    std::list<Locator_t> proxyUnicastLocators() const;
    const GUID_t& proxyGuid() const { return m_ReaderGuid; }

    GUID_t m_ReaderGuid;
};
