// First transmission of a reliable sample to the matched readers of its
// StatefulWriter. Executed on the writer's own thread or on the send thread;
// Execute holds the message lock throughout and borrows the writer inside it.
// It names its writer, sample and readers by key, not by pointer: a queued
// request may outlive all three, and then ends quietly.
#pragma once

#include <cstdint>
#include <list>

#include "BasicTypes.h"
#include "requests/DataSendHelper.h"
#include "requests/Request.h"

class CacheChange;
class HistoryCache;

class DataMessageRequest : public Request {
public:
    // The sample stays in the writer's history cache under seqNum; uiDataLength picks
    // DATA or DATA_FRAG (and the failure text) even when the sample has gone.
    DataMessageRequest(const EntityId_t& entityId, const std::list<GUID_t>& readers,
                       const SequenceNumber_t& seqNum, uint32_t uiDataLength,
                       MessageProcessor* pMessageProcessor, MessageTransmitter* pMessageTransmitter,
                       const Time_t& startTime, const Time_t& nextTime);
    ~DataMessageRequest() override;

    // Header, INFO_TS, then DATA or the DATA_FRAG series. 0 from the front on,
    // and when the writer or the sample has gone; 1 when the front could not be composed.
    uint32_t Execute() override;

    const SequenceNumber_t& getSequenceNumber() const { return m_SequenceNumber; }
    const std::list<GUID_t>& getReaders() const { return m_ReaderList; }

private:
    // This request's sender and log key and topic, for the shared send steps.
    DataSendHelper::Route route() const;
    class TakenChange;
    int sendDataMessage(uint32_t uiMessageLen, EndpointLoan& writer, TakenChange& change, bool bTrace);
    int sendDataFragMessage(uint32_t uiMessageLen, EndpointLoan& writer, TakenChange& change, bool bTrace);

    std::list<GUID_t> m_ReaderList;     // the writer's matched readers at creation
    SequenceNumber_t m_SequenceNumber;  // the sample, in the writer's history cache
    uint32_t m_uiDataLength;
};
