// The endpoint registry: borrowing and giving back, the matched-reader look-up and the
// liveliness walks over the application endpoints.
#include "rtps/Participant.h"

#include <thread>

#include "core/Mutex.h"
#include "discovery/Discovery.h"  // layer-ok: the process thread finds its reader through the matching table, which lives one layer up
#include "rtps/Endpoint.h"
#include "rtps/StatefulReader.h"
#include "rtps/Writer.h"

bool Participant::isEndpointExist(EntityId_t entityId) {
    m_EndpointMapMutex->Lock();
    const bool bExist = m_EndpointMap.count(entityId) != 0;
    m_EndpointMapMutex->Unlock();
    return bExist;
}

Endpoint* Participant::takeEndpoint(EntityId_t entityId) {
    if (!isEndpointExist(entityId)) {
        LogText("[Participant::takeEndpoint] Donot Exist");
        return nullptr;
    }
    // Only one thread holds an endpoint at a time; the others spin until it is given
    // back. A holder that never gives it back stalls them all.
    for (;;) {
        m_EndpointMapMutex->Lock();
        auto it = m_EndpointMap.find(entityId);
        if (it == m_EndpointMap.end()) {
            // Deleted while we waited: spinning on would never end.
            m_EndpointMapMutex->Unlock();
            LogText("[Participant::takeEndpoint] Donot Exist");
            return nullptr;
        }
        Endpoint* pEndpoint = it->second;
        it->second = nullptr;
        m_EndpointMapMutex->Unlock();
        if (pEndpoint != nullptr) return pEndpoint;
        std::this_thread::yield();  // not a sleep: lets the holder reach the lock
    }
}

int Participant::returnEndpoint(Endpoint* pEndpoint) {
    if (pEndpoint == nullptr) return 1;
    m_EndpointMapMutex->Lock();
    auto it = m_EndpointMap.find(pEndpoint->getEntityId());
    if (it != m_EndpointMap.end()) {
        it->second = pEndpoint;
        m_EndpointMapMutex->Unlock();
        return 0;
    }
    m_EndpointMapMutex->Unlock();
    LogText("[Participant::returnEndpoint] m_EndpointMap.count error");
    return 1;
}

StatefulReader* Participant::lookupMatchedReader(GUID_t remoteWriter) {
    EntityId_t readerId = ENTITYID_UNKNOWN;
    if (m_pDiscovery != nullptr) m_pDiscovery->getLocalReaderOfWriter(readerId, remoteWriter);
    if (readerId == ENTITYID_UNKNOWN) {
        LogText("[Participant::lookupMatchedReader] pReader = ENTITYID_UNKNOW");
        return nullptr;
    }
    if (!isEndpointExist(readerId)) {
        LogText("[Participant::lookupMatchedReader] Donot Exist");
        return nullptr;
    }
    // takeEndpoint waits for a holder itself and gives null only once the id is gone.
    Endpoint* pEndpoint = takeEndpoint(readerId);
    if (pEndpoint == nullptr) return nullptr;
    StatefulReader* pReader = dynamic_cast<StatefulReader*>(pEndpoint);
    if (pReader == nullptr) {
        // A writer under a reader's id: give it back rather than lose it.
        returnEndpoint(pEndpoint);
        return nullptr;
    }
    return pReader;
}

// ------------------------------------------------------------------ walks

bool Participant::isBuiltinWriterId(const EntityId_t& entityId) const {
    return entityId == ENTITYID_SEDP_BUILTIN_PUBLICATIONS_WRITER ||
           entityId == ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_WRITER ||
           entityId == ENTITYID_SPDP_BUILTIN_PARTICIPANT_WRITER ||
           entityId == ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_WRITER;
}

bool Participant::isBuiltinReaderId(const EntityId_t& entityId) const {
    return entityId == ENTITYID_SEDP_BUILTIN_PUBLICATIONS_READER ||
           entityId == ENTITYID_SEDP_BUILTIN_SUBSCRIPTIONS_READER ||
           entityId == ENTITYID_SPDP_BUILTIN_PARTICIPANT_READER ||
           entityId == ENTITYID_P2P_BUILTIN_PARTICIPANT_MESSAGE_READER;
}

// The walks hold the map lock throughout and run endpoint code under it. A borrowed
// endpoint (null value) fails the cast and misses this pass.
int Participant::checkWriterLiveliness(Time_t now) {
    m_EndpointMapMutex->Lock();
    for (auto& entry : m_EndpointMap) {
        Writer* pWriter = dynamic_cast<Writer*>(entry.second);
        if (pWriter != nullptr && !isBuiltinWriterId(pWriter->getEntityId())) pWriter->checkLiveliness(now);
    }
    m_EndpointMapMutex->Unlock();
    return 0;
}

int Participant::checkReaderLiveliness(Time_t now) {
    m_EndpointMapMutex->Lock();
    for (auto& entry : m_EndpointMap) {
        StatefulReader* pReader = dynamic_cast<StatefulReader*>(entry.second);
        if (pReader != nullptr && !isBuiltinReaderId(pReader->getEntityId())) pReader->checkLiveliness(now);
    }
    m_EndpointMapMutex->Unlock();
    return 0;
}

int Participant::assertWriterLiveliness(uint32_t uiLivelinessKind) {
    m_EndpointMapMutex->Lock();
    for (auto& entry : m_EndpointMap) {
        Writer* pWriter = dynamic_cast<Writer*>(entry.second);
        if (pWriter != nullptr && !isBuiltinWriterId(pWriter->getEntityId()))
            pWriter->assertLiveliness(uiLivelinessKind);
    }
    m_EndpointMapMutex->Unlock();
    return 0;
}

int Participant::assertReaderLiveliness(GUID_t remote, Time_t now, uint32_t uiLivelinessKind) {
    m_EndpointMapMutex->Lock();
    for (auto& entry : m_EndpointMap) {
        StatefulReader* pReader = dynamic_cast<StatefulReader*>(entry.second);
        if (pReader != nullptr && !isBuiltinReaderId(pReader->getEntityId()))
            pReader->assertLiveliness(remote, now, uiLivelinessKind);
    }
    m_EndpointMapMutex->Unlock();
    return 0;
}
