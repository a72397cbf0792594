// What the protocol reader needs from the layer above it (the DataReaderImpl),
// so that rtps never includes dcps headers. Called on the process thread with
// the reader borrowed, and on the lease-check timer thread; takes no rtps lock.
#pragma once

#include "BasicTypes.h"

class CacheChange;

class ReaderDataSink {
public:
    virtual ~ReaderDataSink() = default;

    // A change that has just been added to the reader cache (or dropped by the
    // cache as a duplicate key). The change must not be kept past the call
    // unless it is in the cache. Returns 0.
    virtual int DataReceive(CacheChange* pCacheChange) = 0;
    // The writer that currently owns the topic under exclusive ownership;
    // GUID_UNKNOWN when none.
    virtual GUID_t getOwnerGuid() = 0;
    // The writer's number of the last change received, for the receive log.
    virtual void setLastSequenceNumber(const SequenceNumber_t& seqNum) = 0;
    // A matched writer lost (false) or regained (true) its liveliness.
    virtual void livelinessChanged(bool bAlive) = 0;
};
