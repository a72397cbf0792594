#include "discovery/Discovery.h"

#include "core/Mutex.h"

Discovery::Discovery(DomainParticipantImpl* pOwner)
    : m_pOwner(pOwner),
      m_WriterReaderMap(),
      m_pParticipantListMutex(new Mutex()),
      m_pWriterListMutex(new Mutex()),
      m_pReaderListMutex(new Mutex()) {}

Discovery::~Discovery() {
    delete m_pParticipantListMutex;
    delete m_pWriterListMutex;
    delete m_pReaderListMutex;
}

void Discovery::getLocalReaderOfWriter(EntityId_t& out, const GUID_t& remoteWriter) {
    m_pWriterListMutex->Lock();
    auto it = m_WriterReaderMap.find(remoteWriter);
    out = it != m_WriterReaderMap.end() ? it->second : ENTITYID_UNKNOWN;
    m_pWriterListMutex->Unlock();
}

int Discovery::addWriterReaderPair(const GUID_t& remoteWriter, const EntityId_t& localReader) {
    m_pWriterListMutex->Lock();
    m_WriterReaderMap[remoteWriter] = localReader;
    m_pWriterListMutex->Unlock();
    return 0;
}

int Discovery::removeWriterReaderPair(const GUID_t& remoteWriter) {
    m_pWriterListMutex->Lock();
    const size_t uiErased = m_WriterReaderMap.erase(remoteWriter);
    m_pWriterListMutex->Unlock();
    return uiErased != 0 ? 0 : 1;
}
