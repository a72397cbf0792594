#include "rtps/StatefulReader.h"

StatefulReader::StatefulReader(const GUID_t& guidValue, const DataReaderQos& attributes,
                               RequestScheduler* const* pSchedulers)
    : Reader(guidValue, attributes, pSchedulers),
      m_CacheKeyCounter(SEQUENCENUMBER_ZERO),
      m_PeriodicAckNack(nullptr)
{
}

StatefulReader::~StatefulReader()
{
    // Filled in with the stateful reader work: delete the proxies of
    // m_MatchedWriter and remove m_PeriodicAckNack from the periodic
    // scheduler. Nothing fills either before that work.
}

int StatefulReader::DataMessageReceive(const MessageReceiver&, const DataSubMessage&,
                                       const std::list<Parameter>&, const octet*, uint32_t)
{
    // Filled in with the stateful reader work; until then a sample is ignored.
    return 0;
}

int StatefulReader::DataFragMessageReceive(const MessageReceiver&, const DataFragSubMessage&,
                                           const dataFrag&, const std::list<Parameter>&,
                                           const octet*, uint32_t)
{
    // Filled in with the stateful reader work.
    return 0;
}

int StatefulReader::HeartBeatMessageReceive(const MessageReceiver&, const heartBeatSubMessage&)
{
    // Filled in with the stateful reader work.
    return 0;
}

int StatefulReader::GapMessageReceive(const MessageReceiver&, const stGapSubMessage&)
{
    // Filled in with the stateful reader work.
    return 0;
}

int StatefulReader::checkLiveliness(Time_t)
{
    // Filled in with the stateful reader work (per-proxy lease check).
    return 0;
}

int StatefulReader::assertLiveliness(GUID_t, Time_t, uint32_t)
{
    // Filled in with the stateful reader work.
    return 0;
}
