// Builds requests for a named scheduler: the processor and transmitter come from
// that scheduler, start and next time are zero. Called by endpoints on any
// thread; takes no lock. The caller owns the result until it hands it over.
#pragma once

#include <new>
#include <utility>

#include "BasicTypes.h"
#include "requests/DataMessageRequest.h"
#include "requests/DataMessageRequest_L.h"
#include "requests/DataMessageWithReaderProxy.h"
#include "requests/RequestScheduler.h"

class RequestFactory {
public:
    // Allocates a T whose constructor has the request form (entity id, own
    // arguments..., processor, transmitter, start time, next time). Null when
    // the scheduler is null or memory runs out.
    template <class T, class... Args>
    static T* CreateRequest(RequestScheduler* pScheduler, const EntityId_t& entityId, Args&&... args) {
        if (pScheduler == nullptr) return nullptr;
        return new (std::nothrow) T(entityId, std::forward<Args>(args)..., pScheduler->GetMessageProcessor(),
                                    pScheduler->GetMessageTransmitter(), Time_t(0, 0), Time_t(0, 0));
    }

    // The change stays the writer's: the request keeps its number and length only.
    static DataMessageRequest* CreateDataMessageRequest(RequestScheduler* pScheduler,
                                                        const EntityId_t& entityId,
                                                        const std::list<GUID_t>& readers,
                                                        const CacheChange& change);
    // The request takes over pCacheChange; on a null result the caller keeps it.
    static DataMessageRequest_L* CreateDataMessageRequest_L(RequestScheduler* pScheduler,
                                                            const EntityId_t& entityId,
                                                            CacheChange* pCacheChange);
    static DataMessageWithReaderProxy* CreateDataMessageWithReaderProxy(RequestScheduler* pScheduler,
                                                                        const EntityId_t& entityId,
                                                                        const GUID_t& readerGuid);

    // One creating operation per request class, each a CreateRequest<Class>
    // with the class's own arguments; the classes add them here as they land
    // (declared next to the class's header include, defined in the .cpp):
    //
    // HeartbeatMessageRequest* CreateHeartbeatMessageRequest(RequestScheduler*,
    //     const EntityId_t&, const std::list<GUID_t>& readers);
    // AcknackMessageRequest* CreateAcknackMessageRequest(RequestScheduler*,
    //     const EntityId_t&, const GUID_t& writerGuid, const SequenceNumberSet&);
    //     (passes the named scheduler on as the request's own scheduler)
    // NackFragMessageRequest* CreateNackFragMessageRequest(RequestScheduler*,
    //     const EntityId_t&, const GUID_t& writerGuid, const SequenceNumber_t&, const FragmentNumberSet&);
    // FragRepairRequest* CreateFragRepairRequest(RequestScheduler*, const EntityId_t&,
    //     const GUID_t& readerGuid, const SequenceNumber_t&, const FragmentNumberSet&);
    // Like the data requests, they name proxies by GUID, never by pointer: a queued
    // request resolves them under a loan of its endpoint and ends quietly if they are gone.
};
