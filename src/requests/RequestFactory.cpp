#include "requests/RequestFactory.h"

#include "rtps/CacheChange.h"  // layer-ok: the request keeps the number and length of the writer's change

// The creating operations of the request classes are defined here, one block
// per class, each as
//
//     return CreateRequest<Class>(pScheduler, entityId, own arguments...);
//
// so that every request gets the named scheduler's processor and transmitter
// and zero start and next times.
//
// HeartbeatMessageRequest:
// AcknackMessageRequest: own arguments end with pScheduler itself.
// NackFragMessageRequest:
// FragRepairRequest:

DataMessageRequest* RequestFactory::CreateDataMessageRequest(RequestScheduler* pScheduler,
                                                             const EntityId_t& entityId,
                                                             const std::list<GUID_t>& readers,
                                                             const CacheChange& change) {
    return CreateRequest<DataMessageRequest>(pScheduler, entityId, readers, change.sequenceNumber,
                                             change.dataLength);
}

DataMessageRequest_L* RequestFactory::CreateDataMessageRequest_L(RequestScheduler* pScheduler,
                                                                 const EntityId_t& entityId,
                                                                 CacheChange* pCacheChange) {
    return CreateRequest<DataMessageRequest_L>(pScheduler, entityId, pCacheChange);
}

DataMessageWithReaderProxy* RequestFactory::CreateDataMessageWithReaderProxy(RequestScheduler* pScheduler,
                                                                             const EntityId_t& entityId,
                                                                             const GUID_t& readerGuid) {
    return CreateRequest<DataMessageWithReaderProxy>(pScheduler, entityId, readerGuid);
}
