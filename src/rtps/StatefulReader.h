// The only reader class, best effort and reliable alike: one WriterProxy per
// matched writer, ordering and delivery into the reader cache. Runs on the
// process thread (or Discovery) with the reader borrowed; no lock of its own.
#pragma once

#include <cstdint>
#include <list>
#include <map>

#include "BasicTypes.h"
#include "QosPolicy.h"
#include "rtps/Reader.h"

class WriterProxy;
class AcknackMessageRequest;

class StatefulReader : public Reader
{
public:
    StatefulReader(const GUID_t& guidValue, const DataReaderQos& attributes,
                   RequestScheduler* const* pSchedulers);
    ~StatefulReader() override;

    int DataMessageReceive(const MessageReceiver& receiver, const DataSubMessage& message,
                           const std::list<Parameter>& inlineQos, const octet* pData,
                           uint32_t uiLength) override;
    int DataFragMessageReceive(const MessageReceiver& receiver, const DataFragSubMessage& message,
                               const dataFrag& fragment, const std::list<Parameter>& inlineQos,
                               const octet* pData, uint32_t uiLength) override;
    int HeartBeatMessageReceive(const MessageReceiver& receiver,
                                const heartBeatSubMessage& message) override;
    int GapMessageReceive(const MessageReceiver& receiver,
                          const stGapSubMessage& message) override;

    // Lease check of the matched writers against `now` (public clock). Returns 0.
    int checkLiveliness(Time_t now);
    // A liveliness assertion from the remote participant `remote`. Returns 0.
    int assertLiveliness(GUID_t remote, Time_t now, uint32_t uiKind);

protected:
    std::map<GUID_t, WriterProxy*> m_MatchedWriter; // owned proxies
    SequenceNumber_t m_CacheKeyCounter;             // local delivery numbering
    AcknackMessageRequest* m_PeriodicAckNack;       // null unless the SEDP preemptive ACKNACK runs
};
