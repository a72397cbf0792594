#include "requests/RequestFactory.h"

// The creating operations of the request classes are defined here, one block
// per class, each as
//
//     return CreateRequest<Class>(pScheduler, entityId, own arguments...);
//
// so that every request gets the named scheduler's processor and transmitter
// and zero start and next times.
//
// HeartbeatMessageRequest:
// DataMessageRequest:
// DataMessageRequest_L:
// DataMessageWithReaderProxy:
// AcknackMessageRequest: own arguments end with pScheduler itself.
// NackFragMessageRequest:
// FragRepairRequest:
