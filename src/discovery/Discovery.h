// Discovery engine of one participant. For now it holds only the table of remote writers
// matched with local readers, written by the matching code and read by the process thread
// through Participant::lookupMatchedReader; m_pWriterListMutex guards that table.
#pragma once

#include <map>

#include "BasicTypes.h"

class DomainParticipantImpl;
class Mutex;

class Discovery {
public:
    // Creates the three table mutexes, in the order participants, writers, readers.
    explicit Discovery(DomainParticipantImpl* pOwner);
    virtual ~Discovery();

    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    // The local reader matched with remoteWriter, or ENTITYID_UNKNOWN when there is none.
    void getLocalReaderOfWriter(EntityId_t& out, const GUID_t& remoteWriter);

    // One remote writer leads to one local reader: a second pair for the same writer
    // replaces the first. Returns 0.
    int addWriterReaderPair(const GUID_t& remoteWriter, const EntityId_t& localReader);
    // 0, or 1 when the writer was not in the table.
    int removeWriterReaderPair(const GUID_t& remoteWriter);

    DomainParticipantImpl* getOwner() const { return m_pOwner; }

private:
    // Seam: the built-in endpoints, the remote tables, their handles and the timers join here.
    DomainParticipantImpl* m_pOwner;                 // borrowed
    std::map<GUID_t, EntityId_t> m_WriterReaderMap;  // remote writer -> local reader
    Mutex* m_pParticipantListMutex;                  // owned
    Mutex* m_pWriterListMutex;                       // owned; also guards m_WriterReaderMap
    Mutex* m_pReaderListMutex;                       // owned
};
