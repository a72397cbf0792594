#include "rtps/StatelessWriter.h"

#include "rtps/HistoryCache.h"

StatelessWriter::StatelessWriter(const GUID_t& guidValue, const DataWriterQos& attributes,
                                 RequestScheduler* const* pSchedulers)
    : Writer(guidValue, attributes, pSchedulers)
{
    reliabilityLevel = 1;
}

StatelessWriter::~StatelessWriter() {}

uint32_t StatelessWriter::getMatchedCount()
{
    // Filled in with the stateless writer work: the size of m_MatchedLocatorMap.
    return 0;
}

ReturnCode_t StatelessWriter::DataSend(CacheChange*)
{
    // Filled in with the stateless writer work; until then nothing is sent.
    return 1;
}

int StatelessWriter::removeChange(SequenceNumber_t seqNum)
{
    // A best-effort writer keeps no reader state: only the cache is involved.
    if (m_WriterCache != nullptr)
        m_WriterCache->RemoveChange(seqNum);
    return 0;
}
