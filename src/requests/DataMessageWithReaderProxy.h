// Resend of the changes that one reader asked for by ACKNACK, addressed to it
// alone (INFO_DST, optional GAP). Queued on the send thread by the
// StatefulWriter; Execute holds the message lock and the borrowed writer for
// all the requested changes.
#pragma once

#include <cstdint>
#include <list>

#include "BasicTypes.h"
#include "requests/DataSendHelper.h"
#include "requests/Request.h"

class CacheChange;
class ReaderProxy;
class Writer;

class DataMessageWithReaderProxy : public Request {
public:
    // pReaderProxy belongs to the writer: not owned.
    DataMessageWithReaderProxy(const EntityId_t& entityId, ReaderProxy* pReaderProxy,
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
    SendResult sendRequestedChange(Writer* pWriter, CacheChange* pChange, SequenceNumber_t& gapStart,
                                   const SequenceNumberSet& gapList);
    // This request's sender and log key and topic, for the shared send steps.
    DataSendHelper::Route route() const;
    int sendDataMessage(uint32_t uiMessageLen, CacheChange* pChange, Writer* pWriter);
    int sendDataFragMessage(uint32_t uiMessageLen, CacheChange* pChange, Writer* pWriter);

    // What the sends need of the proxy.
    std::list<Locator_t> proxyUnicastLocators() const;
    GUID_t proxyGuid() const;

    ReaderProxy* m_pReaderProxy;  // not owned
};
