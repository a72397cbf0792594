#include "rtps/StatefulWriter.h"

#include "core/Mutex.h"
#include "rtps/HistoryCache.h"

StatefulWriter::StatefulWriter(const GUID_t& guidValue, const DataWriterQos& attributes,
                               RequestScheduler* const* pSchedulers)
    : Writer(guidValue, attributes, pSchedulers),
      m_PeriodicHeartbeat(nullptr),
      m_MatchedReaderMutex(new Mutex()) {
    reliabilityLevel = 2;
    // Filled in with the stateful writer work: the periodic heartbeat request,
    // built with an empty proxy list and zero times, goes into the periodic
    // scheduler here.
}

StatefulWriter::~StatefulWriter() {
    // Filled in with the stateful writer work: delete the proxies and remove
    // m_PeriodicHeartbeat from the periodic scheduler. Neither exists before.
    delete m_MatchedReaderMutex;
}

uint32_t StatefulWriter::getMatchedCount() {
    m_MatchedReaderMutex->Lock();
    const uint32_t uiCount = uint32_t(m_MatchedReaderList.size());
    m_MatchedReaderMutex->Unlock();
    return uiCount;
}

ReturnCode_t StatefulWriter::DataSend(CacheChange*) {
    // Filled in with the stateful writer work; until then nothing is sent and
    // the change waits in the cache.
    return 1;
}

int StatefulWriter::removeChange(SequenceNumber_t seqNum) {
    // Filled in with the stateful writer work: first remove_change on every
    // proxy under the mutex. The cache part stands already.
    if (m_WriterCache != nullptr) m_WriterCache->RemoveChange(seqNum);
    return 0;
}

int StatefulWriter::AckNackMessageReceive(const MessageReceiver&, const ackMessage&) {
    // Filled in with the reliable writer work; until then an ACKNACK is ignored.
    return 0;
}

int StatefulWriter::NackFragMessageReceive(const MessageReceiver&, const NackFragMessage&) {
    // Filled in with the reliable writer work; until then a NACK_FRAG is ignored.
    return 0;
}
