// The reliable writer: one ReaderProxy per matched reader and the
// acknowledgement protocol. DataSend runs on the application thread, the
// receive operations on the process thread with the writer borrowed;
// m_MatchedReaderMutex guards the map (not the proxies).
#pragma once

#include <cstdint>
#include <map>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "messages/SubMessages.h"
#include "rtps/Writer.h"

class Mutex;
class ReaderProxy;
class HeartbeatMessageRequest;

class StatefulWriter : public Writer {
public:
    StatefulWriter(const GUID_t& guidValue, const DataWriterQos& attributes,
                   RequestScheduler* const* pSchedulers);
    ~StatefulWriter() override;

    uint32_t getMatchedCount() override;
    ReturnCode_t DataSend(CacheChange* pCacheChange) override;
    int removeChange(SequenceNumber_t seqNum) override;

    // Process thread, writer borrowed. 0 handled or ignored, 1 refused. Filled in
    // with the reliable writer work; virtual so that the decoder's routing can be
    // observed.
    virtual int AckNackMessageReceive(const MessageReceiver& receiver, const ackMessage& message);
    virtual int NackFragMessageReceive(const MessageReceiver& receiver, const NackFragMessage& message);

protected:
    std::map<GUID_t, ReaderProxy*> m_MatchedReaderList;  // owned proxies
    HeartbeatMessageRequest* m_PeriodicHeartbeat;        // owned; lives in the periodic scheduler
    Mutex* m_MatchedReaderMutex;                         // guards the map, not the proxies
};
