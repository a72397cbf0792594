// First transmission of a reliable sample to the matched readers of its
// StatefulWriter. Executed on the writer's own thread or on the send thread;
// Execute holds the message lock throughout and borrows the writer inside it.
#pragma once

#include <cstdint>
#include <list>

#include "BasicTypes.h"
#include "requests/DataSendHelper.h"
#include "requests/Request.h"

class CacheChange;
class ReaderProxy;

class DataMessageRequest : public Request {
public:
    // pCacheChange stays in the writer's history cache: not owned.
    DataMessageRequest(const EntityId_t& entityId, const std::list<ReaderProxy*>& readerProxies,
                       CacheChange* pCacheChange, MessageProcessor* pMessageProcessor,
                       MessageTransmitter* pMessageTransmitter, const Time_t& startTime,
                       const Time_t& nextTime);
    ~DataMessageRequest() override;

    // Header, INFO_TS, then DATA or the DATA_FRAG series. 0 from the front on,
    // 1 when the front could not be composed.
    uint32_t Execute() override;

private:
    // This request's sender and log key and topic, for the shared send steps.
    DataSendHelper::Route route() const;
    int sendDataMessage(uint32_t uiMessageLen);
    int sendDataFragMessage(uint32_t uiMessageLen);

    std::list<ReaderProxy*> m_ReaderProxyList;  // copy of the writer's matched readers
    CacheChange* m_pCacheChange;                // not owned
};
