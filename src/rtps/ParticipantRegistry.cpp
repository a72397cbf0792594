// The endpoint registry: borrowing and giving back, deletion, the matched-reader look-up
// and the liveliness walks over the application endpoints. The map lock guards map work
// only; endpoint code, deletion and listeners run after it is released.
#include <chrono>

#include "discovery/Discovery.h"  // layer-ok: the process thread finds its reader through the matching table, which lives one layer up
#include "rtps/Endpoint.h"
#include "rtps/EndpointLoan.h"
#include "rtps/Participant.h"
#include "rtps/StatefulReader.h"
#include "rtps/Writer.h"

bool Participant::isEndpointExist(EntityId_t entityId) {
    std::lock_guard<std::mutex> lock(m_EndpointMapMutex);
    return m_EndpointMap.count(entityId) != 0;
}

Endpoint* Participant::takeEndpoint(EntityId_t entityId) {
    return borrow(entityId, BORROW_WAIT);
}

Endpoint* Participant::tryTakeEndpoint(const EntityId_t& entityId) {
    return borrow(entityId, BORROW_NO_WAIT);
}

Endpoint* Participant::takeEndpointIfExists(const EntityId_t& entityId) {
    return borrow(entityId, BORROW_WAIT_QUIET);
}

Endpoint* Participant::borrow(const EntityId_t& entityId, BorrowMode mode, bool* pbExists) {
    const std::thread::id self = std::this_thread::get_id();
    const auto start = std::chrono::steady_clock::now();
    bool bWaitLogged = false;
    std::unique_lock<std::mutex> lock(m_EndpointMapMutex);
    for (;;) {
        auto it = m_EndpointMap.find(entityId);
        if (it == m_EndpointMap.end()) {
            // Unknown, or deleted while we waited.
            lock.unlock();
            if (pbExists != nullptr) *pbExists = false;
            if (mode == BORROW_WAIT) LogText("[Participant::takeEndpoint] Donot Exist");
            return nullptr;
        }
        EndpointSlot& slot = it->second;
        if (slot.bKeptTaken) {
            // Left out of the table on purpose: waiting for it would never end.
            lock.unlock();
            if (mode != BORROW_NO_WAIT) LogText("[Participant::takeEndpoint] Kept Taken and refused");
            return nullptr;
        }
        if (slot.holder == std::thread::id()) {
            slot.holder = self;
            return slot.pEndpoint;
        }
        if (mode == BORROW_NO_WAIT) return nullptr;
        if (slot.holder == self) {
            // This thread would wait for itself.
            lock.unlock();
            LogText("[Participant::takeEndpoint] Borrowed Twice by one thread and refused");
            return nullptr;
        }
        // Only one thread holds an endpoint at a time; the others wait to be woken by its return.
        waitForReturn(lock, start, bWaitLogged, "takeEndpoint");
    }
}

int Participant::returnEndpoint(Endpoint* pEndpoint) {
    if (pEndpoint == nullptr) return 1;
    {
        std::lock_guard<std::mutex> lock(m_EndpointMapMutex);
        auto it = m_EndpointMap.find(pEndpoint->getEntityId());
        if (it != m_EndpointMap.end()) {
            it->second.pEndpoint = pEndpoint;
            it->second.holder = std::thread::id();
            it->second.bKeptTaken = false;
            m_EndpointReturned.notify_all();
            return 0;
        }
    }
    LogText("[Participant::returnEndpoint] m_EndpointMap.count error");
    return 1;
}

void Participant::keepEndpointTaken(Endpoint* pEndpoint) {
    if (pEndpoint == nullptr) return;
    std::lock_guard<std::mutex> lock(m_EndpointMapMutex);
    auto it = m_EndpointMap.find(pEndpoint->getEntityId());
    if (it == m_EndpointMap.end()) return;
    it->second.holder = std::thread::id();
    it->second.bKeptTaken = true;
    // Whoever waits for it must now see the refusal instead of waiting on.
    m_EndpointReturned.notify_all();
}

StatefulReader* Participant::lookupMatchedReader(GUID_t remoteWriter) {
    EntityId_t readerId = ENTITYID_UNKNOWN;
    if (m_pDiscovery != nullptr) m_pDiscovery->getLocalReaderOfWriter(readerId, remoteWriter);
    if (readerId == ENTITYID_UNKNOWN) {
        LogText("[Participant::lookupMatchedReader] pReader = ENTITYID_UNKNOW");
        return nullptr;
    }
    // One look-up: an absent reader is reported here, not by the borrow.
    bool bExists = true;
    Endpoint* pEndpoint = borrow(readerId, BORROW_WAIT_QUIET, &bExists);
    if (!bExists) {
        LogText("[Participant::lookupMatchedReader] Donot Exist");
        return nullptr;
    }
    if (pEndpoint == nullptr) return nullptr;
    StatefulReader* pReader = dynamic_cast<StatefulReader*>(pEndpoint);
    if (pReader == nullptr) {
        // A writer under a reader's id: give it back rather than lose it.
        returnEndpoint(pEndpoint);
        return nullptr;
    }
    return pReader;
}

void Participant::waitForReturn(std::unique_lock<std::mutex>& lock,
                                const std::chrono::steady_clock::time_point& start, bool& bLogged,
                                const char* szOperation) {
    // Only one thread holds an endpoint at a time; the others wait to be woken by its return.
    m_EndpointReturned.wait_for(lock, std::chrono::milliseconds(100));
    if (bLogged || std::chrono::steady_clock::now() - start < std::chrono::milliseconds(BORROW_WAIT_LOG_MS))
        return;
    bLogged = true;
    lock.unlock();
    LogText("[Participant::%s] Waited %d ms for a borrowed endpoint", szOperation, BORROW_WAIT_LOG_MS);
    lock.lock();
}

// ------------------------------------------------------------------ deletion

bool Participant::eraseWhenReturned(Endpoint* pEndpoint, const char* szOperation) {
    const EntityId_t entityId = pEndpoint->getEntityId();
    const std::thread::id self = std::this_thread::get_id();
    const auto start = std::chrono::steady_clock::now();
    bool bWaitLogged = false;
    std::unique_lock<std::mutex> lock(m_EndpointMapMutex);
    for (;;) {
        auto it = m_EndpointMap.find(entityId);
        // An endpoint not in the map is not ours to delete.
        if (it == m_EndpointMap.end() || it->second.pEndpoint != pEndpoint) return false;
        const std::thread::id holder = it->second.holder;
        if (holder == std::thread::id()) {
            // Free, or left taken on purpose: nobody is using it.
            m_EndpointMap.erase(it);
            m_EndpointReturned.notify_all();
            return true;
        }
        if (holder == self) {
            lock.unlock();
            LogText("[Participant::%s] Borrowed by the deleting thread and kept", szOperation);
            return false;
        }
        waitForReturn(lock, start, bWaitLogged, szOperation);
    }
}

// Both wait until nobody holds the endpoint. They used to differ in how they waited (a sleep
// against a spin); a wake on return serves both better.
int Participant::deleteReader(Endpoint* pEndpoint) {
    if (pEndpoint != nullptr && eraseWhenReturned(pEndpoint, "deleteReader")) delete pEndpoint;
    return 0;
}

int Participant::deleteWriter(Endpoint* pEndpoint) {
    if (pEndpoint != nullptr && eraseWhenReturned(pEndpoint, "deleteWriter")) delete pEndpoint;
    return 0;
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

std::vector<EntityId_t> Participant::applicationEndpointIds(bool bWriters) {
    std::vector<EntityId_t> ids;
    std::lock_guard<std::mutex> lock(m_EndpointMapMutex);
    ids.reserve(m_EndpointMap.size());
    for (const auto& entry : m_EndpointMap) {
        const bool bBuiltin = bWriters ? isBuiltinWriterId(entry.first) : isBuiltinReaderId(entry.first);
        if (!bBuiltin) ids.push_back(entry.first);
    }
    return ids;
}

void Participant::walk(const std::vector<EntityId_t>& ids, const std::function<void(Endpoint*)>& fnStep) {
    for (const EntityId_t& entityId : ids) {
        // Whatever another thread holds (or was left taken) misses this pass.
        EndpointLoan loan = EndpointLoan::TryBorrow(this, entityId);
        if (loan) fnStep(loan.get());
    }
}

int Participant::checkWriterLiveliness(Time_t now) {
    walk(applicationEndpointIds(true), [now](Endpoint* pEndpoint) {
        if (Writer* pWriter = dynamic_cast<Writer*>(pEndpoint)) pWriter->checkLiveliness(now);
    });
    return 0;
}

int Participant::checkReaderLiveliness(Time_t now) {
    walk(applicationEndpointIds(false), [now](Endpoint* pEndpoint) {
        if (StatefulReader* pReader = dynamic_cast<StatefulReader*>(pEndpoint)) pReader->checkLiveliness(now);
    });
    return 0;
}

int Participant::assertWriterLiveliness(uint32_t uiLivelinessKind) {
    walk(applicationEndpointIds(true), [uiLivelinessKind](Endpoint* pEndpoint) {
        if (Writer* pWriter = dynamic_cast<Writer*>(pEndpoint)) pWriter->assertLiveliness(uiLivelinessKind);
    });
    return 0;
}

int Participant::assertReaderLiveliness(GUID_t remote, Time_t now, uint32_t uiLivelinessKind) {
    walk(applicationEndpointIds(false), [&remote, now, uiLivelinessKind](Endpoint* pEndpoint) {
        if (StatefulReader* pReader = dynamic_cast<StatefulReader*>(pEndpoint))
            pReader->assertLiveliness(remote, now, uiLivelinessKind);
    });
    return 0;
}
