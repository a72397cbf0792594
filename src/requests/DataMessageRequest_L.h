// First and only transmission of a best-effort sample, to every locator of its
// StatelessWriter. Executed on the writer's own thread or on the send thread;
// Execute holds the message lock throughout and borrows the writer inside it.
#pragma once

#include <cstdint>

#include "BasicTypes.h"
#include "requests/DataSendHelper.h"
#include "requests/Request.h"

class CacheChange;

class DataMessageRequest_L : public Request {
public:
    // Takes over pCacheChange with its payload.
    DataMessageRequest_L(const EntityId_t& entityId, CacheChange* pCacheChange,
                         MessageProcessor* pMessageProcessor, MessageTransmitter* pMessageTransmitter,
                         const Time_t& startTime, const Time_t& nextTime);
    // Frees a change that was never executed (a scheduler dropping the request).
    ~DataMessageRequest_L() override;

    // Header, INFO_TS, then DATA or the DATA_FRAG series; the change is freed
    // once sent. 0 from the front on, 1 when the front could not be composed
    // (the change is then kept until the request is deleted).
    uint32_t Execute() override;

    // Null once Execute has sent it.
    CacheChange* getCacheChange() const { return m_pCacheChange; }

private:
    // bTrace: the query-topic test, made once per Execute.
    // This request's sender and log key and topic, for the shared send steps.
    DataSendHelper::Route route() const;
    int sendDataMessage(uint32_t uiMessageLen, bool bTrace);
    int sendDataFragMessage(uint32_t uiMessageLen, bool bTrace);

    CacheChange* m_pCacheChange;  // owned
};
